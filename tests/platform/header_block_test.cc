// A header block as libcurl hands it over line by line, read back through HttpQueryInfoW's
// rules: folded values, repeated names, the raw forms, and a block cleared for the next one.
#include "platform/http_headers.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace {

using tqplatform::HeaderBlock;
using tqplatform::QueryHeaderBlock;

// The text a query answers, or "<error N>".
std::string Query(const HeaderBlock& block, DWORD level, const std::wstring& name = L"",
                  DWORD index = 0) {
  std::vector<wchar_t> buffer(4096, L'\0');
  name.copy(buffer.data(), name.size());
  DWORD length = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
  if (DWORD error = QueryHeaderBlock(block, "GET", level, buffer.data(), &length, &index)) {
    return "<error " + std::to_string(error) + ">";
  }
  std::string text;
  for (std::size_t i = 0; i < length / sizeof(wchar_t); ++i) {
    text.push_back(static_cast<char>(buffer[i]));
  }
  return text;
}

void Feed(HeaderBlock& block, const std::vector<std::string>& lines) {
  for (const auto& line : lines) {
    ASSERT_NE(block.AddLine(line), HeaderBlock::LineResult::kInvalid) << line;
  }
}

TEST(HeaderBlockTest, FoldedRepeatedAndRawFormsReadBackAsReceived) {
  HeaderBlock block;
  Feed(block, {"HTTP/1.1 200 OK\r\n", "A: one\r\n", " two\r\n", "\t three \r\n", "B:\r\n",
               "  x\r\n", "a: again\r\n", "C: c\r\n", "   \r\n", "D: d1\r\n", " d2\n"});
  ASSERT_EQ(block.AddLine("\r\n"), HeaderBlock::LineResult::kEndOfBlock);

  constexpr DWORD kCustom = HTTP_QUERY_CUSTOM;
  const struct {
    std::wstring name;
    DWORD index;
    std::string value;
  } cases[] = {
      {L"A", 0, "one two three"}, {L"a", 1, "again"}, {L"A", 2, "<error 12150>"},
      {L"B", 0, "x"},             {L"C", 0, "c"},     {L"d", 0, "d1 d2"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Query(block, kCustom, c.name, c.index), c.value)
        << std::string(c.name.begin(), c.name.end()) << " #" << c.index;
  }
  EXPECT_EQ(Query(block, HTTP_QUERY_RAW_HEADERS_CRLF),
            "HTTP/1.1 200 OK\r\nA: one\r\n two\r\n\t three \r\nB:\r\n  x\r\na: again\r\n"
            "C: c\r\n   \r\nD: d1\r\n d2\r\n\r\n");
  static const char kNulSeparated[] =
      "HTTP/1.1 200 OK\0A: one\r\n two\r\n\t three \0B:\r\n  x\0a: again\0C: c\r\n   \0"
      "D: d1\r\n d2\0";
  EXPECT_EQ(Query(block, HTTP_QUERY_RAW_HEADERS),
            std::string(kNulSeparated, sizeof kNulSeparated - 1));

  // Cleared, the block keeps nothing of the last one.
  block.Clear();
  EXPECT_TRUE(block.empty());
  Feed(block, {"HTTP/1.0 404 Not Found\r\n", "X: y\r\n"});
  EXPECT_EQ(Query(block, kCustom, L"A"), "<error 12150>");
  EXPECT_EQ(Query(block, kCustom, L"X"), "y");
  EXPECT_EQ(Query(block, HTTP_QUERY_RAW_HEADERS_CRLF), "HTTP/1.0 404 Not Found\r\nX: y\r\n\r\n");
}

TEST(HeaderBlockTest, ContentLengthsAgreeOnlyWhenEveryCopyIsTheSameNumber) {
  const struct {
    std::vector<std::string> lines;
    bool agree;
  } cases[] = {
      {{"Content-Length: 5\r\n"}, true},
      {{"Content-Length: 5\r\n", "content-length: 5, 5\r\n"}, true},
      {{"Content-Length: 5,\r\n", " 5\r\n"}, true},  // folded into "5, 5"
      {{"Content-Length: 5\r\n", "Content-Length: 6\r\n"}, false},
      {{"Content-Length: 5\r\n", " 6\r\n"}, false},  // folded into "5 6"
      {{"X: 1\r\n"}, true},
  };
  for (const auto& c : cases) {
    HeaderBlock block;
    Feed(block, {"HTTP/1.1 200 OK\r\n"});
    Feed(block, c.lines);
    EXPECT_EQ(block.ContentLengthAgrees(), c.agree) << c.lines[0];
  }
}

// Header names are tokens: every other byte in a name refuses the line.
TEST(HeaderNameTest, EveryByteOutsideTheTokenCharactersRefusesTheLine) {
  constexpr std::string_view kSeparators = "()<>@,;\\\"/[]?={}";
  for (int c = 0; c < 256; ++c) {
    if (c == ':') continue;  // ends the name
    const bool token = c > 0x20 && c < 0x7F && kSeparators.find(static_cast<char>(c)) ==
                                                    std::string_view::npos;
    HeaderBlock block;
    Feed(block, {"HTTP/1.1 200 OK\r\n"});
    const std::string line = std::string("X") + static_cast<char>(c) + "Y: v\r\n";
    EXPECT_EQ(block.AddLine(line), token ? HeaderBlock::LineResult::kAccepted
                                         : HeaderBlock::LineResult::kInvalid)
        << "byte " << c;
  }
}

}  // namespace
