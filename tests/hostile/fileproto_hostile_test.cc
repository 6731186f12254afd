// The file protocol and the read stream against a loopback server that lies about the bytes it
// sends: a 206 for another range, a 200 to a read at an offset, two different body lengths.
// Whatever the server says, a read puts only the bytes at the offset asked for into the caller's
// buffer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/read_all.h"
#include "tests/support/same_answer_server.h"

namespace tq::test {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr unsigned char kUntouched = 0xEE;

class HostileFileProtocol : public ProtocolTest {};

// A 206 must carry exactly the range asked for (or that range cut by the end of the file); a 200
// to a read at an offset is the whole body, of which only the bytes at the offset are placed.
TEST_F(HostileFileProtocol, OnlyTheBytesAtTheOffsetAskedForAreEverPlaced) {
  const std::string file = Bytes(900);
  const std::string big = Bytes(200 * 1024);
  const std::string small = Bytes(100);
  struct Case {
    const char* what;
    std::string head;  // after the status line, before the Content-Length
    const std::string* file;
    std::size_t from;  // the body is file[from, from + length)
    std::size_t length;
    std::uint64_t offset;  // of a read of 10 bytes, or 1000 in the big file
    std::int64_t result;   // -1, or the bytes placed, which are file[offset, offset + result)
  };
  constexpr std::size_t kAll = std::string::npos;
  const std::string partial = "206 Partial Content\r\n";
  auto range = [&](const char* text) { return partial + "Content-Range: bytes " + text + "\r\n"; };
  const Case cases[] = {
      {"the start of the file instead", range("0-9/900"), &file, 0, 10, 100, -1},
      {"more than asked for", range("100-119/900"), &file, 100, 20, 100, -1},
      {"no range at all", partial, &file, 100, 10, 100, -1},
      {"no length part", range("100-109"), &file, 100, 10, 100, -1},
      {"a sign", range("+100-109/900"), &file, 100, 10, 100, -1},
      {"trailing junk", range("100-109/900x"), &file, 100, 10, 100, -1},
      {"past its own length", range("100-109/105"), &file, 100, 10, 100, -1},
      {"64-bit overflow", range("18446744073709551716-109/900"), &file, 100, 10, 100, -1},
      {"the range asked for", range("100-109/*"), &file, 100, 10, 100, 10},
      {"cut by the end of the file", range("100-104/105"), &file, 100, 5, 100, 5},
      {"whole body", "200 OK\r\n", &file, 0, kAll, 300, 10},
      {"whole body ending inside the range", "200 OK\r\n", &file, 0, kAll, 895, 5},
      {"more to drop than one drop buffer holds", "200 OK\r\n", &big, 0, kAll, 150'000, 1000},
      {"whole body ending before the offset", "200 OK\r\n", &small, 0, kAll, 300, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string body = c.file->substr(c.from, c.length);
    SameAnswerServer server("HTTP/1.1 " + c.head + "Content-Length: " +
                            std::to_string(body.size()) + "\r\n\r\n" + body);
    OpenedFile f(protocol_, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    const std::size_t size = c.file == &big ? 1000 : 10;
    std::vector<unsigned char> buffer(size, kUntouched);
    std::uint64_t total = 0;
    EXPECT_EQ(f.Read(c.offset, size, buffer.data(), &total), c.result);
    const std::size_t placed = c.result > 0 ? static_cast<std::size_t>(c.result) : 0;
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + placed),
              c.file->substr(std::min<std::size_t>(c.offset, c.file->size()), placed));
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin() + placed, buffer.end()),
              std::vector<unsigned char>(size - placed, kUntouched));
    EXPECT_EQ(server.requests(), 1u);
    if (c.head.starts_with("200")) {
      EXPECT_EQ(total, c.file->size());
    }
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

  // The same length twice is one length, blanks around it or not, and written with leading
  // zeros longer than a short buffer holds (such a copy was taken for a different one).
  SameAnswerServer repeated("HTTP/1.1 200 OK\r\nContent-Length:\t4\t\r\nContent-Length: 4\r\n"
                            "Content-Length: " + std::string(40, '0') + "4\r\n\r\nabcd");
  ASSERT_TRUE(protocol_->GetFileInfo(W(repeated.Url("/f")).c_str(), &info));
  EXPECT_EQ(info.GetFileSize(), 4u);
  OpenedFile same(protocol_, repeated.Url("/f"));
  EXPECT_EQ(same.Read(0, 4, buffer.data()), 4);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "abcd");
  EXPECT_THAT(TakeLog(), IsEmpty());
}

// The read stream serves nothing of a 200 announcing two different lengths (the bytes of one
// framing, which a proxy on the way may have read with the other). The copies are told apart
// through the system's own indexed header query, which a fake transport cannot stand for.
TEST(HostileNet, DifferingContentLengthsServeNothing) {
  qv::net::IHttpApi* previous = qv::net::SetHttpApi(new qv::net::WinInet());
  SameAnswerServer responder(
      "HTTP/1.1 200 OK\r\nContent-Length: 400\r\nContent-Length: 10\r\n\r\n" +
      std::string(400, 'x'));
  ASSERT_TRUE(responder.ok());
  const std::wstring url = qv::Utf8ToWide(responder.Url("/twice"));
  auto stream = qv::net::HttpReadStream::Open(url, 0, {});
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(ReadAll(*stream), "");
  stream.reset();
  // Without a cache the URL is read into memory: nothing of the body comes out (an empty
  // stream, as for any answer that is not used, or none at all).
  auto opened = qv::net::OpenFileOrUrl(url, 0, {});
  if (opened) {
    EXPECT_EQ(ReadAll(*opened), "");
  }
  qv::net::HttpConnectionPool::Terminate();
  delete qv::net::SetHttpApi(previous);
}

}  // namespace
}  // namespace tq::test
