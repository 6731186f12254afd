#include "net/cache/cache_entry.h"

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include <gsl/narrow>

#include "net/cache/cache_entry_format.h"
#include "net/cache/url_cache.h"
#include "net/stream/stream_copy.h"

namespace qv::net {
namespace {

namespace fs = std::filesystem;
namespace ef = entry_format;

using UniqueFile = EntryFile;

// An entry file opened for reading, shared with other readers; refused at once while a writer
// holds it.
UniqueFile OpenForReading(const fs::path& path) {
  return UniqueFile(TqUSysFile::OpenFile(path, TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                                         TqUSysFile::kOpenExisting, 0, 0));
}

// A body read from an entry file whose length is taken when it is opened. Stores replace the
// file by rename and the sharing keeps writers of ours out, so the file cannot shrink under
// the reader unless some other program cuts it: the end of the file before that length is then
// a read error, never the end of a body that would look whole to the caller.
class EntryBodyStream final : public qv::io::FileReadStream {
 public:
  EntryBodyStream(TqUSysFile::Handle file, std::uint64_t end)
      : qv::io::FileReadStream(file), m_end(end) {}

  std::uint64_t Read(void* buffer, std::uint64_t size) override {
    const std::uint64_t got = FileReadStream::Read(buffer, size);
    if (got == 0 && size > 0 && RTell() < m_end) {
      throw std::runtime_error("FileReadStream: cannot read the file");
    }
    return got;
  }

