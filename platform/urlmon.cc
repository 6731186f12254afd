// URLDownloadToFileW and URLDownloadToCacheFileW over the platform layer's transfer engine.
//
// A download runs on the calling thread: the engine's transfer pulls the body into a buffer that
// goes to a temporary file beside the destination. IBinding::Abort (from any thread) stops the
// transfer at once; the engine's clock keeps the stall limit.
#ifndef _WIN32

#include "platform/urlmon.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <string>
#include <system_error>

#include "platform/transfer.h"
#include "platform/urlmon_internal.h"
#include "platform/wide_text.h"
#include "platform/wininet_session.h"
#include "tqutil/user_agent.h"
#include "tqutil/utf8.h"

namespace tqplatform {
namespace {

constexpr DWORD kErrorDiskFull = 112;
constexpr DWORD kErrorFilenameExcedRange = 206;
constexpr DWORD kErrorInvalidName = 123;
constexpr const char* kUserAgent = qv::kUserAgent;

std::atomic<long> g_connect_ms{UrlDownloadLimits{}.connect_ms};
std::atomic<long> g_stall_ms{UrlDownloadLimits{}.stall_ms};

// Win32 error of a failed file operation, as the Windows file functions would report it.
HRESULT HResultFromErrno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
      return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
    case ENOSPC:
    case EDQUOT:
      return HRESULT_FROM_WIN32(kErrorDiskFull);
    case ENAMETOOLONG:
      return HRESULT_FROM_WIN32(kErrorFilenameExcedRange);
    case ENOMEM:
      return E_OUTOFMEMORY;
    default:
      return E_FAIL;
  }
}

HRESULT HResultFromStatus(long status) {
  switch (status) {
    case 401:
    case 403:
    case 407:
      return E_ACCESSDENIED;
    case 404:
    case 410:
      return INET_E_OBJECT_NOT_FOUND;
    default:
      return INET_E_DOWNLOAD_FAILURE;
  }
}

HRESULT HResultFromCurl(CURLcode code) {
  switch (code) {
    case CURLE_OK:
      return S_OK;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return INET_E_UNKNOWN_PROTOCOL;
    case CURLE_URL_MALFORMAT:
      return MK_E_SYNTAX;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return INET_E_RESOURCE_NOT_FOUND;
    case CURLE_COULDNT_CONNECT:
      return INET_E_CANNOT_CONNECT;
    case CURLE_OPERATION_TIMEDOUT:
      return INET_E_CONNECTION_TIMEOUT;
    case CURLE_TOO_MANY_REDIRECTS:
      return INET_E_REDIRECT_FAILED;
    case CURLE_OUT_OF_MEMORY:
      return E_OUTOFMEMORY;
    case CURLE_PEER_FAILED_VERIFICATION:
      return INET_E_INVALID_CERTIFICATE;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return INET_E_SECURITY_PROBLEM;
    default:
      return INET_E_DOWNLOAD_FAILURE;
  }
}

// libcurl's counts are 64-bit, the callback's are 32-bit: both are halved together until they
// fit, so that the fraction stays right for files of 4 GiB and more.
void ScaleProgress(std::uint64_t done, std::uint64_t total, ULONG* out_done, ULONG* out_total) {
  while (done > 0xFFFFFFFFu || total > 0xFFFFFFFFu) {
    done >>= 1;
    total >>= 1;
  }
  *out_done = static_cast<ULONG>(done);
  *out_total = static_cast<ULONG>(total);
}

