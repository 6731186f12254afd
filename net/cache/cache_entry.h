// One disk cache entry file (layout in cache_entry_format.h): reading and validating its header,
// writing a new one, replacing its body through a ".tmp" file, serving the body, deleting it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "net/cache/cache_entry_format.h"
#include "net/host/tqutil.h"

namespace qv::net {

namespace detail {
struct EntryFileCloser {
  void operator()(TqUSysFile::Handle file) const { TqUSysFile::CloseFile(file); }
};
}  // namespace detail

// An open entry file, closed when it goes.
using EntryFile =
    std::unique_ptr<std::remove_pointer_t<TqUSysFile::Handle>, detail::EntryFileCloser>;

// A file found in the cache directory did not hold an entry and has been deleted.
class invalid_cache_header : public std::runtime_error {
 public:
  invalid_cache_header();
};

// The in-memory view of one entry file, made per operation by the disk cache and never shared
// between threads. Several threads and processes may work on the same file at once: reads share
// the file, writes are exclusive and refused at once when it is in use, and a store replaces the
// whole file by rename, so a reader sees the old file or the complete new one. An entry never
// reads the clock: the operations that record a use take the time `now` from their caller.
class CacheEntry {
 public:
  // A new entry for `key`, stale and never used, nothing on disk until it is stored.
  CacheEntry(std::filesystem::path path, std::string key);

  // Reads and checks the header of an existing file. Throws std::runtime_error when the file
  // cannot be opened (it is left alone), invalid_cache_header when it is not an entry (it has
  // been deleted), and std::runtime_error when it is not an entry but cannot be deleted.
  static CacheEntry Load(const std::filesystem::path& path);
  // The same, handing the file, still open for reading, to `*keep_open` when it loads.
  static CacheEntry Load(const std::filesystem::path& path, EntryFile* keep_open);

  // What the clean-up reads of the file `name` in `directory`: its times, read and checked as
  // Load reads and checks a file, without building an entry (no path, key or tag is kept), and
  // whether it is a body kept under a stored-body name ("qvcache://"): its writer writes it in
  // place, not through a file renamed over it.
  enum class Probe {
    kEntry,     // an entry: *last_used, *expiry and *stored_body are set
    kDeleted,   // not an entry, and deleted (where Load throws invalid_cache_header)
    kUnusable,  // cannot be opened, or not an entry and cannot be deleted (Load's other errors)
  };
  static Probe ProbeTimes(const TqUSysDirectory& directory, const TqUSysDirectory::Char* name,
                          std::int64_t* last_used, std::int64_t* expiry, bool* stored_body);

  // The file exists and has a header. Throws std::filesystem::filesystem_error ("exists").
  bool IsValid() const;
  // Deletes the file; true when it is gone (or was never there).
  bool Remove();
  // Takes a tag the source reported; true when the stored content must be replaced (the tag
  // differs). An absent tag changes nothing and also means "replace".
  bool UpdateETag(const std::optional<std::string>& tag);

  // Writes the header at the file's current position (the fixed part only, or all of it).
  // False when the header on disk (as loaded) is not the size that the current tag, key and
  // flags need, so that this one would not end where the body starts, or when the write
  // fails. Throws gsl::narrowing_error for a tag, key or header too long for its 16-bit field.
  // An `unfinished` header has no start marker: the file is no entry until it is set.
  bool WriteHeader(TqUSysFile::Handle file, bool fixed_part_only, bool unfinished = false);
  // Creates or empties `path` for exclusive writing and writes the whole header (`unfinished`
  // as in WriteHeader); the caller owns the handle. Null (and no file left behind) when it
  // cannot; gsl::narrowing_error (as WriteHeader) is thrown before the file is touched.
  TqUSysFile::Handle CreateEntryFile(const std::filesystem::path& path, bool unfinished = false);

  // Replaces the file with a header and the bytes of `source`, through Path() + ".tmp" and a
  // rename. False, with the old file untouched and no ".tmp" of ours left, when the ".tmp"
  // cannot be made, the copy is stopped or fails, or the rename fails; an exception that
  // escapes the copy also leaves no ".tmp"; gsl::narrowing_error as in CreateEntryFile. The
  // entry is recorded as used at `now`. With `expected_size`, a copy of another length is a
  // failed one too (logged): a source that ends a cut body as if it were whole.
  bool Store(qv::io::IDataReadStream& source, qv::stop_token stop, std::int64_t now,
             std::optional<std::uint64_t> expected_size = std::nullopt);

  // A stream over a fresh body written straight into the entry file (no ".tmp"); position 0 is
  // the first body byte, the entry recorded as used at `now`. The file becomes an entry when
  // the stream is destroyed: one whose writer died half-way is no entry. Null (and no file
  // left behind) when the file cannot be created or moved to the body; gsl::narrowing_error as
  // in CreateEntryFile.
  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(std::int64_t now);
  // Records the use at `now` (and any new expiry) in the file's fixed part, skipped while the
  // file is in use, then a stream over the body; null when the file cannot be opened or no
  // longer holds this entry's key.
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(std::int64_t now);
  // A stream over the body of `file`, kept open by Load, recording nothing: for a use that
  // would write exactly what the file holds already. Null when it cannot seek.
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenLoadedBody(EntryFile file) const;

  const std::filesystem::path& Path() const { return m_path; }
  std::uint16_t HeaderSize() const { return m_header_size; }
  const std::string& Key() const { return m_key; }
  const std::string& ETag() const { return m_etag; }
  std::int64_t LastUsed() const { return m_last_used; }
  std::int64_t Expiry() const { return m_expiry; }
  void SetExpiry(std::int64_t expiry) { m_expiry = expiry; }
  // The entry may be served stale when its server cannot answer (recorded by an open with
  // ServeStaleOnError from a response that did not forbid it). Kept in the header's optional
  // extension, so it reaches the file with the next whole header (a store).
  bool StaleAllowed() const { return (m_flags & entry_format::kFlagStaleAllowed) != 0; }
  void SetStaleAllowed(bool value) {
    m_flags = value ? entry_format::kFlagStaleAllowed : std::uint8_t{0};
  }
  // Whether the header has room for that mark beside the tag and the key.
  bool MarkFits() const {
    return entry_format::HeaderSize(m_etag.size(), m_key.size(), true) <=
           entry_format::kMaxHeaderSize;
  }

 private:
  CacheEntry() = default;

  std::filesystem::path m_path;
  std::uint16_t m_header_size = 0;  // 0 while no header of ours is on disk
  std::string m_key;
  std::string m_etag;
  std::int64_t m_last_used = 0;
  std::int64_t m_expiry = 0;
  std::uint8_t m_flags = 0;  // the header extension's flags; 0: no extension
};

namespace detail {
// What lies at an entry file's name, a link not followed: the cache directory may be writable
// by others, and a link, FIFO or directory planted there is never an entry of ours (nothing is
// read or written through it; the next store replaces it by rename, except a directory, which
// no rename of a file replaces).
using EntryFileKind = TqUSysFile::NameKind;  // kOther: a link, FIFO or device
// The log line of a body whose length is not the one its source announced.
void LogUnexpectedBodyLength(std::uint64_t expected, std::uint64_t read);
// Throws filesystem_error named "exists" when it cannot tell.
EntryFileKind KindOfEntryFile(const std::filesystem::path& path);
// The existence test used throughout the cache (anything at the name, links not followed):
// throws filesystem_error named "exists".
bool EntryFileExists(const std::filesystem::path& path);
}  // namespace detail

}  // namespace qv::net
