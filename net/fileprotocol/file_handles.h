// The records behind the opaque handles that the file layer passes back into HttpFileProtocol:
// one per open file, one per reading thread, one per read set up.
#pragma once

#include <cstdint>

#include "net/export.h"
#include "net/host/platform.h"
#include "net/host/tqutil.h"

namespace qv::net {

// Each record starts with a tag of its own kind, so that a null pointer, a handle of another
// protocol or of another kind (a thread handle passed as a file handle) is refused rather than
// used. A released handle has its tag cleared, which catches most double releases.
namespace detail {
inline constexpr std::uint32_t kFileHandleTag = 0x46485446;     // "FTHF"
inline constexpr std::uint32_t kThreadHandleTag = 0x54485446;   // "FTHT"
inline constexpr std::uint32_t kRequestHandleTag = 0x52485446;  // "FTHR"
}  // namespace detail

// One open file: the URL text as the caller gave it (the "%s" of every message about the
// file) and the parsed URL from which host, port, credentials and resource are taken.
class TQNET_EXPORT HttpFileHandle : public TqUFileHandle {
 public:
  HttpFileHandle(const wchar_t* url_text, const TqUURL& parsed_url);
  HttpFileHandle(const HttpFileHandle& other);
  // Takes the text over (the source's text is left empty) and copies the parsed URL.
  HttpFileHandle(HttpFileHandle&& other) noexcept;
  HttpFileHandle& operator=(const HttpFileHandle& other);
  HttpFileHandle& operator=(HttpFileHandle&& other) noexcept;
  ~HttpFileHandle();

  const TqUWideString& UrlText() const { return m_url_text; }
  const TqUURL& ParsedUrl() const { return m_parsed_url; }

  // The record behind `handle`; null for null or for anything this protocol did not make.
  static HttpFileHandle* From(TqUFileHandle* handle);

 private:
  std::uint32_t m_tag = detail::kFileHandleTag;
  TqUWideString m_url_text;
  TqUURL m_parsed_url;
};

// One reading thread's connection to the file's server. Owns the connection and closes it when
// destroyed. Used by one thread at a time.
class TQNET_EXPORT HttpFileThreadHandle : public TqUThreadHandle {
 public:
  HttpFileThreadHandle(bool secure, HINTERNET connection);
  HttpFileThreadHandle(const HttpFileThreadHandle&) = delete;
  HttpFileThreadHandle& operator=(const HttpFileThreadHandle&) = delete;
  ~HttpFileThreadHandle();

  bool IsSecure() const { return m_secure; }
  HINTERNET Connection() const { return m_connection; }

  static HttpFileThreadHandle* From(TqUThreadHandle* handle);

 private:
  std::uint32_t m_tag = detail::kThreadHandleTag;
  bool m_secure;
  HINTERNET m_connection;
};

// One read set up: the resource (path and query) to request.
class TQNET_EXPORT HttpFileRequestHandle : public TqUFileRequestHandle {
 public:
  explicit HttpFileRequestHandle(const wchar_t* resource);
  HttpFileRequestHandle(const HttpFileRequestHandle& other);
  HttpFileRequestHandle(HttpFileRequestHandle&& other) noexcept;
  HttpFileRequestHandle& operator=(const HttpFileRequestHandle& other);
  HttpFileRequestHandle& operator=(HttpFileRequestHandle&& other) noexcept;
  ~HttpFileRequestHandle();

  const TqUWideString& Resource() const { return m_resource; }

  static HttpFileRequestHandle* From(TqUFileRequestHandle* handle);

 private:
  std::uint32_t m_tag = detail::kRequestHandleTag;
  TqUWideString m_resource;
};

}  // namespace qv::net
