// WinINet's HttpQueryInfoW rules over a header block, without a network.
#include "platform/http_headers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using tqplatform::HeaderBlock;
using tqplatform::QueryHeaderBlock;
using Line = HeaderBlock::LineResult;

HeaderBlock Block(std::initializer_list<const char*> lines) {
  HeaderBlock block;
  for (const char* line : lines) {
    EXPECT_EQ(block.AddLine(std::string(line) + "\r\n"), Line::kAccepted) << line;
  }
  EXPECT_EQ(block.AddLine("\r\n"), Line::kEndOfBlock);
  return block;
}

const HeaderBlock& Sample() {
  static const HeaderBlock block =
      Block({"HTTP/1.1 206 Partial Content", "Content-Length: 1234", "ETag: \"abcdefgh\"",
             "Set-Cookie: a=1", "set-cookie: b=2", "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT",
             "Date: Tue, 15 Nov 1994 08:12:31 GMT", "X-Empty:", "Content-Range: bytes 0-1/5000",
             "X-Name: caf\xe9", "Folded: one", "  two"});
  return block;
}

// What a successful query left in the buffer: the text, the number or the date.
std::wstring Render(DWORD level, const wchar_t* buffer) {
  if (level & HTTP_QUERY_FLAG_NUMBER) {
    DWORD value;
    std::memcpy(&value, buffer, sizeof value);
    return std::to_wstring(value);
  }
  if (level & HTTP_QUERY_FLAG_SYSTEMTIME) {
    SYSTEMTIME t;
    std::memcpy(&t, buffer, sizeof t);
    wchar_t text[64];
    std::swprintf(text, 64, L"%04u-%02u-%02u %02u:%02u:%02u.%u dow %u", t.wYear, t.wMonth, t.wDay,
                  t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, t.wDayOfWeek);
    return text;
  }
  return buffer;
}

// Short names for the table below.
constexpr DWORD kNum = HTTP_QUERY_FLAG_NUMBER, kTime = HTTP_QUERY_FLAG_SYSTEMTIME;
constexpr DWORD kCustom = HTTP_QUERY_CUSTOM, kOk = ERROR_SUCCESS,
                kShort = ERROR_INSUFFICIENT_BUFFER;
constexpr DWORD kAbsent = ERROR_HTTP_HEADER_NOT_FOUND, kNotOfKind = ERROR_HTTP_INVALID_HEADER;
constexpr DWORD kBadQuery = ERROR_HTTP_INVALID_QUERY_REQUEST, kAny = 0xFFFFFFFFu;

TEST(QueryRulesTest, LengthsErrorsAndValuesForEachKindOfQuery) {
  struct Case {
    DWORD level;
    const wchar_t* name;  // HTTP_QUERY_CUSTOM reads it from the buffer, within `length`
    DWORD length;         // bytes, two per character
    DWORD error;
    DWORD length_after;   // or kAny
    const wchar_t* text;  // the buffer afterwards, or null
  } cases[] = {
      // Text: the length needed counts the terminator, the length on success does not.
      {HTTP_QUERY_ETAG, nullptr, 8, kShort, 22, nullptr},
      {HTTP_QUERY_ETAG, nullptr, 21, kShort, 22, nullptr},
      {HTTP_QUERY_ETAG, nullptr, 22, kOk, 20, L"\"abcdefgh\""},
      // Absent is absent whatever the buffer.
      {HTTP_QUERY_LOCATION, nullptr, 0, kAbsent, kAny, nullptr},
      {HTTP_QUERY_LOCATION, nullptr, 8, kAbsent, kAny, nullptr},
      {HTTP_QUERY_MIME_VERSION, nullptr, 8, kAbsent, kAny, nullptr},
      // Custom names: case-insensitive, cut at the stated length, untouched on failure.
      {kCustom, L"x-empty", 32, kOk, 0, L""},
      {kCustom, L"CONTENT-range", 128, kOk, 28, L"bytes 0-1/5000"},
      {kCustom, L"Content-Range", 28, kShort, 30, L"Content-Range"},
      {kCustom, L"Content-Length", 10, kAbsent, kAny, nullptr},
      {kCustom, L"folded", 64, kOk, kAny, L"one two"},
      {kCustom, L"x-name", 64, kOk, kAny, L"caf\u00e9"},  // bytes above 127 are Latin-1
      // Numbers are four-byte values.
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 4, kOk, 4, L"1234"},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 3, kShort, 4, nullptr},
      {HTTP_QUERY_STATUS_CODE | kNum, nullptr, 4, kOk, kAny, L"206"},
      {HTTP_QUERY_ETAG | kNum, nullptr, 4, kNotOfKind, kAny, nullptr},
      {kCustom | kNum, L"Content-Length", 32, kOk, 4, L"1234"},
      // Dates: a 16-byte SYSTEMTIME, the day of the week from the date. The backend asks by
      // name with a buffer holding just the name.
      {HTTP_QUERY_LAST_MODIFIED | kTime, nullptr, 16, kOk, 16, L"1994-11-06 08:49:37.0 dow 0"},
      {kCustom | kTime, L"Last", 10, kAbsent, kAny, nullptr},
      {kCustom | kTime, L"ETag", 10, kNotOfKind, kAny, nullptr},
      {kCustom | kTime, L"Date", 10, kShort, 16, nullptr},
      {kCustom | kTime, L"Date", 16, kOk, kAny, L"1994-11-15 08:12:31.0 dow 2"},
      // The status line's parts, and the request's method.
      {HTTP_QUERY_STATUS_CODE, nullptr, 128, kOk, 6, L"206"},
      {HTTP_QUERY_STATUS_TEXT, nullptr, 128, kOk, kAny, L"Partial Content"},
      {HTTP_QUERY_VERSION, nullptr, 128, kOk, kAny, L"HTTP/1.1"},
      {HTTP_QUERY_REQUEST_METHOD, nullptr, 128, kOk, kAny, L"GET"},
      // Unknown levels and conflicting flags.
      {HTTP_QUERY_MAX + 5, nullptr, 64, kBadQuery, kAny, nullptr},
      {HTTP_QUERY_CONTENT_LENGTH | kNum | kTime, nullptr, 64, kBadQuery, kAny, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "level " << std::hex << c.level << std::dec << " length "
                                    << c.length << " name " << (c.name ? c.name : L"-"));
    wchar_t buffer[64] = {};
    if (c.name != nullptr) std::wcscpy(buffer, c.name);
    DWORD length = c.length;
    const DWORD error = QueryHeaderBlock(Sample(), "GET", c.level, buffer, &length, nullptr);
    EXPECT_EQ(error, c.error);
    if (c.length_after != kAny) EXPECT_EQ(length, c.length_after);
    if (c.text != nullptr) {
      EXPECT_EQ(error == ERROR_SUCCESS ? Render(c.level, buffer) : std::wstring(buffer), c.text);
    }
  }
}

