// HttpQueryInfoW through the WinINet API on one answer from a raw server: folded, repeated and
// raw header forms, and the buffer rules; the header names a block takes; and the file times
// dates become.
// Lengths are bytes, sizeof(WCHAR) a character, in and out: the length needed counts the
// terminator, the length on success does not, and nothing is written past the length given.
#include <gtest/gtest.h>

#include "platform/http_headers.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/raw_responder.h"

namespace {

using namespace tq::test;

const std::string kHead =
    "HTTP/1.1 206 Partial Content\r\nContent-Type: text/plain\r\nETag: \"abcdefgh\"\r\n"
    "Set-Cookie: a=1\r\nset-cookie: b=2\r\nContent-Range: bytes 0-4/5000\r\n"
    "X-Custom-Header: a value of some length\r\n"
    "X-Folded: one\r\n two\n\t three \r\n   \r\nBlank-First:\r\n  a longer value\n"
    "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nContent-Length: 5\r\n\r\n";

constexpr DWORD W = sizeof(WCHAR);
constexpr DWORD kShort = ERROR_INSUFFICIENT_BUFFER, kAbsent = ERROR_HTTP_HEADER_NOT_FOUND;

class HeaderQueriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.ok());
    connection_ = Connect(session_, server_.port());
    request_ = OpenRequest(connection_, L"/");
    ASSERT_TRUE(Send(request_));
  }

  // Queries into *length bytes of a marked buffer (none with `null_buffer`) that holds `name`,
  // HTTP_QUERY_CUSTOM's header name; fails the test if a byte past both is written. The error.
  DWORD Query(DWORD level, const wchar_t* name, DWORD* length, bool null_buffer = false,
              DWORD* index = nullptr) {
    std::memset(storage_, 0xA5, sizeof storage_);
    std::size_t untouched = *length;
    if (name != nullptr) {
      std::wcscpy(buffer(), name);
      untouched = std::max(untouched, (std::wcslen(name) + 1) * W);
    }
    SetLastError(0);
    const bool ok = HttpQueryInfoW(request_.get(), level, null_buffer ? nullptr : storage_,
                                   length, index);
    for (std::size_t i = untouched; i < sizeof storage_; ++i) {
      EXPECT_EQ(storage_[i], 0xA5) << "written past the buffer at byte " << i;
    }
    return ok ? DWORD{ERROR_SUCCESS} : GetLastError();
  }
  wchar_t* buffer() { return reinterpret_cast<wchar_t*>(storage_); }

  RawResponder server_{[](RawConnection& c) {
    c.ReadRequestHead();
    c.Send(kHead + "hello");
  }};
  Handle session_{
      InternetOpenW(L"sdk-conformance", INTERNET_OPEN_TYPE_DIRECT, nullptr, nullptr, 0)};
  Handle connection_;
  Handle request_;
  alignas(SYSTEMTIME) alignas(wchar_t) unsigned char storage_[1024 * sizeof(wchar_t)];
};

// The documented two-call pattern: ask for the size (a null buffer, or for HTTP_QUERY_CUSTOM one
// that holds just the name), then query into exactly that many bytes; one character less is
// refused with the same length needed, and leaves the name in place.
TEST_F(HeaderQueriesTest, EveryStringQueryNamesTheBytesItNeedsAndFitsThemExactly) {
  // Lines end in CR LF (also those sent with a bare LF), or in NUL with the list ending in an
  // empty one; a folded line keeps its breaks.
  std::wstring crlf;
  for (const char c : kHead) {
    if (c == '\n' && (crlf.empty() || crlf.back() != L'\r')) crlf += L'\r';
    crlf += static_cast<wchar_t>(c);
  }
  std::wstring raw = crlf;
  for (std::size_t at = 0; (at = raw.find(L"\r\n", at)) != std::wstring::npos; ++at) {
    if (raw[at + 2] != L' ' && raw[at + 2] != L'\t') raw.replace(at, 2, 1, 0);
  }
  raw.pop_back();
  const struct {
    DWORD level;
    const wchar_t* name;
    std::wstring expected;
  } queries[] = {
      {HTTP_QUERY_ETAG, nullptr, L"\"abcdefgh\""},
      {HTTP_QUERY_STATUS_CODE, nullptr, L"206"},
      {HTTP_QUERY_STATUS_TEXT, nullptr, L"Partial Content"},
      {HTTP_QUERY_VERSION, nullptr, L"HTTP/1.1"},
      {HTTP_QUERY_REQUEST_METHOD, nullptr, L"GET"},
      {HTTP_QUERY_RAW_HEADERS, nullptr, raw},
      {HTTP_QUERY_RAW_HEADERS_CRLF, nullptr, crlf},
      {HTTP_QUERY_USER_AGENT | HTTP_QUERY_FLAG_REQUEST_HEADERS, nullptr, L"sdk-conformance"},
      {HTTP_QUERY_CUSTOM, L"x-custom-header", L"a value of some length"},
      {HTTP_QUERY_CUSTOM, L"CONTENT-range", L"bytes 0-4/5000"},  // names in any case
      {HTTP_QUERY_CUSTOM, L"x-folded", L"one two three"},
      {HTTP_QUERY_CUSTOM, L"blank-first", L"a longer value"},
  };
  for (const auto& q : queries) {
    SCOPED_TRACE(testing::Message() << "level 0x" << std::hex << q.level);
    DWORD needed = q.name != nullptr ? static_cast<DWORD>((std::wcslen(q.name) + 1) * W) : 0;
    EXPECT_EQ(Query(q.level, q.name, &needed, q.name == nullptr), kShort);
    ASSERT_EQ(needed, (q.expected.size() + 1) * W);
    DWORD length = needed - W;
    EXPECT_EQ(Query(q.level, q.name, &length), kShort);
    EXPECT_EQ(length, needed);
    if (q.name != nullptr) {
      EXPECT_EQ(std::wstring(buffer()), q.name);
    }
    length = needed;
    ASSERT_EQ(Query(q.level, q.name, &length), 0u);
    EXPECT_EQ(length, needed - W);
    EXPECT_EQ(std::wstring(buffer(), q.expected.size() + 1), q.expected + L'\0');
  }
}

