// Helpers shared by the cache tests: a settable clock, entry files built byte by byte, and
// reading streams whole.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "tqutil/streams.h"
#include "tqutil/sys_time.h"

namespace tq::test {

// Replaces the cache clock for one scope; tests move time instead of waiting for it.
class ScopedClock {
 public:
  explicit ScopedClock(std::int64_t now) : m_now(now) {
    TqUSysTime::SetClockForTesting([this] { return m_now.load(); });
  }
  ~ScopedClock() { TqUSysTime::SetClockForTesting({}); }
  void Set(std::int64_t now) { m_now = now; }
  void Advance(std::int64_t seconds) { m_now += seconds; }
  std::int64_t Now() const { return m_now; }

 private:
  std::atomic<std::int64_t> m_now;
};

inline std::string Le(std::uint64_t v, int bytes) {
  std::string out;
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(v >> (8 * i));
  return out;
}

// An entry file's bytes written out by hand from the documented layout, independent of the code
// under test.
inline std::string EntryBytes(std::int64_t last_used, std::int64_t expiry, const std::string& tag,
                              const std::string& key, const std::string& body) {
  return Le(24 + tag.size() + key.size(), 2) + "\x01\x01" + Le(last_used, 8) + Le(expiry, 8) +
         Le(tag.size(), 2) + tag + Le(key.size(), 2) + key + "\x02\x02" + body;
}

inline std::string ReadFileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFileBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

template <class Stream>
std::string ReadAll(Stream& stream, std::size_t chunk = 4096) {
  std::string body;
  std::string buffer(chunk, '\0');
  while (const std::uint64_t n = stream.Read(buffer.data(), buffer.size())) {
    body.append(buffer.data(), n);
  }
  return body;
}

// A read stream over fixed bytes, in chunks, calling `on_read` after each.
class BytesSource : public qv::io::IDataReadStream {
 public:
  explicit BytesSource(std::string bytes, std::size_t chunk = 1 << 20)
      : m_bytes(std::move(bytes)), m_chunk(chunk) {}
  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    const std::size_t n = std::min<std::size_t>({static_cast<std::size_t>(size), m_chunk,
                                                  m_bytes.size() - m_pos});
    std::copy_n(m_bytes.data() + m_pos, n, static_cast<char*>(buffer));
    m_pos += n;
    if (on_read) on_read();
    return n;
  }
  qv::io::StreamMetaData MetaData() override { return {m_bytes.size()}; }
  std::function<void()> on_read;

 private:
  std::string m_bytes;
  std::size_t m_chunk;
  std::size_t m_pos = 0;
};

}  // namespace tq::test
