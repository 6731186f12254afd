#include "tqutil/strings.h"

#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <cstring>

#include "tqutil/utf8.h"

namespace {

// ---- formatting with the Windows wide convention ----

// The widest width or precision a format may ask for; more is refused, not allocated.
constexpr int kMostWidth = 100000000;

struct Conversion {
  std::string flags;
  int width = -1;
  int precision = -1;
  std::string length;  // "", "hh", "h", "l", "ll", "z", "j", "t", "L", "w"
  char conv = 0;
};

std::wstring Pad(std::wstring text, const Conversion& conversion) {
  if (conversion.precision >= 0 && text.size() > static_cast<std::size_t>(conversion.precision)) {
    text.resize(static_cast<std::size_t>(conversion.precision));
  }
  if (conversion.width > 0 && text.size() < static_cast<std::size_t>(conversion.width)) {
    const std::size_t fill = static_cast<std::size_t>(conversion.width) - text.size();
    if (conversion.flags.find('-') != std::string::npos) {
      text.append(fill, L' ');
    } else {
      text.insert(0, fill, L' ');
    }
  }
  return text;
}

// Formats one numeric conversion through the narrow printf, whose numeric conversions are the
// same on every system and which reports the length it needs.
template <typename T>
bool FormatNumber(std::wstring& out, const Conversion& conversion, const char* length, T value) {
  std::string f = "%" + conversion.flags;
  if (conversion.width >= 0) f += std::to_string(conversion.width);
  if (conversion.precision >= 0) f += "." + std::to_string(conversion.precision);
  f += length;
  f += conversion.conv;
  char small[128];
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
  int n = std::snprintf(small, sizeof small, f.c_str(), value);
  if (n < 0) return false;
  std::string text;
  if (static_cast<std::size_t>(n) < sizeof small) {
    text.assign(small, static_cast<std::size_t>(n));
  } else {
    text.resize(static_cast<std::size_t>(n) + 1);
    n = std::snprintf(text.data(), text.size(), f.c_str(), value);
    if (n < 0) return false;
    text.resize(static_cast<std::size_t>(n));
  }
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
  for (char ch : text) out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(ch)));
  return true;
}

bool ParseSpec(const wchar_t*& p, Conversion& conversion, std::va_list& args) {
  while (*p && std::wcschr(L"-+ #0", *p)) conversion.flags.push_back(static_cast<char>(*p++));
  if (*p == L'*') {
    ++p;
    conversion.width = va_arg(args, int);
    if (conversion.width < 0) {
      conversion.flags.push_back('-');
      conversion.width = conversion.width == INT32_MIN ? INT32_MAX : -conversion.width;
    }
    if (conversion.width > kMostWidth) return false;
  } else {
    while (*p >= L'0' && *p <= L'9') {
      if (conversion.width < 0) conversion.width = 0;
      conversion.width = conversion.width * 10 + (*p++ - L'0');
      if (conversion.width > kMostWidth) return false;  // before a further digit overflows it
    }
  }
  if (*p == L'.') {
    ++p;
    conversion.precision = 0;
    if (*p == L'*') {
      ++p;
      conversion.precision = va_arg(args, int);
      if (conversion.precision < 0) conversion.precision = -1;
      if (conversion.precision > kMostWidth) return false;
    } else {
      while (*p >= L'0' && *p <= L'9') {
        conversion.precision = conversion.precision * 10 + (*p++ - L'0');
        if (conversion.precision > kMostWidth) return false;
      }
    }
  }
  if (p[0] == L'h' && p[1] == L'h') {
    conversion.length = "hh", p += 2;
  } else if (p[0] == L'l' && p[1] == L'l') {
    conversion.length = "ll", p += 2;
  } else if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') {
    conversion.length = "ll", p += 3;
  } else if (p[0] == L'I' && p[1] == L'3' && p[2] == L'2') {
    p += 3;
  } else if (*p == L'I') {
    conversion.length = "z", ++p;
  } else if (*p && std::wcschr(L"hlzjtLw", *p)) {
    conversion.length = std::string(1, static_cast<char>(*p++));
  }
  // Only ASCII letters convert: a wider character cut to a char ("%\u0164" to "%d") would take
  // an argument that the format never asked for.
  if (!*p || static_cast<std::uint32_t>(*p) > 0x7F) return false;
  conversion.conv = static_cast<char>(*p++);
  return true;
}

