// WinINet's HttpQueryInfoW rules over a header block, without a network.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/http_headers.h"

namespace {

using tqplatform::HeaderBlock;
using tqplatform::QueryHeaderBlock;

HeaderBlock Block(std::initializer_list<const char*> lines) {
  HeaderBlock block;
  for (const char* line : lines) {
    EXPECT_EQ(block.AddLine(std::string(line) + "\r\n"), HeaderBlock::LineResult::kAccepted)
        << line;
  }
  EXPECT_EQ(block.AddLine("\r\n"), HeaderBlock::LineResult::kEndOfBlock);
  return block;
}

class QueryRulesTest : public ::testing::Test {
 protected:
  HeaderBlock block_ = Block({"HTTP/1.1 206 Partial Content", "Content-Length: 1234",
                              "ETag: \"abcdefgh\"", "Set-Cookie: a=1", "set-cookie: b=2",
                              "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT", "X-Empty:",
                              "Content-Range: bytes 0-1/5000", "Folded: one", "  two"});

  DWORD Query(DWORD level, void* buffer, DWORD* length, DWORD* index = nullptr) {
    return QueryHeaderBlock(block_, "GET", level, buffer, length, index);
  }
};

TEST_F(QueryRulesTest, TextLengthsAreBytesWithoutTerminatorOnSuccessAndWithItWhenShort) {
  // "\"abcdefgh\"" is 10 characters: 22 bytes needed with the terminator.
  wchar_t buffer[64];
  DWORD length = 8;  // the 16-byte first try of the backend, in bytes: 8 here is smaller still
  EXPECT_EQ(Query(HTTP_QUERY_ETAG, buffer, &length), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 22u);
  length = 21;
  EXPECT_EQ(Query(HTTP_QUERY_ETAG, buffer, &length), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 22u);
  length = 22;
  ASSERT_EQ(Query(HTTP_QUERY_ETAG, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(length, 20u);
  EXPECT_EQ(std::wstring(buffer), L"\"abcdefgh\"");
}

TEST_F(QueryRulesTest, NullBufferReportsTheLengthNeeded) {
  DWORD length = 0;
  EXPECT_EQ(Query(HTTP_QUERY_CONTENT_LENGTH, nullptr, &length), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 10u);  // "1234" and the terminator
  EXPECT_EQ(QueryHeaderBlock(block_, "GET", HTTP_QUERY_CONTENT_LENGTH, nullptr, nullptr, nullptr),
            ERROR_INVALID_PARAMETER);
}

TEST_F(QueryRulesTest, AbsentHeaderIsNotFoundWhateverTheBuffer) {
  wchar_t buffer[4];
  DWORD length = 0;
  EXPECT_EQ(Query(HTTP_QUERY_LOCATION, buffer, &length), ERROR_HTTP_HEADER_NOT_FOUND);
  length = sizeof buffer;
  EXPECT_EQ(Query(HTTP_QUERY_LOCATION, buffer, &length), ERROR_HTTP_HEADER_NOT_FOUND);
  EXPECT_EQ(Query(HTTP_QUERY_MIME_VERSION, buffer, &length), ERROR_HTTP_HEADER_NOT_FOUND);
}

TEST_F(QueryRulesTest, EmptyHeaderValueIsFoundWithLengthZero) {
  wchar_t buffer[16] = {L'x'};
  std::wcscpy(buffer, L"x-empty");
  DWORD length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_CUSTOM, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(buffer[0], L'\0');
}

TEST_F(QueryRulesTest, CustomNameComesFromTheBufferCaseInsensitively) {
  wchar_t buffer[64] = {};
  std::wcscpy(buffer, L"CONTENT-range");
  DWORD length = 64 * 2;
  ASSERT_EQ(Query(HTTP_QUERY_CUSTOM, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"bytes 0-1/5000");
  EXPECT_EQ(length, 28u);

  // Too small: the name is still read from the buffer, and the length needed comes back.
  wchar_t small[14] = {};
  std::wcscpy(small, L"Content-Range");
  length = sizeof small / sizeof small[0] * 2;
  EXPECT_EQ(Query(HTTP_QUERY_CUSTOM, small, &length), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 30u);
  EXPECT_EQ(std::wstring(small), L"Content-Range");  // untouched on failure
}

TEST_F(QueryRulesTest, CustomNameLongerThanTheStatedLengthIsCut) {
  // Only the characters within the stated length are the name: "Conte" is not a header.
  wchar_t buffer[64] = {};
  std::wcscpy(buffer, L"Content-Length");
  DWORD length = 10;
  EXPECT_EQ(Query(HTTP_QUERY_CUSTOM, buffer, &length), ERROR_HTTP_HEADER_NOT_FOUND);
}

TEST_F(QueryRulesTest, NumberIsAFourByteValue) {
  DWORD value = 0;
  DWORD length = sizeof value;
  ASSERT_EQ(Query(HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER, &value, &length),
            ERROR_SUCCESS);
  EXPECT_EQ(value, 1234u);
  EXPECT_EQ(length, 4u);
  length = 3;
  EXPECT_EQ(Query(HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER, &value, &length),
            ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 4u);
  length = 4;
  ASSERT_EQ(Query(HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &value, &length), ERROR_SUCCESS);
  EXPECT_EQ(value, 206u);
  // Not a number.
  EXPECT_EQ(Query(HTTP_QUERY_ETAG | HTTP_QUERY_FLAG_NUMBER, &value, &length),
            ERROR_HTTP_INVALID_HEADER);
}

TEST_F(QueryRulesTest, CustomNameWithNumberNeedsRoomForTheNameFirst) {
  wchar_t buffer[16] = {};
  std::wcscpy(buffer, L"Content-Length");
  DWORD length = sizeof buffer / sizeof buffer[0] * 2;
  ASSERT_EQ(Query(HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_NUMBER, buffer, &length), ERROR_SUCCESS);
  DWORD value = 0;
  std::memcpy(&value, buffer, sizeof value);
  EXPECT_EQ(value, 1234u);
  EXPECT_EQ(length, 4u);
}

TEST_F(QueryRulesTest, SystemTimeFromAnHttpDate) {
  SYSTEMTIME time{};
  DWORD length = sizeof time;
  ASSERT_EQ(Query(HTTP_QUERY_LAST_MODIFIED | HTTP_QUERY_FLAG_SYSTEMTIME, &time, &length),
            ERROR_SUCCESS);
  EXPECT_EQ(length, 16u);
  EXPECT_EQ(time.wYear, 1994);
  EXPECT_EQ(time.wMonth, 11);
  EXPECT_EQ(time.wDay, 6);
  EXPECT_EQ(time.wHour, 8);
  EXPECT_EQ(time.wSecond, 37);

  // The backend asks by name with a buffer holding just the name (10 bytes for "Date"
  // style names): too small for a SYSTEMTIME, so the length needed is 16.
  wchar_t named[5] = L"Last";
  length = 10;
  EXPECT_EQ(Query(HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_SYSTEMTIME, named, &length),
            ERROR_HTTP_HEADER_NOT_FOUND);  // "Last" is no header
  wchar_t name16[8] = L"ETag";
  length = 10;
  EXPECT_EQ(Query(HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_SYSTEMTIME, name16, &length),
            ERROR_HTTP_INVALID_HEADER);  // present, but not a date
}

TEST_F(QueryRulesTest, NamedDateWithTooSmallBufferAsksForSixteenBytes) {
  HeaderBlock with_date = Block({"HTTP/1.1 200 OK", "Date: Tue, 15 Nov 1994 08:12:31 GMT"});
  wchar_t buffer[8] = L"Date";
  DWORD length = 10;
  EXPECT_EQ(QueryHeaderBlock(with_date, "GET", HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_SYSTEMTIME,
                             buffer, &length, nullptr),
            ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 16u);
  length = 16;
  ASSERT_EQ(QueryHeaderBlock(with_date, "GET", HTTP_QUERY_CUSTOM | HTTP_QUERY_FLAG_SYSTEMTIME,
                             buffer, &length, nullptr),
            ERROR_SUCCESS);
  SYSTEMTIME time;
  std::memcpy(&time, buffer, sizeof time);
  EXPECT_EQ(time.wDay, 15);
  EXPECT_EQ(time.wDayOfWeek, 2);
}

TEST_F(QueryRulesTest, IndexWalksRepeatedHeadersAndAdvancesOnlyOnSuccess) {
  wchar_t buffer[64];
  DWORD length = sizeof buffer;
  DWORD index = 0;
  ASSERT_EQ(Query(HTTP_QUERY_SET_COOKIE, buffer, &length, &index), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"a=1");
  EXPECT_EQ(index, 1u);
  length = 2;
  EXPECT_EQ(Query(HTTP_QUERY_SET_COOKIE, buffer, &length, &index), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(index, 1u);
  length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_SET_COOKIE, buffer, &length, &index), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"b=2");
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(Query(HTTP_QUERY_SET_COOKIE, buffer, &length, &index), ERROR_HTTP_HEADER_NOT_FOUND);
  EXPECT_EQ(index, 2u);
}

TEST_F(QueryRulesTest, StatusLineParts) {
  wchar_t buffer[64];
  DWORD length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_STATUS_CODE, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"206");
  EXPECT_EQ(length, 6u);
  length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_STATUS_TEXT, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"Partial Content");
  length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_VERSION, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"HTTP/1.1");
  length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_REQUEST_METHOD, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"GET");
}