TEST(QueryRulesTest, NullBufferAsksForTheLengthAndNullLengthIsRefused) {
  DWORD length = 0;
  EXPECT_EQ(QueryHeaderBlock(Sample(), "GET", HTTP_QUERY_CONTENT_LENGTH, nullptr, &length, nullptr),
            ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 10u);  // "1234" and the terminator
  EXPECT_EQ(QueryHeaderBlock(Sample(), "GET", HTTP_QUERY_CONTENT_LENGTH, nullptr, nullptr, nullptr),
            ERROR_INVALID_PARAMETER);
}

TEST(QueryRulesTest, IndexWalksRepeatedHeadersAndAdvancesOnlyOnSuccess) {
  wchar_t buffer[64];
  DWORD index = 0;
  const auto query = [&](DWORD length) {
    return QueryHeaderBlock(Sample(), "GET", HTTP_QUERY_SET_COOKIE, buffer, &length, &index);
  };
  ASSERT_EQ(query(sizeof buffer), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"a=1");
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(query(2), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(index, 1u);
  ASSERT_EQ(query(sizeof buffer), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"b=2");
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(query(sizeof buffer), ERROR_HTTP_HEADER_NOT_FOUND);
  EXPECT_EQ(index, 2u);
}

TEST(QueryRulesTest, RawHeadersWithCrLfOrNulSeparators) {
  const HeaderBlock small = Block({"HTTP/1.1 200 OK", "A: 1", "b:2"});
  wchar_t buffer[128];
  DWORD length = sizeof buffer;
  ASSERT_EQ(QueryHeaderBlock(small, "GET", HTTP_QUERY_RAW_HEADERS_CRLF, buffer, &length, nullptr),
            ERROR_SUCCESS);
  const std::wstring crlf = L"HTTP/1.1 200 OK\r\nA: 1\r\nb:2\r\n\r\n";
  EXPECT_EQ(std::wstring(buffer), crlf);
  EXPECT_EQ(length, crlf.size() * 2);
  length = sizeof buffer;
  ASSERT_EQ(QueryHeaderBlock(small, "GET", HTTP_QUERY_RAW_HEADERS, buffer, &length, nullptr),
            ERROR_SUCCESS);
  const std::wstring nul(L"HTTP/1.1 200 OK\0A: 1\0b:2\0", 25);
  EXPECT_EQ(length, nul.size() * 2);
  EXPECT_EQ(std::wstring(buffer, nul.size()), nul);
  EXPECT_EQ(buffer[nul.size()], L'\0');  // the list's final terminator
}

TEST(HeaderBlockTest, RefusesMalformedLines) {
  const std::string huge = "X-Big: " + std::string(HeaderBlock::kMaxBytes, 'a');
  const struct {
    const char* status;  // null: the bad line is the status line itself
    std::string line;
  } cases[] = {{nullptr, "HTTP/1.1 OK"},
               {nullptr, "ICY 200 OK"},
               {"HTTP/1.1 200 OK", "no colon here"},
               {"HTTP/1.1 200 OK", ": empty name"},
               {"HTTP/1.1 200 OK", " continuation first"},
               {"HTTP/1.1 200 OK", huge}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    HeaderBlock block;
    if (c.status != nullptr) {
      ASSERT_EQ(block.AddLine(std::string(c.status) + "\r\n"), Line::kAccepted);
    }
    EXPECT_EQ(block.AddLine(c.line + "\r\n"), Line::kInvalid);
  }
}

}  // namespace