// The IBinding handed to OnStartBinding. Reference-counted, since a callback may keep it past
// the download; Abort is safe from any thread and wakes the download loop at once.
class Binding final : public IBinding {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IBinding)) {
      *object = static_cast<IBinding*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE Abort() override {
    // The download may end, and drop its references, as soon as it sees the flag: hold one of
    // our own until Abort is done with the object.
    AddRef();
    m_stop.Stop();
    Release();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Suspend() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Resume() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetPriority(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPriority(LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetBindResult(CLSID*, DWORD*, LPOLESTR*, DWORD*) override {
    return E_NOTIMPL;
  }

  StopSignal& stop() { return m_stop; }

 private:
  ~Binding() = default;
  std::atomic<ULONG> m_refs{1};
  StopSignal m_stop;
};

struct BindingRef {
  Binding* binding = new Binding();
  BindingRef() = default;
  BindingRef(const BindingRef&) = delete;
  BindingRef& operator=(const BindingRef&) = delete;
  ~BindingRef() { binding->Release(); }
};

// Whether a download may put its file at `destination`. Something there that is no regular
// file (a directory, a device, a FIFO, a socket) is not replaced: the rename would put a plain
// file where the system or another program keeps something else (run as root, a download to
// /dev/null would replace the device). A link there is replaced itself, never followed.
HRESULT CheckDestination(const std::string& destination) {
  struct stat st = {};
  if (::lstat(destination.c_str(), &st) != 0) return S_OK;  // none, or the open will tell
  if (S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) return S_OK;
  return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
}

// The temporary file beside the destination: removed unless Commit renamed it into place.
class TempFile {
 public:
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    if (m_fd >= 0) ::close(m_fd);
    if (!m_path.empty()) ::unlink(m_path.c_str());
  }

  HRESULT Create(const std::string& destination) {
    // A destination whose name fits must not fail for want of room for the suffix: its name is
    // cut to leave that room, and the last character the cut may have split is dropped whole.
    constexpr std::size_t kSuffixSize = 22;
    std::string base = destination;
    const std::size_t name_start = base.rfind('/') + 1;  // npos + 1 == 0
    if (base.size() - name_start + kSuffixSize > NAME_MAX) {
      base.resize(name_start + NAME_MAX - kSuffixSize);
      const auto continuation = [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
      };
      while (base.size() > name_start && continuation(base.back())) base.pop_back();
      if (base.size() > name_start) base.pop_back();
    }
    // A file replaced keeps its permissions: a private file downloaded again stays private.
    // Not its set-user, set-group or sticky bits: what a server sent is never made a program
    // that runs as the file's owner. The copy is made with them at once: made wider and
    // narrowed later, it could be opened by another user meanwhile, who would then read it all.
    struct stat old = {};
    const bool replaces = ::lstat(destination.c_str(), &old) == 0 && S_ISREG(old.st_mode);
    const mode_t mode = replaces ? (old.st_mode & 0777) : 0666;
    std::random_device seed;
    std::mt19937_64 random(seed());
    for (int attempt = 0; attempt < 16; ++attempt) {
      char suffix[kSuffixSize + 1];
      std::snprintf(suffix, sizeof suffix, ".%016llx.part",
                    static_cast<unsigned long long>(random()));
      std::string path = base + suffix;
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
      if (fd >= 0) {
        m_fd = fd;
        m_path = std::move(path);
        // What the umask took off the file's own bits.
        if (replaces) (void)::fchmod(fd, mode);
        return S_OK;
      }
      if (errno != EEXIST) return HResultFromErrno(errno);
    }
    return E_FAIL;
  }

  // False with `*error` set when the bytes could not all be written.
  bool Write(const char* data, std::size_t size, HRESULT* error) {
    while (size > 0) {
      const ssize_t n = ::write(m_fd, data, size);
      if (n < 0) {
        if (errno == EINTR) continue;
        *error = HResultFromErrno(errno);
        return false;
      }
      data += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }

  HRESULT Commit(const std::string& destination) {
    // Flushed before the rename, so that a crash never leaves a short file under the name. The
    // descriptor is closed whether or not the flush worked.
    const int flush_error = ::fsync(m_fd) != 0 ? errno : 0;
    const int close_error = ::close(m_fd) != 0 ? errno : 0;
    m_fd = -1;
    if (flush_error != 0 || close_error != 0) {
      return HResultFromErrno(flush_error != 0 ? flush_error : close_error);
    }
    if (HRESULT hr = CheckDestination(destination); FAILED(hr)) return hr;
    if (::rename(m_path.c_str(), destination.c_str()) != 0) return HResultFromErrno(errno);
    m_path.clear();
    return S_OK;
  }

 private:
  int m_fd = -1;
  std::string m_path;
};

// The callback's side of a download: its progress reports, and whether it asked to stop.
class Progress {
 public:
  explicit Progress(IBindStatusCallback* callback) : m_callback(callback) {}

  bool aborted() const { return m_aborted; }

  // A report without a count; any failure the callback returns asks to stop, as from Report.
  void Tell(ULONG status_code, LPCWSTR text) {
    if (m_callback != nullptr && FAILED(m_callback->OnProgress(0, 0, status_code, text))) {
      m_aborted = true;
    }
  }

  void Report(ULONG status_code, std::uint64_t total) {
    if (m_callback == nullptr) return;
    ULONG done = 0;
    ULONG max = 0;
    ScaleProgress(m_received, total, &done, &max);
    if (FAILED(m_callback->OnProgress(done, max, status_code, nullptr))) m_aborted = true;
  }

  void Received(std::size_t bytes, std::uint64_t total) {
    if (!m_began) {
      m_began = true;
      Report(BINDSTATUS_BEGINDOWNLOADDATA, total);
    }
    m_received += bytes;
    Report(BINDSTATUS_DOWNLOADINGDATA, total);
  }

 private:
  IBindStatusCallback* m_callback;
  std::uint64_t m_received = 0;
  bool m_began = false;
  bool m_aborted = false;
};

// A download's own slot: fresh handles for each download, dropped when it ends. Between the
// hops of a redirect it is kept, so that the next hop may go on the connection the last came on.
class OwnSlot final : public SlotSource {
 public:
  std::unique_ptr<TransferSlot> Acquire(const StopSignal& stop,
                                        std::optional<std::chrono::milliseconds>,
                                        DWORD* error) override {
    if (stop.stopped()) {
      *error = ERROR_INTERNET_OPERATION_CANCELLED;
      return nullptr;
    }
    if (kept_ != nullptr) return std::move(kept_);
    auto slot = TransferSlot::Create();
    if (slot == nullptr) *error = ERROR_NOT_ENOUGH_MEMORY;
    return slot;
  }
  void Release(std::unique_ptr<TransferSlot> slot) override { kept_ = std::move(slot); }

 private:
  std::unique_ptr<TransferSlot> kept_;
};

// The result of a transfer that failed with the engine's `error`: libcurl's own result when it
// has one, else what the engine's refusal means here.
HRESULT HResultFromTransfer(const Transfer& transfer, DWORD error) {
  // Memory that ran out in the engine's own work aborts libcurl with a result of its own.
  if (error == ERROR_NOT_ENOUGH_MEMORY) return E_OUTOFMEMORY;
  if (transfer.curl_result() != CURLE_OK) return HResultFromCurl(transfer.curl_result());
  switch (error) {
    case ERROR_INTERNET_OPERATION_CANCELLED:
      return E_ABORT;
    case ERROR_INTERNET_TIMEOUT:
      return INET_E_CONNECTION_TIMEOUT;
    case ERROR_HTTP_REDIRECT_FAILED:
    case ERROR_INTERNET_HTTPS_TO_HTTP_ON_REDIR:
      return INET_E_REDIRECT_FAILED;
    default:
      return INET_E_DOWNLOAD_FAILURE;
  }
}

TransferRequest DescribeDownload(const std::string& url) {
  TransferRequest request;
  request.url = url;
  request.agent = kUserAgent;
  request.limits.connect = std::chrono::milliseconds(g_connect_ms.load());
  request.limits.idle = std::chrono::milliseconds(g_stall_ms.load());
  request.ca_file = TestCaFile();
  // A redirect from https to http is refused, as the WinINet requests refuse it: the bytes of a
  // file asked for over https would come where anyone on the way can change them.
  request.redirects.allow_https_to_http = false;
  return request;
}

// Runs the transfer and writes its body to `file`; the result says how it ended.
HRESULT Fetch(Transfer& transfer, const std::string& url, TempFile& file, Progress& progress) {
  if (DWORD error = transfer.Open(DescribeDownload(url))) {
    return HResultFromTransfer(transfer, error);
  }
  const long status = transfer.response().status_code();
  if (status >= 400) return HResultFromStatus(status);  // an error page is never saved
  // A part of the file, where the whole was asked for: saved, it would pass for the file.
  if (status == 206) return INET_E_DOWNLOAD_FAILURE;
  std::unique_ptr<char[]> buffer(new char[Transfer::kBufferSize]);
  for (;;) {
    std::size_t got = 0;
    if (DWORD error = transfer.Read(buffer.get(), Transfer::kBufferSize, &got)) {
      return HResultFromTransfer(transfer, error);
    }
    if (got == 0) break;
    HRESULT write_error = S_OK;
    if (!file.Write(buffer.get(), got, &write_error)) return write_error;
    progress.Received(got, transfer.content_length());
    if (progress.aborted()) return E_ABORT;
  }
  // An answer that is neither a success nor an error (a 3xx that was not followed).
  return status >= 200 && status <= 299 ? S_OK : INET_E_DOWNLOAD_FAILURE;
}

// Checks the URL before any callback: an absolute http or https URL that libcurl can parse once
// what follows its authority is percent-encoded as a request line needs (`*utf8` is that URL).
HRESULT CheckUrl(LPCWSTR url, std::string* utf8) {
  if (url == nullptr || *url == L'\0') return E_INVALIDARG;
  *utf8 = WideToUtf8(url);
  const std::size_t authority = utf8->find("://");
  if (authority != std::string::npos) {
    const std::size_t rest = utf8->find_first_of("/?#", authority + 3);
    if (rest != std::string::npos) {
      *utf8 = utf8->substr(0, rest) + PercentEncodeUnsafe(std::string_view(*utf8).substr(rest));
    }
  }
  UrlParts parts;
  if (!ParseUrl(*utf8, &parts)) return MK_E_SYNTAX;
  if (parts.scheme != "http" && parts.scheme != "https") return INET_E_UNKNOWN_PROTOCOL;
  return S_OK;
}

// The download between the callback's start and stop: the temporary file is gone by the time
// it returns (or throws), unless it was renamed into place.
HRESULT Save(Transfer& transfer, const std::string& url, const std::string& destination,
             Progress& progress, const StopSignal& stop, const std::wstring& cache_file) {
  if (HRESULT hr = CheckDestination(destination); FAILED(hr)) return hr;
  TempFile file;
  if (HRESULT hr = file.Create(destination); FAILED(hr)) return hr;
  if (!cache_file.empty()) progress.Tell(BINDSTATUS_CACHEFILENAMEAVAILABLE, cache_file.c_str());
  if (!progress.aborted()) progress.Report(BINDSTATUS_CONNECTING, 0);
  const auto stopped = [&] { return progress.aborted() || stop.stopped(); };
  HRESULT result = stopped() ? E_ABORT : Fetch(transfer, url, file, progress);
  if (SUCCEEDED(result) && stopped()) result = E_ABORT;
  if (SUCCEEDED(result)) result = file.Commit(destination);
  if (SUCCEEDED(result)) progress.Report(BINDSTATUS_ENDDOWNLOADDATA, transfer.content_length());
  return result;
}

// Downloads `url` to `destination` (UTF-8 path) and tells `callback` about it.
HRESULT Download(const std::string& url, const std::string& destination,
                 IBindStatusCallback* callback, const std::wstring& cache_file) {
  EnsureCurlInitialised();
  BindingRef binding;
  if (callback != nullptr && FAILED(callback->OnStartBinding(0, binding.binding))) {
    callback->OnStopBinding(E_ABORT, nullptr);
    return E_ABORT;
  }
  OwnSlot slot;
  Transfer transfer(slot, binding.binding->stop());
  Progress progress(callback);
  HRESULT result = E_OUTOFMEMORY;
  try {
    result = Save(transfer, url, destination, progress, binding.binding->stop(), cache_file);
  } catch (const std::bad_alloc&) {
    // A callback told the download started is told it stopped, also when memory ran out: it
    // may hold the binding until then.
  }
  if (callback != nullptr) {
    std::wstring text;
    try {
      if (FAILED(result)) text = Latin1ToWide(transfer.error_text());
    } catch (const std::bad_alloc&) {
      // The result alone, without libcurl's words for it.
    }
    callback->OnStopBinding(result, text.empty() ? nullptr : text.c_str());
  }
  return result;
}

// The UTF-8 path of a file name; false when the name holds what no UTF-8 name can (an unpaired
// surrogate, a value past U+10FFFF): written as U+FFFD it would name, and replace, another file.
bool DestinationPath(LPCWSTR file_name, std::string* path) {
  bool valid = false;
  *path = qv::utf8::FromWide(file_name, &valid);
  return valid;
}

}  // namespace

UrlDownloadLimits SetUrlDownloadLimitsForTesting(UrlDownloadLimits limits) {
  UrlDownloadLimits previous;
  previous.connect_ms = g_connect_ms.exchange(limits.connect_ms);
  previous.stall_ms = g_stall_ms.exchange(limits.stall_ms);
  return previous;
}

std::string UrlDownloadCacheDirectory() {
  std::filesystem::path base;
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else if (home != nullptr && home[0] == '/') {
    base = std::filesystem::path(home) / ".cache";
  } else {
    return {};
  }
  return (base / "tqnetwork" / "downloads").string();
}

namespace {

std::error_code MakeOwnerOnlyDirectories(const std::filesystem::path& directory) {
  // Each directory made is the user's alone: the downloads kept there are theirs to read. One
  // that is there already keeps its mode.
  std::filesystem::path made;
  for (const auto& part : directory) {
    made /= part;
    if (::mkdir(made.c_str(), 0700) != 0 && errno != EEXIST) {
      return {errno, std::generic_category()};
    }
  }
  std::error_code error;
  if (!std::filesystem::is_directory(directory, error) && !error) {
    error = std::make_error_code(std::errc::not_a_directory);
  }
  if (error) return error;
  // The cache's own directories ("tqnetwork" and "downloads") must be the user's alone, whoever
  // made them: one that another user owns or may write, or a link planted in its place, would
  // let them replace a cached file between the download and the caller's reading it. A group
  // may write only when it is the user's own (a umask of 002 with a group per user).
  for (const auto& own : {directory.parent_path(), directory}) {
    struct stat st = {};
    if (::lstat(own.c_str(), &st) != 0) return {errno, std::generic_category()};
    const bool others_write =
        (st.st_mode & S_IWOTH) != 0 || ((st.st_mode & S_IWGRP) != 0 && st.st_gid != ::getegid());
    if (!S_ISDIR(st.st_mode) || st.st_uid != ::geteuid() || others_write) {
      return std::make_error_code(std::errc::permission_denied);
    }
  }
  return {};
}

}  // namespace

std::string UrlDownloadCacheFileName(const std::string& url) {
  // FNV-1a, 64 bits: stable across runs and systems, which a cache name must be.
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : url) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  std::string path = url;
  const std::size_t cut = path.find_first_of("?#");
  if (cut != std::string::npos) path.resize(cut);
  const std::size_t authority = path.find("://");
  const std::size_t path_start =
      authority == std::string::npos ? 0 : path.find('/', authority + 3);
  std::string segment;
  if (path_start != std::string::npos) {
    const std::size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash >= path_start) segment = path.substr(slash + 1);
  }
  if (segment.size() > 64) segment.resize(64);
  for (char& c : segment) {
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '_' || c == '-';
    if (!keep) c = '_';
  }
  if (segment.empty() || segment == "." || segment == "..") segment = "download";
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return std::string(hex) + "-" + segment;
}

}  // namespace tqplatform