 private:
  std::uint64_t m_end;  // the body's length when opened
};

// A stream over the body of `file`, which starts at `offset`; null when the file cannot seek.
std::unique_ptr<qv::io::IDataSeekableReadStream> BodyStream(UniqueFile file,
                                                            std::uint64_t offset) {
  // A length that cannot be had leaves nothing to check against (0).
  const std::int64_t size = TqUSysFile::GetFileSize(file.get());
  const std::uint64_t end =
      size >= 0 && static_cast<std::uint64_t>(size) > offset
          ? static_cast<std::uint64_t>(size) - offset
          : 0;
  // The stream owns the handle once it exists: released before the allocation, a handle would
  // stay open (and the file held against writers) when the allocation fails.
  auto stream = std::make_unique<EntryBodyStream>(file.get(), end);
  file.release();
  stream->SetBaseOffset(offset);
  // Moved by the stream itself, which then knows where the file stands without asking again.
  try {
    stream->RSeek(0, qv::io::StreamPosition::Begin);
  } catch (const std::runtime_error&) {
    return nullptr;
  }
  return stream;
}

// Reads until `size` bytes or the end; the count read.
std::size_t ReadFully(TqUSysFile::Handle file, unsigned char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    std::uint64_t got = 0;
    if (!TqUSysFile::ReadFile(file, buffer + done, size - done, &got) || got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

// What a header on disk says. Reading goes through one small buffer; every length read from
// the file is checked against the file's size before anything is allocated for it, so a
// corrupt or hostile file costs at most one bounded read and is never trusted.
struct HeaderFields {
  std::uint16_t header_size = 0;
  std::int64_t last_used = 0;
  std::int64_t expiry = 0;
  std::string etag;
  std::string key;
  std::uint8_t flags = 0;
  std::uint64_t header_end = 0;  // the byte after the end marker (or the extension)
};

// One read of a file's first bytes holds the header of nearly every entry (a URL of some
// hundred characters and its tag), without touching the heap; a longer header is read on.
constexpr std::size_t kFirstRead = 512;

class HeaderReader {
 public:
  explicit HeaderReader(TqUSysFile::Handle file) : m_file(file) {
    m_have = ReadFully(m_file, m_first.data(), kFirstRead);
    m_at_end = m_have < kFirstRead;
  }

  // The bytes read so far, from the file's first.
  std::size_t Have() const { return m_have; }

  // Makes the first `size` bytes of the file available; false when the file is shorter.
  bool Ensure(std::size_t size) {
    if (size <= m_have) return true;
    if (m_at_end) return false;
    const std::int64_t file_size = TqUSysFile::GetFileSize(m_file);
    if (file_size < 0 || static_cast<std::uint64_t>(file_size) < size) return false;
    if (m_more.empty()) m_more.assign(m_first.begin(), m_first.begin() + m_have);
    m_more.resize(size);
    m_have += ReadFully(m_file, m_more.data() + m_have, size - m_have);
    return m_have >= size;
  }

  const unsigned char* At(std::size_t offset) const {
    return (m_more.empty() ? m_first.data() : m_more.data()) + offset;
  }

 private:
  TqUSysFile::Handle m_file;
  std::array<unsigned char, kFirstRead> m_first;
  std::vector<unsigned char> m_more;  // the whole header, once it outgrows the first read
  std::size_t m_have = 0;
  bool m_at_end = false;
};

// Parses the header at the start of `file`. False when a marker is wrong or cannot be read (a
// file shorter than its header): then the file is not an entry. Like other readers of the
// format, the header size is taken as stored, not recomputed from the two lengths. Without
// `with_strings` the tag and key are checked for their length only and not copied.
bool ReadHeader(TqUSysFile::Handle file, HeaderFields& out, bool with_strings = true) {
  HeaderReader reader(file);
  // The walk of every reader of the format, read on as far as it needs.
  ef::HeaderWalk walk = ef::WalkHeader(reader.At(0), reader.Have());
  while (!walk.complete && walk.end > reader.Have()) {
    if (!reader.Ensure(walk.end)) return false;
    walk = ef::WalkHeader(reader.At(0), reader.Have());
  }
  if (!walk.complete) return false;
  out.header_size = ef::GetU16(reader.At(ef::kHeaderSizeOffset));
  out.last_used = ef::GetI64(reader.At(ef::kLastUsedOffset));
  out.expiry = ef::GetI64(reader.At(ef::kExpiryOffset));
  // The optional extension, when the header size leaves room for it before the body.
  const std::size_t extension_offset = walk.end;
  if (ef::BodyOffset(out.header_size) >= extension_offset + ef::kExtensionSize &&
      reader.Ensure(extension_offset + ef::kExtensionSize) &&
      ef::GetU16(reader.At(extension_offset)) == ef::kExtensionMarker) {
    out.flags = *reader.At(extension_offset + 2);
  }
  out.header_end = extension_offset + (out.flags != 0 ? ef::kExtensionSize : 0);
  if (!with_strings) return true;
  const std::size_t tag_length = walk.key_offset - 2 - ef::kTagOffset;
  out.etag.assign(reinterpret_cast<const char*>(reader.At(ef::kTagOffset)), tag_length);
  out.key.assign(reinterpret_cast<const char*>(reader.At(walk.key_offset)), walk.key_length);
  return true;
}

// The header size that `etag`, `key` and the flags' extension need, which may exceed what the
// header size field holds. An over-long tag or key throws the narrowing error of its own length
// field.
std::size_t HeaderSizeOf(const std::string& etag, const std::string& key, std::uint8_t flags) {
  const auto tag_length = gsl::narrow<std::uint16_t>(etag.size());
  const auto key_length = gsl::narrow<std::uint16_t>(key.size());
  return ef::HeaderSize(tag_length, key_length, flags != 0);
}

// The same for a header about to be written whole: a pair that fits one by one but not
// together is refused like an over-long one, since the header size field cannot hold it and a
// truncated size would place the body in the middle of the key.
std::uint16_t RequiredHeaderSize(const std::string& etag, const std::string& key,
                                 std::uint8_t flags) {
  const std::size_t size = HeaderSizeOf(etag, key, flags);
  if (size > ef::kMaxHeaderSize) throw gsl::narrowing_error();
  return static_cast<std::uint16_t>(size);
}

// Deletes the file `held` that `owner` holds open at `path`. It goes while it is still held, so
// no other writer can have opened the name in between; only when that fails is it tried again
// by name once closed. A name that holds another writer's file by now (the directory was
// cleared under us) is left to that writer.
template <class Owner>
void DeleteHeldFile(Owner& owner, TqUSysFile::Handle held, const fs::path& path) {
  std::error_code ec;
  TqUSysFile::RemoveHeldFile(held, path, ec);
  owner.reset();
  if (ec) TqUSysFile::RemoveFile(path, ec);
}

// Deletes the file that is no entry, which `file` holds open (as a reader) at `path`, and closes
// it. A writer may have taken the name for a file of its own since the file was opened: the
// name goes only while it still names this file, or that writer's body would be lost. Where an
// open file cannot be deleted (Windows), it is closed first; a writer's sharing then keeps its
// file. True when this file no longer lies at the name.
bool DeleteNonEntry(UniqueFile file, const fs::path& path) {
  std::error_code ec;
#if defined(_WIN32)
  file.reset();
  if (!detail::EntryFileExists(path)) return true;
  TqUSysFile::RemoveFile(path, ec);
#else
  TqUSysFile::RemoveHeldFile(file.get(), path, ec);
#endif
  return !ec;
}

// The same for a file found as `name` in a listing of `directory`.
bool DeleteListedNonEntry(UniqueFile file, const TqUSysDirectory& directory,
                          const TqUSysDirectory::Char* name) {
#if defined(_WIN32)
  // The name goes to the directory as listed: joined into a path, Windows would tidy it first,
  // and a planted "0123456789." would remove the entry "0123456789".
  file.reset();
  std::error_code ec;
  if (!directory.Exists(name, ec)) return !ec;
  directory.RemoveFile(name, ec);
  return !ec;
#else
  return DeleteNonEntry(std::move(file), directory.Path() / name);
#endif
}

// The header size an operation that writes a new file starts from, put back as it was unless
// the operation ends with that file in place (Keep): a file that never reached the entry's name
// leaves the entry's header as it was on disk.
class HeaderSizeUntilKept {
 public:
  explicit HeaderSizeUntilKept(std::uint16_t& size) : m_size(size), m_before(size) {}
  ~HeaderSizeUntilKept() {
    if (!m_kept) m_size = m_before;
  }
  HeaderSizeUntilKept(const HeaderSizeUntilKept&) = delete;
  HeaderSizeUntilKept& operator=(const HeaderSizeUntilKept&) = delete;
  void Keep() { m_kept = true; }

 private:
  std::uint16_t& m_size;
  const std::uint16_t m_before;
  bool m_kept = false;
};

// Renames the file `held` that `owner` holds open over `to`, then closes it. Renaming while
// holding it keeps a second writer from opening the temporary name, emptying it and having its
// half-written file renamed into place by us; and the name is renamed only while it is still
// ours (a cleared directory loses it, and another writer may make it anew).
template <class Owner>
bool RenameHeldFile(Owner& owner, TqUSysFile::Handle held, const fs::path& from,
                    const fs::path& to) {
  std::error_code ec;
  if (TqUSysFile::RenameHeldFile(held, from, to, ec)) {
    owner.reset();
    return true;
  }
  // Gone (the cache was cleared under us): nothing to rename and nothing of ours to delete.
  // Failed for good: once the file is let go, the name may hold another writer's half-written
  // file, which a second try would put in place. Ours goes while it is still held.
  if (ec != std::errc::no_such_file_or_directory) TqUSysFile::RemoveHeldFile(held, from, ec);
  owner.reset();
  return false;
}

// A body written straight into its entry file by a caller. A write that fails (a full disk)
// would leave the body cut short under the entry's name, where a later read takes it for the
// whole body: the entry goes at once, while the file is still held so that no other writer's
// file is taken for it, and the stream writes nothing more. Should that fail, the file keeps
// the start marker it was made without, and the next look at the name deletes it as no entry.
class EntryBodyWriteStream final : public qv::io::FileWriteStream {
 public:
  EntryBodyWriteStream(TqUSysFile::Handle file, fs::path path)
      : qv::io::FileWriteStream(file), m_file(file), m_path(std::move(path)) {}

  // The writer is done: the file becomes an entry (its start marker was left out until now).
  ~EntryBodyWriteStream() override {
    if (!m_failed) WriteStartMarker();
  }

  std::uint64_t Write(const void* buffer, std::uint64_t size) override {
    if (m_failed) throw std::runtime_error("FileWriteStream: cannot write the file");
    try {
      return FileWriteStream::Write(buffer, size);
    } catch (...) {
      Discard();
      throw;
    }
  }

 private:
  void Discard() noexcept {
    m_failed = true;
    std::error_code ec;
    TqUSysFile::RemoveHeldFile(m_file, m_path, ec);
  }

  void WriteStartMarker() noexcept {
    unsigned char marker[2];
    ef::PutU16(marker, ef::kStartMarker);
    std::uint64_t written = 0;
    if (TqUSysFile::SeekFile(m_file, static_cast<std::int64_t>(ef::kStartMarkerOffset), 0) ==
        static_cast<std::int64_t>(ef::kStartMarkerOffset)) {
      TqUSysFile::WriteFile(m_file, marker, sizeof marker, &written);
    }
  }

  TqUSysFile::Handle m_file;  // owned by the base
  fs::path m_path;
  bool m_failed = false;
};

}  // namespace

invalid_cache_header::invalid_cache_header()
    : std::runtime_error("Cache entry was invalid or corrupt. It was deleted.") {}

namespace detail {
void LogUnexpectedBodyLength(std::uint64_t expected, std::uint64_t read) {
  TqUSysError::LogUTF8String(
      "Failed to read expected number of bytes from HTTP stream into cache system. "
      "Expected ");
  TqUError::LogNat64(expected);
  TqUSysError::LogUTF8String(" but read ");
  TqUError::LogNat64(read);
  TqUSysError::LogUTF8String("\n");
}

EntryFileKind KindOfEntryFile(const fs::path& path) {
  std::error_code ec;
  const EntryFileKind kind = TqUSysFile::KindOfName(path, ec);
  if (ec) throw fs::filesystem_error("exists", path, ec);
  return kind;
}

bool EntryFileExists(const fs::path& path) { return KindOfEntryFile(path) != EntryFileKind::kNone; }
}  // namespace detail

CacheEntry::CacheEntry(fs::path path, std::string key)
    : m_path(std::move(path)), m_key(std::move(key)) {}

CacheEntry CacheEntry::Load(const fs::path& path) { return Load(path, nullptr); }

CacheEntry CacheEntry::Load(const fs::path& path, EntryFile* keep_open) {
  CacheEntry entry;
  entry.m_path = path;
  HeaderFields fields;
  {
    UniqueFile file = OpenForReading(path);
    if (!file) {
      throw std::runtime_error("Cache entry could not be opened. Maybe in use by another process?");
    }
    if (!ReadHeader(file.get(), fields)) {
      if (DeleteNonEntry(std::move(file), path)) throw invalid_cache_header();
      throw std::runtime_error(
          "Cache entry was invalid but unable to delete it. Maybe in use by another process?");
    }
    if (keep_open != nullptr) *keep_open = std::move(file);
  }
  entry.m_header_size = fields.header_size;
  entry.m_last_used = fields.last_used;
  entry.m_expiry = fields.expiry;
  entry.m_etag = std::move(fields.etag);
  entry.m_key = std::move(fields.key);
  entry.m_flags = fields.flags;
  return entry;
}

CacheEntry::Probe CacheEntry::ProbeTimes(const TqUSysDirectory& directory,
                                         const TqUSysDirectory::Char* name,
                                         std::int64_t* last_used, std::int64_t* expiry,
                                         bool* stored_body) {
  // One read of the file's first bytes, without a handle; a longer header (a long tag or key)
  // is read as Load reads it.
  unsigned char first[kFirstRead];
  const std::int64_t got = directory.ReadStart(name, first, kFirstRead);
  if (got < 0) return Probe::kUnusable;
  const auto have = static_cast<std::size_t>(got);
  // The checks of ReadHeader, on the bytes read: a file shorter than its header is no entry.
  const ef::HeaderWalk walk = ef::WalkHeader(first, have);
  bool valid = walk.complete;
  // A header longer than the first read, in a file that may be long enough for it.
  const bool longer = walk.end > have && have == kFirstRead;
  HeaderFields fields;
  std::string_view key;
  if (longer) {
    UniqueFile file(directory.OpenFile(name, TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                                       TqUSysFile::kOpenExisting, 0, 0));
    if (!file) return Probe::kUnusable;
    // With the key: whether it names a stored body decides how the file may be removed.
    valid = ReadHeader(file.get(), fields);
    key = fields.key;
  } else if (valid) {
    fields.last_used = ef::GetI64(first + ef::kLastUsedOffset);
    fields.expiry = ef::GetI64(first + ef::kExpiryOffset);
    key = std::string_view(reinterpret_cast<const char*>(first + walk.key_offset),
                           walk.key_length);
  }
  if (valid) {
    static const std::string stored_body_prefix = qv::WideToUtf8(CachePrefix());
    *last_used = fields.last_used;
    *expiry = fields.expiry;
    *stored_body = key.starts_with(stored_body_prefix);
    return Probe::kEntry;
  }
  // Not an entry: deleted as Load deletes it (gone already counts as deleted). The bytes read
  // came without a handle, so the file is opened again and looked at once more: a writer may
  // have put a file of its own at the name meanwhile, and that one is not touched.
  UniqueFile file(directory.OpenFile(name, TqUSysFile::kAccessRead, TqUSysFile::kShareRead,
                                     TqUSysFile::kOpenExisting, 0, 0));
  if (!file) {
    std::error_code ec;
    return directory.Exists(name, ec) || ec ? Probe::kUnusable : Probe::kDeleted;
  }
  if (ReadHeader(file.get(), fields, false)) return Probe::kUnusable;  // an entry by now
  return DeleteListedNonEntry(std::move(file), directory, name) ? Probe::kDeleted
                                                                : Probe::kUnusable;
}

bool CacheEntry::IsValid() const {
  return detail::EntryFileExists(m_path) && m_header_size != 0;
}

bool CacheEntry::Remove() {
  if (!detail::EntryFileExists(m_path)) return true;
  std::error_code ec;
  TqUSysFile::RemoveFile(m_path, ec);
  if (ec) return false;
  m_header_size = 0;
  return true;
}

bool CacheEntry::UpdateETag(const std::optional<std::string>& tag) {
  if (!tag) return true;
  const bool changed = *tag != m_etag;
  m_etag = *tag;
  return changed;
}

bool CacheEntry::WriteHeader(TqUSysFile::Handle file, bool fixed_part_only, bool unfinished) {
  // A header on disk that does not add up (a file loaded with a header size its tag and key do
  // not fill, or overflow) is not one this header fits in front of: refused, not thrown, so
  // that its body is still served.
  if (m_header_size != 0 && m_header_size != HeaderSizeOf(m_etag, m_key, m_flags)) return false;
  const std::uint16_t size = RequiredHeaderSize(m_etag, m_key, m_flags);

  std::vector<unsigned char> header(ef::BodyOffset(size));
  ef::PutU16(&header[ef::kHeaderSizeOffset], size);
  ef::PutU16(&header[ef::kStartMarkerOffset], unfinished ? std::uint16_t{0} : ef::kStartMarker);
  ef::PutI64(&header[ef::kLastUsedOffset], m_last_used);
  ef::PutI64(&header[ef::kExpiryOffset], m_expiry);
  std::size_t length = ef::kFixedPartSize;
  if (!fixed_part_only) {
    const std::size_t tag_length = m_etag.size();
    ef::PutU16(&header[ef::kTagLengthOffset], static_cast<std::uint16_t>(tag_length));
    std::memcpy(&header[ef::kTagOffset], m_etag.data(), tag_length);
    const std::size_t key_length_offset = ef::kTagOffset + tag_length;
    ef::PutU16(&header[key_length_offset], static_cast<std::uint16_t>(m_key.size()));
    std::memcpy(&header[key_length_offset + 2], m_key.data(), m_key.size());
    const std::size_t end_marker_offset = key_length_offset + 2 + m_key.size();
    ef::PutU16(&header[end_marker_offset], ef::kEndMarker);
    if (m_flags != 0) {
      ef::PutU16(&header[end_marker_offset + 2], ef::kExtensionMarker);
      header[end_marker_offset + 4] = m_flags;
    }
    length = header.size();
  }
  // One write for the whole header. A header that did not reach the file must never be
  // renamed into place, so a failed write is reported (the body's writes are checked by the
  // copy).
  std::uint64_t written = 0;
  if (!TqUSysFile::WriteFile(file, header.data(), length, &written) || written != length) {
    return false;
  }
  if (!fixed_part_only && m_header_size == 0) m_header_size = size;
  return true;
}

TqUSysFile::Handle CacheEntry::CreateEntryFile(const fs::path& path, bool unfinished) {
  // Checked before the file is opened, so that a refused header leaves an existing file as it
  // was instead of emptied.
  RequiredHeaderSize(m_etag, m_key, m_flags);
  // A whole new file carries a header of its own, so it starts from a cleared header size:
  // an entry whose tag changed length is stored anew instead of refused for not fitting in
  // front of a body that is about to be replaced anyway.
  HeaderSizeUntilKept header_size(m_header_size);
  m_header_size = 0;
  UniqueFile file(TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                                       TqUSysFile::kCreateAlways, 0, 0));
  if (!file) return TqUSysFile::kInvalid;
  // A header that did not reach the file, refused or thrown (out of memory), takes the file
  // just made with it: an empty file must not stay behind under the name.
  bool written = false;
  try {
    written = WriteHeader(file.get(), false, unfinished);
  } catch (...) {
    DeleteHeldFile(file, file.get(), path);
    throw;
  }
  if (!written) {
    DeleteHeldFile(file, file.get(), path);
    return TqUSysFile::kInvalid;
  }
  header_size.Keep();
  return file.release();
}

bool CacheEntry::Store(qv::io::IDataReadStream& source, qv::stop_token stop, std::int64_t now,
                       std::optional<std::uint64_t> expected_size) {
  m_last_used = now;
  fs::path temporary = m_path;
  temporary += ".tmp";
  // The header of the file at the entry's name until the new one is renamed over it.
  HeaderSizeUntilKept header_size(m_header_size);
  TqUSysFile::Handle handle = CreateEntryFile(temporary);
  if (handle == TqUSysFile::kInvalid) return false;
  // The stream owns the handle; it stays alive until the rename so the lock is held throughout.
  std::unique_ptr<qv::io::FileWriteStream> target;
  try {
    target = std::make_unique<qv::io::FileWriteStream>(handle);
  } catch (...) {
    UniqueFile held(handle);
    DeleteHeldFile(held, handle, temporary);
    throw;
  }
  // The copy catches the read and write errors it knows (runtime errors); anything else that
  // escapes it (out of memory, a logic error of a source) must not leave a half-written
  // temporary file behind either.
  CopyStreamResult copy;
  try {
    copy = CopyStream(source, *target, std::move(stop));
  } catch (...) {
    DeleteHeldFile(target, handle, temporary);
    throw;
  }
  const bool whole = !expected_size || *expected_size == copy.bytes_copied;
  if (copy.completed && !whole) detail::LogUnexpectedBodyLength(*expected_size, copy.bytes_copied);
  if (!copy.completed || !whole) {
    DeleteHeldFile(target, handle, temporary);
    return false;
  }
  if (!RenameHeldFile(target, handle, temporary, m_path)) return false;
  header_size.Keep();
  return true;
}

std::unique_ptr<qv::io::IDataSeekableReadStream> CacheEntry::OpenLoadedBody(
    EntryFile file) const {
  return BodyStream(std::move(file), ef::BodyOffset(m_header_size));
}

std::unique_ptr<qv::io::IDataSeekableWriteStream> CacheEntry::OpenWriteStream(std::int64_t now) {
  // Writing a body is a store: the last-used time says so, or a clean-up would take a body
  // just written for one that has not been touched since it was loaded.
  m_last_used = now;
  fs::path path = m_path;
  // Written in place, the body is under the entry's name while it grows: without its start
  // marker until the stream is closed, a file whose writer was killed half-way is deleted at
  // the next look instead of served as if the cut body were whole.
  const TqUSysFile::Handle handle = CreateEntryFile(m_path, true);
  if (handle == TqUSysFile::kInvalid) return nullptr;
  std::unique_ptr<EntryBodyWriteStream> stream;
  try {
    stream = std::make_unique<EntryBodyWriteStream>(handle, std::move(path));
  } catch (...) {
    // Out of memory for the stream: the file just made goes with its lock, or the name would
    // stay held and keep a body never written.
    UniqueFile held(handle);
    DeleteHeldFile(held, handle, m_path);
    m_header_size = 0;
    throw;
  }
  const std::uint64_t offset = ef::BodyOffset(m_header_size);
  if (TqUSysFile::SeekFile(handle, static_cast<std::int64_t>(offset), 0) < 0) {
    // The caller is told nothing was stored: the header just written must not stay behind as
    // an entry with an empty body, read back later as if it had been stored.
    DeleteHeldFile(stream, handle, m_path);
    m_header_size = 0;
    return nullptr;
  }
  stream->SetBaseOffset(offset);
  return stream;
}

std::unique_ptr<qv::io::IDataSeekableReadStream> CacheEntry::OpenReadStream(std::int64_t now) {
  m_last_used = now;
  // Record the use. Skipped when the file is in use (readers hold it) and when the name now
  // holds another file than the one loaded (a store renamed a new one over it): our fixed part
  // must never be written over a header of a different size.
  {
    UniqueFile file(
        TqUSysFile::OpenFile(m_path, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                             TqUSysFile::kOpenExistingWrite, 0, 0));
    HeaderFields on_disk;
    if (file && ReadHeader(file.get(), on_disk) && on_disk.header_size == m_header_size &&
        on_disk.etag == m_etag && on_disk.key == m_key && on_disk.flags == m_flags &&
        TqUSysFile::SeekFile(file.get(), 0, 0) == 0) {
      WriteHeader(file.get(), true);
    }
  }
  UniqueFile file = OpenForReading(m_path);
  if (!file) return nullptr;
  // The body's offset comes from the file actually opened, not from the earlier look at the
  // name: a store may have renamed a complete new file with a longer tag over it meanwhile.
  HeaderFields on_disk;
  if (!ReadHeader(file.get(), on_disk) || on_disk.key != m_key) return nullptr;
  // A header size of 0 (no size on disk, which recording the use fills in when it can) would put
  // the body at byte 2, in the middle of the header: it starts after the header as read.
  return BodyStream(std::move(file), on_disk.header_size != 0
                                         ? ef::BodyOffset(on_disk.header_size)
                                         : on_disk.header_end);
}

}  // namespace qv::net
