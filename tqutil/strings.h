// Wide and narrow string types of the host's utility library, and UTF-8 conversions.
//
// Wide text is wchar_t: UTF-16 on Windows, UTF-32 on Linux. Conversions accept every code point
// (surrogate pairs on 16-bit systems); ill-formed input becomes U+FFFD, never a crash.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "tqutil/export.h"

namespace qv {
/// UTF-8 text of wide text. Unpaired surrogates and values above U+10FFFF become U+FFFD.
TQUTIL_API std::string WideToUtf8(std::wstring_view text);
/// Wide text of UTF-8. Ill-formed sequences (overlong, surrogates, truncated) become U+FFFD.
TQUTIL_API std::wstring Utf8ToWide(std::string_view text);
}  // namespace qv

/// An owned wide string. GetString() is never null (empty text for an empty string).
class TQUTIL_API TqUWideString {
 public:
  TqUWideString() = default;
  TqUWideString(const wchar_t* text);  ///< null makes an empty string
  /// Copies `text`.
  TqUWideString(std::wstring_view text);
  /// Plain value semantics.
  ///@{
  TqUWideString(const TqUWideString&) = default;
  TqUWideString(TqUWideString&&) noexcept = default;
  TqUWideString& operator=(const TqUWideString&) = default;
  TqUWideString& operator=(TqUWideString&&) noexcept = default;
  ///@}

  /// The text (never null), its length in characters, whether it is empty.
  ///@{
  const wchar_t* GetString() const { return m_text.c_str(); }
  std::size_t GetLength() const { return m_text.size(); }
  bool IsEmpty() const { return m_text.empty(); }
  ///@}
  void SetString(const wchar_t* text);  ///< null makes the string empty
  /// The text, valid until it is next changed.
  std::wstring_view View() const { return m_text; }

  /// Exact, case-sensitive comparison; a null text equals only the empty text.
  static bool Equal(const wchar_t* a, const wchar_t* b);
  /// Same characters.
  bool operator==(const TqUWideString& other) const { return m_text == other.m_text; }

 private:
  std::wstring m_text;
};

/// A narrow (UTF-8) string buffer.
class TQUTIL_API TqUStringBuffer {
 public:
  TqUStringBuffer() = default;
  /// Copies `text`.
  explicit TqUStringBuffer(std::string_view text) : m_text(text) {}

  /// The text (never null), its length in bytes, whether it is empty.
  ///@{
  const char* GetString() const { return m_text.c_str(); }
  std::size_t GetLength() const { return m_text.size(); }
  bool IsEmpty() const { return m_text.empty(); }
  ///@}
  /// Replaces the text (null empties it), appends to it, empties it.
  ///@{
  void SetString(const char* text) { m_text = text ? text : ""; }
  void Append(std::string_view text) { m_text.append(text); }
  void Clear() { m_text.clear(); }
  ///@}
  /// The text, valid until it is next changed.
  std::string_view View() const { return m_text; }

 private:
  std::string m_text;
};

/// A growable wide string buffer with printf-style formatting.
///
/// Format follows the Windows convention for wide formats, on every system: "%s" takes a wide
/// string (const wchar_t*), "%hs" and "%S" a narrow one, "%ls" and "%ws" a wide one; "%d",
/// "%u", "%llu", "%x", "%f" and the other conversions are as in printf, except "%n", which is
/// refused.
class TQUTIL_API TqUWideStringBuffer {
 public:
  TqUWideStringBuffer() = default;
  /// Copies `text`.
  explicit TqUWideStringBuffer(std::wstring_view text) : m_text(text) {}

  /// The text (never null), its length in characters, whether it is empty.
  ///@{
  const wchar_t* GetString() const { return m_text.c_str(); }
  std::size_t GetLength() const { return m_text.size(); }
  bool IsEmpty() const { return m_text.empty(); }
  ///@}
  /// The text, valid until it is next changed.
  std::wstring_view View() const { return m_text; }

  /// Replaces the text (null empties it), appends to it, empties it.
  ///@{
  void SetString(const wchar_t* text) { m_text = text ? text : L""; }
  void SetString(std::wstring_view text) { m_text = text; }
  void Append(std::wstring_view text) { m_text.append(text); }
  void Clear() { m_text.clear(); }
  ///@}

  /// Replaces the contents with the formatted text. Returns false (contents empty) for a null
  /// format, an unknown conversion (or "%n"), an absurdly large width or precision, or a
  /// conversion cut short by the format's end; arguments that do not match the format cannot
  /// be detected.
  bool Format(const wchar_t* format, ...);
  /// As Format, with the arguments as a va_list.
  bool FormatV(const wchar_t* format, std::va_list args);

  /// UTF-8 in and out.
  void SetUTF8String(std::string_view utf8);
  /// The text in UTF-8.
  std::string ExtractUTF8String() const;
  /// As above, into `out`.
  void ExtractUTF8String(TqUStringBuffer* out) const;

  /// Removes white space (space, tab, CR, LF, VT, FF) from both ends.
  void Trim();
  /// The text starts with `prefix` (case-sensitive).
  bool HasPrefix(std::wstring_view prefix) const;
  /// The characters from `start` (clamped to the end), at most `count` of them.
  TqUWideString ExtractSubString(std::size_t start, std::size_t count = std::wstring::npos) const;

 private:
  std::wstring m_text;
};

/// Splits a text at any of the delimiter characters; empty tokens between adjacent delimiters
/// (and before a leading or after a trailing delimiter) are returned as empty tokens. An empty
/// text has no tokens.
class TQUTIL_API TqUWideStringTokeniser {
 public:
  /// Copies both texts.
  TqUWideStringTokeniser(std::wstring_view text, std::wstring_view delimiters);
  /// Next token into `token`; false when no token is left.
  bool GetNextToken(TqUWideStringBuffer* token);

 private:
  std::wstring m_text;
  std::wstring m_delimiters;
  std::size_t m_pos = 0;
  bool m_done = false;
};

/// Helpers on C strings of the system.
class TQUTIL_API TqUSysString {
 public:
  /// Length in characters; 0 for null.
  static std::size_t WideStrlen(const wchar_t* text);
};
