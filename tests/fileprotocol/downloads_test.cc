// Whole-file downloads: the URL Moniker layer, and the protocol's GetFile and GetFileToCache
// above it.
#include "net/fileprotocol/downloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/urlmon.h"
#include "platform/urlmon_internal.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string Bytes(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
  return s;
}

// Records the URL Moniker's callbacks; can abort through the binding at the first data. The
// protocol's callback underneath holds the binding (ASan sees a reference too many or too few).
class Recorder : public qv::net::MyBindStatusCallback {
 public:
  Recorder() : MyBindStatusCallback(nullptr) {}
  HRESULT STDMETHODCALLTYPE OnStartBinding(DWORD reserved, IBinding* binding) override {
    events.push_back("start");
    const HRESULT result = MyBindStatusCallback::OnStartBinding(reserved, binding);
    if (started) started->set_value(binding);
    return result;
  }
  HRESULT STDMETHODCALLTYPE OnProgress(ULONG progress, ULONG max, ULONG status,
                                       LPCWSTR) override {
    statuses.push_back(status);
    last_progress = progress;
    last_max = max;
    if (status == BINDSTATUS_DOWNLOADINGDATA && abort_on_data) Binding()->Abort();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR error) override {
    events.push_back("stop");
    stop_result = result;
    return MyBindStatusCallback::OnStopBinding(result, error);
  }

  std::vector<std::string> events;
  std::vector<ULONG> statuses;
  ULONG last_progress = 0;
  ULONG last_max = 0;
  HRESULT stop_result = 1;
  bool abort_on_data = false;
  std::promise<IBinding*>* started = nullptr;
};

TEST(UrlDownloadCacheName, IsStableAndSafe) {
  using tqplatform::UrlDownloadCacheFileName;
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/a/b.txt?q"),
            UrlDownloadCacheFileName("http://h/a/b.txt?q"));
  EXPECT_NE(UrlDownloadCacheFileName("http://h/a/b.txt?q"),
            UrlDownloadCacheFileName("http://h/a/b.txt?r"));
  // A 16-character hash of the URL, then its last segment made safe and cut to 64.
  const std::pair<std::string, std::string> names[] = {
      {"http://h/a/b.txt", "-b.txt"},
      {"http://h/", "-download"},
      {"http://h", "-download"},
      {"http://h/..", "-download"},
      {"http://h/a%20b;c", "-a_20b_c"},
      {"http://h/" + std::string(100, 'n'), "-" + std::string(64, 'n')}};
  for (const auto& [url, tail] : names) {
    EXPECT_EQ(UrlDownloadCacheFileName(url).substr(16), tail) << url;
  }
}

class DownloadTest : public ProtocolTest {
 protected:
  void SetUp() override {
    ProtocolTest::SetUp();
    ASSERT_TRUE(server_.ok());
    const char* old = std::getenv("XDG_CACHE_HOME");
    old_cache_home_ = old ? std::optional<std::string>(old) : std::nullopt;
    setenv("XDG_CACHE_HOME", (dir_.path() / "cache").c_str(), 1);
  }
  void TearDown() override {
    if (old_cache_home_) {
      setenv("XDG_CACHE_HOME", old_cache_home_->c_str(), 1);
    } else {
      unsetenv("XDG_CACHE_HOME");
    }
    tqplatform::SetUrlDownloadLimitsForTesting({});
    ProtocolTest::TearDown();
  }
  std::wstring Url(const std::string& path) const { return W(server_.Url(path)); }
  std::wstring Target(const std::string& name) const { return W((dir_.path() / name).string()); }
  std::vector<std::string> Entries() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(dir_.path())) names.push_back(e.path().filename());
    return names;
  }

  // Declared before the server so that it outlives the server's threads: a request the client
  // gave up on may reach its handler only after the test body has ended.
  Gate held_;
  ScriptedServer server_;
  TempDir dir_;
  std::optional<std::string> old_cache_home_;
};