TEST_F(HeaderQueriesTest, OddLengthsMissingHeadersAndFixedSizeAnswers) {
  constexpr DWORD kNum = HTTP_QUERY_FLAG_NUMBER, kTime = HTTP_QUERY_FLAG_SYSTEMTIME;
  constexpr DWORD kAny = 0xFFFFFFFFu;
  const struct {
    DWORD level;
    const wchar_t* name;  // HTTP_QUERY_CUSTOM reads it from as many whole characters as fit
    DWORD length;
    DWORD error;
    DWORD length_after;   // or kAny
    std::uint64_t value;  // a number, or a time's year; 0: not checked
  } cases[] = {
      {HTTP_QUERY_ETAG, nullptr, 11 * W - 1, kShort, 11 * W, 0},
      {HTTP_QUERY_LOCATION, nullptr, 8, kAbsent, kAny, 0},
      {HTTP_QUERY_CUSTOM, L"X-Missing", 64 * W, kAbsent, kAny, 0},
      {HTTP_QUERY_CUSTOM, L"Content-Range", 13 * W - 1, kAbsent, kAny, 0},
      {HTTP_QUERY_CUSTOM, L"E", W - 1, kAbsent, kAny, 0},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 3, kShort, 4, 0},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 4, 0, 4, 5},
      {HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER64, nullptr, 8, 0, 8, 5},
      {HTTP_QUERY_ETAG | kNum, nullptr, 4, ERROR_HTTP_INVALID_HEADER, kAny, 0},
      {HTTP_QUERY_LAST_MODIFIED | kTime, nullptr, sizeof(SYSTEMTIME) - 1, kShort,
       sizeof(SYSTEMTIME), 0},
      {HTTP_QUERY_LAST_MODIFIED | kTime, nullptr, sizeof(SYSTEMTIME), 0, sizeof(SYSTEMTIME), 1994},
      {HTTP_QUERY_MAX + 5, nullptr, 64, ERROR_HTTP_INVALID_QUERY_REQUEST, kAny, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "level " << std::hex << c.level << " length " << c.length);
    DWORD length = c.length;
    EXPECT_EQ(Query(c.level, c.name, &length), c.error);
    if (c.length_after != kAny) {
      EXPECT_EQ(length, c.length_after);
    }
    if (c.value == 0) continue;
    std::uint64_t value = 0;
    if (c.level & kTime) {
      value = reinterpret_cast<const SYSTEMTIME*>(storage_)->wYear;
    } else {
      std::memcpy(&value, storage_, std::min<std::size_t>(length, sizeof value));
    }
    EXPECT_EQ(value, c.value);
  }

  // The index walks repeated headers, and advances only on success.
  DWORD index = 0;
  for (const wchar_t* cookie : {L"a=1", L"b=2"}) {
    DWORD length = 3 * W;
    EXPECT_EQ(Query(HTTP_QUERY_SET_COOKIE, nullptr, &length, false, &index), kShort);
    length = 4 * W;
    ASSERT_EQ(Query(HTTP_QUERY_SET_COOKIE, nullptr, &length, false, &index), 0u);
    EXPECT_EQ(std::wstring(buffer()), cookie);
  }
  DWORD length = 64;
  EXPECT_EQ(Query(HTTP_QUERY_SET_COOKIE, nullptr, &length, false, &index), kAbsent);
  EXPECT_EQ(index, 2u);
}

