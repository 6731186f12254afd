// The proxy bypass list against a plain reference matcher. Input: patterns separated by ";",
// a newline, then the host name. The list's answer must be the reference's: each pattern
// matches the whole host, case ignored for ASCII letters, "*" any text, "<local>" a name
// without a dot. Run with -timeout to catch matching that grows faster than the sizes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "platform/transfer.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Whether pattern[p..] matches host[h..], by the table of every pair of suffixes.
bool Glob(std::string_view pattern, std::string_view host) {
  std::vector<std::vector<char>> match(pattern.size() + 1, std::vector<char>(host.size() + 1, 0));
  match[pattern.size()][host.size()] = 1;
  for (std::size_t p = pattern.size(); p-- > 0;) {
    for (std::size_t h = host.size() + 1; h-- > 0;) {
      if (pattern[p] == '*') {
        match[p][h] = match[p + 1][h] || (h < host.size() && match[p][h + 1]);
      } else {
        match[p][h] = h < host.size() && Lower(pattern[p]) == Lower(host[h]) && match[p + 1][h + 1];
      }
    }
  }
  return match[0][0] != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::size_t newline = bytes.find('\n');
  if (newline == std::string_view::npos) return 0;
  const std::string_view host = bytes.substr(newline + 1);
  std::vector<std::string> patterns;
  bool expected = false;
  for (std::string_view rest = bytes.substr(0, newline);;) {
    const std::size_t semicolon = rest.find(';');
    const std::string_view pattern = rest.substr(0, semicolon);
    patterns.emplace_back(pattern);
    const bool one = pattern == "<local>" ? host.find('.') == std::string_view::npos
                                          : Glob(pattern, host);
    Check(tqplatform::BypassesProxy({std::string(pattern)}, host) == one);
    expected = expected || one;
    if (semicolon == std::string_view::npos) break;
    rest.remove_prefix(semicolon + 1);
  }
  Check(tqplatform::BypassesProxy(patterns, host) == expected);
  return 0;
}
