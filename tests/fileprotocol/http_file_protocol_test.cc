#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using qv::net::HttpCredentials;
using qv::net::HttpFileProtocol;

HttpFileProtocol::PreHTTPAuthenticationResult NoHook(const wchar_t*, HttpCredentials*) {
  return HttpFileProtocol::NoCredentials;
}

TEST(HttpFileProtocolLifecycle, RegistersOneObjectUnderBothSchemesOnce) {
  ASSERT_FALSE(HttpFileProtocol::IsInitialised());
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&NoHook);
  HttpFileProtocol::Initialise();
  EXPECT_TRUE(HttpFileProtocol::IsInitialised());
  TqUFileProtocol* http = TqUFileProtocolRegistry::Get()->Lookup(L"http");
  EXPECT_NE(http, nullptr);
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"HTTPS"), http);
  // Initialise installs the default hook, replacing one installed before.
  HttpCredentials credentials;
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://u:p@h/", &credentials),
            HttpFileProtocol::CredentialsSupplied);

  // A second Initialise makes no second object and leaves the hook alone.
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&NoHook);
  HttpFileProtocol::Initialise();
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"http"), http);
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://u:p@h/", &credentials),
            HttpFileProtocol::NoCredentials);

  HttpFileProtocol::Terminate();
  EXPECT_TRUE(HttpFileProtocol::IsInitialised());
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"https"), http);
  HttpFileProtocol::Terminate();  // deletes the object once (ASan would see a second delete)
  EXPECT_FALSE(HttpFileProtocol::IsInitialised());
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
  HttpFileProtocol::Terminate();  // not initialised: nothing happens
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
}

using HttpFileProtocolTest = ProtocolTest;

TEST_F(HttpFileProtocolTest, FixedAnswers) {
  EXPECT_TRUE(protocol_->SupportsDirectOpen());
  EXPECT_TRUE(protocol_->SupportsGetPut());
  EXPECT_TRUE(protocol_->SupportsOwnCache());
  EXPECT_TRUE(protocol_->IsRemote());
  EXPECT_TRUE(protocol_->SupportsReadFileToSize());
  unsigned char byte = 0;
  EXPECT_FALSE(protocol_->PutFile(L"/tmp/x", L"http://127.0.0.1:1/x", nullptr));
  EXPECT_FALSE(protocol_->WriteFile(nullptr, 0, 1, &byte));
}