bool FormatSigned(std::wstring& out, const Conversion& s, std::va_list& args) {
  const std::string& l = s.length;
  if (l == "ll") return FormatNumber(out, s, "ll", va_arg(args, long long));
  if (l == "l") return FormatNumber(out, s, "l", va_arg(args, long));
  if (l == "z") return FormatNumber(out, s, "ll", static_cast<long long>(va_arg(args, std::ptrdiff_t)));
  if (l == "t") return FormatNumber(out, s, "ll", static_cast<long long>(va_arg(args, std::ptrdiff_t)));
  if (l == "j") return FormatNumber(out, s, "ll", static_cast<long long>(va_arg(args, std::intmax_t)));
  const int v = va_arg(args, int);
  if (l == "hh") return FormatNumber(out, s, "", static_cast<int>(static_cast<signed char>(v)));
  if (l == "h") return FormatNumber(out, s, "", static_cast<int>(static_cast<short>(v)));
  return FormatNumber(out, s, "", v);
}

bool FormatUnsigned(std::wstring& out, const Conversion& s, std::va_list& args) {
  const std::string& l = s.length;
  if (l == "ll") return FormatNumber(out, s, "ll", va_arg(args, unsigned long long));
  if (l == "l") return FormatNumber(out, s, "l", va_arg(args, unsigned long));
  if (l == "z") return FormatNumber(out, s, "ll", static_cast<unsigned long long>(va_arg(args, std::size_t)));
  if (l == "t") return FormatNumber(out, s, "ll", static_cast<unsigned long long>(va_arg(args, std::ptrdiff_t)));
  if (l == "j") return FormatNumber(out, s, "ll", static_cast<unsigned long long>(va_arg(args, std::uintmax_t)));
  const unsigned v = va_arg(args, unsigned);
  if (l == "hh") return FormatNumber(out, s, "", static_cast<unsigned>(static_cast<unsigned char>(v)));
  if (l == "h") return FormatNumber(out, s, "", static_cast<unsigned>(static_cast<unsigned short>(v)));
  return FormatNumber(out, s, "", v);
}

bool FormatOne(std::wstring& out, const Conversion& s, std::va_list& args) {
  switch (s.conv) {
    case 'd':
    case 'i':
      return FormatSigned(out, s, args);
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      return FormatUnsigned(out, s, args);
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
      if (s.length == "L") return FormatNumber(out, s, "L", va_arg(args, long double));
      return FormatNumber(out, s, "", va_arg(args, double));
    case 'p': {
      Conversion p = s;
      p.length.clear();
      return FormatNumber(out, p, "", va_arg(args, void*));
    }
    case 's':
    case 'S': {
      // Windows wide convention: "%s" is wide, "%S" and "%hs" narrow, "%ls"/"%ws" wide.
      const bool narrow = s.length == "h" || (s.conv == 'S' && s.length != "l" && s.length != "w");
      if (narrow) {
        const char* text = va_arg(args, const char*);
        out += Pad(text ? qv::Utf8ToWide(text) : std::wstring(L"(null)"), s);
      } else {
        const wchar_t* text = va_arg(args, const wchar_t*);
        out += Pad(text ? std::wstring(text) : std::wstring(L"(null)"), s);
      }
      return true;
    }
    case 'c':
    case 'C': {
      const bool narrow = s.length == "h" || (s.conv == 'C' && s.length != "l" && s.length != "w");
      const int v = va_arg(args, int);
      Conversion c = s;
      c.precision = -1;
      if (narrow) {
        const char ch = static_cast<char>(v);
        out += Pad(qv::Utf8ToWide(std::string_view(&ch, 1)), c);
      } else {
        out += Pad(std::wstring(1, static_cast<wchar_t>(v)), c);
      }
      return true;
    }
    default:
      return false;  // unknown conversion, and "%n" (writes through a pointer) is refused
  }
}

