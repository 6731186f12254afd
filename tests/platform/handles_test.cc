// Null, bogus, closed and foreign handles fail cleanly with the thread's last error set.
#include <gtest/gtest.h>

#include <cstdint>

#include "tests/platform/wininet_test_util.h"

namespace {

using namespace tq::test;

#define EXPECT_FAILS_WITH(call, error)                    \
  do {                                                    \
    SetLastError(0);                                      \
    EXPECT_FALSE(call);                                   \
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)); \
  } while (0)

TEST(HandlesTest, NullBogusClosedAndForeignHandlesAreRefused) {
  Handle session = OpenSession();
  Handle connection = Connect(session, 1);  // nothing listens on port 1; nothing is sent
  ASSERT_TRUE(connection);
  HINTERNET closed = InternetConnectW(session.get(), L"127.0.0.1", 1, nullptr, nullptr,
                                      INTERNET_SERVICE_HTTP, 0, 0);
  ASSERT_TRUE(InternetCloseHandle(closed));
  int not_a_handle = 0;
  char buffer[8];
  DWORD got = 0;
  for (HINTERNET bad : {static_cast<HINTERNET>(nullptr), static_cast<HINTERNET>(&not_a_handle),
                        reinterpret_cast<HINTERNET>(std::uintptr_t{0xdeadbeef}), closed}) {
    SCOPED_TRACE(bad);
    DWORD length = sizeof buffer;
    EXPECT_FAILS_WITH(InternetCloseHandle(bad), ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(HttpSendRequestW(bad, nullptr, 0, nullptr, 0), ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(InternetReadFile(bad, buffer, sizeof buffer, &got), ERROR_INVALID_HANDLE);
    EXPECT_FAILS_WITH(HttpQueryInfoW(bad, HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr),
                      ERROR_INVALID_HANDLE);
  }
  EXPECT_FAILS_WITH(HttpOpenRequestW(session.get(), L"GET", L"/", nullptr, nullptr, nullptr, 0, 0),
                    ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
  EXPECT_FAILS_WITH(InternetReadFile(connection.get(), buffer, sizeof buffer, &got),
                    ERROR_INTERNET_INCORRECT_HANDLE_TYPE);
}

}  // namespace
