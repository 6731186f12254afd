#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "net/fileprotocol/auth_hooks.h"
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

  // With no hook at all the request goes on, and no credentials are filled in.
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
  HttpCredentials none;
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://u:p@h/", &none),
            HttpFileProtocol::CredentialsSupplied);
  EXPECT_STREQ(none.GetUsername(), L"");
  EXPECT_STREQ(none.GetPassword(), L"");
}

TEST(AuthHooks, DefaultHookTakesBothCredentialsFromTheUrlOrNothing) {
  HttpCredentials credentials;
  EXPECT_EQ(HttpFileProtocol::DefaultPreHTTPAuthentication(L"http://al%40ice:p%3Aw@h/f",
                                                           &credentials),
            HttpFileProtocol::CredentialsSupplied);
  EXPECT_STREQ(credentials.GetUsername(), L"al@ice");
  EXPECT_STREQ(credentials.GetPassword(), L"p:w");

  HttpCredentials untouched(L"keep", L"these");
  for (const wchar_t* url : {L"http://user@h/f", L"http://user:@h/f", L"http://:pw@h/f",
                             L"http://h/f", L"not a url"}) {
    EXPECT_EQ(HttpFileProtocol::DefaultPreHTTPAuthentication(url, &untouched),
              HttpFileProtocol::NoCredentials)
        << qv::WideToUtf8(url);
    EXPECT_STREQ(untouched.GetUsername(), L"keep");
    EXPECT_STREQ(untouched.GetPassword(), L"these");
  }
}

using HttpFileProtocolTest = ProtocolTest;

TEST_F(HttpFileProtocolTest, InvalidUrlsAreRefusedAndOpeningSendsNothing) {
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  TqUFileInfo info;
  for (const wchar_t* url : {L"not a url", L"http://", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(protocol_->OpenFile(url, TqUFileProtocol::OpenRead), nullptr);
    EXPECT_FALSE(protocol_->GetFileInfo(url, &info));
  }
  EXPECT_FALSE(protocol_->GetFileInfo(W(server.Url("/f")).c_str(), nullptr));

  const std::wstring url = W(server.Url("/missing/file.bin?q=1"));
  TqUFileHandle* file = protocol_->OpenFile(url.c_str(), TqUFileProtocol::OpenRead);
  ASSERT_NE(file, nullptr);
  TqUFileRequestHandle* request = protocol_->SetupReadFile(file, 5, 10);
  ASSERT_NE(request, nullptr);
  TqUThreadHandle* thread = protocol_->CreateThreadHandle(file);
  ASSERT_NE(thread, nullptr);
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
  auto read_once = [&](HttpFileProtocol* protocol) {
    OpenedFile f(protocol, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    EXPECT_TRUE(f.ReadExact(0, 4, buffer.data()));
  };
  read_once(protocol_);
  // The internet handle keeps the agent it was opened with.
  protocol_->SetUserAgentU("Later/1.0");
  read_once(protocol_);
  HttpFileProtocol fresh;
  fresh.SetUserAgentW(L"Host-\u00e9/2.0");
  read_once(&fresh);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].Header("User-Agent"), "Torvik-Quillstone/23.1");
  EXPECT_EQ(requests[1].Header("User-Agent"), "Torvik-Quillstone/23.1");
  EXPECT_EQ(requests[2].Header("User-Agent"), "Host-\xc3\xa9/2.0");
}

// Appends its letter to the query the callbacks before it left.
template <wchar_t kLetter>
void Append(const TqUURL&, const TqUURL&, TqUURL& resolved) {
  const std::wstring text = resolved.GetString();
  const auto q = text.find(L'?');
  resolved.SetQuery(((q == std::wstring::npos ? L"" : text.substr(q + 1)) + kLetter).c_str());
}

TEST_F(HttpFileProtocolTest, ResolveRelativeRunsTheCallbacksInOrder) {
  TqUWideStringBuffer result;
  ASSERT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"../d.txt", &result));
  EXPECT_EQ(result.View(), L"http://h/a/d.txt");

  // Null is skipped; a callback added twice runs twice and is removed everywhere at once.
  HttpFileProtocol::AddPostUrlResolutionCallback(&Append<L'x'>);
  HttpFileProtocol::AddPostUrlResolutionCallback(nullptr);
  HttpFileProtocol::AddPostUrlResolutionCallback(&Append<L'y'>);
  HttpFileProtocol::AddPostUrlResolutionCallback(&Append<L'x'>);
  EXPECT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"../d.txt", &result));
  EXPECT_EQ(result.View(), L"http://h/a/d.txt?xyx");
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'x'>);
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'x'>);  // not there: no change
  HttpFileProtocol::RemovePostUrlResolutionCallback(nullptr);
  EXPECT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"e", &result));
  EXPECT_EQ(result.View(), L"http://h/a/b/e?y");

  // ResolveAbsolute is the framework's resolution and runs no callback.
  TqUWideStringBuffer absolute;
  EXPECT_EQ(protocol_->ResolveAbsolute(L"e", L"http://h/a/b/c.txt", nullptr, &absolute),
            TqUFileProtocol::ResolveAbsoluteFileOrURL(L"e", L"http://h/a/b/c.txt", nullptr,
                                                      &result));
  EXPECT_EQ(absolute.View(), result.View());
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Append<L'y'>);
  EXPECT_TRUE(protocol_->ResolveRelative(L"http://h/a/b/c.txt", L"e", &result));
  EXPECT_EQ(result.View(), L"http://h/a/b/e");
  EXPECT_FALSE(protocol_->ResolveRelative(L"http://h/", L"x", nullptr));
}

}  // namespace
}  // namespace tq::test
