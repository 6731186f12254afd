// A stream read to its end, in chunks of the caller's size (a test that counts transport reads
// picks the chunk its expectations are written for).
#pragma once

#include <string>
#include <vector>

#include "tqutil/streams.h"

namespace tq::test {

inline std::string ReadAll(qv::io::IDataReadStream& stream, std::size_t chunk = 64 * 1024) {
  std::string text;
  std::vector<char> buffer(chunk);
  while (const std::uint64_t n = stream.Read(buffer.data(), buffer.size())) {
    text.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return text;
}

}  // namespace tq::test
