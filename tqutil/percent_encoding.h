// Percent-encoding, as the utility library's URL code writes and reads it: "%" and two
// upper-case hex digits. Internal to tqutil (not exported, not installed).
#pragma once

namespace qv::percent {

// Appends "%XY" for `byte` to `out`, a narrow or wide string.
template <class Text>
void AppendEscape(Text& out, unsigned char byte) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  using Char = typename Text::value_type;
  out += static_cast<Char>('%');
  out += static_cast<Char>(kHex[byte >> 4]);
  out += static_cast<Char>(kHex[byte & 0xF]);
}

// The value of the hex digit `c`, either case; -1 for any other character.
template <class Char>
int HexValue(Char c) {
  if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
  if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
  return -1;
}

}  // namespace qv::percent
