// The request side of the HTTP model: methods, well-known response headers, the request
// object (URL, method, ordered headers) and the credentials pair.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

enum class HttpMethod : std::int32_t { Head = 0, Get = 1, Put = 2, Post = 3 };

/// Response headers that can be queried by value rather than by name.
enum class HttpHeader : std::int32_t {
  ContentLength = 0,
  ETag = 1,
  RawHeaders = 2,  ///< all response headers, one per line, lines separated by CR LF
  RetryAfter = 3,
};

/// Which response header a query asks for: a well-known header (index 0) or any header by its
/// wide name (index 1), e.g. L"Date".
using HttpHeaderSelector = std::variant<HttpHeader, std::wstring>;

/// The wide method text of `method`; "" for a value outside the enumeration. Static storage.
TQNET_EXPORT const wchar_t* HttpMethodText(HttpMethod method);

/// One HTTP request: a URL, a method and an ordered list of request headers (duplicates kept).
/// Built by a caller, amended by the pre-request handlers, read by the transport. Neither
/// copyable nor movable.
class TQNET_EXPORT HttpRequest {
 public:
  /// The URL is parsed without normalisation and not checked: an unusable URL fails later, when
  /// a connection or request is made for it.
  HttpRequest(const wchar_t* url, HttpMethod method);
  /// As above, from a URL already parsed; it is copied.
  HttpRequest(const TqUURL& url, HttpMethod method);
  ~HttpRequest();
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  /// The URL as given (not normalised).
  const TqUURL& GetUrl() const;
  /// The URL's text, for messages and logs.
  const wchar_t* GetRawUrl() const;
  /// The method the request is sent with.
  HttpMethod GetMethod() const;
  /// "GET", "HEAD", "PUT" or "POST"; "" for a value outside HttpMethod. Static text.
  const wchar_t* GetMethodStr() const;
  /// Changes the method, e.g. a handler turning a HEAD into a GET.
  void SetMethod(HttpMethod method);

  /// Appends (name, value); no check for an existing name, no trimming. A name or value that
  /// holds CR, LF or NUL is refused: the pair is not stored (so it is never formatted, sent or
  /// seen by RemoveHeader) and the error log says a header was dropped. Such text would end the
  /// header line early and let whoever supplied it (a server's ETag kept in the cache, a
  /// pre-request handler) write headers of its own into the request.
  void AddHeader(const wchar_t* name, const wchar_t* value);
  /// Removes every header whose name equals `name` exactly (case-sensitive); the rest keep
  /// their order. A null `name` removes nothing.
  void RemoveHeader(const wchar_t* name);
  /// "name: value" pairs joined by CR LF, with no CR LF after the last; "" with no headers.
  /// Holds no CR, LF or NUL apart from the separators (see AddHeader).
  std::wstring FormatHeaders() const;
  /// The scheme is a secure one (https): the request goes over TLS.
  bool IsSecure() const;

 private:
  struct Impl;
  Impl* m_impl;
};

/// A user name and password pair, as the authentication hook fills it in.
class TQNET_EXPORT HttpCredentials {
 public:
  HttpCredentials();
  /// Copies both texts; null is taken as "".
  HttpCredentials(const wchar_t* username, const wchar_t* password);
  /// Plain value semantics: copies and moves carry both texts.
  ///@{
  HttpCredentials(const HttpCredentials&) = default;
  HttpCredentials(HttpCredentials&&) noexcept = default;
  HttpCredentials& operator=(const HttpCredentials&) = default;
  HttpCredentials& operator=(HttpCredentials&&) noexcept = default;
  ///@}
  ~HttpCredentials() = default;

  /// The user name; "" when none was given.
  const wchar_t* GetUsername() const { return m_username.GetString(); }
  /// The password; "" when none was given.
  const wchar_t* GetPassword() const { return m_password.GetString(); }
  /// Replaces the user name (copied).
  void SetUsername(const wchar_t* username) { m_username.SetString(username); }
  /// Replaces the password (copied).
  void SetPassword(const wchar_t* password) { m_password.SetString(password); }

 private:
  TqUWideString m_username;
  TqUWideString m_password;
};

}  // namespace qv::net
