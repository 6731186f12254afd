#include "platform/wide_text.h"

#include <array>
#include <cstdint>

#include "tqutil/utf8.h"

namespace tqplatform {

std::size_t WideLength(const wchar_t* text) {
  if (text == nullptr) return 0;
  std::size_t n = 0;
  while (text[n] != L'\0') ++n;
  return n;
}

std::string WideToUtf8(std::wstring_view text) {
  // Verbs, paths and host names are mostly ASCII: written in one pass, each character once.
  std::string out(text.size(), '\0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto cp = static_cast<std::uint32_t>(text[i]);
    if (cp >= 0x80) return qv::utf8::FromWide(text);
    out[i] = static_cast<char>(cp);
  }
  return out;
}

std::wstring Utf8ToWideStrict(std::string_view text, bool* ok) {
  std::wstring out = qv::utf8::ToWide(text, ok);
  if (!*ok) out.clear();
  return out;
}

bool WideToLatin1(std::wstring_view text, std::string* out) {
  out->resize(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto cp = static_cast<std::uint32_t>(text[i]);
    if (cp > 0xFF) {
      out->resize(i);  // what was converted, as before the refusal
      return false;
    }
    (*out)[i] = static_cast<char>(cp);
  }
  return true;
}

std::wstring Latin1ToWide(std::string_view bytes) {
  std::wstring out;
  out.reserve(bytes.size());
  for (char c : bytes) out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
  return out;
}

namespace {

// ASCII upper case to lower case, everything else as it is: header names are compared often.
constexpr std::array<unsigned char, 256> kLower = [] {
  std::array<unsigned char, 256> table{};
  for (int c = 0; c < 256; ++c) {
    table[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  return table;
}();

}  // namespace

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (kLower[static_cast<unsigned char>(a[i])] != kLower[static_cast<unsigned char>(b[i])]) {
      return false;
    }
  }
  return true;
}

std::string_view LineName(std::string_view line) { return line.substr(0, line.find(':')); }

std::string_view LineValue(std::string_view line) {
  const auto colon = line.find(':');
  return colon == std::string_view::npos ? std::string_view() : TrimSpace(line.substr(colon + 1));
}

bool HasHeaderLine(const std::vector<std::string>& lines, std::string_view name) {
  // The line's name is what comes before its first colon (all of a line without one): the
  // line names `name` when it starts with it and the colon, or the line end, comes next.
  for (const std::string& line : lines) {
    if (line.size() >= name.size() && (line.size() == name.size() || line[name.size()] == ':') &&
        EqualsIgnoreCase(std::string_view(line).substr(0, name.size()), name)) {
      return true;
    }
  }
  return false;
}

}  // namespace tqplatform
