// A caller written the way the SDK documents HttpQueryInfoW, with nothing but the SDK's names:
// ask for the size with a null buffer, allocate exactly that many bytes (malloc, or a vector of
// len / sizeof(WCHAR) characters), then query for real. Lengths are bytes, sizeof(WCHAR) a
// character, in and out. Run under AddressSanitizer, any write past such a buffer aborts.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "platform/wininet.h"
#include "tests/support/servers/raw_responder.h"

namespace {

const char kAnswer[] =
    "HTTP/1.1 200 OK\r\n"
    "Content-Type: text/plain\r\n"
    "ETag: \"0123456789abcdef\"\r\n"
    "X-Custom-Header: a value of some length\r\n"
    "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n"
    "Content-Length: 5\r\n"
    "\r\n"
    "hello";

struct Query {
  DWORD level;
  const WCHAR* name;      // for HTTP_QUERY_CUSTOM, or null
  const WCHAR* expected;  // the text; RAW_HEADERS: its first line
};

const Query kQueries[] = {
    {HTTP_QUERY_ETAG, nullptr, L"\"0123456789abcdef\""},
    {HTTP_QUERY_CONTENT_TYPE, nullptr, L"text/plain"},
    {HTTP_QUERY_STATUS_CODE, nullptr, L"200"},
    {HTTP_QUERY_STATUS_TEXT, nullptr, L"OK"},
    {HTTP_QUERY_VERSION, nullptr, L"HTTP/1.1"},
    {HTTP_QUERY_REQUEST_METHOD, nullptr, L"GET"},
    {HTTP_QUERY_RAW_HEADERS, nullptr, L"HTTP/1.1 200 OK"},
    {HTTP_QUERY_RAW_HEADERS_CRLF, nullptr, nullptr},
    {HTTP_QUERY_USER_AGENT | HTTP_QUERY_FLAG_REQUEST_HEADERS, nullptr, L"sdk-conformance"},
    {HTTP_QUERY_CUSTOM, L"x-custom-header", L"a value of some length"},
    {HTTP_QUERY_CUSTOM, L"etag", L"\"0123456789abcdef\""},
};

// The first call of the documented pattern: the bytes the value needs, terminator included.
// HTTP_QUERY_CUSTOM takes the header's name in the buffer, so its first buffer holds the name.
DWORD SizeQuery(HINTERNET request, const Query& query) {
  DWORD length = 0;
  BOOL ok;
  if (query.name != nullptr) {
    const std::size_t name_chars = std::wcslen(query.name) + 1;
    WCHAR* name = static_cast<WCHAR*>(std::malloc(name_chars * sizeof(WCHAR)));
    std::wmemcpy(name, query.name, name_chars);
    length = static_cast<DWORD>(name_chars * sizeof(WCHAR));
    ok = HttpQueryInfoW(request, query.level, name, &length, nullptr);
    std::free(name);
  } else {
    ok = HttpQueryInfoW(request, query.level, nullptr, &length, nullptr);
  }
  EXPECT_FALSE(ok);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  return length;
}

// The second call into `buffer` of `size` bytes; the name, if any, is copied in first (as much
// of it as fits: a buffer too short for the name is not the caller's problem to overflow).
BOOL RealQuery(HINTERNET request, const Query& query, void* buffer, DWORD size, DWORD* length) {
  if (query.name != nullptr) {
    const std::size_t fit = size / sizeof(WCHAR);
    const std::size_t name_chars = std::wcslen(query.name) + 1;
    std::memcpy(buffer, query.name, (name_chars < fit ? name_chars : fit) * sizeof(WCHAR));
  }
  *length = size;
  return HttpQueryInfoW(request, query.level, buffer, length, nullptr);
}

void CheckText(const Query& query, const WCHAR* text, DWORD length) {
  const std::size_t chars = length / sizeof(WCHAR);
  EXPECT_EQ(length % sizeof(WCHAR), 0u);
  EXPECT_EQ(text[chars], L'\0');  // the terminator, inside the buffer, not counted
  if (query.level == HTTP_QUERY_RAW_HEADERS) {
    // NUL-separated lines; the list ends with an empty one.
    EXPECT_EQ(std::wstring(text), query.expected);
    EXPECT_EQ(text[chars - 1], L'\0');
  } else if (query.level == HTTP_QUERY_RAW_HEADERS_CRLF) {
    EXPECT_EQ(std::wcslen(text), chars);
    EXPECT_EQ(std::wstring(text).rfind(L"HTTP/1.1 200 OK\r\n", 0), 0u);
    EXPECT_EQ(std::wstring(text).substr(chars - 4), L"\r\n\r\n");
  } else {
    EXPECT_EQ(std::wcslen(text), chars);
    EXPECT_EQ(std::wstring(text), query.expected);
  }
}

TEST(SdkConformanceTest, DocumentedTwoCallPatternFitsEveryStringQuery) {
  tq::test::RawResponder server([](tq::test::RawConnection& c) {
    c.ReadRequestHead();
    c.Send(kAnswer);
  });
  ASSERT_TRUE(server.ok());
  HINTERNET internet = InternetOpenW(L"sdk-conformance", INTERNET_OPEN_TYPE_DIRECT, nullptr,
                                     nullptr, 0);
  HINTERNET connect = InternetConnectW(internet, L"127.0.0.1",
                                       static_cast<INTERNET_PORT>(server.port()), nullptr,
                                       nullptr, INTERNET_SERVICE_HTTP, 0, 0);
  HINTERNET request = HttpOpenRequestW(connect, L"GET", L"/", nullptr, nullptr, nullptr, 0, 0);
  ASSERT_NE(request, nullptr);
  ASSERT_TRUE(HttpSendRequestW(request, nullptr, 0, nullptr, 0));

  for (const Query& query : kQueries) {
    SCOPED_TRACE(testing::Message() << "level 0x" << std::hex << query.level);
    const DWORD needed = SizeQuery(request, query);
    ASSERT_GE(needed, sizeof(WCHAR));
    ASSERT_EQ(needed % sizeof(WCHAR), 0u);

    // malloc(len): exactly the bytes asked for.
    void* exact = std::malloc(needed);
    DWORD length = 0;
    ASSERT_TRUE(RealQuery(request, query, exact, needed, &length));
    EXPECT_EQ(length, needed - sizeof(WCHAR));  // success leaves the terminator out
    CheckText(query, static_cast<WCHAR*>(exact), length);
    std::free(exact);

    // std::vector<wchar_t>(len / sizeof(wchar_t)).
    std::vector<WCHAR> chars(needed / sizeof(WCHAR));
    ASSERT_TRUE(RealQuery(request, query, chars.data(), needed, &length));
    EXPECT_EQ(length, needed - sizeof(WCHAR));

    // One character short: refused, with the same length needed, and nothing written past it.
    const DWORD short_size = needed - sizeof(WCHAR);
    void* small = std::malloc(short_size == 0 ? 1 : short_size);
    EXPECT_FALSE(RealQuery(request, query, small, short_size, &length));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(length, needed);
    std::free(small);
  }

  // Fixed-size answers take sizeof the value, in and out.
  DWORD number = 0;
  DWORD length = sizeof number;
  ASSERT_TRUE(HttpQueryInfoW(request, HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER, &number,
                             &length, nullptr));
  EXPECT_EQ(number, 5u);
  EXPECT_EQ(length, sizeof number);
  unsigned long long number64 = 0;
  length = sizeof number64;
  ASSERT_TRUE(HttpQueryInfoW(request, HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER64,
                             &number64, &length, nullptr));
  EXPECT_EQ(number64, 5u);
  EXPECT_EQ(length, sizeof number64);
  SYSTEMTIME time = {};
  length = sizeof time - 1;
  EXPECT_FALSE(HttpQueryInfoW(request, HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME,
                              &time, &length, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(length, sizeof time);
  ASSERT_TRUE(HttpQueryInfoW(request, HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME,
                             &time, &length, nullptr));
  EXPECT_EQ(time.wYear, 1994);
  EXPECT_EQ(time.wSecond, 37);

  InternetCloseHandle(request);
  InternetCloseHandle(connect);
  InternetCloseHandle(internet);
}

}  // namespace
