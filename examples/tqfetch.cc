// tqfetch: a small host program that shows what tqnetwork does.
//
//   tqfetch                         a tour on a local server it starts itself (no network needed)
//   tqfetch fetch URL [-o FILE]     the URL through the disk cache, to stdout or FILE
//   tqfetch info URL                size, modification time and revision of a remote file
//   tqfetch range URL OFFSET SIZE   SIZE bytes from OFFSET, through the file protocol
//   tqfetch download URL FILE       the whole file, with a progress bar on a terminal
//   tqfetch cache clear|clean       empties the disk cache, or trims it to its size limit
//   tqfetch --help | --version
//
// Errors are one line on stderr that says why in words. Exit status: 0 success, 1 a network,
// HTTP or file failure, 2 a usage error.
#if defined(_WIN32)
#include <windows.h>
#include <shellapi.h>
#include <fcntl.h>
#include <io.h>
#else
#include <signal.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
#include "net/cache/url_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/stream/open_file_or_url.h"
#include "tqutil/file_url.h"
#include "failure_reason.h"
#include "output_file.h"
#include "progress_line.h"
#include "tour_server.h"

namespace {

namespace fs = std::filesystem;
using tqfetch::NamesStandardOutput;
using tqfetch::RandomHex;
using tqfetch::ReplacingFile;
using tqfetch::WritesBeside;
#if !defined(_WIN32)
using tqfetch::HoldClosedStandardDescriptors;
using tqfetch::LandingDirectory;
using tqfetch::WatchSignals;
#endif
using qv::net::CacheSystem;

// A failure the program reports in one line (exit status 1).
struct Failure {
  std::string message;
};

// The reader of standard output went away (`tqfetch fetch URL | head -c 10`): the program ends
// quietly, as any program of a pipeline does then.
struct ReaderGone {};

// A command line the program does not understand (exit status 2).
struct UsageError {
  std::string message;
};

// The library's log goes to one place: the last line is kept, and added to an error message,
// so that a failure is reported in one line.
std::mutex g_log_mutex;
std::string g_last_log;
// What the first failed exchange of the running operation gave: its words end the message.
std::optional<tqfetch::Outcome> g_first_failure;

void NoteFailure(const tqfetch::Outcome& outcome) {
  std::lock_guard lock(g_log_mutex);
  if (!g_first_failure) g_first_failure = outcome;
}

void KeepLastLogLine(const TqULogRecord& record) {
  if (auto outcome = tqfetch::OutcomeFromMessage(record.component, record.text)) {
    NoteFailure(*outcome);
  }
  std::string text = record.text;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  if (text.empty()) return;
  std::lock_guard lock(g_log_mutex);
  g_last_log = text;
}

// Called as an operation starts: a failure before it is not its reason.
void ForgetFailures() {
  std::lock_guard lock(g_log_mutex);
  g_first_failure.reset();
}

// The running operation's first failed exchange was refused as asking for bytes past the end of
// the file (416).
bool RefusedAsPastTheEnd() {
  std::lock_guard lock(g_log_mutex);
  return g_first_failure && g_first_failure->error == 0 && g_first_failure->status == 416;
}

// The failure of an operation, with the reason in words when one of its exchanges failed, else
// with what the library logged, else with `otherwise`.
Failure Failed(const std::string& what, const std::string& otherwise = {}) {
  std::lock_guard lock(g_log_mutex);
  const std::string reason = g_first_failure ? tqfetch::Reason(*g_first_failure) : "";
  if (!reason.empty()) return Failure{what + ": " + reason};
  if (!g_last_log.empty()) return Failure{what + ": " + g_last_log};
  return Failure{otherwise.empty() ? what : what + ": " + otherwise};
}

std::wstring Wide(const std::string& text) { return qv::Utf8ToWide(text); }

// A path as UTF-8 text, for printing on either system.
std::string Text(const fs::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

// A server's text as it may go to a terminal: its control characters (C0, DEL, and C1 in UTF-8)
// are written as \xNN or \u00NN, so that the server can neither move the cursor, retitle the
// window nor clear the screen.
std::string Printable(const std::string& text) {
  std::string out;
  char escape[8];
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (byte < 0x20 || byte == 0x7F) {
      std::snprintf(escape, sizeof escape, "\\x%02x", byte);
      out += escape;
    } else if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
      std::snprintf(escape, sizeof escape, "\\u%04x", next);
      out += escape;
      ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

// A path given as UTF-8 text, on either system.
fs::path PathOf(const std::string& text) {
  return fs::path(std::u8string(text.begin(), text.end()));
}

bool StdoutIsTerminal() {
#if defined(_WIN32)
  return _isatty(_fileno(stdout)) != 0;
#else
  return isatty(1) != 0;
#endif
}

// A body as it came, byte for byte: Windows opens standard output in text mode, which would
// write every line feed as CR LF (and a redirected download would differ from the file).
void WriteBody(const char* bytes, std::size_t size) {
#if defined(_WIN32)
  std::fflush(stdout);
  _setmode(_fileno(stdout), _O_BINARY);
#endif
  // A full disk or a closed pipe must not pass for success with the bytes lost.
  if (std::fwrite(bytes, 1, size, stdout) != size || std::fflush(stdout) != 0) {
    if (errno == EPIPE) throw ReaderGone{};
    throw Failure{std::string("cannot write to standard output: ") + std::strerror(errno)};
  }
}

// Progress as one line on a terminal, redrawn when its text changes and at most ten times a
// second; nothing when stdout is a file or a pipe.
class ProgressBar : public TqUProgress {
 public:
  using Clock = tqfetch::ProgressThrottle::Clock;

  ProgressBar(std::string label, std::optional<std::uint64_t> total)
      : m_label(std::move(label)), m_total(total), m_tty(StdoutIsTerminal()) {}
  ~ProgressBar() override {
    if (m_tty && m_shown) std::printf("\n");
  }
  // The end of a download is reported as 1.0 whether it succeeded or not: the full bar waits
  // for Finish, which is called only when it succeeded.
  bool SetProgress(double fraction) override {
    if (fraction < 1.0) Draw(fraction, false);
    return true;
  }
  void Finish() { Draw(1.0, true); }

 private:
  void Draw(double fraction, bool last) {
    if (!m_tty) return;
    const Clock::time_point now = Clock::now();
    const std::string line =
        tqfetch::FormatProgressLine({fraction, m_total, now - m_started});
    if (m_throttle.ShouldDraw(line, now, last)) {
      // Padded, so that a shorter line covers all of a longer one drawn before it.
      std::printf("\r  %s %-70s", m_label.c_str(), line.c_str());
      std::fflush(stdout);
      m_shown = true;
    }
  }

  std::string m_label;
  std::optional<std::uint64_t> m_total;
  bool m_tty;
  bool m_shown = false;
  Clock::time_point m_started = Clock::now();
  tqfetch::ProgressThrottle m_throttle;
};

// Brings the library up for the program's life, in the host's order, and down again.
class Library {
 public:
  explicit Library(const wchar_t* cache_directory) {
    qv::net::InitialiseHttp();
    // The default transport, wrapped so that a failed exchange leaves its reason for the message.
    std::unique_ptr<qv::net::IHttpApi> backend(qv::net::SetHttpApi(nullptr));
    qv::net::SetHttpApi(new tqfetch::RecordingHttpApi(std::move(backend), NoteFailure));
    qv::net::InitialiseCache(cache_directory);
  }
  ~Library() {
    qv::net::HttpConnectionPool::Terminate();
    qv::net::TerminateHttp();
    qv::net::TerminateCache();
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  static TqUFileProtocol& Protocol(const std::string& url) {
    TqUFileProtocolRegistry* registry = TqUFileProtocolRegistry::Get();
    const std::string scheme = url.substr(0, url.find(':'));
    TqUFileProtocol* protocol = registry ? registry->Lookup(Wide(scheme).c_str()) : nullptr;
    if (protocol == nullptr) throw Failure{"no file protocol for \"" + scheme + "\""};
    return *protocol;
  }
};

// Hands the stream's bytes to `sink` (pointer, count) a piece at a time, as they are read: the
// room a copy takes does not grow with the body.
template <class Sink>
void CopyOut(qv::io::IDataReadStream& stream, Sink&& sink) {
  std::vector<char> buffer(256 * 1024);
  while (const std::uint64_t n = stream.Read(buffer.data(), buffer.size())) {
    sink(buffer.data(), static_cast<std::size_t>(n));
  }
}

std::string ReadAll(qv::io::IDataReadStream& stream) {
  std::string body;
  CopyOut(stream, [&](const char* data, std::size_t n) { body.append(data, n); });
  return body;
}

// Why a local path did not open, in the system's words; the library logs nothing for it.
std::string LocalReason(const std::string& name) {
  const fs::path path(std::u8string(name.begin(), name.end()));
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) return error.message();
  if (fs::is_directory(status)) return Text(path) + " is a directory";
  if (!fs::is_regular_file(status)) return Text(path) + " is not a regular file";
  return {};
}

// The URL through the disk cache, which holds the body whole by the time it is handed out.
std::unique_ptr<qv::io::IDataSeekableReadStream> OpenThroughCache(const std::string& url) {
  ForgetFailures();
  auto stream = qv::net::OpenFileOrUrl(Wide(url), 0, {});
  if (stream) return stream;
  const bool local = TqUFileURL::GetURLType(Wide(url).c_str()) == 0;
  throw Failed("could not open " + url, local ? LocalReason(url) : std::string());
}

std::string FetchThroughCache(const std::string& url) { return ReadAll(*OpenThroughCache(url)); }

void PrintInfo(const std::string& url) {
  TqUFileInfo info;
  ForgetFailures();
  if (!Library::Protocol(url).GetFileInfo(Wide(url).c_str(), &info)) {
    // An answer that came but named nothing is a reason of its own: no exchange failed.
    throw Failed("no file information for " + url,
                 "the server named no size, modification time or revision");
  }
  if (auto size = info.GetFileSize()) std::printf("  size      %" PRIu64 " bytes\n", *size);
  if (auto time = info.GetFileModificationTime()) {
    std::printf("  modified  %s\n", tqfetch::FormatTime(*time).c_str());
  }
  if (auto tag = info.GetFileRevisionId()) {
    std::printf("  revision  %s\n", Printable(qv::WideToUtf8(*tag)).c_str());
  }
}

// A remote file opened through the file protocol's handles for one reading thread, as the
// host's file layer opens it; released in reverse order.
class RemoteFile {
 public:
  explicit RemoteFile(const std::string& url) : m_protocol(Library::Protocol(url)) {
    m_file = m_protocol.OpenFile(Wide(url).c_str(), TqUFileProtocol::OpenRead);
    if (m_file != nullptr) m_thread = m_protocol.CreateThreadHandle(m_file);
  }
  ~RemoteFile() {
    m_protocol.ReleaseThreadHandle(m_thread);
    m_protocol.CloseFile(m_file);
  }
  RemoteFile(const RemoteFile&) = delete;
  RemoteFile& operator=(const RemoteFile&) = delete;

  bool ok() const { return m_thread != nullptr; }
  // One ranged read with a request handle of its own: the bytes placed, or -1.
  std::int64_t Read(std::uint64_t offset, std::uint64_t size, char* buffer,
                    std::uint64_t* total) {
    TqUFileRequestHandle* request = m_protocol.SetupReadFile(m_file, offset, size);
    const std::int64_t got =
        request ? m_protocol.ReadFileToSize(m_file, m_thread, request, offset, size,
                                            reinterpret_cast<unsigned char*>(buffer), total)
                : -1;
    m_protocol.ReleaseRequestHandle(request);
    return got;
  }

 private:
  TqUFileProtocol& m_protocol;
  TqUFileHandle* m_file = nullptr;
  TqUThreadHandle* m_thread = nullptr;
};

// The most one ranged read asks for: the room the bytes take, whatever size is asked.
constexpr std::uint64_t kRangePiece = 8 << 20;

// Hands `size` bytes from `offset` to `sink` (pointer, count) in reads of at most kRangePiece,
// as they come; fewer only when the file ends first. The file's size comes with each read, so
// a body that ends before it is told from the file's end: a failure, never a shorter success;
// so is a size that changes from one piece to the next.
template <class Sink>
void ReadRange(const std::string& url, std::uint64_t offset, std::uint64_t size, Sink&& sink,
               std::uint64_t* total_size = nullptr) {
  ForgetFailures();
  RemoteFile file(url);
  const std::string what =
      "cannot read bytes " + std::to_string(offset) + "+" + std::to_string(size) + " of " + url;
  if (!file.ok()) throw Failed(what);
  std::vector<char> buffer(static_cast<std::size_t>(std::min(size, kRangePiece)));
  std::uint64_t done = 0;
  std::optional<std::uint64_t> first_total;
  bool may_end_here = false;  // the file may end where the last piece did
  while (done < size) {
    const std::uint64_t ask = std::min(size - done, kRangePiece);
    std::uint64_t total = 0;
    const std::int64_t got = file.Read(offset + done, ask, buffer.data(), &total);
    if (got < 0) {
      if (may_end_here && RefusedAsPastTheEnd()) break;  // the file ended with the last piece
      throw Failed(what);
    }
    const auto count = static_cast<std::uint64_t>(got);
    const std::uint64_t at = offset + done;
    // A Content-Range without the file's size ("bytes a-b/*") leaves only the piece's own
    // length in `total`, which bytes that came from past it give away. Such a length tells
    // neither where the file ends nor whether it changed.
    const bool piece_length = total <= at && count > 0;
    // Pieces of two versions of the file must not pass for one range.
    if (!piece_length) {
      if (first_total && total != *first_total) {
        throw Failure{what + ": the file changed while it was read"};
      }
      first_total = total;
    }
    if (total_size != nullptr) *total_size = total;
    // The bytes this piece was due: its own length, or up to the file's end (none past it).
    const std::uint64_t due = piece_length  ? std::min(ask, total)
                              : total > at ? std::min(ask, total - at)
                                           : 0;
    // A cut piece is not handed on: only whole pieces go out ahead of a failure.
    if (count < due) {
      throw Failure{what + ": only " + std::to_string(done + count) + " of " +
                    std::to_string(total > offset ? std::min(size, total - offset) : size) +
                    " bytes arrived"};
    }
    sink(buffer.data(), static_cast<std::size_t>(count));
    done += count;
    if (count < ask) break;  // the file ends inside the range
    // The file ends exactly where this piece does: a piece past its end would be refused (416).
    // Where the size may be the piece's own length (a first piece from byte 0, or a "/*"
    // Content-Range), the next piece is asked for, and its refusal as past the end ends the range.
    const bool ends_here = !piece_length && at + count == total;
    if (ends_here && at > 0) break;
    may_end_here = ends_here || piece_length || total == count;
  }
}

// One range whole, for the tour's small reads.
std::string ReadRangeText(const std::string& url, std::uint64_t offset, std::uint64_t size,
                          std::uint64_t* total) {
  std::string bytes;
  ReadRange(url, offset, size, [&](const char* data, std::size_t n) { bytes.append(data, n); },
            total);
  return bytes;
}

// What keeps a download from landing at `target`, or nothing.
std::string TargetProblem(const fs::path& target) {
  std::error_code ignored;
  const fs::path parent = target.has_parent_path() ? target.parent_path() : fs::path(".");
  if (!fs::is_directory(parent, ignored)) return "no such directory: " + Text(parent);
  if (fs::is_directory(target, ignored)) return Text(target) + " is a directory";
  // A device or a pipe there is never replaced by the file (a link there is, itself).
  const fs::file_status there = fs::symlink_status(target, ignored);
  if (fs::exists(there) && !fs::is_regular_file(there) && !fs::is_symlink(there)) {
    return Text(target) + " is not a regular file";
  }
  return {};
}

void Download(const std::string& url, const std::string& path) {
  TqUFileProtocol& protocol = Library::Protocol(url);
  ForgetFailures();
  // The file information first: the size, for the progress line's byte counts (the download
  // reports fractions only), and the reason in words should the download fail, since a download
  // reports none of its own. Its failure alone does not stop the download.
  std::optional<std::uint64_t> total;
  TqUFileInfo info;
  if (protocol.GetFileInfo(Wide(url).c_str(), &info)) total = info.GetFileSize();
  ProgressBar bar("download", total);
  const std::string what = "download of " + url + " to " + path + " failed";
#if defined(_WIN32)
  const bool done = protocol.GetFile(Wide(url).c_str(), Wide(path).c_str(), &bar);
#else
  // A target the download would refuse is refused before the landing directory is used.
  LandingDirectory landing(PathOf(path));
  const bool done = TargetProblem(PathOf(path)).empty() && landing.ok() &&
                    protocol.GetFile(Wide(url).c_str(), Wide(Text(landing.File())).c_str(), &bar);
  if (done) {
    if (const int error = landing.Commit()) {
      const std::string problem = TargetProblem(PathOf(path));
      throw Failure{what + ": " + (problem.empty() ? std::strerror(error) : problem)};
    }
  }
#endif
  if (!done) {
    // Such a target is refused before the download sends anything: what the information's own
    // request met (a server that refuses HEAD, say) is not why.
    if (const std::string problem = TargetProblem(PathOf(path)); !problem.empty()) {
      throw Failure{what + ": " + problem};
    }
    throw Failed(what, "the transfer did not complete");
  }
  bar.Finish();
}

// ---------------------------------------------------------------------------------------------
// The tour: a local server with a few files, and what the library does with them.

std::string MakeBig() {
  std::string big(8 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
  return big;
}

// Several threads open one uncached URL at once: one of them downloads it, the others wait
// for that download and serve the entry it stored.
void TourSharedDownload(TourServer& server) {
  const std::string url = server.Url("/shared.bin");
  server.Put("/shared.bin", {"\"s1\"", MakeBig(), 300});
  constexpr int kThreads = 6;
  std::vector<std::size_t> sizes(kThreads, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      // With ServeStaleOnError, as a host that wants stale copies passes on every open: the
      // entry stored is marked as one that may be served stale.
      const int flags = qv::net::IUrlCache::ServeStaleOnError;
      if (auto stream = qv::net::OpenFileOrUrl(Wide(url), flags, {})) {
        sizes[i] = ReadAll(*stream).size();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < kThreads; ++i) std::printf("  thread %d read %zu bytes\n", i + 1, sizes[i]);
  std::printf("  server requests for it: %d\n", server.Requests("/shared.bin"));
}

// The server goes away while the entry is stale: with ServeStaleOnError the stored body is
// served (and one log line says so); without it nothing is, as before.
void TourStaleOnError(std::unique_ptr<TourServer> server) {
  const std::string url = server->Url("/shared.bin");
  const std::int64_t real_now = TqUSysTime::GetTimeNow();
  TqUSysTime::SetClockForTesting([real_now] { return real_now + 3600; });  // stale now
  server.reset();
  qv::net::HttpConnectionPool::Terminate();
  std::printf("  the server is stopped; the entry is an hour past its max-age of 600 s\n");
  if (auto stream = qv::net::OpenFileOrUrl(Wide(url), qv::net::IUrlCache::ServeStaleOnError, {})) {
    std::printf("  with ServeStaleOnError: %zu bytes served from the stale entry\n",
                ReadAll(*stream).size());
    std::lock_guard lock(g_log_mutex);
    std::printf("  log: %s\n", g_last_log.c_str());
  } else {
    std::printf("  with ServeStaleOnError: nothing (unexpected)\n");
  }
  auto stream = qv::net::OpenFileOrUrl(Wide(url), 0, {});
  std::printf("  without the flag: %s\n",
              stream ? "served (unexpected)" : "nothing, and the entry is dropped, as always");
  TqUSysTime::SetClockForTesting({});
}

void Step(const char* title) { std::printf("\n== %s\n", title); }

// Steps 1-4: a URL stored, served fresh, revalidated when stale, and stored anew when changed.
void TourCache(TourServer& server, const fs::path& work) {
  const std::string report = server.Url("/report.txt");
  const fs::path entry =
      qv::net::DiskCache::ComputeCacheLocation(Wide(report), work / "cache" / "v1");

  Step("1. A URL opened through the disk cache: downloaded and stored");
  std::string body = FetchThroughCache(report);
  std::printf("  read %zu bytes: %s", body.size(), body.c_str());
  std::printf("  entry file %s (%ju bytes), server requests so far: %d\n",
              Text(entry.filename()).c_str(), static_cast<std::uintmax_t>(fs::file_size(entry)),
              server.Requests("/report.txt"));

  Step("2. Opened again while fresh: served from the entry, no request");
  body = FetchThroughCache(report);
  std::printf("  read %zu bytes, server requests so far: %d\n", body.size(),
              server.Requests("/report.txt"));

  Step("3. Made stale (the cache's clock moves 1 hour on): revalidated, 304 keeps the body");
  const std::int64_t real_now = TqUSysTime::GetTimeNow();
  TqUSysTime::SetClockForTesting([real_now] { return real_now + 3600; });
  body = FetchThroughCache(report);
  std::printf("  read %zu bytes, server requests so far: %d (If-None-Match answered 304)\n",
              body.size(), server.Requests("/report.txt"));

  Step("4. Changed on the server: new tag, stored anew");
  server.Put("/report.txt", {"\"r2\"", "Quarterly report, final version.\n"});
  TqUSysTime::SetClockForTesting([real_now] { return real_now + 7200; });
  body = FetchThroughCache(report);
  std::printf("  read %zu bytes: %s", body.size(), body.c_str());
  std::printf("  server requests so far: %d\n", server.Requests("/report.txt"));
  TqUSysTime::SetClockForTesting({});
}

// Steps 5-7: the file protocol's ranged reads, file information and whole-file download.
void TourFileProtocol(TourServer& server, const fs::path& work) {
  const std::string big = server.Url("/big.bin");
  Step("5. A file opened through the file protocol and read in ranges");
  std::uint64_t total = 0;
  for (std::uint64_t offset : {0ull, 1000000ull, (8ull << 20) - 10}) {
    const std::string bytes = ReadRangeText(big, offset, 16, &total);
    std::printf("  bytes %8" PRIu64 "..%-8" PRIu64 " %-16s %s\n", offset, offset + 15,
                bytes.c_str(),
                bytes == server.Body("/big.bin").substr(offset, 16) ? "(matches)" : "(WRONG)");
  }
  std::printf("  total size from Content-Range: %" PRIu64 " bytes\n", total);

  Step("6. Its file information (a HEAD request)");
  PrintInfo(big);

  Step("7. A whole-file download with progress");
  const fs::path copy = work / "big-copy.bin";
  Download(big, Text(copy));
  std::ifstream in(copy, std::ios::binary);
  const std::string downloaded((std::istreambuf_iterator<char>(in)), {});
  std::printf("  %s: %zu bytes, %s\n", Text(copy.filename()).c_str(), downloaded.size(),
              downloaded == server.Body("/big.bin") ? "identical" : "DIFFERENT");
}

// Step 8: every entry over the limit removed.
void TourCleanUp(const std::string& url, const fs::path& work) {
  Step("8. The cache trimmed by CleanUp (limit set to 0 MiB)");
  FetchThroughCache(url);
  std::size_t before = 0, after = 0;
  for (auto& e : fs::directory_iterator(work / "cache" / "v1")) before += e.is_regular_file();
  TqUOption::SetInt32("general.localcache.max_size", 0);
  CacheSystem()->CleanUp();
  TqUOption::Unset("general.localcache.max_size");
  for (auto& e : fs::directory_iterator(work / "cache" / "v1")) after += e.is_regular_file();
  std::printf("  entry files before: %zu, after: %zu\n", before, after);
}

// A new directory of the tour's own in the temporary directory. Made, not found: in a directory
// every user may write (/tmp), a name that was there already may lead anywhere.
fs::path MakeWorkDirectory() {
  const fs::path temp = fs::temp_directory_path();
  for (int attempt = 0; attempt < 16; ++attempt) {
    const fs::path work = temp / ("tqfetch-tour-" + RandomHex());
    std::error_code error;
    if (fs::create_directory(work, error)) return work;
  }
  throw Failure{"cannot make a directory in " + Text(temp)};
}

void Tour() {
  const fs::path work = MakeWorkDirectory();
  TourServer server;
  server.Put("/report.txt", {"\"r1\"", "Quarterly report, first draft.\n"});
  server.Put("/big.bin", {"\"b1\"", MakeBig()});
  std::printf("A local server is up at %s\n", server.Url("/").c_str());
  std::printf("The disk cache lives in %s\n", Text(work / "cache" / "v1").c_str());
  Library library((work / "cache").wstring().c_str());

  TourCache(server, work);
  TourFileProtocol(server, work);
  TourCleanUp(server.Url("/big.bin"), work);

  Step("9. Six threads open one uncached URL at once: one download, shared");
  auto slow = std::make_unique<TourServer>();
  TourSharedDownload(*slow);

  Step("10. Its server stopped: the stale copy served with ServeStaleOnError");
  TourStaleOnError(std::move(slow));

  std::error_code ignored;
  fs::remove_all(work, ignored);
  std::printf("\nDone. Try: tqfetch info <url>, tqfetch fetch <url>, tqfetch download <url> <file>\n");
}

// ---------------------------------------------------------------------------------------------
// The command line.

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr const char* kUsage =
    "usage: tqfetch [fetch URL [-o FILE] | info URL | range URL OFFSET SIZE |\n"
    "                download URL FILE | cache clear | cache clean | --help | --version]\n";

constexpr const char* kHelp =
    "tqfetch shows what the tqnetwork library does. With no command it runs a tour on a local\n"
    "server it starts itself (no network needed).\n"
    "\n"
    "commands:\n"
    "  fetch URL [-o FILE]     the URL through the disk cache, to standard output or FILE\n"
    "  info URL                size, modification time and revision of a remote file\n"
    "  range URL OFFSET SIZE   SIZE bytes from byte OFFSET, read through the file protocol\n"
    "  download URL FILE       the whole file to FILE, with a progress line on a terminal\n"
    "  cache clear|clean       empty the disk cache, or trim it to its size limit\n"
    "\n"
    "options:\n"
    "  -h, --help              this text\n"
    "  --version               the version of tqfetch and of the library\n"
    "\n"
    "A failure is one line on standard error that says why (\"connection refused\",\n"
    "\"host not found\", \"timed out after 60 s\", \"HTTP 404 Not Found\").\n"
    "\n"
    "exit status:\n"
    "  0  success\n"
    "  1  a network, HTTP or file failure\n"
    "  2  a usage error\n";

std::uint64_t Number(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  // Past 64 bits strtoull gives its largest value: another number than the one written. It
  // also takes a minus sign after leading spaces and negates: " -1" would read as 2^64 - 1.
  if (text.empty() || text.find('-') != std::string::npos || *end != '\0' || errno == ERANGE) {
    throw UsageError{"not a number: " + text};
  }
  return value;
}

// The library refuses a URL that does not parse without asking any server: said here, it is not
// taken for a server that named nothing or a read that failed. `fetch` also takes local paths,
// which are not URLs: only its http and https URLs are checked. `download` is not checked at
// all: the URL Moniker encodes what the parser refuses (a space, a "|") and fetches such URLs.
void RequireValidUrl(const std::string& url, bool http_only) {
  std::string scheme = url.substr(0, url.find(':'));
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (http_only && scheme != "http" && scheme != "https") return;
  if (!TqUURL(Wide(url).c_str(), false).IsValid()) throw UsageError{"not a valid URL: " + url};
}

int Run(const std::vector<std::string>& args) {
  if (args.empty()) {
    Tour();
    return 0;
  }
  const std::string& command = args[0];
  if (args.size() == 1 && (command == "--help" || command == "-h")) {
    std::fputs(kUsage, stdout);
    std::fputs("\n", stdout);
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (args.size() == 1 && command == "--version") {
    std::printf("tqfetch %s (tqnetwork %s)\n", TQFETCH_VERSION, TQFETCH_VERSION);
    return 0;
  }
  if (command == "fetch" && (args.size() == 2 || (args.size() == 4 && args[2] == "-o"))) {
    RequireValidUrl(args[1], true);
    Library library(nullptr);
    const auto stream = OpenThroughCache(args[1]);
    if (args.size() == 4) {
      // The system's words for a failure (no such directory, no room left), where it gave some.
      const auto cannot_write = [&](int error) {
        return Failure{"cannot write " + args[3] +
                       (error != 0 ? std::string(": ") + std::strerror(error) : std::string())};
      };
      const fs::path target = PathOf(args[3]);
      if (NamesStandardOutput(target)) {
        CopyOut(*stream, [](const char* data, std::size_t n) { WriteBody(data, n); });
        return 0;
      }
      ReplacingFile beside(target);
      const int refused = WritesBeside(target) ? beside.Open() : -1;
      if (refused == 0) {
        CopyOut(*stream, [&](const char* data, std::size_t n) {
          if (const int error = beside.Write(data, n)) throw cannot_write(error);
        });
        if (const int error = beside.Commit()) throw cannot_write(error);
        return 0;
      }
      // A device or a pipe, or a file in a directory where nothing else may be made: written
      // in place.
      if (refused != -1 && refused != EACCES && refused != EPERM) throw cannot_write(refused);
      errno = 0;
      std::ofstream out(target, std::ios::binary);
      if (!out) throw cannot_write(errno);
      CopyOut(*stream, [&](const char* data, std::size_t n) {
        if (!out.write(data, static_cast<std::streamsize>(n))) throw cannot_write(errno);
      });
      out.close();  // the last bytes may fail only as they leave the buffer
      if (!out) throw cannot_write(errno);
    } else {
      CopyOut(*stream, [](const char* data, std::size_t n) { WriteBody(data, n); });
    }
    return 0;
  }
  if (command == "info" && args.size() == 2) {
    RequireValidUrl(args[1], false);
    Library library(nullptr);
    PrintInfo(args[1]);
    return 0;
  }
  if (command == "range" && args.size() == 4) {
    const std::uint64_t offset = Number(args[2]);
    const std::uint64_t size = Number(args[3]);
    if (size > 0 && size - 1 > UINT64_MAX - offset) {
      throw UsageError{"the range ends past byte " + std::to_string(UINT64_MAX)};
    }
    RequireValidUrl(args[1], false);
    Library library(nullptr);
    ReadRange(args[1], offset, size, [](const char* data, std::size_t n) { WriteBody(data, n); });
    return 0;
  }
  if (command == "download" && args.size() == 3) {
    Library library(nullptr);
    Download(args[1], args[2]);
    return 0;
  }
  if (command == "cache" && args.size() == 2 && (args[1] == "clear" || args[1] == "clean")) {
    Library library(nullptr);
    if (args[1] == "clear") {
      CacheSystem()->Clear();
    } else {
      CacheSystem()->CleanUp();
    }
    return 0;
  }
  throw UsageError{};
}

}  // namespace

// The arguments after the program's name, as UTF-8 like every text of the program. Windows hands
// main() its arguments in the system's ANSI code page, which cannot name every file or URL: they
// are taken from the wide command line there.
std::vector<std::string> Arguments(int argc, char** argv) {
#if defined(_WIN32)
  (void)argc;
  (void)argv;
  int count = 0;
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
  if (wide == nullptr) throw std::runtime_error("cannot read the command line");
  std::vector<std::string> args;
  for (int i = 1; i < count; ++i) args.push_back(qv::WideToUtf8(wide[i]));
  LocalFree(wide);
  return args;
#else
  return std::vector<std::string>(argv + 1, argv + argc);
#endif
}

int main(int argc, char** argv) {
#if !defined(_WIN32)
  HoldClosedStandardDescriptors();
  WatchSignals();
#endif
  TqUError::SetSink(KeepLastLogLine);
  try {
    const int status = Run(Arguments(argc, argv));
    // What was printed (information, help, the tour) may fail only as it leaves the buffer: a
    // full disk must not pass for success with the words lost.
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
      if (errno == EPIPE) throw ReaderGone{};
      throw Failure{std::string("cannot write to standard output") +
                    (errno != 0 ? std::string(": ") + std::strerror(errno) : std::string())};
    }
    return status;
  } catch (const ReaderGone&) {
#if !defined(_WIN32)
    // By SIGPIPE, as a shell expects of a pipeline cut short: the library ignores the signal for
    // its sockets, so it is raised here with its default action.
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
#endif
    return kExitFailure;
  } catch (const UsageError& error) {
    if (!error.message.empty()) std::fprintf(stderr, "tqfetch: %s\n", error.message.c_str());
    std::fputs(kUsage, stderr);
    std::fputs("Try 'tqfetch --help' for more.\n", stderr);
    return kExitUsage;
  } catch (const Failure& failure) {
    std::fprintf(stderr, "tqfetch: %s\n", failure.message.c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tqfetch: %s\n", error.what());
  }
  return kExitFailure;
}