extern "C" {

HRESULT URLDownloadToFileW(LPUNKNOWN, LPCWSTR url, LPCWSTR file_name, DWORD,
                           LPBINDSTATUSCALLBACK callback) try {
  std::string utf8_url;
  if (HRESULT hr = tqplatform::CheckUrl(url, &utf8_url); FAILED(hr)) return hr;
  if (file_name == nullptr || *file_name == L'\0') return E_INVALIDARG;
  std::string destination;
  if (!tqplatform::DestinationPath(file_name, &destination)) {
    return HRESULT_FROM_WIN32(tqplatform::kErrorInvalidName);
  }
  return tqplatform::Download(utf8_url, destination, callback, {});
} catch (const std::bad_alloc&) {
  // The caller expects a result, never an exception; the temporary file is gone by now.
  return E_OUTOFMEMORY;
}

HRESULT URLDownloadToCacheFileW(LPUNKNOWN, LPCWSTR url, LPWSTR file_name, DWORD file_name_length,
                                DWORD, LPBINDSTATUSCALLBACK callback) try {
  std::string utf8_url;
  if (HRESULT hr = tqplatform::CheckUrl(url, &utf8_url); FAILED(hr)) return hr;
  if (file_name == nullptr || file_name_length == 0) return E_INVALIDARG;

  const std::string directory = tqplatform::UrlDownloadCacheDirectory();
  if (directory.empty()) return E_FAIL;
  const std::string path = directory + "/" + tqplatform::UrlDownloadCacheFileName(utf8_url);
  bool ok = false;
  const std::wstring wide_path = tqplatform::Utf8ToWideStrict(path, &ok);
  if (!ok) return E_FAIL;
  if (wide_path.size() + 1 > file_name_length) return E_OUTOFMEMORY;
  if (const std::error_code error = tqplatform::MakeOwnerOnlyDirectories(directory)) {
    return tqplatform::HResultFromErrno(error.value());
  }

  const HRESULT result = tqplatform::Download(utf8_url, path, callback, wide_path);
  if (SUCCEEDED(result)) {
    std::copy(wide_path.begin(), wide_path.end(), file_name);
    file_name[wide_path.size()] = L'\0';
  }
  return result;
} catch (const std::bad_alloc&) {
  return E_OUTOFMEMORY;
}

}  // extern "C"

#endif  // _WIN32
