// Trimming the disk cache to its configured size: DiskCache::CleanUp and what it runs.
#include <algorithm>
#include <atomic>
#include <exception>
#include <future>
#include <limits>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "net/cache/cache_entry.h"
#include "net/cache/disk_cache.h"

namespace qv::net {
namespace {

namespace fs = std::filesystem;

// The regular files of the cache directory as measured.
struct Listing {
  struct File {
    std::size_t name = 0;    // offset of its name in `names`
    std::int64_t size = -1;  // -1 until read, and when it cannot be read
  };
  std::basic_string<TqUSysDirectory::Char> names;  // every file's name, each ended by a NUL
  std::vector<File> files;
  std::uint64_t total = 0;

  const TqUSysDirectory::Char* Name(std::size_t offset) const { return names.c_str() + offset; }
};

// An entry file that may be deleted.
struct Candidate {
  std::int64_t last_used = 0;
  std::int64_t expiry = 0;
  std::uint64_t size = 0;
  std::size_t name = 0;      // as in Listing::File
  bool in_place = false;  // written in place by its writer (see RemoveOldest)
};

// A temporary file of a store, which writes it in place before renaming it over the entry: one
// a killed store left behind is an entry to the run, and a new store may take it at any time.
bool IsTemporaryName(const TqUSysDirectory::Char* name) {
  static constexpr TqUSysDirectory::Char kSuffix[] = {'.', 't', 'm', 'p', 0};
  return std::basic_string_view<TqUSysDirectory::Char>(name).ends_with(kSuffix);
}

// Within one span of last-use times, counted from the oldest entry still left, expired entries
// go before the rest.
constexpr std::uint64_t kSpanSeconds = 3600;

// The run trims to 80 % of the limit, so that it is not needed again after the next few stores.
constexpr double kTargetFraction = 0.8;

// Threads of one run, for reading sizes and headers and for removing files. All of these wait
// on the device more than on the CPU: a size or header not in memory is a disk read, and where
// the file system discards freed blocks as it frees them, each removal waits about 0.2 ms for
// the disk; only many in flight at once keep the disk busy. Past about 32 the disk's own queue
// sets the pace. With everything in memory the extra threads cost next to nothing.
constexpr std::size_t kMaxThreads = 32;

// Jobs that one more thread must have before it is started: starting a thread costs about as
// much as some dozens of stats or header reads from memory, and a directory within its limit
// (the usual case) is then measured on the calling thread alone. A removal may wait on the
// disk, so each one is worth a thread.
constexpr std::size_t kReadsPerThread = 64;
constexpr std::size_t kRemovalsPerThread = 1;

// Runs job(i) for every i below `count` on the calling thread and on more threads, one for
// every `per_thread` jobs, up to kMaxThreads in all; returns once all are done. A thread that
// cannot be started leaves its share to the others (at worst the calling thread does
// everything). The first exception of a job stops the handing out of work and is thrown here,
// after every thread has been joined.
template <class Job>
void RunInParallel(std::size_t count, std::size_t per_thread, const Job& job) {
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  std::mutex error_mutex;
  std::exception_ptr error;
  auto work = [&]() noexcept {
    try {
      for (std::size_t i = next++; i < count && !failed.load(std::memory_order_relaxed);
           i = next++) {
        job(i);
      }
    } catch (...) {
      std::lock_guard lock(error_mutex);
      if (!error) error = std::current_exception();
      failed = true;
    }
  };
  {
    std::vector<std::thread> helpers;
    struct JoinAll {
      std::vector<std::thread>& threads;
      ~JoinAll() {
        for (std::thread& thread : threads) thread.join();
      }
    } join_all{helpers};
    const std::size_t wanted = std::min(kMaxThreads, count / per_thread);
    try {
      helpers.reserve(wanted > 0 ? wanted - 1 : 0);
      while (helpers.size() + 1 < wanted) helpers.emplace_back(work);
    } catch (const std::exception&) {
      // No more threads to be had (system_error) or no room to keep one (bad_alloc): the
      // ones running and this one share the work.
    }
    work();
  }
  if (error) std::rethrow_exception(error);
}

// The order in which the run visits the candidates, sorted oldest first: cycles over hour-wide
// spans of last-use times, each span counted from the oldest candidate left, its expired
// candidates first and then all of it by age; a pass ends at the span's end, the list's end or
// a candidate visited already. A visit takes the candidate out of the list whether or not its
// file then goes, so the order does not depend on how the removals turn out: it can be decided
// before they are made.
class VisitOrder {
 public:
  static constexpr std::size_t kEnd = std::numeric_limits<std::size_t>::max();

