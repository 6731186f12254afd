#include "net/cache/fresh_hit.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "net/cache/cache_entry.h"
#include "net/cache/cache_entry_format.h"

namespace qv::net::detail {
namespace {

namespace ef = entry_format;

[[noreturn]] void Fail(const char* what) { throw std::runtime_error(what); }

// A read stream over an entry's body whose file's first bytes (header and all or part of the
// body) were read in one call when it was opened. Reads say where they read, so the file's
// own position is never asked for or moved. While the stream holds the file, the sharing keeps
// every writer of ours out of it (stores replace the name, never the file), so its size holds.
class PrefetchedBodyStream final : public qv::io::IDataSeekableReadStream {
 public:
  // Enough for the header and the body of small entries in one read.
  static constexpr std::size_t kPrefetch = 16 * 1024;

  explicit PrefetchedBodyStream(EntryFile file) : m_file(std::move(file)) {}

  // Reads the first bytes of the file; false when it cannot.
  bool Prefetch() {
    std::uint64_t got = 0;
    if (!TqUSysFile::ReadFileAtFully(m_file.get(), m_bytes, kPrefetch, 0, &got)) return false;
    m_have = static_cast<std::size_t>(got);
    // A file read short is read to its end, and that long. A longer one is measured now: its
    // length when opened is the body's, so that a file some other program cuts under the reader
    // (ours are kept out) ends the body with an error instead of early.
    m_file_size = m_have < kPrefetch ? static_cast<std::int64_t>(m_have)
                                     : TqUSysFile::GetFileSize(m_file.get());
    return m_file_size >= 0;
  }
  const unsigned char* Bytes() const { return m_bytes; }
  std::size_t Have() const { return m_have; }
  void SetBody(std::uint64_t offset) { m_body = offset; }

  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    if (size == 0) return 0;
    // As every file stream refuses it: a caller's null buffer is an error, not a crash.
    if (buffer == nullptr) Fail("FileReadStream: cannot read the file");
    const std::uint64_t at = m_body + m_position;  // no overflow: seeks keep both in range
    if (at < m_have) {
      const auto n = static_cast<std::size_t>(std::min<std::uint64_t>(size, m_have - at));
      std::memcpy(buffer, m_bytes + at, n);
      m_position += n;
      return n;
    }
    if (at >= static_cast<std::uint64_t>(m_file_size)) return 0;
    std::uint64_t got = 0;
    if (!TqUSysFile::ReadFileAt(m_file.get(), buffer, size, at, &got) || got == 0) {
      Fail("FileReadStream: cannot read the file");
    }
    m_position += got;
    return got;
  }

  qv::io::StreamMetaData MetaData() override {
    qv::io::StreamMetaData meta;
    meta.size = static_cast<std::uint64_t>(m_file_size) > m_body ? m_file_size - m_body : 0;
    return meta;
  }

  std::uint64_t RSeek(std::int64_t offset, qv::io::StreamPosition origin) override {
    std::int64_t from = 0;
    switch (origin) {
      case qv::io::StreamPosition::Begin:
        break;
      case qv::io::StreamPosition::Current:
        from = static_cast<std::int64_t>(m_position);
        break;
      case qv::io::StreamPosition::End:
        from = static_cast<std::uint64_t>(m_file_size) > m_body
                   ? m_file_size - static_cast<std::int64_t>(m_body)
                   : 0;
        break;
      default:
        Fail("FileReadStream: cannot seek");
    }
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    if ((offset > 0 && from > kMax - offset) || from + offset < 0 ||
        static_cast<std::uint64_t>(from + offset) > static_cast<std::uint64_t>(kMax) - m_body) {
      Fail("FileReadStream: cannot seek");
    }
    m_position = static_cast<std::uint64_t>(from + offset);
    return m_position;
  }

  std::uint64_t RTell() override { return m_position; }

 private:
  EntryFile m_file;
  std::uint64_t m_body = 0;      // the body's first byte in the file
  std::uint64_t m_position = 0;  // in the body
  std::size_t m_have = 0;        // the file's first m_have bytes are in m_bytes
  // The file's size when opened, known once prefetched: the stream is handed out only then.
  std::int64_t m_file_size = -1;
  unsigned char m_bytes[kPrefetch];
};

}  // namespace

std::shared_ptr<const EntryName> EntryNameIndex::Find(std::wstring_view url) const {
  std::lock_guard lock(m_mutex);
  const auto found = m_names.find(url);
  return found == m_names.end() ? nullptr : found->second;
}

void EntryNameIndex::Remember(std::wstring_view url, std::shared_ptr<const EntryName> name) {
  if (url.size() > kMaxUrlLength) return;
  std::lock_guard lock(m_mutex);
  if (m_names.size() >= kMaxNames) m_names.clear();
  m_names.insert_or_assign(std::wstring(url), std::move(name));
}

std::unique_ptr<qv::io::IDataSeekableReadStream> OpenFreshEntryBody(const EntryName& name,
                                                                    std::int64_t now) {
  EntryFile file(TqUSysFile::OpenFile(name.path, TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                                      TqUSysFile::kOpenExisting, 0, 0));
  if (!file) return nullptr;
  auto stream = std::make_unique<PrefetchedBodyStream>(std::move(file));
  if (!stream->Prefetch()) return nullptr;
  // The header as every reader of entries checks it, from the bytes already read; a header
  // longer than those is left to the full path.
  const unsigned char* bytes = stream->Bytes();
  const std::size_t have = stream->Have();
  const ef::HeaderWalk walk = ef::WalkHeader(bytes, have);
  if (!walk.complete) return nullptr;
  const std::uint16_t header_size = ef::GetU16(bytes + ef::kHeaderSizeOffset);
  const std::int64_t last_used = ef::GetI64(bytes + ef::kLastUsedOffset);
  const std::int64_t expiry = ef::GetI64(bytes + ef::kExpiryOffset);
  if (header_size == 0 || expiry < now || last_used != now ||
      std::string_view(reinterpret_cast<const char*>(bytes + walk.key_offset), walk.key_length) !=
          name.key) {
    return nullptr;
  }
  stream->SetBody(ef::BodyOffset(header_size));
  return stream;
}

}  // namespace qv::net::detail
