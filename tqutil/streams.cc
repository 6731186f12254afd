#include "tqutil/streams.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>

namespace qv::io {

IDataReadStream::~IDataReadStream() = default;
StreamMetaData IDataReadStream::MetaData() { return {}; }
IDataWriteStream::~IDataWriteStream() = default;

MemoryStream::MemoryStream(std::size_t initial_capacity)
    : m_sink(std::make_shared<MemorySink>()) {
  m_sink->bytes.reserve(initial_capacity);
}

MemoryStream::MemoryStream(std::shared_ptr<MemorySink> sink)
    : m_sink(sink ? std::move(sink) : std::make_shared<MemorySink>()) {}

std::uint64_t MemoryStream::Read(void* buffer, std::uint64_t size) {
  const auto& bytes = m_sink->bytes;
  if (m_read_pos >= bytes.size() || size == 0) return 0;
  const std::uint64_t n = std::min<std::uint64_t>(size, bytes.size() - m_read_pos);
  if (!buffer) throw std::runtime_error("MemoryStream::Read: null buffer");
  std::memcpy(buffer, bytes.data() + m_read_pos, static_cast<std::size_t>(n));
  m_read_pos += n;
  return n;
}

StreamMetaData MemoryStream::MetaData() {
  StreamMetaData meta;
  meta.size = m_sink->bytes.size();
  return meta;
}

std::uint64_t MemoryStream::RSeek(std::int64_t offset, StreamPosition origin) {
  std::int64_t from = 0;
  switch (origin) {
    case StreamPosition::Begin: from = 0; break;
    case StreamPosition::Current: from = static_cast<std::int64_t>(m_read_pos); break;
    case StreamPosition::End: from = static_cast<std::int64_t>(m_sink->bytes.size()); break;
    default: throw std::runtime_error("MemoryStream::RSeek: bad origin");
  }
  if ((offset > 0 && from > std::numeric_limits<std::int64_t>::max() - offset) ||
      from + offset < 0) {
    throw std::runtime_error("MemoryStream::RSeek: position out of range");
  }
  m_read_pos = static_cast<std::uint64_t>(from + offset);
  return m_read_pos;
}

std::uint64_t MemoryStream::Write(const void* buffer, std::uint64_t size) {
  if (size == 0) return 0;
  if (!buffer) throw std::runtime_error("MemoryStream::Write: null buffer");
  auto& bytes = m_sink->bytes;
  if (size > bytes.max_size() - bytes.size()) {
    throw std::runtime_error("MemoryStream::Write: too large");
  }
  const auto* p = static_cast<const std::uint8_t*>(buffer);
  const std::less<const std::uint8_t*> before;
  const bool own_bytes = !before(p, bytes.data()) && before(p, bytes.data() + bytes.size());
  try {
    if (own_bytes) {
      // Bytes of the stream itself (a copy between streams over one sink): insert may not take
      // a range of the vector it grows, so they are copied once the room is there.
      const auto from = static_cast<std::size_t>(p - bytes.data());
      const std::size_t old_size = bytes.size();
      bytes.resize(old_size + static_cast<std::size_t>(size));
      std::memmove(bytes.data() + old_size, bytes.data() + from, static_cast<std::size_t>(size));
    } else {
      bytes.insert(bytes.end(), p, p + size);
    }
  } catch (const std::bad_alloc&) {
    throw std::runtime_error("MemoryStream::Write: out of memory");
  }
  return size;
}

}  // namespace qv::io
