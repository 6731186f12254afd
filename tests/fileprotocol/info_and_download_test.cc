// File information and whole-file downloads (the URL Moniker layer and the protocol above it)
// against the scriptable server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "net/fileprotocol/downloads.h"
#include "platform/urlmon.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using qv::net::HttpCredentials;
using qv::net::HttpFileProtocol;

ScriptedResponse FullAnswer() {
  return ScriptedResponse(200, std::string(900, 'x'))
      .Header("ETag", "\"abc-123\"")
      .Header("Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT");
}

HttpFileProtocol::PreHTTPAuthenticationResult SupplyAlice(const wchar_t*, HttpCredentials* c) {
  c->SetUsername(L"alice");
  c->SetPassword(L"s3cret");
  return HttpFileProtocol::CredentialsSupplied;
}

std::atomic<int> g_hook_calls{0};
HttpFileProtocol::PreHTTPAuthenticationResult OutOfRangeAnswer(const wchar_t*, HttpCredentials*) {
  ++g_hook_calls;
  return static_cast<HttpFileProtocol::PreHTTPAuthenticationResult>(7);
}

class FileInfoTest : public ProtocolTest {
 protected:
  bool Info(const std::string& path, TqUFileInfo* info) {
    return protocol_->GetFileInfo(W(server_.Url(path)).c_str(), info);
  }
  ScriptedServer server_;
};

TEST_F(FileInfoTest, HeadOrTheGetAfterA405GivesTheInformationAndBadGatewayIsResentThreeTimes) {
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);
  EXPECT_EQ(info.GetFileRevisionId(), L"\"abc-123\"");
  EXPECT_EQ(info.GetFileModificationTime(), 784111777);

  server_.Route("/405", [](const RecordedRequest& r) {
    if (r.method == "HEAD") return ScriptedResponse(405);
    return ScriptedResponse(206, "ab").Header("Content-Range", "bytes 0-1/700");
  });
  ASSERT_TRUE(Info("/405", &info));
  EXPECT_EQ(info.GetFileSize(), 700u);
  auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[1].method, "HEAD");
  EXPECT_EQ(requests[2].method, "GET");
  EXPECT_EQ(requests[2].Header("Range"), "bytes=0-1");

  auto sent = std::make_shared<std::atomic<int>>(0);
  server_.Route("/502", [sent](const RecordedRequest&) {
    return ++*sent <= 3 ? ScriptedResponse(502) : FullAnswer();
  });
  EXPECT_TRUE(Info("/502", &info));
  EXPECT_EQ(sent->load(), 4);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(FileInfoTest, ChallengeIsAnsweredByTheHookAndAnAnswerOutsideTheEnumerationEndsTheCall) {
  server_.Route("/f", [](const RecordedRequest& r) {
    return r.Header("Authorization") == "Basic YWxpY2U6czNjcmV0"
               ? FullAnswer()
               : ScriptedResponse(401).Header("WWW-Authenticate", "Basic realm=\"files\"");
  });
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&SupplyAlice);
  TqUFileInfo info;
  ASSERT_TRUE(Info("/f", &info));
  EXPECT_EQ(info.GetFileSize(), 900u);

  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&OutOfRangeAnswer);
  const std::size_t before = server_.request_count();
  EXPECT_FALSE(Info("/f?again", &info));
  EXPECT_EQ(server_.request_count(), before + 1);
  EXPECT_EQ(g_hook_calls.load(), 1);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(FileInfoTest, ConnectTimeOutsAreRetriedTwiceThenEndTheCall) {
  server_.Route("/f", FullAnswer());
  TqUFileInfo info;
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_TRUE(Info("/f?1", &info));
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 3, 0));
  EXPECT_FALSE(Info("/f?2", &info));
  EXPECT_EQ(server_.request_count(), 1u);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The protocol's callback underneath holds the binding (ASan sees a reference too many or few).
class Recorder : public qv::net::MyBindStatusCallback {
 public:
  Recorder() : MyBindStatusCallback(nullptr) {}
  HRESULT STDMETHODCALLTYPE OnProgress(ULONG progress, ULONG max, ULONG status,
                                       LPCWSTR) override {
    statuses.push_back(status);
    last_progress = progress;
    last_max = max;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnStopBinding(HRESULT result, LPCWSTR error) override {
    stop_result = result;
    return MyBindStatusCallback::OnStopBinding(result, error);
  }
  std::vector<ULONG> statuses;
  ULONG last_progress = 0, last_max = 0;
  HRESULT stop_result = 1;
};

TEST_F(FileInfoTest, UrlDownloadReportsInOrderAndMapsFailuresToResultCodes) {
  TempDir dir;
  auto target = [&](const std::string& name) { return W((dir.path() / name).string()); };
  server_.Route("/a", ScriptedResponse(200, std::string(200000, 'a')));
  Recorder ok;
  ASSERT_EQ(URLDownloadToFileW(nullptr, W(server_.Url("/a")).c_str(), target("a").c_str(), 0, &ok),
            S_OK);
  EXPECT_EQ(ReadAll(dir.path() / "a"), std::string(200000, 'a'));
  EXPECT_EQ(ok.stop_result, S_OK);
  ASSERT_GE(ok.statuses.size(), 3u);
  EXPECT_EQ(ok.statuses.front(), BINDSTATUS_CONNECTING);
  EXPECT_EQ(ok.statuses[1], BINDSTATUS_BEGINDOWNLOADDATA);
  EXPECT_EQ(ok.statuses.back(), BINDSTATUS_ENDDOWNLOADDATA);
  EXPECT_EQ(ok.last_progress, 200000u);
  EXPECT_EQ(ok.last_max, 200000u);

  Recorder missing;
  EXPECT_EQ(URLDownloadToFileW(nullptr, W(server_.Url("/404")).c_str(), target("b").c_str(), 0,
                               &missing),
            INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(missing.stop_result, INET_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(URLDownloadToFileW(nullptr, L"", target("b").c_str(), 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(URLDownloadToFileW(nullptr, W(server_.Url("/a")).c_str(), target("no/b").c_str(), 0,
                               nullptr),
            HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND));
  EXPECT_FALSE(protocol_->GetFile(W(server_.Url("/a")).c_str(), target("no/b").c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(L"not a url", target("b").c_str(), nullptr));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
  EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(FileInfoTest, GetFileToCacheGivesThePathOfTheCopyOrLeavesItAlone) {
  TempDir dir;
  setenv("XDG_CACHE_HOME", (dir.path() / "cache").c_str(), 1);
  server_.Route("/dir/report.pdf", ScriptedResponse(200, "pdf bytes"));
  TqUWideStringBuffer path;
  RecordedProgress progress;
  const bool got = protocol_->GetFileToCache(W(server_.Url("/dir/report.pdf?v=1")).c_str(),
                                             &progress, &path);
  TqUWideStringBuffer untouched(L"unchanged");
  const bool failed = protocol_->GetFileToCache(W(server_.Url("/x")).c_str(), nullptr, &untouched);
  unsetenv("XDG_CACHE_HOME");
  ASSERT_TRUE(got);
  const std::filesystem::path cached(qv::WideToUtf8(path.View()));
  EXPECT_EQ(cached.parent_path(), dir.path() / "cache" / "tqnetwork" / "downloads");
  EXPECT_EQ(cached.filename().string().substr(16), "-report.pdf");
  EXPECT_EQ(ReadAll(cached), "pdf bytes");
  EXPECT_EQ(progress.values.back(), 1.0);
  EXPECT_FALSE(failed);
  EXPECT_EQ(untouched.View(), L"unchanged");
}

}  // namespace
}  // namespace tq::test
