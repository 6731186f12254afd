#include "net/fileprotocol/auth_hooks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"

namespace qv::net {
namespace {

HttpFileProtocol::PreHTTPAuthenticationResult Supply(const wchar_t* url, HttpCredentials* c) {
  c->SetUsername(url);
  c->SetPassword(L"pw");
  return HttpFileProtocol::CredentialsSupplied;
}

TEST(AuthHooks, InstalledHookAnswersAndNoHookSuppliesNothing) {
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
  HttpCredentials credentials;
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://h/", &credentials),
            HttpFileProtocol::CredentialsSupplied);
  EXPECT_STREQ(credentials.GetUsername(), L"");
  EXPECT_STREQ(credentials.GetPassword(), L"");

  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&Supply);
  EXPECT_EQ(HttpFileProtocol::PreHTTPAuthentication(L"http://h/x", &credentials),
            HttpFileProtocol::CredentialsSupplied);
  EXPECT_STREQ(credentials.GetUsername(), L"http://h/x");
  EXPECT_STREQ(credentials.GetPassword(), L"pw");
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
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

std::vector<int>* g_calls = nullptr;
void First(const TqUURL&, const TqUURL&, TqUURL&) { g_calls->push_back(1); }
void Second(const TqUURL&, const TqUURL&, TqUURL&) { g_calls->push_back(2); }

TEST(AuthHooks, CallbacksAreAddedWithDuplicatesAndRemovedEveryWhere) {
  std::vector<int> calls;
  g_calls = &calls;
  HttpFileProtocol protocol;
  TqUWideStringBuffer result;
  HttpFileProtocol::AddPostUrlResolutionCallback(&First);
  HttpFileProtocol::AddPostUrlResolutionCallback(&Second);
  HttpFileProtocol::AddPostUrlResolutionCallback(&First);
  protocol.ResolveRelative(L"http://h/a", L"b", &result);
  EXPECT_EQ(calls, (std::vector<int>{1, 2, 1}));

  calls.clear();
  HttpFileProtocol::RemovePostUrlResolutionCallback(&First);
  protocol.ResolveRelative(L"http://h/a", L"b", &result);
  EXPECT_EQ(calls, (std::vector<int>{2}));

  calls.clear();
  HttpFileProtocol::RemovePostUrlResolutionCallback(&First);  // not there: nothing changes
  protocol.ResolveRelative(L"http://h/a", L"b", &result);
  EXPECT_EQ(calls, (std::vector<int>{2}));
  HttpFileProtocol::RemovePostUrlResolutionCallback(&Second);
  g_calls = nullptr;
}

}  // namespace
}  // namespace qv::net
