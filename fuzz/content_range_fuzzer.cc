// "Content-Range" values from any server: the full length is taken only from the form
// "bytes first-last/length", never from anything else, and parsing never crashes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "net/fileprotocol/protocol_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  // As QueryHeaderText gives it: a NUL-terminated wide text of Latin-1 characters.
  std::wstring wide;
  for (const char c : text) {
    if (c == '\0') break;
    wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  }
  TqUWideString header;
  header.SetString(wide.c_str());

  std::uint64_t length = 0xA5A5A5A5A5A5A5A5ull;
  const bool found = qv::net::detail::ParseContentRangeLength(header, &length);
  if (found) {
    if (wide.compare(0, 6, L"bytes ") != 0) std::abort();
    if (wide.find(L'/') == std::wstring::npos || wide.find(L'-') == std::wstring::npos) std::abort();
  } else if (length != 0xA5A5A5A5A5A5A5A5ull) {
    std::abort();  // a refused header leaves the length alone
  }
  return 0;
}