TEST_F(DownloadTest, UrlDownloadToFileReportsInOrder) {
  server_.Route("/a", ScriptedResponse(200, std::string(200000, 'a')));
  Recorder recorder;
  ASSERT_EQ(URLDownloadToFileW(nullptr, Url("/a").c_str(), Target("a").c_str(), 0, &recorder),
            S_OK);
  EXPECT_EQ(ReadAll(dir_.path() / "a"), std::string(200000, 'a'));
  EXPECT_THAT(recorder.events, ElementsAre("start", "stop"));
  EXPECT_EQ(recorder.stop_result, S_OK);
  ASSERT_GE(recorder.statuses.size(), 3u);
  EXPECT_EQ(recorder.statuses.front(), BINDSTATUS_CONNECTING);
  EXPECT_EQ(recorder.statuses[1], BINDSTATUS_BEGINDOWNLOADDATA);
  EXPECT_EQ(recorder.statuses.back(), BINDSTATUS_ENDDOWNLOADDATA);
  EXPECT_EQ(recorder.last_progress, 200000u);
  EXPECT_EQ(recorder.last_max, 200000u);
  EXPECT_THAT(Entries(), ElementsAre("a"));
  // No callback at all is allowed.
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/a").c_str(), Target("b").c_str(), 0, nullptr), S_OK);
}

TEST_F(DownloadTest, UrlDownloadFailuresMapToResultCodes) {
  server_.Route("/404", ScriptedResponse(404, "missing"));
  server_.Route("/401", ScriptedResponse(401, "who"));
  server_.Route("/500", ScriptedResponse(500, ""));
  const std::wstring target = Target("f");
  Recorder recorder;
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/404").c_str(), target.c_str(), 0, &recorder),
            INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(recorder.stop_result, INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/401").c_str(), target.c_str(), 0, nullptr),
            E_ACCESSDENIED);
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/500").c_str(), target.c_str(), 0, nullptr),
            INET_E_DOWNLOAD_FAILURE);
  EXPECT_THAT(Entries(), IsEmpty());  // no error page, no temporary file

  int closed_port = 0;  // nobody listening
  {
    RawResponder gone([](RawConnection&) {});
    closed_port = gone.port();
  }
  const std::wstring refused = W("http://127.0.0.1:" + std::to_string(closed_port) + "/");
  EXPECT_EQ(URLDownloadToFileW(nullptr, refused.c_str(), target.c_str(), 0, nullptr),
            INET_E_CANNOT_CONNECT);

  // Bad input is refused before any callback.
  Recorder untouched;
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"", target.c_str(), 0, &untouched), E_INVALIDARG);
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"ftp://127.0.0.1/x", target.c_str(), 0, &untouched),
            INET_E_UNKNOWN_PROTOCOL);
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"::no::", target.c_str(), 0, &untouched), MK_E_SYNTAX);
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/404").c_str(), L"", 0, &untouched), E_INVALIDARG);
  EXPECT_TRUE(untouched.events.empty());

  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/404").c_str(), Target("none/f").c_str(), 0,
                               &untouched),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  EXPECT_THAT(untouched.events, ElementsAre("start", "stop"));
}

TEST_F(DownloadTest, AbortStopsTheDownloadFromTheCallbackOrAnotherThread) {
  server_.Route("/big", ScriptedResponse(200, std::string(4 << 20, 'b')));
  Recorder recorder;
  recorder.abort_on_data = true;
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/big").c_str(), Target("big").c_str(), 0, &recorder),
            E_ABORT);
  EXPECT_EQ(recorder.stop_result, E_ABORT);
  EXPECT_THAT(Entries(), IsEmpty());

  // A server that holds its answer: the abort comes from another thread.
  server_.Route("/held", ScriptedResponse(200, "late").Hold(&held_));
  std::promise<IBinding*> started;
  Recorder waiting;
  waiting.started = &started;
  std::thread aborter([&] { started.get_future().get()->Abort(); });
  EXPECT_EQ(URLDownloadToFileW(nullptr, Url("/held").c_str(), Target("held").c_str(), 0, &waiting),
            E_ABORT);
  aborter.join();
  held_.Open();
  EXPECT_THAT(Entries(), IsEmpty());
}

TEST_F(DownloadTest, StalledServerTimesOut) {
  tqplatform::SetUrlDownloadLimitsForTesting({.connect_ms = 1000, .stall_ms = 200});
  RawResponder stalled([](RawConnection& c) {
    c.ReadRequestHead();
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc");
    c.Stall();
  });
  EXPECT_EQ(URLDownloadToFileW(nullptr, W(stalled.Url("/")).c_str(), Target("s").c_str(), 0,
                               nullptr),
            INET_E_CONNECTION_TIMEOUT);
  stalled.Release();
  EXPECT_THAT(Entries(), IsEmpty());
}