TEST_F(HttpFileProtocolTest, OpenFileChecksTheUrlAndSendsNothing) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  EXPECT_EQ(protocol_->OpenFile(L"not a url", TqUFileProtocol::OpenRead), nullptr);
  EXPECT_EQ(protocol_->OpenFile(L"http://", TqUFileProtocol::OpenRead), nullptr);
  EXPECT_EQ(protocol_->OpenFile(nullptr, TqUFileProtocol::OpenRead), nullptr);

  const std::wstring url = W(server.Url("/missing/file.bin?q=1"));
  TqUFileHandle* file = protocol_->OpenFile(url.c_str(), TqUFileProtocol::OpenRead);
  ASSERT_NE(file, nullptr);
  auto* record = qv::net::HttpFileHandle::From(file);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->UrlText().View(), url);
  TqUFileRequestHandle* request = protocol_->SetupReadFile(file, 5, 10);
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(qv::net::HttpFileRequestHandle::From(request)->Resource().View(),
            L"/missing/file.bin?q=1");
  TqUThreadHandle* thread = protocol_->CreateThreadHandle(file);
  ASSERT_NE(thread, nullptr);
  EXPECT_FALSE(qv::net::HttpFileThreadHandle::From(thread)->IsSecure());
  EXPECT_TRUE(protocol_->ReleaseRequestHandle(request));
  EXPECT_TRUE(protocol_->ReleaseThreadHandle(thread));
  EXPECT_TRUE(protocol_->CloseFile(file));
  EXPECT_EQ(server.request_count(), 0u);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(HttpFileProtocolTest, NullHandlesAreAcceptedOrRefusedAsDocumented) {
  EXPECT_TRUE(protocol_->CloseFile(nullptr));
  EXPECT_TRUE(protocol_->ReleaseRequestHandle(nullptr));
  EXPECT_TRUE(protocol_->ReleaseThreadHandle(nullptr));
  EXPECT_EQ(protocol_->SetupReadFile(nullptr, 0, 1), nullptr);
  EXPECT_EQ(protocol_->CreateThreadHandle(nullptr), nullptr);
  EXPECT_THAT(Log(), IsEmpty());

  // Memory that is no handle of this protocol is refused, never freed.
  alignas(8) unsigned char junk[64] = {1, 2, 3, 4};
  EXPECT_FALSE(protocol_->CloseFile(reinterpret_cast<TqUFileHandle*>(junk)));
  EXPECT_FALSE(protocol_->ReleaseThreadHandle(reinterpret_cast<TqUThreadHandle*>(junk)));
  EXPECT_FALSE(protocol_->ReleaseRequestHandle(reinterpret_cast<TqUFileRequestHandle*>(junk)));
  EXPECT_EQ(protocol_->CreateThreadHandle(reinterpret_cast<TqUFileHandle*>(junk)), nullptr);
  EXPECT_EQ(protocol_->SetupReadFile(reinterpret_cast<TqUFileHandle*>(junk), 0, 1), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::CloseFile invalid handle"},
                                 Posted{1, "HttpFileProtocol::ReleaseThreadHandle invalid handle"},
                                 Posted{1, "HttpFileProtocol::ReleaseRequestHandle invalid handle"},
                                 Posted{1, "HttpFileProtocol::CreateThreadHandle invalid handle"},
                                 Posted{1, "HttpFileProtocol::SetupReadFile invalid handle"}));
}

TEST_F(HttpFileProtocolTest, FailedOpeningsArePosted) {
  // The internet handle cannot be opened: no file, and the next call tries again.
  ASSERT_TRUE(TqPlatformInjectFault("InternetOpenW", ERROR_INTERNET_INTERNAL_ERROR, 1, 0));
  EXPECT_EQ(protocol_->OpenFile(L"http://127.0.0.1:1/f", TqUFileProtocol::OpenRead), nullptr);
  TqUFileInfo info;
  EXPECT_FALSE(protocol_->GetFileInfo(L"http://127.0.0.1:1/g", &info));

  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_NAME_NOT_RESOLVED, 1, 0));
  OpenedFile f(protocol_, "http://127.0.0.1:1/f");
  EXPECT_NE(f.file(), nullptr);
  EXPECT_EQ(f.thread(), nullptr);
  EXPECT_THAT(
      Log(), ElementsAre(Posted{1, "HttpFileProtocol::OpenInetHandle InternetOpen failed: 12004"},
                         Posted{1, "HttpFileProtocol::GetFileInfo HttpSendRequest for "
                                   "http://127.0.0.1:1/g failed: 12029"},
                         Posted{1, "HttpFileProtocol::CreateThreadHandle InternetConnect for "
                                   "http://127.0.0.1:1/f failed: 12007"}));
}

TEST_F(HttpFileProtocolTest, InternetHandleIsOpenedOnceByConcurrentFirstOpens) {
  constexpr int kThreads = 4;
  std::latch start(kThreads);
  std::vector<TqUFileHandle*> files(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      files[i] = protocol_->OpenFile(L"http://127.0.0.1:1/f", TqUFileProtocol::OpenRead);
    });
  }
  for (auto& t : threads) t.join();
  for (TqUFileHandle* f : files) {
    EXPECT_NE(f, nullptr);
    protocol_->CloseFile(f);
  }
  // A second opening would now fail: the handle is open already, so none is attempted.
  ASSERT_TRUE(TqPlatformInjectFault("InternetOpenW", ERROR_INTERNET_INTERNAL_ERROR,
                                    kTqPlatformFaultForever, 0));
  TqUFileHandle* file = protocol_->OpenFile(L"http://127.0.0.1:1/f", TqUFileProtocol::OpenRead);
  EXPECT_NE(file, nullptr);
  protocol_->CloseFile(file);
  EXPECT_EQ(TqPlatformInjectedFailures("InternetOpenW"), 0u);
}

