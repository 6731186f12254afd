// Handles, options and fault injection: what a caller can get wrong must fail cleanly.
#include <gtest/gtest.h>

#include <cstdint>

#include "platform/fault_injection.h"
#include "tests/platform/wininet_test_util.h"

namespace {

using tq::test::Connect;
using tq::test::Handle;
using tq::test::OpenRequest;
using tq::test::OpenSession;
using tq::test::SetDword;

class HandlesTest : public ::testing::Test {
 protected:
  void TearDown() override { TqPlatformClearFaults(); }
};

TEST_F(HandlesTest, NullBogusAndClosedHandlesAreRefused) {
  Handle session = OpenSession();
  ASSERT_TRUE(session);
  HINTERNET closed = InternetConnectW(session.get(), L"127.0.0.1", 1, nullptr, nullptr,
                                      INTERNET_SERVICE_HTTP, 0, 0);
  ASSERT_NE(closed, nullptr);
  ASSERT_TRUE(InternetCloseHandle(closed));

  int not_a_handle = 0;
  for (HINTERNET bad : {static_cast<HINTERNET>(nullptr), static_cast<HINTERNET>(&not_a_handle),
                        reinterpret_cast<HINTERNET>(std::uintptr_t{0xdeadbeef}), closed}) {
    SetLastError(0);
    EXPECT_FALSE(InternetCloseHandle(bad));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(0);
    EXPECT_EQ(InternetConnectW(bad, L"x", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0),
              nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(0);
    EXPECT_EQ(HttpOpenRequestW(bad, L"GET", L"/", nullptr, nullptr, nullptr, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    SetLastError(0);
    EXPECT_FALSE(HttpSendRequestW(bad, nullptr, 0, nullptr, 0));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    char buffer[8];
    DWORD got = 77;
    SetLastError(0);
    EXPECT_FALSE(InternetReadFile(bad, buffer, sizeof buffer, &got));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    DWORD length = sizeof buffer;
    SetLastError(0);
    EXPECT_FALSE(HttpQueryInfoW(bad, HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    if (bad != nullptr) {
      SetLastError(0);
      EXPECT_FALSE(SetDword(bad, INTERNET_OPTION_RECEIVE_TIMEOUT, 1000));
      EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
  }
}

TEST_F(HandlesTest, HandleOfAnotherKindIsRefused) {
  Handle session = OpenSession();
  Handle connection = Connect(session, 1);
  ASSERT_TRUE(connection);
  SetLastError(0);
  EXPECT_EQ(HttpOpenRequestW(session.get(), L"GET", L"/", nullptr, nullptr, nullptr, 0, 0), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  char buffer[4];
  DWORD got = 0;
  EXPECT_FALSE(InternetReadFile(connection.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_EQ(InternetConnectW(connection.get(), L"x", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP,
                             0, 0),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
}

TEST_F(HandlesTest, ClosingAParentClosesItsChildren) {
  Handle session = OpenSession();
  HINTERNET connection = InternetConnectW(session.get(), L"127.0.0.1", 1, nullptr, nullptr,
                                          INTERNET_SERVICE_HTTP, 0, 0);
  ASSERT_NE(connection, nullptr);
  HINTERNET request = HttpOpenRequestW(connection, L"GET", L"/", nullptr, nullptr, nullptr, 0, 0);
  ASSERT_NE(request, nullptr);
  ASSERT_TRUE(InternetCloseHandle(session.Release()));
  EXPECT_FALSE(InternetCloseHandle(request));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_FALSE(InternetCloseHandle(connection));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
}

TEST_F(HandlesTest, RequestUseBeforeSendIsAStateError) {
  Handle session = OpenSession();
  Handle connection = Connect(session, 1);
  Handle request = OpenRequest(connection, L"/");
  ASSERT_TRUE(request);
  char buffer[16];
  DWORD got = 5;
  EXPECT_FALSE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INCORRECT_HANDLE_STATE);
  EXPECT_EQ(got, 0u);
  DWORD length = sizeof buffer;
  EXPECT_FALSE(HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INCORRECT_HANDLE_STATE);
  EXPECT_FALSE(InternetReadFile(request.get(), buffer, sizeof buffer, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(HandlesTest, BadArgumentsAreRefused) {
  EXPECT_EQ(InternetOpenW(L"a", 77, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(InternetOpenW(L"a", INTERNET_OPEN_TYPE_PROXY, nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(InternetOpenW(L"a", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, INTERNET_FLAG_ASYNC),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

  Handle session = OpenSession();
  EXPECT_EQ(InternetConnectW(session.get(), L"", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(InternetConnectW(session.get(), L"evil.com/x?", 80, nullptr, nullptr,
                             INTERNET_SERVICE_HTTP, 0, 0),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INVALID_URL);
  EXPECT_EQ(InternetConnectW(session.get(), L"host", 21, nullptr, nullptr, INTERNET_SERVICE_FTP, 0, 0),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

  Handle connection = Connect(session, 1);
  EXPECT_EQ(HttpOpenRequestW(connection.get(), L"GE T", L"/", nullptr, nullptr, nullptr, 0, 0),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(HttpOpenRequestW(connection.get(), L"GET", L"/", L"HTTP/2", nullptr, nullptr, 0, 0),
            nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

  Handle request = OpenRequest(connection, L"/");
  const std::wstring no_colon = L"Range bytes=0-1\r\n";
  EXPECT_FALSE(HttpSendRequestW(request.get(), no_colon.c_str(), static_cast<DWORD>(no_colon.size()),
                                nullptr, 0));
  EXPECT_EQ(GetLastError(), ERROR_HTTP_INVALID_HEADER);
  EXPECT_FALSE(HttpSendRequestW(request.get(), nullptr, 0, nullptr, 5));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST_F(HandlesTest, OptionsCheckLengthKindAndValue) {
  Handle session = OpenSession();
  Handle connection = Connect(session, 1);
  Handle request = OpenRequest(connection, L"/");
  DWORD value = 4;
  EXPECT_FALSE(InternetSetOptionW(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, &value, 2));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_BAD_OPTION_LENGTH);
  EXPECT_FALSE(InternetSetOptionW(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, nullptr, 4));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(SetDword(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 0));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(SetDword(request.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_FALSE(SetDword(connection.get(), 9999, 4));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_INVALID_OPTION);
  EXPECT_TRUE(SetDword(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4));
  EXPECT_TRUE(SetDword(request.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 500));
  wchar_t user[] = L"alice";
  EXPECT_TRUE(InternetSetOptionW(connection.get(), INTERNET_OPTION_USERNAME, user, 6));
}

TEST_F(HandlesTest, InjectedFaultsFailChosenCallsThenStop) {
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 2, 1));
  Handle session = OpenSession();
  Handle first = Connect(session, 1);
  EXPECT_TRUE(first);  // skipped
  SetLastError(0);
  EXPECT_FALSE(Connect(session, 1));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  EXPECT_FALSE(Connect(session, 1));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  EXPECT_TRUE(Connect(session, 1));  // the two failures are used up
  EXPECT_EQ(TqPlatformInjectedFailures("InternetConnectW"), 2u);

  ASSERT_TRUE(TqPlatformInjectFault("InternetOpenW", ERROR_INTERNET_NAME_NOT_RESOLVED,
                                    kTqPlatformFaultForever, 0));
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(OpenSession());
    EXPECT_EQ(GetLastError(), ERROR_INTERNET_NAME_NOT_RESOLVED);
  }
  TqPlatformClearFaults();
  EXPECT_TRUE(OpenSession());
  EXPECT_EQ(TqPlatformInjectedFailures("InternetOpenW"), 0u);
}

TEST_F(HandlesTest, InjectedFaultsCoverEveryEntryPoint) {
  Handle session = OpenSession();
  Handle connection = Connect(session, 1);
  Handle request = OpenRequest(connection, L"/");
  for (const char* name : {"HttpOpenRequestW", "HttpSendRequestW", "InternetReadFile",
                           "HttpQueryInfoW", "InternetSetOptionW", "InternetCloseHandle"}) {
    ASSERT_TRUE(TqPlatformInjectFault(name, ERROR_INTERNET_TIMEOUT, 1, 0)) << name;
  }
  EXPECT_FALSE(OpenRequest(connection, L"/"));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  EXPECT_FALSE(HttpSendRequestW(request.get(), nullptr, 0, nullptr, 0));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  char buffer[8];
  DWORD got = 3;
  EXPECT_FALSE(InternetReadFile(request.get(), buffer, sizeof buffer, &got));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  EXPECT_EQ(got, 0u);
  DWORD length = sizeof buffer;
  EXPECT_FALSE(HttpQueryInfoW(request.get(), HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  EXPECT_FALSE(SetDword(connection.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  // A failed close leaves the handle open: the next close works.
  EXPECT_FALSE(InternetCloseHandle(request.get()));
  EXPECT_EQ(GetLastError(), ERROR_INTERNET_TIMEOUT);
  EXPECT_TRUE(InternetCloseHandle(request.Release()));

  EXPECT_FALSE(TqPlatformInjectFault("NoSuchFunction", ERROR_INTERNET_TIMEOUT, 1, 0));
  EXPECT_FALSE(TqPlatformInjectFault("InternetReadFile", 0, 1, 0));
}

}  // namespace