// Every line that went out is reported, also past the size a server's header block may take.
TEST_F(HeaderQueriesTest, RequestLinesPastTheLimitOfAnAnswersBlockAreReported) {
  const Handle request = OpenRequest(connection_, L"/");
  const std::size_t big = tqplatform::HeaderBlock::kMaxBytes + 10;
  ASSERT_TRUE(Send(request, L"X-Big: " + std::wstring(big, L'a') + L"\r\nX-After: 1\r\n"));
  EXPECT_EQ(QueryText(request, HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_REQUEST_HEADERS, L"X-After"),
            "1");
}

// Dates reach callers through SystemTimeToFileTime: 100 ns ticks since 1601, leap years by the
// Gregorian rule, the day of the week ignored; a field out of its range fails with
// ERROR_INVALID_PARAMETER and writes nothing. The last error is the thread's own.
TEST(SystemTimeTest, FileTimesCountFrom1601AndFieldsOutOfRangeAreRefused) {
  const auto ticks = [](SYSTEMTIME time) -> std::optional<std::uint64_t> {
    FILETIME file_time = {0xA5A5A5A5u, 0xA5A5A5A5u};
    SetLastError(0);
    const bool ok = SystemTimeToFileTime(&time, &file_time) != FALSE;
    EXPECT_EQ(GetLastError(), ok ? 0u : DWORD{ERROR_INVALID_PARAMETER});
    const std::uint64_t got =
        (std::uint64_t{file_time.dwHighDateTime} << 32) | file_time.dwLowDateTime;
    if (ok) return got;
    EXPECT_EQ(got, 0xA5A5A5A5A5A5A5A5u);
    return std::nullopt;
  };
  // Year, month, day of week, day, hour, minute, second, milliseconds.
  EXPECT_EQ(ticks({1601, 1, 3, 1, 0, 0, 0, 0}), 0u);
  EXPECT_EQ(ticks({2000, 2, 0, 29, 12, 34, 56, 789}), 125963012967890000u);
  EXPECT_EQ(ticks({2100, 3, 0, 1, 0, 0, 0, 0}), 157520160000000000u);
  EXPECT_NE(ticks({30827, 12, 0, 31, 23, 59, 59, 999}), std::nullopt);
  const SYSTEMTIME refused[] = {
      {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0},  {1900, 2, 0, 29, 0, 0, 0, 0},
      {2023, 4, 0, 31, 0, 0, 0, 0},  {2023, 13, 0, 1, 0, 0, 0, 0},  {2023, 0, 0, 1, 0, 0, 0, 0},
      {2023, 1, 0, 0, 0, 0, 0, 0},   {2023, 1, 0, 1, 24, 0, 0, 0},  {2023, 1, 0, 1, 0, 60, 0, 0},
      {2023, 1, 0, 1, 0, 0, 60, 0},  {2023, 1, 0, 1, 0, 0, 0, 1000}};
  for (const SYSTEMTIME& time : refused) {
    EXPECT_EQ(ticks(time), std::nullopt) << "row " << &time - refused;
  }
  SetLastError(ERROR_HANDLE_EOF);
  std::thread([] { SetLastError(ERROR_ACCESS_DENIED); }).join();
  EXPECT_EQ(GetLastError(), ERROR_HANDLE_EOF);
}

// Header names are tokens: every other byte in a name refuses the line.
TEST(HeaderNameTest, EveryByteOutsideTheTokenCharactersRefusesTheLine) {
  constexpr std::string_view kSeparators = "()<>@,;\\\"/[]?={}";
  for (int c = 0; c < 256; ++c) {
    if (c == ':') continue;  // ends the name
    const bool token = c > 0x20 && c < 0x7F && kSeparators.find(static_cast<char>(c)) ==
                                                    std::string_view::npos;
    using Result = tqplatform::HeaderBlock::LineResult;
    tqplatform::HeaderBlock block;
    ASSERT_EQ(block.AddLine("HTTP/1.1 200 OK\r\n"), Result::kAccepted);
    const std::string line = std::string("X") + static_cast<char>(c) + "Y: v\r\n";
    EXPECT_EQ(block.AddLine(line), token ? Result::kAccepted : Result::kInvalid) << "byte " << c;
  }
}

}  // namespace