TEST_F(DownloadTest, GetFileWritesTheBodyAndReportsProgress) {
  // A body without a length reports 0.0 until the end; a known length rises: nginx test.
  const std::string body = Bytes(10000);
  server_.Route("/chunked", ScriptedResponse(200, body).Chunked(1000));
  RecordedProgress progress;
  const auto target = dir_.path() / "c.bin";
  ASSERT_TRUE(protocol_->GetFile(Url("/chunked").c_str(), W(target.string()).c_str(), &progress));
  EXPECT_TRUE(progress.ZeroUntilTheEnd());
  EXPECT_EQ(ReadAll(target), body);
  EXPECT_THAT(Entries(), ElementsAre("c.bin"));  // no temporary left
  // A null progress object is allowed.
  ASSERT_TRUE(protocol_->GetFile(Url("/chunked").c_str(), W(target.string()).c_str(), nullptr));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(DownloadTest, GetFileFailuresKeepAnExistingFile) {
  // Cut and stalled bodies and error storms: tests/faults.
  const auto target = dir_.path() / "keep.txt";
  dir_.WriteFile("keep.txt", "old contents");
  const std::wstring wide_target = W(target.string());
  RecordedProgress progress;
  server_.Route("/gone", ScriptedResponse(404, "not here"));
  EXPECT_FALSE(protocol_->GetFile(Url("/gone").c_str(), wide_target.c_str(), &progress));
  EXPECT_TRUE(progress.ZeroUntilTheEnd());  // no byte taken; 1.0 ends every download

  // A directory that does not exist, an invalid URL, a scheme that is not HTTP, nulls.
  server_.Route("/ok", ScriptedResponse(200, "fine"));
  EXPECT_FALSE(protocol_->GetFile(Url("/ok").c_str(),
                                  W((dir_.path() / "no" / "such" / "f.txt").string()).c_str(),
                                  nullptr));
  EXPECT_FALSE(protocol_->GetFile(L"not a url", wide_target.c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(L"ftp://127.0.0.1/f", wide_target.c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(nullptr, wide_target.c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(Url("/ok").c_str(), nullptr, nullptr));
  EXPECT_EQ(ReadAll(target), "old contents");
  EXPECT_THAT(Entries(), ElementsAre("keep.txt"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(DownloadTest, GetFileToCacheGivesThePathOfTheCopy) {
  server_.Route("/dir/report.pdf", ScriptedResponse(200, "pdf bytes"));
  TqUWideStringBuffer path(L"unchanged");
  RecordedProgress progress;
  ASSERT_TRUE(protocol_->GetFileToCache(Url("/dir/report.pdf?v=1").c_str(), &progress, &path));
  const fs::path cached(qv::WideToUtf8(path.View()));
  EXPECT_EQ(cached.parent_path(), dir_.path() / "cache" / "tqnetwork" / "downloads");
  EXPECT_EQ(cached.filename().string().substr(16), "-report.pdf");
  EXPECT_EQ(ReadAll(cached), "pdf bytes");
  EXPECT_EQ(progress.values.back(), 1.0);

  // The same URL lands on the same file again.
  server_.Route("/dir/report.pdf", ScriptedResponse(200, "new bytes"));
  TqUWideStringBuffer again;
  ASSERT_TRUE(protocol_->GetFileToCache(Url("/dir/report.pdf?v=1").c_str(), nullptr, &again));
  EXPECT_EQ(again.View(), path.View());
  EXPECT_EQ(ReadAll(cached), "new bytes");

  // A failed download leaves the caller's path as it was.
  server_.Route("/broken", ScriptedResponse(500, "oops"));
  TqUWideStringBuffer untouched(L"unchanged");
  EXPECT_FALSE(protocol_->GetFileToCache(Url("/broken").c_str(), nullptr, &untouched));
  EXPECT_EQ(untouched.View(), L"unchanged");

  // The URL Moniker needs room for the whole path, and asks nothing before it knows.
  wchar_t small[8] = L"same";
  Recorder recorder;
  EXPECT_EQ(URLDownloadToCacheFileW(nullptr, Url("/x").c_str(), small, 8, 0, &recorder),
            E_OUTOFMEMORY);
  EXPECT_STREQ(small, L"same");
  EXPECT_TRUE(recorder.events.empty());
  EXPECT_EQ(server_.request_count(), 3u);
}

}  // namespace
}  // namespace tq::test
