#include "tests/support/servers/scripted_server.h"

#include <algorithm>
#include <cctype>

namespace tq::test {

std::optional<std::string> RecordedRequest::Header(const std::string& name) const {
  const auto same_name = [&name](const std::string& key) {
    return key.size() == name.size() &&
           std::equal(key.begin(), key.end(), name.begin(), [](char x, char y) {
             return std::tolower(static_cast<unsigned char>(x)) ==
                    std::tolower(static_cast<unsigned char>(y));
           });
  };
  for (const auto& [key, value] : headers) {
    if (same_name(key)) return value;
  }
  return std::nullopt;
}

}  // namespace tq::test
