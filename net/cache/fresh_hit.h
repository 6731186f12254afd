// The short way to a fresh cache entry: the entry file's name remembered per URL text, and the
// file opened once, its header and first body bytes read together, for the common case of a
// hit that changes nothing on disk. Anything else takes the disk cache's full path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "net/host/tqutil.h"

namespace qv::net::detail {

// Where the entry of a URL lives: its file and its key. Both follow from the URL's text and
// the cache directory alone (normalisation, then digest), so a remembered name never goes out
// of date; what the file holds is still checked on every use.
struct EntryName {
  std::filesystem::path path;
  std::string key;
};

// URL text -> entry name for the URLs one cache opened lately, so that a repeated open skips
// parsing, normalising and digesting the URL. Bounded: it forgets everything when full. Used
// from several threads at once.
class EntryNameIndex {
 public:
  std::shared_ptr<const EntryName> Find(std::wstring_view url) const;
  void Remember(std::wstring_view url, std::shared_ptr<const EntryName> name);

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::wstring_view text) const noexcept {
      return std::hash<std::wstring_view>()(text);
    }
  };
  // Enough for the URLs a program keeps opening, and a bound on the text held: longer URLs are
  // not remembered, so the index holds some MiB at worst.
  static constexpr std::size_t kMaxNames = 4096;
  static constexpr std::size_t kMaxUrlLength = 512;

  mutable std::mutex m_mutex;
  std::unordered_map<std::wstring, std::shared_ptr<const EntryName>, Hash, std::equal_to<>>
      m_names;
};

// The body of the entry file `name` when it holds `name.key`, is fresh at `now` and has its
// use recorded at `now` already (so serving it writes nothing). The file is opened as every
// entry read opens it (shared with readers, no link followed, regular files only). Null when
// anything differs (no file, another key, a wrong marker or a header longer than the bytes
// read at once, stale, use not yet recorded this second): then nothing was changed, and the
// full path deals with the case.
std::unique_ptr<qv::io::IDataSeekableReadStream> OpenFreshEntryBody(const EntryName& name,
                                                                    std::int64_t now);

}  // namespace qv::net::detail
