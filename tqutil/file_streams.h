// Streams over local files, owning a TqUSysFile handle.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "tqutil/streams.h"
#include "tqutil/sys_file.h"

namespace qv::io {

/// A seekable read stream over a file. Positions count from the base offset: with a base offset
/// of N, position 0 is byte N of the file and the size is the file's size less N.
class TQUTIL_API FileReadStream : public IDataSeekableReadStream {
 public:
  /// Takes ownership of `file` (closed by the destructor).
  explicit FileReadStream(TqUSysFile::Handle file);
  ~FileReadStream() override;
  FileReadStream(const FileReadStream&) = delete;
  FileReadStream& operator=(const FileReadStream&) = delete;

  /// Opens a local file for reading, sharing it with other readers; null when it cannot be
  /// opened (missing, a directory, no permission, held by a writer).
  static std::unique_ptr<FileReadStream> Create(const std::filesystem::path& path);

  /// Makes byte `offset` of the file position 0 of the stream.
  void SetBaseOffset(std::uint64_t offset) { m_base = offset; }

  std::uint64_t Read(void* buffer, std::uint64_t size) override;
  /// The size from the base offset to the end of the file.
  StreamMetaData MetaData() override;
  std::uint64_t RSeek(std::int64_t offset, StreamPosition origin) override;
  /// The read position, from the base offset.
  std::uint64_t RTell() override;

 private:
  /// The stream position, asking the file only while its position is not known.
  std::uint64_t Position(const char* what);

  TqUSysFile::Handle m_file;
  std::uint64_t m_base = 0;
  /// The file's position once this stream has asked for it or moved it: the handle is the
  /// stream's alone, so nothing else moves it, and reads need no system call to find it.
  std::optional<std::uint64_t> m_file_pos;
};

/// A seekable write stream over a file, with the same base-offset rule.
class TQUTIL_API FileWriteStream : public IDataSeekableWriteStream {
 public:
  /// Takes ownership of `file` (closed by the destructor).
  explicit FileWriteStream(TqUSysFile::Handle file);
  ~FileWriteStream() override;
  FileWriteStream(const FileWriteStream&) = delete;
  FileWriteStream& operator=(const FileWriteStream&) = delete;

  /// Makes byte `offset` of the file position 0 of the stream.
  void SetBaseOffset(std::uint64_t offset) { m_base = offset; }

  std::uint64_t Write(const void* buffer, std::uint64_t size) override;
  /// Moves the write position; returns it, from the base offset.
  std::uint64_t WSeek(std::int64_t offset, StreamPosition origin) override;
  /// The write position, from the base offset.
  std::uint64_t WTell() override;

 private:
  TqUSysFile::Handle m_file;
  std::uint64_t m_base = 0;
};

}  // namespace qv::io
