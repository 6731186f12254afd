// Header names are tokens: every other byte in a name refuses the line. (Folded values, repeated
// names and the raw forms are read back through the WinINet API in header_queries_test.cc.)
#include "platform/http_headers.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using tqplatform::HeaderBlock;

TEST(HeaderNameTest, EveryByteOutsideTheTokenCharactersRefusesTheLine) {
  constexpr std::string_view kSeparators = "()<>@,;\\\"/[]?={}";
  for (int c = 0; c < 256; ++c) {
    if (c == ':') continue;  // ends the name
    const bool token = c > 0x20 && c < 0x7F && kSeparators.find(static_cast<char>(c)) ==
                                                    std::string_view::npos;
    HeaderBlock block;
    ASSERT_EQ(block.AddLine("HTTP/1.1 200 OK\r\n"), HeaderBlock::LineResult::kAccepted);
    const std::string line = std::string("X") + static_cast<char>(c) + "Y: v\r\n";
    EXPECT_EQ(block.AddLine(line), token ? HeaderBlock::LineResult::kAccepted
                                         : HeaderBlock::LineResult::kInvalid)
        << "byte " << c;
  }
}

}  // namespace
