#include "tqutil/file_streams.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>

namespace qv::io {
namespace {

[[noreturn]] void Fail(const char* what) { throw std::runtime_error(what); }

std::int64_t CheckedPosition(std::uint64_t base, std::int64_t from, std::int64_t offset,
                             const char* what) {
  if ((offset > 0 && from > std::numeric_limits<std::int64_t>::max() - offset) ||
      (offset < 0 && from < std::numeric_limits<std::int64_t>::min() - offset) ||
      from + offset < 0 ||
      static_cast<std::uint64_t>(from + offset) >
          static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) - base) {
    Fail(what);
  }
  return static_cast<std::int64_t>(base) + from + offset;
}

// The stream position of the file's current position; a file still before the base offset is
// moved to it first, so position 0 is always byte `base`.
std::uint64_t Tell(TqUSysFile::Handle file, std::uint64_t base, const char* what) {
  const std::int64_t pos = TqUSysFile::SeekFile(file, 0, 1);
  if (pos < 0) Fail(what);
  if (static_cast<std::uint64_t>(pos) < base) {
    if (base > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) ||
        TqUSysFile::SeekFile(file, static_cast<std::int64_t>(base), 0) < 0) {
      Fail(what);
    }
    return 0;
  }
  return static_cast<std::uint64_t>(pos) - base;
}

std::uint64_t Seek(TqUSysFile::Handle file, std::uint64_t base, std::int64_t offset,
                   StreamPosition origin, const char* what) {
  std::int64_t from = 0;
  switch (origin) {
    case StreamPosition::Begin:
      break;
    case StreamPosition::Current:
      from = static_cast<std::int64_t>(Tell(file, base, what));
      break;
    case StreamPosition::End: {
      const std::int64_t size = TqUSysFile::GetFileSize(file);
      if (size < 0) Fail(what);
      from = static_cast<std::uint64_t>(size) > base ? size - static_cast<std::int64_t>(base) : 0;
      break;
    }
    default:
      Fail(what);
  }
  const std::int64_t target = CheckedPosition(base, from, offset, what);
  const std::int64_t pos = TqUSysFile::SeekFile(file, target, 0);
  if (pos < 0) Fail(what);
  return static_cast<std::uint64_t>(pos) - base;
}

}  // namespace

FileReadStream::FileReadStream(TqUSysFile::Handle file) : m_file(file) {}

FileReadStream::~FileReadStream() {
  if (m_file != TqUSysFile::kInvalid) TqUSysFile::CloseFile(m_file);
}

std::unique_ptr<FileReadStream> FileReadStream::Create(const std::filesystem::path& path) {
  // A path the caller names may lead through links to its file.
  TqUSysFile::Handle file = TqUSysFile::OpenNamedFile(path);
  if (file == TqUSysFile::kInvalid) return nullptr;
  // A stream that cannot be made (out of memory) must not leave the file open, held against
  // every writer for the life of the process.
  try {
    return std::make_unique<FileReadStream>(file);
  } catch (...) {
    TqUSysFile::CloseFile(file);
    throw;
  }
}

std::uint64_t FileReadStream::Position(const char* what) {
  if (m_file_pos && *m_file_pos >= m_base) return *m_file_pos - m_base;
  m_file_pos.reset();
  const std::uint64_t pos = Tell(m_file, m_base, what);
  m_file_pos = m_base + pos;
  return pos;
}

std::uint64_t FileReadStream::Read(void* buffer, std::uint64_t size) {
  if (size == 0) return 0;
  Position("FileReadStream: cannot read the file");
  std::uint64_t got = 0;
  if (!TqUSysFile::ReadFile(m_file, buffer, size, &got)) {
    // A failed read may have moved the file: ask again next time.
    m_file_pos.reset();
    Fail("FileReadStream: cannot read the file");
  }
  *m_file_pos += got;
  return got;
}

StreamMetaData FileReadStream::MetaData() {
  StreamMetaData meta;
  const std::int64_t size = TqUSysFile::GetFileSize(m_file);
  if (size >= 0) meta.size = static_cast<std::uint64_t>(size) > m_base ? size - m_base : 0;
  return meta;
}

std::uint64_t FileReadStream::RSeek(std::int64_t offset, StreamPosition origin) {
  m_file_pos.reset();
  const std::uint64_t pos = Seek(m_file, m_base, offset, origin, "FileReadStream: cannot seek");
  m_file_pos = m_base + pos;
  return pos;
}

std::uint64_t FileReadStream::RTell() {
  return Position("FileReadStream: cannot tell the position");
}

FileWriteStream::FileWriteStream(TqUSysFile::Handle file) : m_file(file) {}

FileWriteStream::~FileWriteStream() {
  if (m_file != TqUSysFile::kInvalid) TqUSysFile::CloseFile(m_file);
}

std::uint64_t FileWriteStream::Write(const void* buffer, std::uint64_t size) {
  if (size == 0) return 0;
  Tell(m_file, m_base, "FileWriteStream: cannot write the file");
  std::uint64_t written = 0;
  if (!TqUSysFile::WriteFile(m_file, buffer, size, &written) || written != size) {
    Fail("FileWriteStream: cannot write the file");
  }
  return size;
}

std::uint64_t FileWriteStream::WSeek(std::int64_t offset, StreamPosition origin) {
  return Seek(m_file, m_base, offset, origin, "FileWriteStream: cannot seek");
}

std::uint64_t FileWriteStream::WTell() {
  return Tell(m_file, m_base, "FileWriteStream: cannot tell the position");
}

}  // namespace qv::io