  VisitOrder(const std::vector<Candidate>& candidates, std::int64_t now)
      : m_candidates(candidates), m_left(candidates.size(), 1), m_now(now) {}

  // The next candidate to delete, or kEnd when the run has visited all it will.
  std::size_t Next() {
    const std::size_t count = m_candidates.size();
    for (;;) {
      switch (m_pass) {
        case Pass::kNewCycle:
          while (m_first < count && !m_left[m_first]) ++m_first;
          if (m_first == count) return kEnd;
          m_span_start = static_cast<std::uint64_t>(m_candidates[m_first].last_used);
          m_at = m_first;
          m_pass = Pass::kExpired;
          break;
        case Pass::kExpired:
          while (m_at < count && InSpan(m_at)) {
            const std::size_t i = m_at++;
            if (m_candidates[i].expiry < m_now) return Take(i);
          }
          m_at = m_first;
          m_pass = Pass::kOldest;
          break;
        case Pass::kOldest:
          if (m_at < count && InSpan(m_at)) return Take(m_at++);
          // Having reached the end of the list, the run is over; otherwise the next span
          // starts at the oldest candidate left.
          m_pass = m_at == count ? Pass::kDone : Pass::kNewCycle;
          break;
        case Pass::kDone:
          return kEnd;
      }
    }
  }

 private:
  enum class Pass { kNewCycle, kExpired, kOldest, kDone };

  // Measured as a distance from the span's first candidate, so that a candidate last used at
  // the end of time (a corrupt file) cannot overflow the span's end and stall the run.
  bool InSpan(std::size_t i) const {
    return m_left[i] &&
           static_cast<std::uint64_t>(m_candidates[i].last_used) - m_span_start < kSpanSeconds;
  }

  std::size_t Take(std::size_t i) {
    m_left[i] = 0;
    return i;
  }

