// WinINet's HttpQueryInfoW rules over a header block, without a network.
#include "platform/http_headers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
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
             "Set-Cookie: a=1", "set-cookie: b=2", "Content-Range: bytes 0-1/5000"});
  return block;
}

constexpr DWORD kNum = HTTP_QUERY_FLAG_NUMBER;
constexpr DWORD kCustom = HTTP_QUERY_CUSTOM, kOk = ERROR_SUCCESS, kAny = 0xFFFFFFFFu;
constexpr DWORD kShort = ERROR_INSUFFICIENT_BUFFER, kAbsent = ERROR_HTTP_HEADER_NOT_FOUND;
// Bytes of one character: text lengths are characters x sizeof(wchar_t), as the SDK has them.
constexpr DWORD W = sizeof(wchar_t);

TEST(QueryRulesTest, LengthsErrorsAndValuesForEachKindOfQuery) {
  struct Case {
    DWORD level;
    const wchar_t* name;  // HTTP_QUERY_CUSTOM reads it from the buffer
    DWORD length;         // bytes
    DWORD error;
    DWORD length_after;   // or kAny
    const wchar_t* text;  // the buffer afterwards (a number rendered), or null
  } cases[] = {
      // The length needed counts the terminator, the length on success does not.
      {HTTP_QUERY_ETAG, nullptr, 11 * W - 1, kShort, 11 * W, nullptr},
      {HTTP_QUERY_ETAG, nullptr, 10 * W, kShort, 11 * W, nullptr},
      {HTTP_QUERY_ETAG, nullptr, 11 * W, kOk, 10 * W, L"\"abcdefgh\""},
      {HTTP_QUERY_LOCATION, nullptr, 8, kAbsent, kAny, nullptr},
      // By name: case-insensitive; on failure the buffer is left as it was. The name is read
      // from as many whole characters as the length holds.
      {kCustom, L"CONTENT-range", 64 * W, kOk, 14 * W, L"bytes 0-1/5000"},
      {kCustom, L"Content-Range", 14 * W, kShort, 15 * W, L"Content-Range"},
      {kCustom, L"Content-Range", 13 * W - 1, kAbsent, kAny, L"Content-Range"},
      {kCustom, L"X-Missing", 64 * W, kAbsent, kAny, nullptr},
      {kCustom, L"E", W - 1, kAbsent, kAny, nullptr},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 4, kOk, 4, L"1234"},
      {HTTP_QUERY_CONTENT_LENGTH | kNum, nullptr, 3, kShort, 4, nullptr},
      {HTTP_QUERY_ETAG | kNum, nullptr, 4, ERROR_HTTP_INVALID_HEADER, kAny, nullptr},
      {HTTP_QUERY_STATUS_CODE, nullptr, 4 * W, kOk, 3 * W, L"206"},
      {HTTP_QUERY_STATUS_CODE, nullptr, 3 * W, kShort, 4 * W, nullptr},
      {HTTP_QUERY_STATUS_TEXT, nullptr, 64 * W, kOk, 15 * W, L"Partial Content"},
      {HTTP_QUERY_MAX + 5, nullptr, 64, ERROR_HTTP_INVALID_QUERY_REQUEST, kAny, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "level " << std::hex << c.level << std::dec << " length "
                                    << c.length);
    // Bytes past the length given are a marker that must survive: nothing is written beyond it.
    alignas(wchar_t) unsigned char storage[80 * sizeof(wchar_t)];
    std::memset(storage, 0xA5, sizeof storage);
    auto* buffer = reinterpret_cast<wchar_t*>(storage);
    if (c.name != nullptr) std::wcscpy(buffer, c.name);
    const std::size_t untouched_from = std::max<std::size_t>(
        c.length, c.name != nullptr ? (std::wcslen(c.name) + 1) * W : 0);
    DWORD length = c.length;
    const DWORD error = QueryHeaderBlock(Sample(), "GET", c.level, buffer, &length, nullptr);
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

TEST(QueryRulesTest, IndexWalksRepeatedHeadersAndAdvancesOnlyOnSuccess) {
  wchar_t buffer[64];
  DWORD index = 0;
  const auto query = [&](DWORD length) {
    return QueryHeaderBlock(Sample(), "GET", HTTP_QUERY_SET_COOKIE, buffer, &length, &index);
  };
  ASSERT_EQ(query(sizeof buffer), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"a=1");
  EXPECT_EQ(query(3 * W), ERROR_INSUFFICIENT_BUFFER);
  ASSERT_EQ(query(sizeof buffer), ERROR_SUCCESS);
  EXPECT_EQ(std::wstring(buffer), L"b=2");
  EXPECT_EQ(query(sizeof buffer), ERROR_HTTP_HEADER_NOT_FOUND);
  EXPECT_EQ(index, 2u);
}

TEST(QueryRulesTest, RawHeadersWithCrLfOrNulSeparators) {
  const HeaderBlock small = Block({"HTTP/1.1 200 OK", "A: 1", "b:2"});
  const std::pair<DWORD, std::wstring> cases[] = {  // the terminating NUL is not counted
      {HTTP_QUERY_RAW_HEADERS_CRLF, L"HTTP/1.1 200 OK\r\nA: 1\r\nb:2\r\n\r\n"},
      {HTTP_QUERY_RAW_HEADERS, std::wstring(L"HTTP/1.1 200 OK\0A: 1\0b:2\0", 25)}};
  for (const auto& [level, expected] : cases) {
    wchar_t buffer[128];
    std::wmemset(buffer, L'x', 128);
    DWORD length = sizeof buffer;
    ASSERT_EQ(QueryHeaderBlock(small, "GET", level, buffer, &length, nullptr), ERROR_SUCCESS);
    EXPECT_EQ(length, expected.size() * W);
    EXPECT_EQ(std::wstring(buffer, expected.size() + 1), expected + L'\0');
  }
}

TEST(QueryRulesTest, ContentLengthAgreesOnlyWithOneDecimalValue) {
  const struct {
    std::initializer_list<const char*> lines;
    bool agrees;
  } cases[] = {
      {{"HTTP/1.1 200 OK"}, true},
      {{"HTTP/1.1 200 OK", "Content-Length: 5", "content-length:  5 "}, true},
      {{"HTTP/1.1 200 OK", "Content-Length: 5, 5"}, true},
      {{"HTTP/1.1 200 OK", "Content-Length: 5", "Content-Length: 400"}, false},
      {{"HTTP/1.1 200 OK", "Content-Length: 5, 400"}, false},
      {{"HTTP/1.1 200 OK", "Content-Length: 5,"}, false},
      {{"HTTP/1.1 200 OK", "Content-Length: -5"}, false},
      {{"HTTP/1.1 200 OK", "Content-Length: 99999999999999999999"}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    EXPECT_EQ(Block(c.lines).ContentLengthAgrees(), c.agrees);
  }
}

}  // namespace
