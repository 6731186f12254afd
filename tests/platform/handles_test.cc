// Handles, options and fault injection: what a caller can get wrong must fail cleanly.
#include <gtest/gtest.h>

#include <cstdint>

#include "platform/fault_injection.h"
#include "tests/platform/wininet_test_util.h"

// Expects `call` to fail (FALSE or null) and to leave `error` as the thread's last error.
#define EXPECT_FAILS_WITH(call, error)                    \
  do {                                                    \
    SetLastError(0);                                      \
    EXPECT_FALSE(call);                                   \
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)); \
  } while (0)

namespace {

using namespace tq::test;

class HandlesTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(request_); }
  void TearDown() override { TqPlatformClearFaults(); }

  // Nothing listens on port 1; none of these tests sends.
  Handle session_ = OpenSession();
  Handle connection_ = Connect(session_, 1);
  Handle request_ = OpenRequest(connection_, L"/");
};

TEST_F(HandlesTest, NullBogusAndClosedHandlesAreRefused) {
  HINTERNET closed = InternetConnectW(session_.get(), L"127.0.0.1", 1, nullptr, nullptr,
                                      INTERNET_SERVICE_HTTP, 0, 0);
  ASSERT_NE(closed, nullptr);
  ASSERT_TRUE(InternetCloseHandle(closed));

  int not_a_handle = 0;
  for (HINTERNET bad : {static_cast<HINTERNET>(nullptr), static_cast<HINTERNET>(&not_a_handle),
                        reinterpret_cast<HINTERNET>(std::uintptr_t{0xdeadbeef}), closed}) {
    SCOPED_TRACE(bad);
    char buffer[8];
    DWORD got = 77;
    DWORD length = sizeof buffer;
    EXPECT_FAILS_WITH(InternetCloseHandle(bad), ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(
        InternetConnectW(bad, L"x", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0),
        ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(HttpOpenRequestW(bad, L"GET", L"/", nullptr, nullptr, nullptr, 0, 0),
                      ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(HttpSendRequestW(bad, nullptr, 0, nullptr, 0), ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(InternetReadFile(bad, buffer, sizeof buffer, &got), ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(HttpQueryInfoW(bad, HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr),
                      ERROR_INVALID_HANDLE);
    if (bad != nullptr) {
      EXPECT_FAILS_WITH(SetDword(bad, INTERNET_OPTION_RECEIVE_TIMEOUT, 1000), ERROR_INVALID_HANDLE);
    }
  }
}

TEST_F(HandlesTest, HandleOfAnotherKindIsRefused) {
  char buffer[4];
  DWORD got = 0;
  EXPECT_FAILS_WITH(HttpOpenRequestW(session_.get(), L"GET", L"/", nullptr, nullptr, nullptr, 0, 0),
                    ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_FAILS_WITH(InternetReadFile(connection_.get(), buffer, sizeof buffer, &got),
                    ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_FAILS_WITH(
      InternetConnectW(connection_.get(), L"x", 80, nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, 0),
      ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
}

TEST_F(HandlesTest, RequestUseBeforeSendIsAStateError) {
  char buffer[16];
  DWORD got = 5;
  EXPECT_FAILS_WITH(InternetReadFile(request_.get(), buffer, sizeof buffer, &got),
                    ERROR_INTERNET_INCORRECT_HANDLE_STATE);
  EXPECT_EQ(got, 0u);
  DWORD length = sizeof buffer;
  EXPECT_FAILS_WITH(
      HttpQueryInfoW(request_.get(), HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr),
      ERROR_INTERNET_INCORRECT_HANDLE_STATE);
  EXPECT_FAILS_WITH(InternetReadFile(request_.get(), buffer, sizeof buffer, nullptr),
                    ERROR_INVALID_PARAMETER);
}

TEST_F(HandlesTest, BadArgumentsAreRefused) {
  EXPECT_FAILS_WITH(InternetOpenW(L"a", 77, nullptr, nullptr, 0), ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(InternetOpenW(L"a", INTERNET_OPEN_TYPE_PROXY, nullptr, nullptr, 0),
                    ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(
      InternetOpenW(L"a", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, INTERNET_FLAG_ASYNC),
      ERROR_INVALID_PARAMETER);
  const auto connect = [&](const wchar_t* host, DWORD service) {
    return InternetConnectW(session_.get(), host, 80, nullptr, nullptr, service, 0, 0);
  };
  EXPECT_FAILS_WITH(connect(L"", INTERNET_SERVICE_HTTP), ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(connect(L"evil.com/x?", INTERNET_SERVICE_HTTP), ERROR_INTERNET_INVALID_URL);
  EXPECT_FAILS_WITH(connect(L"host", INTERNET_SERVICE_FTP), ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(
      HttpOpenRequestW(connection_.get(), L"GE T", L"/", nullptr, nullptr, nullptr, 0, 0),
      ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(
      HttpOpenRequestW(connection_.get(), L"GET", L"/", L"HTTP/2", nullptr, nullptr, 0, 0),
      ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(Send(request_, L"Range bytes=0-1\r\n"), ERROR_HTTP_INVALID_HEADER);
  EXPECT_FAILS_WITH(HttpSendRequestW(request_.get(), nullptr, 0, nullptr, 5),
                    ERROR_INVALID_PARAMETER);
}

TEST_F(HandlesTest, OptionsCheckLengthKindAndValue) {
  DWORD value = 4;
  const DWORD kMaxConns = INTERNET_OPTION_MAX_CONNS_PER_SERVER;
  EXPECT_FAILS_WITH(InternetSetOptionW(connection_.get(), kMaxConns, &value, 2),
                    ERROR_INTERNET_BAD_OPTION_LENGTH);
  EXPECT_FAILS_WITH(InternetSetOptionW(connection_.get(), kMaxConns, nullptr, 4),
                    ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(SetDword(connection_.get(), kMaxConns, 0), ERROR_INVALID_PARAMETER);
  EXPECT_FAILS_WITH(SetDword(request_.get(), kMaxConns, 4), ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_FAILS_WITH(SetDword(connection_.get(), 9999, 4), ERROR_INTERNET_INVALID_OPTION);
  EXPECT_TRUE(SetDword(connection_.get(), kMaxConns, 4));
  EXPECT_TRUE(SetDword(request_.get(), INTERNET_OPTION_RECEIVE_TIMEOUT, 500));
  wchar_t user[] = L"alice";
  EXPECT_TRUE(InternetSetOptionW(connection_.get(), INTERNET_OPTION_USERNAME, user, 6));
}

TEST_F(HandlesTest, InjectedFaultsSkipFailCountAndStop) {
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_TIMEOUT, 2, 1));
  EXPECT_TRUE(Connect(session_, 1));  // skipped
  EXPECT_FAILS_WITH(Connect(session_, 1), ERROR_INTERNET_TIMEOUT);
  EXPECT_FAILS_WITH(Connect(session_, 1), ERROR_INTERNET_TIMEOUT);
  EXPECT_TRUE(Connect(session_, 1));  // the two failures are used up
  EXPECT_EQ(TqPlatformInjectedFailures("InternetConnectW"), 2u);

  ASSERT_TRUE(TqPlatformInjectFault("InternetOpenW", ERROR_INTERNET_NAME_NOT_RESOLVED,
                                    kTqPlatformFaultForever, 0));
  for (int i = 0; i < 3; ++i) EXPECT_FAILS_WITH(OpenSession(), ERROR_INTERNET_NAME_NOT_RESOLVED);
  TqPlatformClearFaults();
  EXPECT_TRUE(OpenSession());
  EXPECT_EQ(TqPlatformInjectedFailures("InternetOpenW"), 0u);
  EXPECT_FALSE(TqPlatformInjectFault("NoSuchFunction", ERROR_INTERNET_TIMEOUT, 1, 0));
  EXPECT_FALSE(TqPlatformInjectFault("InternetReadFile", 0, 1, 0));
}

TEST_F(HandlesTest, InjectedFaultsCoverEveryEntryPoint) {
  for (const char* name : {"HttpOpenRequestW", "HttpSendRequestW", "InternetReadFile",
                           "HttpQueryInfoW", "InternetSetOptionW", "InternetCloseHandle"}) {
    ASSERT_TRUE(TqPlatformInjectFault(name, ERROR_INTERNET_TIMEOUT, 1, 0)) << name;
  }
  char buffer[8];
  DWORD got = 3;
  DWORD length = sizeof buffer;
  EXPECT_FAILS_WITH(OpenRequest(connection_, L"/"), ERROR_INTERNET_TIMEOUT);
  EXPECT_FAILS_WITH(HttpSendRequestW(request_.get(), nullptr, 0, nullptr, 0),
                    ERROR_INTERNET_TIMEOUT);
  EXPECT_FAILS_WITH(InternetReadFile(request_.get(), buffer, sizeof buffer, &got),
                    ERROR_INTERNET_TIMEOUT);
  EXPECT_EQ(got, 0u);
  EXPECT_FAILS_WITH(
      HttpQueryInfoW(request_.get(), HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr),
      ERROR_INTERNET_TIMEOUT);
  EXPECT_FAILS_WITH(SetDword(connection_.get(), INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4),
                    ERROR_INTERNET_TIMEOUT);
  // A failed close leaves the handle open: the next close works.
  EXPECT_FAILS_WITH(InternetCloseHandle(request_.get()), ERROR_INTERNET_TIMEOUT);
  EXPECT_TRUE(InternetCloseHandle(request_.Release()));
}

}  // namespace