TEST_F(QueryRulesTest, RawHeaders) {
  HeaderBlock small = Block({"HTTP/1.1 200 OK", "A: 1", "b:2"});
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

TEST_F(QueryRulesTest, FoldedHeaderIsJoined) {
  wchar_t buffer[32] = L"folded";
  DWORD length = sizeof buffer;
  ASSERT_EQ(Query(HTTP_QUERY_CUSTOM, buffer, &length), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"one two");
}

TEST_F(QueryRulesTest, UnknownLevelsAndConflictingFlags) {
  wchar_t buffer[32];
  DWORD length = sizeof buffer;
  EXPECT_EQ(Query(HTTP_QUERY_MAX + 5, buffer, &length), ERROR_HTTP_INVALID_QUERY_REQUEST);
  EXPECT_EQ(Query(HTTP_QUERY_CONTENT_LENGTH | HTTP_QUERY_FLAG_NUMBER | HTTP_QUERY_FLAG_SYSTEMTIME,
                  buffer, &length),
            ERROR_HTTP_INVALID_QUERY_REQUEST);
}

TEST_F(QueryRulesTest, NonAsciiBytesArriveAsLatin1Characters) {
  HeaderBlock block = Block({"HTTP/1.1 200 OK", "X-Name: caf\xe9"});
  wchar_t buffer[32] = L"x-name";
  DWORD length = sizeof buffer;
  ASSERT_EQ(QueryHeaderBlock(block, "GET", HTTP_QUERY_CUSTOM, buffer, &length, nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"caf\u00e9");
}

TEST(HeaderBlockTest, RefusesMalformedLines) {
  {
    HeaderBlock block;
    EXPECT_EQ(block.AddLine("HTTP/1.1 OK\r\n"), HeaderBlock::LineResult::kInvalid);
  }
  {
    HeaderBlock block;
    EXPECT_EQ(block.AddLine("ICY 200 OK\r\n"), HeaderBlock::LineResult::kInvalid);
  }
  {
    HeaderBlock block;
    ASSERT_EQ(block.AddLine("HTTP/1.1 200 OK\r\n"), HeaderBlock::LineResult::kAccepted);
    EXPECT_EQ(block.AddLine("no colon here\r\n"), HeaderBlock::LineResult::kInvalid);
  }
  {
    HeaderBlock block;
    ASSERT_EQ(block.AddLine("HTTP/1.1 200 OK\r\n"), HeaderBlock::LineResult::kAccepted);
    EXPECT_EQ(block.AddLine(": empty name\r\n"), HeaderBlock::LineResult::kInvalid);
    HeaderBlock other;
    ASSERT_EQ(other.AddLine("HTTP/1.1 200 OK\r\n"), HeaderBlock::LineResult::kAccepted);
    EXPECT_EQ(other.AddLine(" continuation first\r\n"), HeaderBlock::LineResult::kInvalid);
  }
  {
    HeaderBlock block;
    ASSERT_EQ(block.AddLine("HTTP/1.1 200 OK\r\n"), HeaderBlock::LineResult::kAccepted);
    const std::string huge = "X-Big: " + std::string(HeaderBlock::kMaxBytes, 'a') + "\r\n";
    EXPECT_EQ(block.AddLine(huge), HeaderBlock::LineResult::kInvalid);
  }
}

}  // namespace
