// The records behind the opaque handles that the file layer passes back into HttpFileProtocol:
// one per open file, one per reading thread, one per read set up.
#pragma once

#include <memory>

#include "net/export.h"
#include "net/host/platform.h"
#include "net/host/tqutil.h"

namespace qv::net {

/// Every record handed out is kept in a registry of live handles of its kind until it is
/// released. A handle is only ever looked up there, never read: a null pointer, a released
/// handle, a handle of another protocol or of another kind (a thread handle passed as a file
/// handle) or any other pointer is refused without touching the memory it points to; so is a
/// thread or request handle passed with another file than the one it was made for. Each
/// call holds the record it looked up, so a handle released by another thread meanwhile dies
/// only when the calls still using it return. Safe from any thread.
/// One open file: the URL text as the caller gave it (the "%s" of every message about the
/// file) and the parsed URL from which host, port, credentials and resource are taken.
class TQNET_EXPORT HttpFileHandle : public TqUFileHandle {
 public:
  /// Copies both: the handle outlives the caller's texts.
  HttpFileHandle(const wchar_t* url_text, const TqUURL& parsed_url);
  /// A copy with its own text and URL.
  HttpFileHandle(const HttpFileHandle& other);
  /// Takes the text over (the source's text is left empty) and copies the parsed URL. Not
  /// noexcept: copying the URL allocates, and out of memory is an exception, not the end.
  HttpFileHandle(HttpFileHandle&& other);
  /// Assignments with the semantics of the constructors above.
  /// @{
  HttpFileHandle& operator=(const HttpFileHandle& other);
  HttpFileHandle& operator=(HttpFileHandle&& other);
  /// @}
  ~HttpFileHandle();

  /// The URL text as the caller gave it, for messages.
  const TqUWideString& UrlText() const { return m_url_text; }
  /// The parsed URL that requests are made from.
  const TqUURL& ParsedUrl() const { return m_parsed_url; }

  /// Hands `record` out as a handle: From finds it until Release.
  static TqUFileHandle* Adopt(std::unique_ptr<HttpFileHandle> record);
  /// The live record behind `handle`; null for anything else.
  static std::shared_ptr<HttpFileHandle> From(TqUFileHandle* handle);
  /// Takes the handle out of use; false (nothing done) when From would refuse it.
  static bool Release(TqUFileHandle* handle);

 private:
  TqUWideString m_url_text;
  TqUURL m_parsed_url;
};

/// One reading thread's connection to the file's server. Owns the connection and closes it when
/// destroyed. Used by one thread at a time.
class TQNET_EXPORT HttpFileThreadHandle : public TqUThreadHandle {
 public:
  /// Takes ownership of `connection`; `secure` selects TLS for its requests.
  HttpFileThreadHandle(bool secure, HINTERNET connection);
  HttpFileThreadHandle(const HttpFileThreadHandle&) = delete;
  HttpFileThreadHandle& operator=(const HttpFileThreadHandle&) = delete;
  ~HttpFileThreadHandle();

  /// Requests on this connection use TLS.
  bool IsSecure() const { return m_secure; }
  /// The connection, still owned by the handle.
  HINTERNET Connection() const { return m_connection; }
  /// Ties the handle to the file it was made for: it then serves reads of that file only (its
  /// connection goes to that file's server). A handle not tied serves any file.
  void TieToFile(const std::shared_ptr<HttpFileHandle>& file) { m_file = file; }
  /// True when the handle may serve a read of `file`.
  bool Serves(const std::shared_ptr<HttpFileHandle>& file) const;

  /// Registry of live thread handles, as for HttpFileHandle: Adopt hands a record out,
  /// From finds it (null for anything else), Release takes it out of use.
  /// @{
  static TqUThreadHandle* Adopt(std::unique_ptr<HttpFileThreadHandle> record);
  static std::shared_ptr<HttpFileThreadHandle> From(TqUThreadHandle* handle);
  static bool Release(TqUThreadHandle* handle);
  /// @}

 private:
  bool m_secure;
  HINTERNET m_connection;
  std::weak_ptr<HttpFileHandle> m_file;
};

/// One read set up: the resource (path and query) to request.
class TQNET_EXPORT HttpFileRequestHandle : public TqUFileRequestHandle {
 public:
  /// Copies the resource (path and query) that the read will request.
  explicit HttpFileRequestHandle(const wchar_t* resource);
  /// Plain value semantics: copies and moves carry the resource.
  ///@{
  HttpFileRequestHandle(const HttpFileRequestHandle& other);
  HttpFileRequestHandle(HttpFileRequestHandle&& other) noexcept;
  HttpFileRequestHandle& operator=(const HttpFileRequestHandle& other);
  HttpFileRequestHandle& operator=(HttpFileRequestHandle&& other) noexcept;
  ///@}
  ~HttpFileRequestHandle();

  /// The resource to request.
  const TqUWideString& Resource() const { return m_resource; }
  /// Ties the handle to the file it was set up for, as for HttpFileThreadHandle: the resource
  /// is that file's, and another file's read must not fetch it.
  void TieToFile(const std::shared_ptr<HttpFileHandle>& file) { m_file = file; }
  /// True when the handle may serve a read of `file`.
  bool Serves(const std::shared_ptr<HttpFileHandle>& file) const;

  /// Registry of live request handles, as for HttpFileHandle: Adopt hands a record out,
  /// From finds it (null for anything else), Release takes it out of use.
  /// @{
  static TqUFileRequestHandle* Adopt(std::unique_ptr<HttpFileRequestHandle> record);
  static std::shared_ptr<HttpFileRequestHandle> From(TqUFileRequestHandle* handle);
  static bool Release(TqUFileRequestHandle* handle);
  /// @}

 private:
  TqUWideString m_resource;
  std::weak_ptr<HttpFileHandle> m_file;
};

}  // namespace qv::net
