// Trimming the disk cache to its configured size: DiskCache::CleanUp and what it runs.
#include <algorithm>
#include <future>
#include <system_error>

#include "net/cache/disk_cache.h"

namespace qv::net {
namespace {

namespace fs = std::filesystem;

// Within one span of last-use times, counted from the oldest entry still left, expired entries
// go before the rest.
constexpr std::uint64_t kSpanSeconds = 3600;

// The run trims to 80 % of the limit, so that it is not needed again after the next few stores.
constexpr double kTargetFraction = 0.8;

}  // namespace

bool DiskCache::CleanUp() {
  // Runs on a thread of its own; dropping the future waits for it. An exception of the run
  // stays in the dropped future: the host's call always succeeds.
  try {
    (void)std::async(std::launch::async, [this] { EnforceSizeLimit(); });
  } catch (const std::system_error&) {
    // No thread to be had: trim on the caller's thread instead of not at all.
    try {
      EnforceSizeLimit();
    } catch (const std::exception&) {
    }
  }
  return true;
}

void DiskCache::EnforceSizeLimit() {
  // One pass over the directory measures it and remembers each file's size, so that the
  // deletions below need no second look at the file (large directories are the slow case).
  std::vector<MeasuredFile> files;
  std::uint64_t total = 0;
  for (const fs::directory_entry& item : fs::directory_iterator(m_directory)) {
    std::error_code ec;
    if (!item.is_regular_file(ec)) continue;  // follows symbolic links
    // A file whose size cannot be read (gone meanwhile) counts as empty.
    const std::uintmax_t size = item.file_size(ec);
    MeasuredFile file{item.path(), ec ? 0 : static_cast<std::uint64_t>(size)};
    total += file.size;
    files.push_back(std::move(file));
  }

  const std::int32_t megabytes = TqUOption::GetInt32("general.localcache.max_size");
  // A negative value wraps to a limit near 2^64: nothing is ever deleted.
  const auto limit = static_cast<std::uint64_t>(static_cast<std::int64_t>(megabytes) * 1048576);
  const auto target = static_cast<std::uint64_t>(static_cast<double>(limit) * kTargetFraction);
  if (total <= limit) return;

  const std::int64_t now = TqUSysTime::GetTimeNow();
  std::vector<Slot> slots = ListEntries(files, total);
  if (total < target) return;
  std::sort(slots.begin(), slots.end(),
            [](const Slot& a, const Slot& b) { return a.last_used < b.last_used; });

  // Deletes one candidate; true when the run has reached its target.
  auto remove = [&](Slot& slot) {
    std::error_code ec;
    if (fs::remove(slot.entry->Path(), ec) && !ec) total -= std::min(total, slot.size);
    slot.entry.reset();
    return total < target;
  };

  const std::size_t count = slots.size();
  std::size_t first = 0;
  for (;;) {
    while (first < count && !slots[first].entry) ++first;
    if (first == count) return;
    // Measured as a distance from the span's first entry, so that an entry last used at the
    // end of time (a corrupt file) cannot overflow the span's end and stall the run.
    const auto span_start = static_cast<std::uint64_t>(slots[first].last_used);
    auto in_span = [&](std::size_t i) {
      return slots[i].entry &&
             static_cast<std::uint64_t>(slots[i].last_used) - span_start < kSpanSeconds;
    };
    for (std::size_t i = first; i < count && in_span(i); ++i) {
      if (slots[i].entry->Expiry() < now && remove(slots[i])) return;
    }
    std::size_t i = first;
    for (; i < count && in_span(i); ++i) {
      if (remove(slots[i])) return;
    }
    if (i == count) return;
  }
}

std::vector<DiskCache::Slot> DiskCache::ListEntries(std::vector<MeasuredFile>& files,
                                                    std::uint64_t& total) {
  std::vector<Slot> slots;
  slots.reserve(files.size());
  for (MeasuredFile& file : files) {
    try {
      CacheEntry entry = CacheEntry::Load(file.path);
      const std::int64_t last_used = entry.LastUsed();
      slots.push_back(Slot{std::move(entry), last_used, file.size});
    } catch (const invalid_cache_header&) {
      // Not an entry, and the load has deleted it: its bytes are gone from the directory.
      total -= std::min(total, file.size);
    } catch (const std::runtime_error&) {
      // Held by a writer (a store in progress) or undeletable: not a candidate.
    }
  }
  return slots;
}

}  // namespace qv::net
