// Byte streams of the host's utility library (namespace qv::io).
//
// Streams report failures by throwing std::runtime_error (or a class derived from it); a read
// of 0 bytes means the end. Streams are handed over through std::unique_ptr: the receiver owns.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tqutil/export.h"

namespace qv::io {

/// What a stream knows about its content.
struct StreamMetaData {
  std::optional<std::uint64_t> size;       ///< bytes in the whole content
  std::optional<std::string> etag;         ///< UTF-8 entity tag or other revision text
  std::optional<std::int64_t> modified;    ///< last modification, TqUSysTime seconds
};

/// Origin of a seek: 0 from the start, 1 from the current position, 2 from the end.
enum class StreamPosition : int { Begin = 0, Current = 1, End = 2 };

/// A stream of bytes read in order, as the host's file layer and the library hand them out.
class TQUTIL_API IDataReadStream {
 public:
  virtual ~IDataReadStream();
  /// Up to `size` bytes into `buffer`; the count read, 0 at the end.
  virtual std::uint64_t Read(void* buffer, std::uint64_t size) = 0;
  /// What is known of the stream's content; the base knows nothing.
  virtual StreamMetaData MetaData();
};

/// A read stream whose position can be moved.
class TQUTIL_API IDataSeekableReadStream : public IDataReadStream {
 public:
  /// Moves the read position; returns the new position from the start. Throws
  /// std::runtime_error for a position before the start.
  virtual std::uint64_t RSeek(std::int64_t offset, StreamPosition origin) = 0;
  /// The read position, from the start.
  virtual std::uint64_t RTell() = 0;
};

/// A stream of bytes written in order.
class TQUTIL_API IDataWriteStream {
 public:
  virtual ~IDataWriteStream();
  /// Writes all `size` bytes and returns `size`; throws std::runtime_error on failure.
  virtual std::uint64_t Write(const void* buffer, std::uint64_t size) = 0;
};

/// A write stream whose position can be moved.
class TQUTIL_API IDataSeekableWriteStream : public IDataWriteStream {
 public:
  /// Moves the write position; returns the new position from the start.
  virtual std::uint64_t WSeek(std::int64_t offset, StreamPosition origin) = 0;
  /// The write position, from the start.
  virtual std::uint64_t WTell() = 0;
};

/// The bytes of a memory stream; shared by every stream made over it.
struct MemorySink {
  /// All bytes written so far.
  std::vector<std::uint8_t> bytes;
};

/// An in-memory stream: written, then read and sought. Several streams may share one sink (each
/// keeps its own positions); the sink lives as long as any of them or any other holder.
class TQUTIL_API MemoryStream : public IDataSeekableReadStream, public IDataWriteStream {
 public:
  /// A stream over a new sink with room for `initial_capacity` bytes.
  explicit MemoryStream(std::size_t initial_capacity = 0);
  /// A stream over an existing sink, reading from its start.
  explicit MemoryStream(std::shared_ptr<MemorySink> sink);

  std::uint64_t Read(void* buffer, std::uint64_t size) override;
  StreamMetaData MetaData() override;
  std::uint64_t RSeek(std::int64_t offset, StreamPosition origin) override;
  std::uint64_t RTell() override { return m_read_pos; }
  /// Writes at the end of the bytes.
  std::uint64_t Write(const void* buffer, std::uint64_t size) override;

  /// The bytes, to share with another stream or keep past this one.
  const std::shared_ptr<MemorySink>& Sink() const { return m_sink; }
  /// The number of bytes written.
  std::uint64_t Size() const { return m_sink->bytes.size(); }

 private:
  std::shared_ptr<MemorySink> m_sink;
  std::uint64_t m_read_pos = 0;
};

}  // namespace qv::io