TEST_F(HttpFileProtocolTest, UserAgentSetBeforeTheFirstUseReplacesTheDefault) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  server.Route("/f", ScriptedResponse(200, "abcd"));
  std::vector<unsigned char> buffer(4);
  {
    OpenedFile f(protocol_, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    EXPECT_TRUE(f.ReadExact(0, 4, buffer.data()));
  }
  // The handle keeps the agent it was opened with.
  protocol_->SetUserAgentU("Later/1.0");
  {
    OpenedFile f(protocol_, server.Url("/f"));
    EXPECT_TRUE(f.ReadExact(0, 4, buffer.data()));
  }
  HttpFileProtocol fresh;
  fresh.SetUserAgentW(L"Host-\u00e9/2.0");
  {
    OpenedFile f(&fresh, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    EXPECT_TRUE(f.ReadExact(0, 4, buffer.data()));
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].Header("User-Agent"), "Torvik-Quillstone/23.1");
  EXPECT_EQ(requests[1].Header("User-Agent"), "Torvik-Quillstone/23.1");
  EXPECT_EQ(requests[2].Header("User-Agent"), "Host-\xc3\xa9/2.0");
}

void AppendX(const TqUURL&, const TqUURL&, TqUURL& resolved) { resolved.SetQuery(L"x"); }

void AddFromCallback(const TqUURL&, const TqUURL&, TqUURL& resolved) {
  // Sees what the callback before it left.
  std::wstring text = resolved.GetString();
  const auto q = text.find(L'?');
  resolved.SetQuery((q == std::wstring::npos ? L"none" : text.substr(q + 1) + L"y").c_str());
}

TEST_F(HttpFileProtocolTest, ResolveRelativeRunsTheCallbacksInOrderAndSkipsNull) {
  TqUWideStringBuffer result;
  ASSERT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"../d.txt", &result));
  TqUURL base(L"http://h/a/b/c.txt", true);
  TqUURL relative(L"../d.txt", true);
  TqUURL expected;
  ASSERT_TRUE(TqUURL::ResolveRelative(base, relative, expected));
  EXPECT_EQ(result.View(), std::wstring(expected.GetString()));
  EXPECT_EQ(result.View(), L"http://h/a/d.txt");

  HttpFileProtocol::AddPostUrlResolutionCallback(&AppendX);
  HttpFileProtocol::AddPostUrlResolutionCallback(nullptr);
  HttpFileProtocol::AddPostUrlResolutionCallback(&AddFromCallback);
  EXPECT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"../d.txt", &result));
  EXPECT_EQ(result.View(), L"http://h/a/d.txt?xy");

  HttpFileProtocol::RemovePostUrlResolutionCallback(&AppendX);
  HttpFileProtocol::RemovePostUrlResolutionCallback(nullptr);
  HttpFileProtocol::RemovePostUrlResolutionCallback(&AddFromCallback);
  EXPECT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"e", &result));
  EXPECT_EQ(result.View(), L"http://h/a/b/e");

  // ResolveAbsolute is the framework's resolution and runs no callback.
  HttpFileProtocol::AddPostUrlResolutionCallback(&AppendX);
  TqUWideStringBuffer absolute;
  EXPECT_EQ(protocol_->ResolveAbsolute(L"e", L"http://h/a/b/c.txt", nullptr, &absolute),
            TqUFileProtocol::ResolveAbsoluteFileOrURL(L"e", L"http://h/a/b/c.txt", nullptr,
                                                      &result));
  EXPECT_EQ(absolute.View(), result.View());
  HttpFileProtocol::RemovePostUrlResolutionCallback(&AppendX);
  EXPECT_FALSE(protocol_->ResolveRelative(L"http://h/", L"x", nullptr));
}

}  // namespace
}  // namespace tq::test
