// HttpQueryInfoW's buffer rules, through the WinINet API on one answer from a raw server.
// Lengths are bytes, sizeof(WCHAR) a character, in and out: the length needed counts the
// terminator, the length on success does not, and nothing is written past the length given.
// Run under AddressSanitizer, any write past a malloc'ed buffer aborts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/raw_responder.h"

namespace {

using namespace tq::test;

const std::string kHead =
    "HTTP/1.1 206 Partial Content\r\n"
    "Content-Type: text/plain\r\n"
    "ETag: \"abcdefgh\"\r\n"
    "Set-Cookie: a=1\r\n"
    "set-cookie: b=2\r\n"
    "Content-Range: bytes 0-4/5000\r\n"
    "X-Custom-Header: a value of some length\r\n"
    "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
    "Content-Length: 5\r\n"
    "\r\n";

constexpr DWORD W = sizeof(WCHAR);

class HeaderQueriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.ok());
    ASSERT_TRUE(session_);
    connection_ = Connect(session_, server_.port());
    request_ = OpenRequest(connection_, L"/");
    ASSERT_TRUE(Send(request_));
  }

  RawResponder server_{[](RawConnection& c) {
    c.ReadRequestHead();
    c.Send(kHead + "hello");
  }};
  Handle session_{
      InternetOpenW(L"sdk-conformance", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0)};
  Handle connection_;
  Handle request_;
};

TEST_F(HeaderQueriesTest, LengthsErrorsAndValuesForEachKindOfQuery) {
  constexpr DWORD kNum = HTTP_QUERY_FLAG_NUMBER, kCustom = HTTP_QUERY_CUSTOM;
  constexpr DWORD kOk = ERROR_SUCCESS, kAny = 0xFFFFFFFFu;
  constexpr DWORD kShort = ERROR_INSUFFICIENT_BUFFER, kAbsent = ERROR_HTTP_HEADER_NOT_FOUND;
  struct Case {
    DWORD level;
    const wchar_t* name;  // HTTP_QUERY_CUSTOM reads it from the buffer
    DWORD length;         // bytes
    DWORD error;
    DWORD length_after;   // or kAny
    const wchar_t* text;  // the buffer afterwards (a number rendered), or null
  } cases[] = {
      {HTTP_QUERY_ETAG, nullptr, 11 * W - 1, kShort, 11 * W, nullptr},
      {HTTP_QUERY_ETAG, nullptr, 10 * W, kShort, 11 * W, nullptr},
      {HTTP_QUERY_ETAG, nullptr, 11 * W, kOk, 10 * W, L"\"abcdefgh\""},
      {HTTP_QUERY_LOCATION, nullptr, 8, kAbsent, kAny, nullptr},
      // By name: case-insensitive; on failure the buffer is left as it was. The name is read
      // from as many whole characters as the length holds.
      {kCustom, L"CONTENT-range", 64 * W, kOk, 14 * W, L"bytes 0-4/5000"},
      {kCustom, L"Content-Range", 14 * W, kShort, 15 * W, L"Content-Range"},
      {kCustom, L"Content-Range", 13 * W - 1, kAbsent, kAny, L"Content-Range"},
      {kCustom, L"X-Missing", 64 * W, kAbsent, kAny, nullptr},
      {kCustom, L"E", W - 1, kAbsent, kAny, nullptr},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 4, kOk, 4, L"5"},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 3, kShort, 4, nullptr},
      {HTTP_QUERY_ETAG | kNum, nullptr, 4, ERROR_HTTP_INVALID_HEADER, kAny, nullptr},
      {HTTP_QUERY_STATUS_CODE, nullptr, 4 * W, kOk, 3 * W, L"206"},
      {HTTP_QUERY_STATUS_CODE, nullptr, 3 * W, kShort, 4 * W, nullptr},
      {HTTP_QUERY_STATUS_TEXT, nullptr, 64 * W, kOk, 15 * W, L"Partial Content"},
      {HTTP_QUERY_MAX + 5, nullptr, 64, ERROR_HTTP_INVALID_QUERY_REQUEST, kAny, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "level " << std::hex << c.level << std::dec << " length " << c.length);
    // Bytes past the length given are a marker that must survive.
    alignas(wchar_t) unsigned char storage[80 * sizeof(wchar_t)];
    std::memset(storage, 0xA5, sizeof storage);
    auto* buffer = reinterpret_cast<wchar_t*>(storage);
    if (c.name != nullptr) std::wcscpy(buffer, c.name);
    const std::size_t untouched_from =
        std::max<std::size_t>(c.length, c.name != nullptr ? (std::wcslen(c.name) + 1) * W : 0);
    DWORD length = c.length;
    SetLastError(0);
    const DWORD error = HttpQueryInfoW(request_.get(), c.level, buffer, &length, nullptr)
                            ? DWORD{ERROR_SUCCESS}
                            : GetLastError();
    EXPECT_EQ(error, c.error);
    if (c.length_after != kAny) {
      EXPECT_EQ(length, c.length_after);
    }
    for (std::size_t i = untouched_from; i < sizeof storage; ++i) {
      ASSERT_EQ(storage[i], 0xA5) << "written past the buffer at byte " << i;
    }
    if (c.text == nullptr) continue;
    if (error == kOk && (c.level & kNum)) {
      DWORD value;
      std::memcpy(&value, buffer, sizeof value);
      EXPECT_EQ(std::to_wstring(value), c.text);
    } else {
      EXPECT_EQ(std::wstring(buffer), c.text);
    }
  }
}

