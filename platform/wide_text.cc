#include "platform/wide_text.h"

#include <cstdint>

namespace tqplatform {

std::size_t WideLength(const wchar_t* text) {
  if (text == nullptr) return 0;
  std::size_t n = 0;
  while (text[n] != L'\0') ++n;
  return n;
}

namespace {

void AppendUtf8(std::uint32_t cp, std::string* out) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::string WideToUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto cp = static_cast<std::uint32_t>(text[i]);
    if constexpr (sizeof(wchar_t) == 2) {
      if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size()) {
        const auto low = static_cast<std::uint32_t>(text[i + 1]);
        if (low >= 0xDC00 && low <= 0xDFFF) {
          cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
    }
    AppendUtf8(cp, &out);
  }
  return out;
}

bool WideToLatin1(std::wstring_view text, std::string* out) {
  out->clear();
  out->reserve(text.size());
  for (wchar_t c : text) {
    const auto cp = static_cast<std::uint32_t>(c);
    if (cp > 0xFF) return false;
    out->push_back(static_cast<char>(cp));
  }
  return true;
}

std::wstring Latin1ToWide(std::string_view bytes) {
  std::wstring out;
  out.reserve(bytes.size());
  for (char c : bytes) out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
  return out;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

}  // namespace tqplatform