bool FormatWide(std::wstring& out, const wchar_t* format, std::va_list args) {
  out.clear();
  if (!format) return false;
  std::va_list ap;
  va_copy(ap, args);
  bool ok = true;
  for (const wchar_t* p = format; *p && ok;) {
    if (*p != L'%') {
      out.push_back(*p++);
      continue;
    }
    ++p;
    if (*p == L'%') {
      out.push_back(L'%');
      ++p;
      continue;
    }
    Conversion conversion;
    ok = ParseSpec(p, conversion, ap) && FormatOne(out, conversion, ap);
  }
  va_end(ap);
  if (!ok) out.clear();
  return ok;
}

bool IsSpace(wchar_t c) {
  return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n' || c == L'\v' || c == L'\f';
}

}  // namespace

namespace qv {

std::string WideToUtf8(std::wstring_view text) { return utf8::FromWide(text); }

std::wstring Utf8ToWide(std::string_view text) { return utf8::ToWide(text); }

}  // namespace qv

TqUWideString::TqUWideString(const wchar_t* text) : m_text(text ? text : L"") {}
TqUWideString::TqUWideString(std::wstring_view text) : m_text(text) {}

void TqUWideString::SetString(const wchar_t* text) { m_text = text ? text : L""; }

bool TqUWideString::Equal(const wchar_t* a, const wchar_t* b) {
  return std::wstring_view(a ? a : L"") == std::wstring_view(b ? b : L"");
}

bool TqUWideStringBuffer::Format(const wchar_t* format, ...) {
  std::va_list args;
  va_start(args, format);
  const bool ok = FormatV(format, args);
  va_end(args);
  return ok;
}

bool TqUWideStringBuffer::FormatV(const wchar_t* format, std::va_list args) {
  return FormatWide(m_text, format, args);
}

void TqUWideStringBuffer::SetUTF8String(std::string_view utf8) { m_text = qv::Utf8ToWide(utf8); }

std::string TqUWideStringBuffer::ExtractUTF8String() const { return qv::WideToUtf8(m_text); }

void TqUWideStringBuffer::ExtractUTF8String(TqUStringBuffer* out) const {
  if (!out) return;
  out->Clear();
  out->Append(qv::WideToUtf8(m_text));
}

void TqUWideStringBuffer::Trim() {
  std::size_t end = m_text.size();
  while (end > 0 && IsSpace(m_text[end - 1])) --end;
  std::size_t start = 0;
  while (start < end && IsSpace(m_text[start])) ++start;
  m_text = m_text.substr(start, end - start);
}

bool TqUWideStringBuffer::HasPrefix(std::wstring_view prefix) const {
  return std::wstring_view(m_text).substr(0, prefix.size()) == prefix;
}

TqUWideString TqUWideStringBuffer::ExtractSubString(std::size_t start, std::size_t count) const {
  if (start >= m_text.size()) return TqUWideString();
  return TqUWideString(std::wstring_view(m_text).substr(start, count));
}

TqUWideStringTokeniser::TqUWideStringTokeniser(std::wstring_view text, std::wstring_view delimiters)
    : m_text(text), m_delimiters(delimiters), m_done(text.empty()) {}

bool TqUWideStringTokeniser::GetNextToken(TqUWideStringBuffer* token) {
  if (m_done) return false;
  const std::size_t end = m_text.find_first_of(m_delimiters, m_pos);
  const std::wstring_view rest = std::wstring_view(m_text).substr(m_pos);
  if (end == std::wstring::npos) {
    if (token) token->SetString(rest);
    m_done = true;
  } else {
    if (token) token->SetString(rest.substr(0, end - m_pos));
    m_pos = end + 1;
  }
  return true;
}

std::size_t TqUSysString::WideStrlen(const wchar_t* text) { return text ? std::wcslen(text) : 0; }
