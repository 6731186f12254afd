// The http/https protocol of the host's file layer: remote files opened, read by byte range,
// asked for their size, time and revision, and downloaded whole. The file layer calls it
// through TqUFileProtocol; the host brings it up and down with Initialise and Terminate.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "net/export.h"
#include "net/host/platform.h"
#include "net/host/tqutil.h"
#include "net/http/http_request.h"

namespace qv::net {

/// One instance per process, registered under "http" and "https". Reads on different threads
/// use different thread handles (one WinINet connection each) and run independently; the
/// internet handle and the file-info cache are shared and safe to use from any thread.
class TQNET_EXPORT HttpFileProtocol : public TqUFileProtocol {
 public:
  /// The pre-authentication hook's answer. A value outside the two named ones is taken as
  /// NoCredentials: the request is given up, never resent without bound.
  enum PreHTTPAuthenticationResult : int { CredentialsSupplied = 0, NoCredentials = 1 };
  /// The host's hook that fills in credentials for a URL whose server asked for them.
  using PreHTTPAuthenticationFunc = PreHTTPAuthenticationResult (*)(const wchar_t* url,
                                                                    HttpCredentials* credentials);
  /// A host callback that may amend every URL resolved against a base (e.g. to add a token).
  using PostUrlResolutionFunc = void (*)(const TqUURL& base, const TqUURL& relative,
                                         TqUURL& resolved);

  HttpFileProtocol();
  ~HttpFileProtocol() override;

  bool SupportsDirectOpen() override;
  bool SupportsGetPut() override;
  bool SupportsOwnCache() override;
  bool IsRemote() override;
  using TqUFileProtocol::IsRemote;
  bool GetFileInfo(const wchar_t* url, TqUFileInfo* info) override;
  /// Downloads the whole file on the calling thread through the URL Moniker; false on failure.
  /// `progress` answering false does not stop it; an exception `progress` throws is rethrown
  /// once the download has returned.
  /// @{
  bool GetFile(const wchar_t* url, const wchar_t* local_path, TqUProgress* progress) override;
  bool GetFileToCache(const wchar_t* url, TqUProgress* progress,
                      TqUWideStringBuffer* cache_path) override;
  /// @}
  bool PutFile(const wchar_t* local_path, const wchar_t* url, TqUProgress* progress) override;
  /// Makes no request: a file that does not exist is found out by the first read.
  TqUFileHandle* OpenFile(const wchar_t* url, OpenMode mode) override;
  bool ReadFile(TqUFileHandle* file, TqUThreadHandle* thread, TqUFileRequestHandle* request,
                std::uint64_t offset, std::uint64_t size, unsigned char* buffer) override;
  bool WriteFile(TqUFileHandle* file, std::uint64_t offset, std::uint64_t size,
                 unsigned char* buffer) override;
  bool CloseFile(TqUFileHandle* file) override;
  bool SupportsReadFileToSize() override;
  /// Each WinINet read asks for at most 2 GiB, so a read of 4 GiB and more is split rather than
  /// cut to 32 bits. -1 on failure, else the bytes placed in `buffer` (fewer when the body is
  /// short); 0, with a message, when no request could be opened. A `size` of 0 makes no request
  /// and answers 0, or -1 when `total_size` is asked for (no size can be learnt without one).
  std::int64_t ReadFileToSize(TqUFileHandle* file, TqUThreadHandle* thread,
                              TqUFileRequestHandle* request, std::uint64_t offset,
                              std::uint64_t size, unsigned char* buffer,
                              std::uint64_t* total_size) override;
  TqUThreadHandle* CreateThreadHandle(TqUFileHandle* file) override;
  bool ReleaseThreadHandle(TqUThreadHandle* thread) override;
  TqUFileRequestHandle* SetupReadFile(TqUFileHandle* file, std::uint64_t offset,
                                      std::uint64_t size) override;
  bool ReleaseRequestHandle(TqUFileRequestHandle* request) override;
  bool ResolveAbsolute(const wchar_t* path, const wchar_t* base, const wchar_t* directory,
                       TqUWideStringBuffer* result) override;
  bool ResolveRelative(const wchar_t* base, const wchar_t* relative,
                       TqUWideStringBuffer* result) override;
  bool SetupOpenFile(const wchar_t* url, TqUWideStringBuffer* resolved, OpenMode mode) override;

  /// The user agent of the internet handle. A non-empty agent set before the handle is opened
  /// (by the first OpenFile or GetFileInfo) replaces the default "Torvik-Quillstone/23.1"; the
  /// handle keeps the agent it was opened with, so a later change applies to no request.
  /// Null or empty text restores the default; text holding CR or LF is ignored.
  void SetUserAgentW(const wchar_t* agent);
  /// As SetUserAgentW, from UTF-8 text.
  void SetUserAgentU(const char* agent);

  /// Registers one protocol object under "http" and "https" and installs
  /// DefaultPreHTTPAuthentication as the hook (replacing one set before); only the call that
  /// really initialises the component does the work. Terminate undoes it. Start-up and shut-down
  /// only.
  static void Initialise();
  /// Unregisters "http" and "https" and deletes the object "https" held; only the matching last
  /// call does it. A host that registered a protocol of its own under "https" before Initialise
  /// keeps it registered there, and Terminate deletes it: such a host unregisters it first.
  static void Terminate();
  /// Initialise has done its work and the matching Terminate has not yet run. The object is
  /// then registered, except under a scheme the host had taken first.
  static bool IsInitialised();

  /// Hooks (process-wide, not locked: install and remove them while no request runs).
  static void SetPreHTTPAuthenticationFunc(PreHTTPAuthenticationFunc hook);
  /// Asks the installed hook for the credentials of `url`; with no hook (null) it answers
  /// CredentialsSupplied and leaves `credentials` as they are.
  static PreHTTPAuthenticationResult PreHTTPAuthentication(const wchar_t* url,
                                                           HttpCredentials* credentials);
  /// The hook Initialise installs: the user name and password written in `url` itself when both
  /// are there (CredentialsSupplied: nothing the connection did not have, but one more try),
  /// else NoCredentials.
  static PreHTTPAuthenticationResult DefaultPreHTTPAuthentication(const wchar_t* url,
                                                                  HttpCredentials* credentials);
  /// Appends `callback`; callbacks run in the order added, one added twice runs twice. A null
  /// callback is accepted and skipped when callbacks run.
  static void AddPostUrlResolutionCallback(PostUrlResolutionFunc callback);
  /// Removes every entry of `callback` (one added twice goes at once); an unknown one is ignored.
  static void RemovePostUrlResolutionCallback(PostUrlResolutionFunc callback);

 private:
  bool OpenInetHandle();
  void CloseInetHandle();
  /// The agent to open the internet handle with (under m_internet_mutex).
  std::wstring UserAgentForOpen() const;

  /// Set once, from null, under m_internet_mutex; read without the lock afterwards.
  std::atomic<HINTERNET> m_internet{nullptr};
  TqUStringBuffer m_user_agent;
  TqUFileInfoCache m_file_info_cache{30};
  /// Guards the first opening of m_internet against two threads, and m_user_agent.
  mutable std::mutex m_internet_mutex;

  static PreHTTPAuthenticationFunc m_pre_http_authentication_func;
  static std::vector<PostUrlResolutionFunc> m_post_url_resolution_funcs;
};

}  // namespace qv::net
