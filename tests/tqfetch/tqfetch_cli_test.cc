// tqfetch run as a person runs it: its words on failure, its exit status, its help.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>
#include <string>
#include <vector>

#include "tests/support/same_answer_server.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace {

struct Outcome {
  int status = -1;
  std::string output;  // stdout and stderr together
};

// Runs tqfetch with its disk cache in `cache_home`; on a terminal (script(1)'s) when asked.
Outcome Tqfetch(const std::string& args, const std::filesystem::path& cache_home,
                bool terminal = false) {
  std::string command =
      "XDG_CACHE_HOME='" + cache_home.string() + "' '" TQFETCH_PATH "' " + args;
  if (terminal) command = "script -qec \"" + command + "\" /dev/null";
  command += " 2>&1 </dev/null";
  Outcome run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) run.output.append(buffer, n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// The "Range: bytes=first-last" of a request head.
bool AskedRange(const std::string& head, std::uint64_t* first, std::uint64_t* last) {
  const std::size_t at = head.find("Range: bytes=");
  return at != std::string::npos &&
         std::sscanf(head.c_str() + at, "Range: bytes=%" SCNu64 "-%" SCNu64, first, last) == 2;
}

// Answers a range with those bytes, all `fill`, of a file of `size(n)` bytes on the nth answer
// (0: a size not given, "*"): cut at the file's end, 416 from past it, 400 without a range.
tq::test::SameAnswerServer::Answer RangeAnswers(char fill, std::function<std::uint64_t(int)> size) {
  auto answers = std::make_shared<std::atomic<int>>(0);
  return [=](const std::string& head) -> std::string {
    std::uint64_t first = 0, last = 0;
    if (!AskedRange(head, &first, &last)) return "HTTP/1.1 400 Bad Request\r\n\r\n";
    const std::uint64_t total = size((*answers)++);
    const std::string of = total == 0 ? "*" : std::to_string(total);
    if (total != 0 && first >= total) {
      return "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" + of +
             "\r\nContent-Length: 0\r\n\r\n";
    }
    if (total != 0) last = std::min(last, total - 1);
    return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(last) + "/" + of +
           "\r\nContent-Length: " + std::to_string(last - first + 1) + "\r\n\r\n" +
           std::string(last - first + 1, fill);
  };
}

std::string Contents(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Each command's failure is one line that names the URL and ends in the reason. The reason is
// the failed request's own: a server that answers differently when asked again (here 404
// first, 503 after) is named by its first answer.
TEST(TqfetchCliTest, FailuresAreOneLineNamingTheUrlAndTheReasonWithStatus1) {
  tq::test::TempDir home;
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string file = (home.path() / "x").string();
  const std::pair<std::string, std::string> urls[] = {
      {"http://127.0.0.1:1/x", "connection refused"},  // nothing listens there
      {server.Url("/changing"), "HTTP 404 Not Found"}};
  for (const auto& [url, reason] : urls) {
    const std::pair<std::string, std::string> commands[] = {
        {"fetch " + url, "could not open " + url},
        {"info " + url, "no file information for " + url},
        {"range " + url + " 0 10", "cannot read bytes 0+10 of " + url},
        {"download " + url + " " + file, "download of " + url + " to " + file + " failed"}};
    for (const auto& [command, what] : commands) {
      auto answers = std::make_shared<std::atomic<int>>(0);
      server.Route("/changing", [answers](const tq::test::RecordedRequest&) {
        return tq::test::ScriptedResponse((*answers)++ == 0 ? 404 : 503);
      });
      const Outcome run = Tqfetch(command, home.path());
      EXPECT_EQ(run.status, 1) << command;
      EXPECT_EQ(run.output, "tqfetch: " + what + ": " + reason + "\n");
    }
  }

  // A body cut short fails every command that reads it, in words, and so do a file that cannot
  // be written and a server whose certificate is not trusted.
  tq::test::TlsFiles tls;
  ASSERT_TRUE(tq::test::MakeSelfSignedCert(home.path(), "127.0.0.1", &tls));
  tq::test::ScriptedServer secure({tls.cert.string(), tls.key.string()});
  ASSERT_TRUE(secure.ok());
  tq::test::RawResponder cut([](tq::test::RawConnection& c) {
    if (!c.ReadRequestHead().empty()) c.Send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n012");
  });
  for (auto* routes : {&server, &secure}) {
    routes->Route("/a", tq::test::ScriptedResponse(200, "a"));
  }
  // Gives no size in its Content-Range ("/*") and cuts each piece after 5 bytes: a piece cut
  // short is still told from the file's end.
  tq::test::RawResponder unsized([](tq::test::RawConnection& c) {
    const std::string head = c.ReadRequestHead();
    std::uint64_t first = 0, last = 0;
    if (!AskedRange(head, &first, &last)) {
      return;
    }
    c.Send("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(last) + "/*\r\nContent-Length: " + std::to_string(last - first + 1) +
           "\r\n\r\nxxxxx");
  });
  // Refuses HEAD, serves GET: where a download cannot land is its reason, not the refused HEAD.
  server.Route("/get-only", [](const tq::test::RecordedRequest& request) {
    return request.method == "HEAD" ? tq::test::ScriptedResponse(403)
                                    : tq::test::ScriptedResponse(200, "a");
  });
  tq::test::SameAnswerServer bare("HTTP/1.1 200 OK\r\n\r\n");  // no size, time or tag
  const std::string short_url = cut.Url("/cut");
  const std::string nowhere = (home.path() / "no" / "x").string();
  const std::string fifo = (home.path() / "fifo").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::pair<std::string, std::string> local_failures[] = {
      {"fetch " + short_url, "could not open " + short_url + ": connection aborted"},
      {"range " + short_url + " 1 5", "cannot read bytes 1+5 of " + short_url +
                                          ": only 2 of 5 bytes arrived"},
      {"range " + unsized.Url("/u") + " 100 10",
       "cannot read bytes 100+10 of " + unsized.Url("/u") + ": only 5 of 10 bytes arrived"},
      {"info " + bare.Url("/b"), "no file information for " + bare.Url("/b") +
                                     ": the server named no size, modification time or revision"},
      {"download " + short_url + " " + file,
       "download of " + short_url + " to " + file + " failed: the transfer did not complete"},
      {"fetch " + nowhere, "could not open " + nowhere + ": No such file or directory"},
      {"fetch " + fifo, "could not open " + fifo + ": " + fifo + " is not a regular file"},
      {"fetch " + server.Url("/a") + " -o " + nowhere,
       "cannot write " + nowhere + ": No such file or directory"},
      {"download " + server.Url("/a") + " " + nowhere,
       "download of " + server.Url("/a") + " to " + nowhere + " failed: no such directory: " +
           (home.path() / "no").string()},
      {"download " + server.Url("/get-only") + " " + nowhere,
       "download of " + server.Url("/get-only") + " to " + nowhere + " failed: no such directory: " +
           (home.path() / "no").string()},
      {"download " + server.Url("/get-only") + " " + home.path().string(),
       "download of " + server.Url("/get-only") + " to " + home.path().string() + " failed: " +
           home.path().string() + " is a directory"},
      // A download never replaces what is not a regular file.
      {"download " + server.Url("/a") + " " + fifo, "download of " + server.Url("/a") + " to " +
                                                        fifo + " failed: " + fifo +
                                                        " is not a regular file"},
      {"fetch " + secure.Url("/a"),
       "could not open " + secure.Url("/a") + ": certificate not trusted"}};
  for (const auto& [command, line] : local_failures) {
    const Outcome run = Tqfetch(command, home.path());
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_EQ(run.output, "tqfetch: " + line + "\n");
  }
  // On a terminal, a download that fails leaves its progress line where it got to: the end the
  // library reports for every download, failed or not, is no full bar. One that succeeds ends
  // at 100%.
  const Outcome refused = Tqfetch("download http://127.0.0.1:1/x " + file, home.path(), true);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.output.find("100%"), std::string::npos) << refused.output;
  const Outcome landed = Tqfetch("download " + server.Url("/a") + " " + file, home.path(), true);
  EXPECT_EQ(landed.status, 0);
  EXPECT_NE(landed.output.find("100% [########################]"), std::string::npos)
      << landed.output;

  // A copy to FILE that cannot complete (past the file-size limit, as on a full disk; the child
  // inherits the limit and the ignored SIGXFSZ) keeps the file already there, and leaves nothing
  // beside it. The cache is in memory (its directory cannot be made), so only FILE is written.
  {
    const std::filesystem::path dir = home.path() / "keep", kept = dir / "kept.bin";
    std::filesystem::create_directory(dir);
    std::ofstream(kept, std::ios::binary) << "the old contents";
    server.Route("/large", tq::test::ScriptedResponse(200, std::string(64 * 1024, 'n')));
    rlimit previous{}, limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
    limit = previous;
    limit.rlim_cur = 4096;
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const Outcome run = Tqfetch("fetch " + server.Url("/large") + " -o " + kept.string(), kept);
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "tqfetch: cannot write " + kept.string() + ": File too large\n");
    const std::string left = Contents(kept);
    EXPECT_TRUE(left == "the old contents") << left.size() << " bytes";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1);
  }

  // A file whose size changes between two pieces of one range (read 8 MiB at a time) is a
  // failure: the bytes that would follow are another version's.
  std::atomic<int> answers = 0;
  tq::test::SameAnswerServer changing(RangeAnswers('v', [&answers](int n) -> std::uint64_t {
    ++answers;
    return n == 0 ? 9 << 20 : 10 << 20;
  }));
  const std::string changed = changing.Url("/v");
  const Outcome stitched = Tqfetch("range " + changed + " 0 " + std::to_string(9 << 20),
                                   home.path());
  EXPECT_EQ(stitched.status, 1);
  EXPECT_EQ(answers, 2);
  ASSERT_GE(stitched.output.size(), std::size_t{8 << 20});
  EXPECT_EQ(stitched.output.find_first_not_of('v'), std::size_t{8 << 20}) << "the first piece";
  EXPECT_EQ(stitched.output.substr(8 << 20), "tqfetch: cannot read bytes 0+" +
                                                 std::to_string(9 << 20) + " of " + changed +
                                                 ": the file changed while it was read\n");
}

// What is written to standard output is the body, byte for byte (line ends included); output
// that cannot be written is a failure, not a success with the bytes lost. So are files, under
// the names given, whatever their characters. A server's text reaches the terminal without the
// control characters that would steer it.
TEST(TqfetchCliTest, FetchRangeAndDownloadWriteTheBodyAsItCameAndInfoEscapesControls) {
  tq::test::TempDir home;
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body("a\nb\r\nc\x1a\0d\n", 10);
  server.Route("/f", tq::test::ScriptedResponse(200, body));
  const std::string url = server.Url("/f");
  const Outcome fetched = Tqfetch("fetch " + url, home.path());
  EXPECT_EQ(fetched.status, 0);
  EXPECT_EQ(fetched.output, body);
  const Outcome range = Tqfetch("range " + url + " 1 6", home.path());
  EXPECT_EQ(range.status, 0);
  EXPECT_EQ(range.output, body.substr(1, 6));
  // More than the file holds, far more than memory: the bytes there are, in bounded room.
  const Outcome past_the_end = Tqfetch("range " + url + " 3 100000000000", home.path());
  EXPECT_EQ(past_the_end.status, 0) << past_the_end.output;
  EXPECT_EQ(past_the_end.output, body.substr(3));
  // A body far larger than the room fetch takes: written out as it is read, never held whole.
  // Made as it is sent, so that this process stays small too: the child's peak counts from a
  // copy of it.
  constexpr std::size_t kBig = 64 << 20, kPiece = 1 << 20;
  const auto piece = [](std::size_t at) {
    std::string bytes(kPiece, '\0');
    for (std::size_t i = 0; i < kPiece; ++i) bytes[i] = static_cast<char>((at + i) * 131 % 251);
    return bytes;
  };
  tq::test::RawResponder big([&](tq::test::RawConnection& c) {
    if (c.ReadRequestHead().empty()) return;
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kBig) + "\r\n\r\n");
    for (std::size_t at = 0; at < kBig && c.Send(piece(at)); at += kPiece) {
    }
  });
  const std::filesystem::path copy = home.path() / "big.bin";
  const Outcome whole = Tqfetch("fetch " + big.Url("/big") + " -o " + copy.string(), home.path());
  EXPECT_EQ(whole.status, 0) << whole.output;
  ASSERT_EQ(std::filesystem::file_size(copy), kBig);
  std::ifstream copied(copy, std::ios::binary);
  std::string got(kPiece, '\0');
  for (std::size_t at = 0; at < kBig && copied.read(got.data(), kPiece); at += kPiece) {
    ASSERT_TRUE(got == piece(at)) << "at " << at;
  }
// A sanitizer's own memory is no measure of the program's.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  rusage children{};
  ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &children), 0);
  EXPECT_LT(children.ru_maxrss, 48 * 1024) << "KiB, for a body of 64 MiB";
#endif
  for (const std::string& command : {"fetch " + url + " >/dev/full",
                                     "range " + url + " 1 6 >/dev/full",
                                     "fetch " + url + " -o /dev/full",
                                     "info " + url + " >/dev/full",
                                     std::string("--version >/dev/full")}) {
    EXPECT_EQ(Tqfetch(command, home.path()).status, 1) << command;
  }
  // A server that gives no size in its Content-Range ("/*") is read whole: the length that comes
  // with each piece is that piece's own, and a shorter last piece is no other version. (After
  // the measure above: a child's peak counts from this process's size when it was forked.)
  // A file that ends where a piece ends has nothing after it: the range ends there too, rather
  // than with the 416 that a piece past the end gets.
  tq::test::SameAnswerServer sizeless(RangeAnswers('u', [](int) { return 0; }));
  tq::test::SameAnswerServer exact(RangeAnswers('e', [](int) { return 8 << 20; }));
  const struct {
    std::string command;
    std::size_t size;
    char fill;
  } ranges[] = {{"range " + sizeless.Url("/u") + " 0 " + std::to_string(9 << 20), 9 << 20, 'u'},
                {"range " + exact.Url("/e") + " 0 8388609", 8 << 20, 'e'}};
  for (const auto& [command, size, fill] : ranges) {
    const Outcome run = Tqfetch(command, home.path());
    EXPECT_EQ(run.status, 0) << run.output.substr(std::min(run.output.size(), size));
    EXPECT_EQ(run.output.size(), size);
    EXPECT_EQ(run.output.find_first_not_of(fill), std::string::npos);
  }
  const std::filesystem::path file = home.path() / std::filesystem::path(u8"caf\u00e9 \u65e5.bin");
  for (const std::string& command : {"fetch " + url + " -o", "download " + url}) {
    std::filesystem::remove(file);
    const Outcome run = Tqfetch(command + " '" + file.string() + "'", home.path());
    EXPECT_EQ(run.status, 0) << command << ": " << run.output;
    EXPECT_EQ(Contents(file), body) << command;
  }

  tq::test::SameAnswerServer raw(
      "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nETag: \"a\x1b]0;title\x07\x1b[2Jb\"\r\n\r\nabcd");
  ASSERT_TRUE(raw.ok());
  const Outcome info = Tqfetch("info " + raw.Url("/f"), home.path());
  EXPECT_EQ(info.status, 0);
  EXPECT_NE(info.output.find("  revision  \"a\\x1b]0;title\\x07\\x1b[2Jb\"\n"), std::string::npos)
      << info.output;
}

// The tour works in a new directory of its own: a name planted beforehand in the temporary
// directory (a link to another directory, as any user can plant in /tmp) is never used, and
// nothing lands where it leads.
TEST(TqfetchCliTest, TheTourWorksInANewDirectoryOfItsOwn) {
  tq::test::TempDir tmp;
  const std::filesystem::path victim = tmp.path() / "victim";
  std::filesystem::create_directory(victim);
  std::string tmpdir = "TMPDIR=" + tmp.path().string(), cache = "XDG_CACHE_HOME=" + tmpdir.substr(7);
  char* const env[] = {tmpdir.data(), cache.data(), nullptr};
  const int out = open((tmp.path() / "out.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  int go[2];
  ASSERT_TRUE(out >= 0 && pipe(go) == 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {  // waits until its pid's name is planted
    char byte = 0;
    close(go[1]);
    if (read(go[0], &byte, 1) == 1 && dup2(out, 1) == 1 && dup2(out, 2) == 2) {
      execle(TQFETCH_PATH, TQFETCH_PATH, static_cast<char*>(nullptr), env);
    }
    _exit(127);
  }
  close(go[0]);
  close(out);
  std::filesystem::create_directory_symlink(
      victim, tmp.path() / ("tqfetch-tour-" + std::to_string(child)));
  EXPECT_EQ(write(go[1], "g", 1), 1);
  close(go[1]);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(std::filesystem::is_empty(victim));
}

TEST(TqfetchCliTest, HelpVersionAndUsageErrors) {
  tq::test::TempDir home;
  const Outcome help = Tqfetch("--help", home.path());
  EXPECT_EQ(help.status, 0);
  for (const char* part : {"fetch URL", "download URL FILE", "exit status", "0  success",
                           "1  a network, HTTP or file failure", "2  a usage error"}) {
    EXPECT_NE(help.output.find(part), std::string::npos) << part;
  }
  const Outcome version = Tqfetch("--version", home.path());
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.output.rfind("tqfetch ", 0), 0u) << version.output;

  for (const char* wrong : {"--bogus", "fetch", "range http://127.0.0.1:1/ x 1", "cache empty",
                            "range http://127.0.0.1:1/ 0 18446744073709551616",
                            // A negative value behind a space, and a range whose last byte lies
                            // past 2^64 - 1, name no bytes of any file.
                            "range http://127.0.0.1:1/ ' -1' 1", "range http://127.0.0.1:1/ 0 ' -2'",
                            "range http://127.0.0.1:1/ 18446744073709551615 2"}) {
    const Outcome run = Tqfetch(wrong, home.path());
    EXPECT_EQ(run.status, 2) << wrong;
    EXPECT_NE(run.output.find("usage: tqfetch"), std::string::npos) << wrong;
  }
  // A URL that does not parse reaches no server: it is said so, not that a server answered
  // without naming anything or that a read failed.
  for (const std::string url : {"http://", "http://127.0.0.1:99999/", "https://[::1/"}) {
    for (const std::string& command : {"fetch " + url, "info " + url, "range " + url + " 0 1"}) {
      const Outcome run = Tqfetch(command, home.path());
      EXPECT_EQ(run.status, 2) << command;
      EXPECT_EQ(run.output.rfind("tqfetch: not a valid URL: " + url + "\nusage: tqfetch", 0), 0u)
          << command << ": " << run.output;
    }
  }
  // The URL Moniker encodes what that parser refuses: such a URL is downloaded.
  tq::test::SameAnswerServer any("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
  const std::filesystem::path target = home.path() / "x";
  const Outcome spaced = Tqfetch("download '" + any.Url("/a b|c") + "' " + target.string(),
                                 home.path());
  EXPECT_EQ(spaced.status, 0) << spaced.output;
  EXPECT_EQ(Contents(target), "ok");
}

// tqfetch started as a shell starts it (signals at their defaults), with its disk cache in
// `home`, its output to `out` (closed when -1) and its errors to `err`.
pid_t Start(const std::vector<std::string>& args, const std::filesystem::path& home, int out,
            int err) {
  std::vector<std::string> words{TQFETCH_PATH};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::string cache = "XDG_CACHE_HOME=" + home.string();
  char* const env[] = {cache.data(), nullptr};
  const pid_t child = fork();
  if (child == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGINT, SIGTERM, SIGPIPE}) signal(sig, SIG_DFL);
    if ((out < 0 ? close(1) == 0 : dup2(out, 1) == 1) && dup2(err, 2) == 2) {
      execve(TQFETCH_PATH, argv.data(), env);
    }
    _exit(127);
  }
  return child;
}

// Waits, for at most 30 s, until a new name shows in the directory that `watch` (an inotify
// descriptor) watches; gives that name, or "" when none came.
std::string NextNewName(int watch) {
  alignas(inotify_event) char events[4096];
  pollfd ready{watch, POLLIN, 0};
  if (poll(&ready, 1, 30000) != 1) return {};
  const ssize_t n = read(watch, events, sizeof events);
  const auto* event = reinterpret_cast<const inotify_event*>(events);
  return n > 0 && event->len > 0 ? std::string(event->name) : std::string();
}

// The names in a directory, and what `file` holds.
std::string Listing(const std::filesystem::path& dir, const std::filesystem::path& file) {
  std::string names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    names += entry.path().filename().string() + " ";
  }
  return names + "holding: " + Contents(file);
}

// Ctrl-C, or a TERM, while a copy to FILE is being written ends the program at once, by that
// signal, with the file already there as it was and nothing beside it.
TEST(TqfetchCliTest, ASignalMidCopyLeavesTheFileAsItWasAndNothingBeside) {
  tq::test::TempDir home;
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  // Large enough that copying it out of the cache takes a while; stored fresh, so that a second
  // try copies without downloading again.
  server.Route("/large", tq::test::ScriptedResponse(200, std::string(64 << 20, 'l'))
                             .Header("Cache-Control", "max-age=600"));
  // Sends a part of the body and stalls.
  tq::test::RawResponder stalls([](tq::test::RawConnection& c) {
    const std::string head = c.ReadRequestHead();
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
    if (head.rfind("GET", 0) == 0 && c.Send(std::string(100, 's'))) c.Stall();
  });
  const std::filesystem::path dir = home.path() / "out", target = dir / "kept.bin";
  std::filesystem::create_directory(dir);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const std::vector<std::string> commands[] = {
      {"fetch", server.Url("/large"), "-o", target.string()},
      {"download", stalls.Url("/d"), target.string()}};
  for (const auto& command : commands) {
    for (const int sig : {SIGINT, SIGTERM, SIGHUP}) {
      int status = 0;
      // The copy may end before the signal lands: then it is tried again.
      for (int attempt = 0; attempt < 5; ++attempt) {
        std::ofstream(target, std::ios::binary) << "the old contents";
        const int watch = inotify_init1(IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(watch, dir.c_str(), IN_CREATE), 0);
        const pid_t child = Start(command, home.path(), null, null);
        const std::string part = NextNewName(watch);
        close(watch);
        EXPECT_NE(part, "");
        kill(child, sig);
        ASSERT_EQ(waitpid(child, &status, 0), child);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) break;
      }
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << command[0] << sig << status;
      EXPECT_EQ(Listing(dir, target), "kept.bin holding: the old contents") << command[0] << sig;
    }
  }
  close(null);
}

// Output cut off by its reader (`tqfetch fetch URL | head -c 10`) ends the program quietly, by
// SIGPIPE, as it ends any program of a pipeline: no words on a failure nobody made. Output
// closed from the start (`>&-`) is a failure, not a body written into whatever the program
// opened first.
TEST(TqfetchCliTest, StandardOutputCutOffClosedOrNamedAsTheFile) {
  tq::test::TempDir home;
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/m", tq::test::ScriptedResponse(200, std::string(1 << 20, 'm')));
  const int err = open((home.path() / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  for (const std::string command : {"fetch", "range"}) {
    std::vector<std::string> args{command, server.Url("/m")};
    if (command == "range") args.insert(args.end(), {"0", "1048576"});
    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    const pid_t child = Start(args, home.path(), out[1], err);
    close(out[1]);
    char head[10];
    EXPECT_EQ(read(out[0], head, sizeof head), 10);
    close(out[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << command << ": " << status;
  }
  EXPECT_EQ(Contents(home.path() / "err"), "");
  server.Route("/s", tq::test::ScriptedResponse(200, "small"));
  const pid_t child = Start({"fetch", server.Url("/s")}, home.path(), -1, err);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  // Its own standard output named as FILE (`-o /dev/stdout >> log`) is written through, after
  // what the file held: not a new file renamed over the one the caller had it append to.
  const std::filesystem::path log = home.path() / "log";
  std::ofstream(log) << "before\n";
  const int append = open(log.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  const pid_t through =
      Start({"fetch", server.Url("/s"), "-o", "/dev/stdout"}, home.path(), append, err);
  ASSERT_EQ(waitpid(through, &status, 0), through);
  close(append);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(Contents(log), "before\nsmall");
  close(err);
  EXPECT_EQ(Contents(home.path() / "err"),
            "tqfetch: cannot write to standard output: Bad file descriptor\n");
}

}  // namespace
