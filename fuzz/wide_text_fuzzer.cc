// The conversions between the Win32 interface's wide text and bytes. Beyond not crashing:
// well-formed UTF-8 comes back byte for byte through wide text; any wide text becomes UTF-8 that
// reads back strictly, the same where it held only valid code points; Latin-1 bytes survive the
// round trip; and the header-name helpers agree with a plain reading.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/wide_text.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool Valid(std::uint32_t cp) { return cp <= 0x10FFFF && (cp < 0xD800 || cp > 0xDFFF); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 16 * 1024) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  bool ok = false;
  const std::wstring wide = tqplatform::Utf8ToWideStrict(bytes, &ok);
  if (ok) {
    Check(tqplatform::WideToUtf8(wide) == bytes);
  } else {
    Check(wide.empty());
  }

  // The same bytes as wide characters, whatever they hold.
  std::wstring units(size / sizeof(wchar_t), L'\0');
  if (!units.empty()) std::memcpy(units.data(), data, units.size() * sizeof(wchar_t));
  const std::string utf8 = tqplatform::WideToUtf8(units);
  bool back_ok = false;
  const std::wstring back = tqplatform::Utf8ToWideStrict(utf8, &back_ok);
  Check(back_ok);
  bool all_valid = true;
  for (std::size_t i = 0; i < units.size(); ++i) {
    const auto cp = static_cast<std::uint32_t>(units[i]);
    if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && i + 1 < units.size()) {
      const auto low = static_cast<std::uint32_t>(units[i + 1]);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        ++i;
        continue;
      }
    }
    all_valid = all_valid && Valid(cp);
  }
  if (all_valid) Check(back == units);

  Check(tqplatform::Latin1ToWide(bytes).size() == size);
  std::string latin1;
  Check(tqplatform::WideToLatin1(tqplatform::Latin1ToWide(bytes), &latin1) && latin1 == bytes);
  std::string partial;
  bool fits = true;
  for (const wchar_t c : units) fits = fits && static_cast<std::uint32_t>(c) <= 0xFF;
  Check(tqplatform::WideToLatin1(units, &partial) == fits);

  const std::size_t colon = bytes.find(':');
  Check(tqplatform::LineName(bytes) == bytes.substr(0, colon));
  const std::string_view value = tqplatform::LineValue(bytes);
  Check(colon != std::string_view::npos || value.empty());
  Check(value.empty() || (value.front() != ' ' && value.front() != '\t' && value.back() != ' ' &&
                          value.back() != '\t'));
  return 0;
}
