// What the fault loops cannot reach: the file protocol over the real transport against a server
// that resets, stalls, cuts or garbles its answer, and a download onto a disk that fills up.
// Each ends in its result and log line, and nothing torn or partial is kept.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <sys/resource.h>

#include <csignal>
#endif

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/stream/read_stream.h"
#if !defined(_WIN32)
#include "platform/urlmon_internal.h"
#endif
#include "tests/cache/cache_test_support.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The library started as a host starts it, with short process-wide time-outs (inherited by
// every handle any layer makes) so that a stalling server fails a call quickly, and retry waits
// skipped.
class FileProtocolFaultTest : public ::testing::Test {
 protected:
  struct Timeout {
    DWORD option, test_ms, default_ms;
  };
  static constexpr Timeout kTimeouts[] = {{INTERNET_OPTION_RECEIVE_TIMEOUT, 250, 60'000},
                                          {INTERNET_OPTION_SEND_TIMEOUT, 250, 30'000},
                                          {INTERNET_OPTION_CONNECT_TIMEOUT, 2000, 60'000}};

  void SetUp() override {
    for (const Timeout& t : kTimeouts) SetTimeout(t.option, t.test_ms);
#if !defined(_WIN32)
    previous_limits_ = tqplatform::SetUrlDownloadLimitsForTesting({2000, 250});
#endif
    previous_sleep_ = qv::net::detail::SetRetrySleepForTesting([](auto) {});
    qv::net::InitialiseHttp();
    protocol_ = static_cast<qv::net::HttpFileProtocol*>(
        TqUFileProtocolRegistry::Get()->Lookup(L"http"));
    ASSERT_NE(protocol_, nullptr);
  }
  void TearDown() override {
    qv::net::HttpConnectionPool::Terminate();
    qv::net::TerminateHttp();
    qv::net::detail::SetRetrySleepForTesting(std::move(previous_sleep_));
#if !defined(_WIN32)
    tqplatform::SetUrlDownloadLimitsForTesting(previous_limits_);
#endif
    for (const Timeout& t : kTimeouts) SetTimeout(t.option, t.default_ms);
  }
  static void SetTimeout(DWORD option, DWORD ms) {
    ASSERT_TRUE(InternetSetOptionW(nullptr, option, &ms, sizeof ms)) << option;
  }
  std::vector<Posted> TakeLog() { return TakeProtocolLog(log_); }

  LogCapture log_;
  qv::net::HttpFileProtocol* protocol_ = nullptr;

 private:
  qv::net::detail::RetrySleepFunction previous_sleep_;
#if !defined(_WIN32)
  tqplatform::UrlDownloadLimits previous_limits_;
#endif
};

enum class Fault { kReset, kShortBody, kStallHead, kStallBody, kMalformed, k502 };

// Answers every request with `fault`: a 200 answer announcing `body` but for the 502s (to every
// request of a kept-alive connection). Counts the requests.
struct FaultResponder {
  FaultResponder(Fault fault, const std::string& body)
      : server([=, requests = requests](RawConnection& c) {
          const std::string head =
              "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
          const std::string half = head + "\r\n" + body.substr(0, body.size() / 2);
          while (!c.ReadRequestHead().empty()) {
            ++*requests;
            switch (fault) {
              case Fault::kReset: return c.Reset();
              case Fault::kShortBody: c.Send(half); return c.Close();
              case Fault::kStallHead: c.Stall(); return;
              case Fault::kStallBody: c.Send(half); c.Stall(); return;
              case Fault::kMalformed: c.Send(head + "no colon here\r\n\r\n" + body); return;
              case Fault::k502:
                if (!c.Send("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 3\r\n\r\nbad")) return;
            }
          }
        }) {}
  std::shared_ptr<std::atomic<int>> requests = std::make_shared<std::atomic<int>>(0);
  RawResponder server;  // last: its threads stop before the count goes
};

// A ranged read ends in -1 with the line of the step that failed, or, for a cut body, in the
// count of the bytes that came (a whole read then logs "partial data"). A download fails and
// keeps the file it was to replace whole, and leaves nothing else.
TEST_F(FileProtocolFaultTest, EachServerFaultEndsAReadAndADownloadInItsResultAndLogLine) {
  const std::string body = Bytes(512 * 1024);
  const auto half = static_cast<std::int64_t>(body.size() / 2);
  TempDir dir;
  const fs::path target = dir.path() / "keep.bin";
  const std::string old_contents = "the old contents, never to be mixed with a new body";
  dir.WriteFile("keep.bin", old_contents);
  const auto sent = [](int e) { return "HttpSendRequest for %s failed: " + std::to_string(e); };
  struct Case {
    Fault fault;
    const char* name;
    std::int64_t read;  // what the ranged read returns
    int requests;       // what it sends
    std::string line;   // what it logs after "HttpFileProtocol::ReadFile ", the URL as %s
  };
  const Case cases[] = {
      {Fault::kReset, "reset before head", -1, 1, sent(ERROR_INTERNET_CONNECTION_RESET)},
      {Fault::kShortBody, "body cut short", half, 1, ""},
      {Fault::kStallHead, "stall before head", -1, 3, ""},  // each send timed out, silent
      {Fault::kStallBody, "stall mid-body", half, 1, ""},
      {Fault::kMalformed, "malformed header", -1, 1, sent(ERROR_HTTP_INVALID_SERVER_RESPONSE)},
      {Fault::k502, "502", -1, 1, "HttpQueryInfo Unhandled Status Code for %s: 502"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FaultResponder responder(c.fault, body);
    ASSERT_TRUE(responder.server.ok());
    const std::string url = responder.server.Url("/file");
    std::string line = c.line.empty() ? "" : "HttpFileProtocol::ReadFile " + c.line;
    if (!line.empty()) line.replace(line.find("%s"), 2, url);
    {
      OpenedFile f(protocol_, url);
      ASSERT_TRUE(f.ok());
      std::vector<unsigned char> buffer(body.size(), 0);
      ASSERT_EQ(f.Read(0, body.size(), buffer.data()), c.read);
      EXPECT_EQ(responder.requests->load(), c.requests);
      if (c.read > 0) {
        // What arrived is in the buffer, exactly; nothing past it was touched.
        EXPECT_TRUE(std::string(buffer.begin(), buffer.begin() + c.read) ==
                    body.substr(0, c.read));
        EXPECT_TRUE(std::all_of(buffer.begin() + c.read, buffer.end(), [](auto b) { return !b; }));
        EXPECT_THAT(TakeLog(), IsEmpty());
        EXPECT_FALSE(f.ReadExact(0, body.size(), buffer.data()));
        const std::vector<Posted> partial = TakeLog();
        ASSERT_EQ(partial.size(), 1u);
        EXPECT_EQ(partial[0].severity, 1);
        EXPECT_THAT(partial[0].text, ::testing::StartsWith("HttpFileProtocol::ReadFile "
                                                           "InternetReadFile partial data for " +
                                                           url + ": "));
      } else if (line.empty()) {
        EXPECT_THAT(TakeLog(), IsEmpty());
      } else {
        EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, line}));
      }
    }
    EXPECT_FALSE(protocol_->GetFile(W(url).c_str(), target.wstring().c_str(), nullptr));
    EXPECT_TRUE(ReadFileBytes(target) == old_contents);
    EXPECT_THAT(FileNames(dir.path()), ElementsAre("keep.bin"));
    EXPECT_THAT(TakeLog(), IsEmpty());
  }
}

#if !defined(_WIN32)
// Past the process's file-size limit (RLIMIT_FSIZE) write(2) writes what fits and then fails as
// on a full disk, without root or a mount; SIGXFSZ is ignored so the write fails instead of the
// signal ending the process. Process-wide: held only around one call while no other thread of
// the test writes files.
struct FileSizeLimit {
  explicit FileSizeLimit(rlim_t bytes) : previous_handler(std::signal(SIGXFSZ, SIG_IGN)) {
    if (previous_handler == SIG_ERR || getrlimit(RLIMIT_FSIZE, &previous) != 0) return;
    rlimit limit = previous;
    limit.rlim_cur = std::min(bytes, previous.rlim_max);  // RLIM_INFINITY is the largest
    ok = setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~FileSizeLimit() {
    if (ok) setrlimit(RLIMIT_FSIZE, &previous);
    if (previous_handler != SIG_ERR) std::signal(SIGXFSZ, previous_handler);
  }
  void (*previous_handler)(int);
  rlimit previous{};
  bool ok = false;
};

// On Windows the URL Moniker writes the downloads, out of a test's reach. Its own case: only a
// download, so the protocol ends without having opened a handle for ranged reads.
TEST_F(FileProtocolFaultTest, ADownloadOntoAFullDiskKeepsTheOldFileAndLeavesNothingElse) {
  TempDir dir;
  const fs::path target = dir.path() / "keep.bin";
  dir.WriteFile("keep.bin", "the old contents");
  const std::string body = Bytes(512 * 1024);
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/big", ScriptedResponse(200, body));
  const std::wstring url = W(server.Url("/big"));
  for (const rlim_t limit : {rlim_t{0}, rlim_t{64 * 1024}, rlim_t{body.size() - 1}}) {
    SCOPED_TRACE("file size limit " + std::to_string(limit));
    bool done = true;
    {
      FileSizeLimit full(limit);
      ASSERT_TRUE(full.ok);
      done = protocol_->GetFile(url.c_str(), target.wstring().c_str(), nullptr);
    }
    EXPECT_FALSE(done);
    EXPECT_EQ(ReadFileBytes(target), "the old contents");
    EXPECT_THAT(FileNames(dir.path()), ElementsAre("keep.bin"));
  }
  EXPECT_TRUE(protocol_->GetFile(url.c_str(), target.wstring().c_str(), nullptr));
  EXPECT_TRUE(ReadFileBytes(target) == body) << "with room the download replaces the file whole";
  EXPECT_THAT(FileNames(dir.path()), ElementsAre("keep.bin"));
  EXPECT_THAT(TakeLog(), IsEmpty());
}
#endif

}  // namespace
}  // namespace tq::test
