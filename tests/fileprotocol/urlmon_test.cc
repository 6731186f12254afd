#include "platform/urlmon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "platform/urlmon_internal.h"
#include "platform/wide_text.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;

std::wstring Wide(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Records the callbacks' sequence; can abort through the binding at the first data.
class Recorder : public IBindStatusCallback {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE OnStartBinding(DWORD, IBinding* binding) override {
    events.push_back("start");
    this->binding = binding;
    binding->AddRef();
    if (started) started->set_value(binding);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetPriority(LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OnLowResource(DWORD) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnProgress(ULONG progress, ULONG max, ULONG status,
                                       LPCWSTR) override {
    statuses.push_back(status);
    last_progress = progress;
    last_max = max;
    if (status == BINDSTATUS_DOWNLOADINGDATA && abort_on_data) binding->Abort();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR) override {
    events.push_back("stop");
    stop_result = result;
    binding->Release();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetBindInfo(DWORD*, BINDINFO*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnDataAvailable(DWORD, DWORD, FORMATETC*, STGMEDIUM*) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnObjectAvailable(REFIID, IUnknown*) override { return S_OK; }

  std::vector<std::string> events;
  std::vector<ULONG> statuses;
  ULONG last_progress = 0;
  ULONG last_max = 0;
  HRESULT stop_result = 1;
  IBinding* binding = nullptr;
  bool abort_on_data = false;
  std::promise<IBinding*>* started = nullptr;
};

class UrlMonikerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server_.ok()); }
  void TearDown() override { tqplatform::SetUrlDownloadLimitsForTesting({}); }
  std::wstring Target(const std::string& name) const { return Wide((dir_.path() / name).string()); }
  std::size_t Entries() const {
    return static_cast<std::size_t>(std::distance(
        std::filesystem::directory_iterator(dir_.path()), std::filesystem::directory_iterator()));
  }

  // Declared before the server so that it outlives the server's threads: a request the client
  // gave up on may reach its handler only after the test body has ended.
  Gate held_;
  ScriptedServer server_;
  TempDir dir_;
};

TEST_F(UrlMonikerTest, SdkIdentifiersHaveTheirValues) {
  EXPECT_EQ(IID_IUnknown.Data1, 0u);
  EXPECT_EQ(IID_IUnknown.Data4[0], 0xC0);
  EXPECT_EQ(IID_IUnknown.Data4[7], 0x46);
  EXPECT_EQ(IID_IBindStatusCallback.Data1, 0x79EAC9C1u);
  EXPECT_EQ(IID_IBindStatusCallback.Data2, 0xBAF9);
  EXPECT_EQ(IID_IBindStatusCallback.Data3, 0x11CE);
  EXPECT_FALSE(IsEqualIID(IID_IBindStatusCallback, IID_IBinding));
  EXPECT_EQ(static_cast<DWORD>(INET_E_OBJECT_NOT_FOUND), 0x800C0006u);
  EXPECT_EQ(BINDSTATUS_DOWNLOADINGDATA, 5u);
}

TEST_F(UrlMonikerTest, SuccessfulDownloadReportsInOrder) {
  server_.Route("/a", ScriptedResponse(200, std::string(200000, 'a')));
  Recorder recorder;
  ASSERT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/a")).c_str(), Target("a").c_str(), 0,
                               &recorder),
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
  EXPECT_EQ(Entries(), 1u);
  // No callback at all is allowed.
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/a")).c_str(), Target("b").c_str(), 0,
                               nullptr),
            S_OK);
}

TEST_F(UrlMonikerTest, FailuresMapToResultCodes) {
  server_.Route("/404", ScriptedResponse(404, "missing"));
  server_.Route("/401", ScriptedResponse(401, "who"));
  server_.Route("/500", ScriptedResponse(500, ""));
  const std::wstring target = Target("f");
  Recorder recorder;
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/404")).c_str(), target.c_str(), 0,
                               &recorder),
            INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(recorder.stop_result, INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/401")).c_str(), target.c_str(), 0,
                               nullptr),
            E_ACCESSDENIED);
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/500")).c_str(), target.c_str(), 0,
                               nullptr),
            INET_E_DOWNLOAD_FAILURE);
  EXPECT_EQ(Entries(), 0u);  // no error page, no temporary file

  // Nobody listening.
  int closed_port = 0;
  {
    RawResponder gone([](RawConnection&) {});
    closed_port = gone.port();
  }
  EXPECT_EQ(URLDownloadToFileW(nullptr,
                               Wide("http://127.0.0.1:" + std::to_string(closed_port) + "/").c_str(),
                               target.c_str(), 0, nullptr),
            INET_E_CANNOT_CONNECT);

  // Bad input is refused before any callback.
  Recorder untouched;
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"", target.c_str(), 0, &untouched), E_INVALIDARG);
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"ftp://127.0.0.1/x", target.c_str(), 0, &untouched),
            INET_E_UNKNOWN_PROTOCOL);
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"::no::", target.c_str(), 0, &untouched), MK_E_SYNTAX);
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/404")).c_str(), L"", 0, &untouched),
            E_INVALIDARG);
  EXPECT_TRUE(untouched.events.empty());

  // A directory that does not exist.
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/404")).c_str(),
                               Target("none/f").c_str(), 0, &untouched),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  EXPECT_THAT(untouched.events, ElementsAre("start", "stop"));
}