TEST_F(HeaderQueriesTest, IndexWalksRepeatedHeadersAndAdvancesOnlyOnSuccess) {
  wchar_t buffer[64];
  DWORD index = 0;
  const auto query = [&](DWORD length) {
    SetLastError(0);
    return HttpQueryInfoW(request_.get(), HTTP_QUERY_SET_COOKIE, buffer, &length, &index)
               ? DWORD{ERROR_SUCCESS}
               : GetLastError();
  };
  ASSERT_EQ(query(sizeof buffer), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"a=1");
  EXPECT_EQ(query(3 * W), ERROR_INSUFFICIENT_BUFFER);
  ASSERT_EQ(query(sizeof buffer), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"b=2");
  EXPECT_EQ(query(sizeof buffer), ERROR_HTTP_HEADER_NOT_FOUND);
  EXPECT_EQ(index, 2u);
}

// A caller written the way the SDK documents the call: ask for the size with a null buffer,
// allocate exactly that many bytes (malloc, or a vector of len / sizeof(WCHAR) characters),
// then query for real.
TEST_F(HeaderQueriesTest, DocumentedTwoCallPatternFitsEveryStringQuery) {
  std::wstring raw(kHead.begin(), kHead.end());  // lines end in NUL, the list in an empty one
  for (std::size_t at; (at = raw.find(L"\r\n")) != std::wstring::npos;) raw.replace(at, 2, 1, 0);
  raw.pop_back();
  const struct {
    DWORD level;
    const WCHAR* name;  // for HTTP_QUERY_CUSTOM, or null
    std::wstring expected;
  } queries[] = {
      {HTTP_QUERY_ETAG, nullptr, L"\"abcdefgh\""},
      {HTTP_QUERY_CONTENT_TYPE, nullptr, L"text/plain"},
      {HTTP_QUERY_STATUS_CODE, nullptr, L"206"},
      {HTTP_QUERY_STATUS_TEXT, nullptr, L"Partial Content"},
      {HTTP_QUERY_VERSION, nullptr, L"HTTP/1.1"},
      {HTTP_QUERY_REQUEST_METHOD, nullptr, L"GET"},
      {HTTP_QUERY_RAW_HEADERS, nullptr, raw},
      {HTTP_QUERY_RAW_HEADERS_CRLF, nullptr, std::wstring(kHead.begin(), kHead.end())},
      {HTTP_QUERY_USER_AGENT | HTTP_QUERY_FLAG_REQUEST_HEADERS, nullptr, L"sdk-conformance"},
      {HTTP_QUERY_CUSTOM, L"x-custom-header", L"a value of some length"},
      {HTTP_QUERY_CUSTOM, L"etag", L"\"abcdefgh\""},
  };
  for (const auto& query : queries) {
    SCOPED_TRACE(testing::Message() << "level 0x" << std::hex << query.level);
    // Copies the name in first, as much of it as fits (a buffer too short for the name is not
    // the caller's problem to overflow), and queries into `size` bytes.
    const auto call = [&](void* buffer, DWORD size, DWORD* length) {
      if (query.name != nullptr && buffer != nullptr) {
        const std::size_t chars = std::min<std::size_t>(std::wcslen(query.name) + 1, size / W);
        std::memcpy(buffer, query.name, chars * W);
      }
      *length = size;
      return HttpQueryInfoW(request_.get(), query.level, buffer, length, nullptr);
    };
    DWORD needed = 0;
    if (query.name != nullptr) {  // HTTP_QUERY_CUSTOM's first buffer holds just the name
      std::vector<WCHAR> name(query.name, query.name + std::wcslen(query.name) + 1);
      EXPECT_FALSE(call(name.data(), static_cast<DWORD>(name.size() * W), &needed));
    } else {
      EXPECT_FALSE(call(nullptr, 0, &needed));
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    ASSERT_EQ(needed, (query.expected.size() + 1) * W);

    void* exact = std::malloc(needed);
    DWORD length = 0;
    ASSERT_TRUE(call(exact, needed, &length));
    EXPECT_EQ(length, needed - W);
    EXPECT_EQ(std::wstring(static_cast<WCHAR*>(exact), query.expected.size() + 1),
              query.expected + L'\0');
    std::free(exact);

    std::vector<WCHAR> chars(needed / W);
    ASSERT_TRUE(call(chars.data(), needed, &length));
    EXPECT_EQ(length, needed - W);

    // One character short: refused, with the same length needed.
    void* small = std::malloc(needed - W);
    EXPECT_FALSE(call(small, needed - W, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, needed);
    std::free(small);
  }
}

TEST_F(HeaderQueriesTest, FixedSizeAnswersTakeSizeofTheValueInAndOut) {
  DWORD number = 0;
  DWORD length = sizeof number;
  ASSERT_TRUE(HttpQueryInfoW(request_.get(), HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER,
                             &number, &length, nullptr));
  EXPECT_EQ(number, 5u);
  EXPECT_EQ(length, sizeof number);
  unsigned long long number64 = 0;
  length = sizeof number64;
  ASSERT_TRUE(HttpQueryInfoW(request_.get(), HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER64,
                             &number64, &length, nullptr));
  EXPECT_EQ(number64, 5u);
  EXPECT_EQ(length, sizeof number64);
  SYSTEMTIME time = {};
  length = sizeof time - 1;
  EXPECT_FALSE(HttpQueryInfoW(request_.get(), HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME,
                              &time, &length, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(length, sizeof time);
  ASSERT_TRUE(HttpQueryInfoW(request_.get(), HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME,
                             &time, &length, nullptr));
  EXPECT_EQ(time.wYear, 1994);
  EXPECT_EQ(time.wSecond, 37);
}

}  // namespace
