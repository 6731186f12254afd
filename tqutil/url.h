// URLs of the host's utility library, parsed and normalised with Boost.URL.
#pragma once

#include <cstdint>
#include <memory>

#include "tqutil/export.h"
#include "tqutil/strings.h"

/// A parsed URL or relative reference.
///
/// The text is wide; non-ASCII characters are percent-encoded as UTF-8 when parsed (an IRI becomes
/// its URI). The host, user name and password getters return decoded text; every getter's text
/// stays valid until the URL is next changed.
///
/// The constructor's flag `normalise`: when true the URL is normalised at once (as Normalize()
/// does: scheme and host in lower case, a port that is the scheme's default (or empty) dropped,
/// encoded unreserved characters decoded and other encodings written in upper case, dot
/// segments removed from a URL with a scheme; a relative reference keeps them for its
/// resolution), so that texts naming the same resource compare equal. An encoded reserved
/// character ("%2F", "%26") stays encoded: it is data, not a delimiter. When false the URL is
/// kept as written.
///
/// IsValid() is true for an absolute URL that has a scheme and, for http and https, a host.
/// Relative references parse (ResolveRelative takes them) but are not valid on their own.
/// A text that would reach another server than the one it names does not parse (a port above
/// 65535 or 0, a NUL in the decoded host, user name or password, a host name decoded to a
/// character its URL could not hold as written ("%23", "%40", "%2F"), an IP literal of a future
/// version): such a URL has no host, so no connection is made for it.
class TQUTIL_API TqUURL {
 public:
  TqUURL();
  /// Parses `text`; see the class comment for `normalise`.
  TqUURL(const wchar_t* text, bool normalise);
  /// Plain value semantics; a moved-from URL is empty.
  ///@{
  TqUURL(const TqUURL& other);
  TqUURL(TqUURL&& other) noexcept;
  TqUURL& operator=(const TqUURL& other);
  TqUURL& operator=(TqUURL&& other) noexcept;
  ///@}
  ~TqUURL();

  /// An absolute URL with a scheme (and a host for http and https).
  bool IsValid() const;
  /// Normalises in place; false when the URL does not parse.
  bool Normalize();

  /// Lower-case scheme without ":" ("" for a relative reference).
  const wchar_t* GetScheme() const;
  /// Decoded host name without brackets for IPv6 ("" when none).
  const wchar_t* GetHostName() const;
  /// The port written in the URL, else the scheme's default (80 http, 443 https, 21 ftp), else 0.
  std::uint16_t GetPort() const;
  /// Decoded user name and password; null when the URL has none.
  const wchar_t* GetUserNameW() const;
  /// @copydoc GetUserNameW
  const wchar_t* GetPassword() const;
  /// Path and query as sent on the wire (percent-encoded); "/" for an empty path.
  const wchar_t* GetResource() const;
  /// The whole URL text.
  const wchar_t* GetString() const;
  /// The URL text without its fragment, into `out`.
  void GetFullURL(TqUWideStringBuffer* out) const;
  /// Replaces the query with text as written after "?" (percent-encodings are kept, characters
  /// not allowed there are encoded); an empty text removes the query and its "?".
  void SetQuery(const wchar_t* query);

  /// Resolves `relative` against `base` into `result`; false when it cannot be resolved (then
  /// `result` is left as it was).
  static bool ResolveRelative(const TqUURL& base, const TqUURL& relative, TqUURL& result);

 private:
  struct Impl;
  /// The record, or an empty one for a moved-from URL.
  const Impl& Get() const;
  std::unique_ptr<Impl> m_impl;
};

/// What the system knows of URL schemes.
class TQUTIL_API TqUSysURL {
 public:
  /// True for schemes whose transfers are encrypted ("https"), compared without case.
  static bool IsSecureProtocol(const wchar_t* scheme);
};