TEST_F(UrlMonikerTest, AbortStopsTheDownloadFromTheCallbackOrAnotherThread) {
  server_.Route("/big", ScriptedResponse(200, std::string(4 << 20, 'b')));
  Recorder recorder;
  recorder.abort_on_data = true;
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/big")).c_str(), Target("big").c_str(),
                               0, &recorder),
            E_ABORT);
  EXPECT_EQ(recorder.stop_result, E_ABORT);
  EXPECT_EQ(Entries(), 0u);

  // A server that holds its answer: the abort comes from another thread.
  server_.Route("/held", ScriptedResponse(200, "late").Hold(&held_));
  std::promise<IBinding*> started;
  Recorder waiting;
  waiting.started = &started;
  std::thread aborter([&] { started.get_future().get()->Abort(); });
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(server_.Url("/held")).c_str(),
                               Target("held").c_str(), 0, &waiting),
            E_ABORT);
  aborter.join();
  held_.Open();
  EXPECT_EQ(Entries(), 0u);
}

TEST_F(UrlMonikerTest, StalledServerTimesOut) {
  tqplatform::SetUrlDownloadLimitsForTesting({.connect_ms = 1000, .stall_ms = 200});
  RawResponder stalled([](RawConnection& c) {
    c.ReadRequestHead();
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc");
    c.Stall();
  });
  EXPECT_EQ(URLDownloadToFileW(nullptr, Wide(stalled.Url("/")).c_str(), Target("s").c_str(), 0,
                               nullptr),
            INET_E_CONNECTION_TIMEOUT);
  stalled.Release();
  EXPECT_EQ(Entries(), 0u);
}

TEST_F(UrlMonikerTest, CacheFileNeedsRoomForItsPath) {
  const char* old = std::getenv("XDG_CACHE_HOME");
  const std::string saved = old ? old : "";
  setenv("XDG_CACHE_HOME", (dir_.path() / "c").c_str(), 1);
  server_.Route("/x", ScriptedResponse(200, "x"));
  wchar_t small[8] = L"same";
  Recorder recorder;
  EXPECT_EQ(URLDownloadToCacheFileW(nullptr, Wide(server_.Url("/x")).c_str(), small, 8, 0,
                                    &recorder),
            E_OUTOFMEMORY);
  EXPECT_STREQ(small, L"same");
  EXPECT_TRUE(recorder.events.empty());
  EXPECT_EQ(server_.request_count(), 0u);

  wchar_t path[260];
  ASSERT_EQ(URLDownloadToCacheFileW(nullptr, Wide(server_.Url("/x")).c_str(), path, 260, 0,
                                    &recorder),
            S_OK);
  EXPECT_EQ(ReadAll(tqplatform::WideToUtf8(path)), "x");
  EXPECT_EQ(std::filesystem::path(tqplatform::WideToUtf8(path)).parent_path(),
            dir_.path() / "c" / "tqnetwork" / "downloads");
  if (old != nullptr) {
    setenv("XDG_CACHE_HOME", saved.c_str(), 1);
  } else {
    unsetenv("XDG_CACHE_HOME");
  }
}

TEST(UrlDownloadCacheName, IsStableAndSafe) {
  using tqplatform::UrlDownloadCacheFileName;
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/a/b.txt?q"),
            UrlDownloadCacheFileName("http://h/a/b.txt?q"));
  EXPECT_NE(UrlDownloadCacheFileName("http://h/a/b.txt?q"),
            UrlDownloadCacheFileName("http://h/a/b.txt?r"));
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/a/b.txt").substr(16), "-b.txt");
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/").substr(16), "-download");
  EXPECT_EQ(UrlDownloadCacheFileName("http://h").substr(16), "-download");
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/..").substr(16), "-download");
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/a%20b;c").substr(16), "-a_20b_c");
  EXPECT_EQ(UrlDownloadCacheFileName("http://h/" + std::string(100, 'n')).size(), 16u + 1 + 64);
}

}  // namespace
}  // namespace tq::test
