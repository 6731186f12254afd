// The user agent the library's requests send unless the host sets another, defined once for the
// file protocol, the connection pool and platform/'s URL Moniker downloads. Header-only, so that
// platform includes it without linking tqutil (see tqutil/utf8.h).
#pragma once

#include <cstddef>

namespace qv {

inline constexpr char kUserAgent[] = "Torvik-Quillstone/23.1";

namespace user_agent_detail {
struct WideText {
  wchar_t text[sizeof kUserAgent];
};
constexpr WideText Widen() {
  WideText wide{};
  for (std::size_t i = 0; i < sizeof kUserAgent; ++i) {
    wide.text[i] = static_cast<wchar_t>(kUserAgent[i]);  // ASCII: the same characters
  }
  return wide;
}
inline constexpr WideText kWide = Widen();
}  // namespace user_agent_detail

// The same text as wide text, for WinINet.
inline constexpr const wchar_t* kUserAgentWide = user_agent_detail::kWide.text;

}  // namespace qv