  const std::vector<Candidate>& m_candidates;
  std::vector<unsigned char> m_left;
  const std::int64_t m_now;
  Pass m_pass = Pass::kNewCycle;
  std::size_t m_first = 0;
  std::size_t m_at = 0;
  std::uint64_t m_span_start = 0;
};

void Subtract(std::uint64_t& total, std::uint64_t size) { total -= std::min(total, size); }

std::uint64_t Size(const Listing::File& file) {
  return file.size < 0 ? 0 : static_cast<std::uint64_t>(file.size);
}

// Reads the header of every listed file, side by side. Files that are not entries are deleted
// by the reading; files that cannot be read (a writer holds them) are not candidates. Neither
// changes the total measured before: only the entries the run deletes are taken off it.
std::vector<Candidate> ListEntries(const TqUSysDirectory& directory, const Listing& listing) {
  struct Read {
    CacheEntry::Probe probe = CacheEntry::Probe::kUnusable;
    std::int64_t last_used = 0;
    std::int64_t expiry = 0;
    bool stored_body = false;
  };
  std::vector<Read> reads(listing.files.size());
  RunInParallel(reads.size(), kReadsPerThread, [&](std::size_t i) {
    Read& read = reads[i];
    read.probe = CacheEntry::ProbeTimes(directory, listing.Name(listing.files[i].name),
                                        &read.last_used, &read.expiry, &read.stored_body);
  });

  std::vector<Candidate> candidates;
  candidates.reserve(reads.size());
  for (std::size_t i = 0; i < reads.size(); ++i) {
    const Listing::File& file = listing.files[i];
    switch (reads[i].probe) {
      case CacheEntry::Probe::kEntry:
        candidates.push_back({reads[i].last_used, reads[i].expiry, Size(file), file.name,
                              reads[i].stored_body || IsTemporaryName(listing.Name(file.name))});
        break;
      case CacheEntry::Probe::kDeleted:   // not an entry: deleted by the reading
      case CacheEntry::Probe::kUnusable:  // held by a writer (a store in progress) or undeletable
        break;
    }
  }
  return candidates;
}

// Every regular file of the directory with its size, in one pass over the directory, so that
// the steps after it need no second look at it (large directories are the slow case).
Listing ListFiles(const TqUSysDirectory& directory, const fs::path& path) {
  Listing listing;
  const std::error_code listed = directory.List(
      [&listing](const TqUSysDirectory::Item& item) {
        if (!item.regular) return;
        listing.files.push_back({listing.names.size(), item.size});
        listing.names.append(item.name, item.length);
        listing.names.push_back(TqUSysDirectory::Char{});
      },
      false);
  if (listed) throw fs::filesystem_error("directory iterator", path, listed);
  // The sizes the listing did not carry, read side by side (one stat each on POSIX).
  RunInParallel(listing.files.size(), kReadsPerThread, [&](std::size_t i) {
    Listing::File& file = listing.files[i];
    if (file.size < 0) file.size = directory.FileSize(listing.Name(file.name));
  });
  for (const Listing::File& file : listing.files) {
    // A file whose size cannot be read (gone meanwhile) counts as empty.
    if (file.size > 0) listing.total += static_cast<std::uint64_t>(file.size);
  }
  return listing;
}

// The configured limit in bytes. A negative value wraps to a limit near 2^64: nothing is ever
// deleted.
std::uint64_t SizeLimit() {
  const std::int32_t megabytes = TqUOption::GetInt32("general.localcache.max_size");
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(megabytes) * 1048576);
}

// Deletes candidates in the run's order until `total` is below `target` or none is left.
// The victims are chosen in that order as if every removal succeeds, just enough of them to
// reach the target, and removed all at once. Removals that failed leave their bytes in the
// total, and the choosing goes on in the same order until the target is reached or nothing is
// left: the files that go are the same as if they went one by one. A writer may hold a victim's
// name by now (a body being written under it since its header was read): that file is passed
// over like any that cannot be removed, or the body being written would be lost.
void RemoveOldest(const TqUSysDirectory& directory, const Listing& listing,
                  const std::vector<Candidate>& candidates, std::int64_t now, std::uint64_t total,
                  std::uint64_t target) {
  VisitOrder order(candidates, now);
  std::vector<std::size_t> victims;
  std::vector<unsigned char> removed;
  while (total >= target) {
    victims.clear();
    for (std::uint64_t expected = total; expected >= target;) {
      const std::size_t next = order.Next();
      if (next == VisitOrder::kEnd) break;
      victims.push_back(next);
      Subtract(expected, candidates[next].size);
    }
    if (victims.empty()) return;
    removed.assign(victims.size(), 0);
    RunInParallel(victims.size(), kRemovalsPerThread, [&](std::size_t i) {
      // The writer of a stored body or a temporary file writes into the file at its name, which
      // a removal by name would take from it: held, it is passed over. Other entries are only
      // ever replaced by a rename and are removed by name, which costs one system call instead
      // of six.
      const Candidate& victim = candidates[victims[i]];
      const TqUSysDirectory::Char* name = listing.Name(victim.name);
      std::error_code ec;
      const bool gone = victim.in_place ? directory.RemoveFileUnlessHeld(name, ec)
                                           : directory.RemoveFile(name, ec);
      removed[i] = gone ? 1 : 0;
    });
    for (std::size_t i = 0; i < victims.size(); ++i) {
      if (removed[i]) Subtract(total, candidates[victims[i]].size);
    }
  }
}

}  // namespace

bool DiskCache::CleanUp() {
  // Runs on a thread of its own; dropping the future waits for it. An exception of the run
  // stays in the dropped future: the host's call always succeeds.
  try {
    (void)std::async(std::launch::async, [this] { EnforceSizeLimit(); });
  } catch (const std::exception&) {
    // No thread to be had (system_error), or no memory for the task's state (bad_alloc): trim
    // on the caller's thread instead of not at all.
    try {
      EnforceSizeLimit();
    } catch (const std::exception&) {
    }
  }
  return true;
}

void DiskCache::EnforceSizeLimit() {
  const TqUSysDirectory directory(m_directory);
  if (directory.Error()) {
    throw fs::filesystem_error("directory iterator", m_directory, directory.Error());
  }
  const Listing listing = ListFiles(directory, m_directory);
  const std::uint64_t limit = SizeLimit();
  if (listing.total <= limit) return;
  const auto target = static_cast<std::uint64_t>(static_cast<double>(limit) * kTargetFraction);
  const std::int64_t now = TqUSysTime::GetTimeNow();
  std::vector<Candidate> candidates = ListEntries(directory, listing);
  std::sort(candidates.begin(), candidates.end(),
            [](const Candidate& a, const Candidate& b) { return a.last_used < b.last_used; });
  RemoveOldest(directory, listing, candidates, now, listing.total, target);
}

}  // namespace qv::net
