// The file protocol against a loopback server that lies about the bytes it sends: a 206 for
// another range, a 200 to a read at an offset, two different body lengths. Whatever the
// server says, a read puts only the bytes at the offset asked for into the caller's buffer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"
#include "tests/fileprotocol/protocol_fixture.h"

namespace tq::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned char kUntouched = 0xEE;

class HostileFileProtocol : public ProtocolTest {};

TEST_F(HostileFileProtocol, PartialContentForAnotherRangeIsAFailureNeverOtherBytes) {
  const std::string file = Bytes(900);
  // Bytes 100-109 are asked for every time.
  struct Case {
    const char* what;
    std::string content_range;  // the header line, or "" for none
    std::string body;
    std::int64_t result;        // -1, or the bytes placed, which are file[100, 100 + result)
  };
  const Case cases[] = {
      {"the start of the file instead", "Content-Range: bytes 0-9/900\r\n", file.substr(0, 10), -1},
      {"a later range", "Content-Range: bytes 300-309/900\r\n", file.substr(300, 10), -1},
      {"more than asked for", "Content-Range: bytes 100-119/900\r\n", file.substr(100, 20), -1},
      {"no range at all", "", file.substr(100, 10), -1},
      {"no length part", "Content-Range: bytes 100-109\r\n", file.substr(100, 10), -1},
      {"a sign", "Content-Range: bytes +100-109/900\r\n", file.substr(100, 10), -1},
      {"trailing junk", "Content-Range: bytes 100-109/900x\r\n", file.substr(100, 10), -1},
      {"past its own length", "Content-Range: bytes 100-109/105\r\n", file.substr(100, 10), -1},
      {"64-bit overflow",
       "Content-Range: bytes 18446744073709551716-109/900\r\n", file.substr(100, 10), -1},
      {"the range asked for", "Content-Range: bytes 100-109/*\r\n", file.substr(100, 10), 10},
      {"cut by the end of the file", "Content-Range: bytes 100-104/105\r\n", file.substr(100, 5),
       5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SameAnswerServer server("HTTP/1.1 206 Partial Content\r\n" + c.content_range +
                       "Content-Length: " + std::to_string(c.body.size()) + "\r\n\r\n" + c.body);
    OpenedFile f(protocol_, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    std::vector<unsigned char> buffer(10, kUntouched);
    EXPECT_EQ(f.Read(100, 10, buffer.data()), c.result);
    const std::size_t placed = c.result > 0 ? static_cast<std::size_t>(c.result) : 0;
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + placed), file.substr(100, placed));
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin() + placed, buffer.end()),
              std::vector<unsigned char>(10 - placed, kUntouched));
    if (c.result < 0) {
      EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo "
                                                   "Content-Range for " + f.url_utf8() +
                                                   " does not match bytes=100-109"}));
      EXPECT_FALSE(f.ReadExact(100, 10, buffer.data()));
      EXPECT_EQ(TakeLog().size(), 1u);  // the same message, no "partial data" after it
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
  }
}

TEST_F(HostileFileProtocol, WholeBodyAnsweredToAReadAtAnOffsetGivesTheBytesAtThatOffset) {
  struct Case {
    std::size_t file_size;
    std::uint64_t offset;
    std::size_t size;
    std::int64_t result;
  };
  const Case cases[] = {
      {900, 300, 10, 10},
      {900, 895, 10, 5},               // the file ends inside the range
      {200 * 1024, 150'000, 1000, 1000},  // more to drop than one chunk of the drop buffer
      {100, 300, 10, 0},               // the file ends before the offset: nothing, not its start
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    const std::string file = Bytes(c.file_size);
    SameAnswerServer server("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(file.size()) +
                       "\r\n\r\n" + file);
    OpenedFile f(protocol_, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    std::vector<unsigned char> buffer(c.size, kUntouched);
    std::uint64_t total = 0;
    ASSERT_EQ(f.Read(c.offset, c.size, buffer.data(), &total), c.result);
    EXPECT_EQ(total, c.file_size);
    const auto placed = static_cast<std::size_t>(c.result);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + placed),
              file.substr(std::min<std::size_t>(c.offset, file.size()), placed));
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin() + placed, buffer.end()),
              std::vector<unsigned char>(c.size - placed, kUntouched));
    EXPECT_EQ(server.requests(), 1u);
    EXPECT_THAT(TakeLog(), IsEmpty());
  }
}

// The transport may refuse such an answer itself (its send fails); where it passes the answer
// on, the protocol refuses it. Either way: a failure naming the URL, and nothing remembered.
TEST_F(HostileFileProtocol, TwoDifferentContentLengthsAreAFailureAndNothingIsRemembered) {
  SameAnswerServer conflicting(
      "HTTP/1.1 200 OK\r\nContent-Length: 400\r\nETag: \"v1\"\r\nContent-Length: 4\r\n\r\nabcd");
  const std::string url = conflicting.Url("/f");
  auto refused = [&url](const std::string& operation) {
    return AnyOf(Posted{1, "HttpFileProtocol::" + operation +
                               " HttpQueryInfo Conflicting Content-Length for " + url},
                 Posted{1, "HttpFileProtocol::" + operation + " HttpSendRequest for " + url +
                               " failed: " + std::to_string(ERROR_HTTP_INVALID_SERVER_RESPONSE)});
  };
  TqUFileInfo info;
  EXPECT_FALSE(protocol_->GetFileInfo(W(url).c_str(), &info));
  EXPECT_FALSE(protocol_->GetFileInfo(W(url).c_str(), &info));
  EXPECT_EQ(conflicting.requests(), 2u);  // not cached: asked again
  EXPECT_THAT(TakeLog(), ElementsAre(refused("GetFileInfo"), refused("GetFileInfo")));

  OpenedFile f(protocol_, url);
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4, kUntouched);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(0, 4, buffer.data(), &total), -1);
  EXPECT_EQ(buffer, std::vector<unsigned char>(4, kUntouched));
  EXPECT_THAT(TakeLog(), ElementsAre(refused("ReadFile")));

  // The same length twice is one length.
  SameAnswerServer repeated(
      "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nContent-Length: 4\r\n\r\nabcd");
  ASSERT_TRUE(protocol_->GetFileInfo(W(repeated.Url("/f")).c_str(), &info));
  EXPECT_EQ(info.GetFileSize(), 4u);
  OpenedFile same(protocol_, repeated.Url("/f"));
  EXPECT_EQ(same.Read(0, 4, buffer.data()), 4);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "abcd");
  EXPECT_THAT(TakeLog(), IsEmpty());
}

}  // namespace
}  // namespace tq::test
