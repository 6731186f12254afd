#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/request_handler.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/raw_responder.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string Bytes(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131) & 0xFF);
  return s;
}

const std::string k206Abcd =
    "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-3/4\r\nContent-Length: 4\r\n\r\nabcd";

// Answers every request of a kept-alive connection with answer(head) and records the heads.
class Server {
 public:
  explicit Server(std::function<std::string(const std::string&)> answer)
      : raw_([this, answer](RawConnection& c) {
          for (std::string head; !(head = c.ReadRequestHead()).empty();) {
            Add(head);
            if (!c.Send(answer(head))) return;
          }
        }) {}
  explicit Server(const std::string& response)
      : Server([response](const std::string&) { return response; }) {}
  std::vector<std::string> heads() const {
    std::lock_guard lock(mutex_);
    return heads_;
  }
  std::string Url(const std::string& path) const { return raw_.Url(path); }
  std::size_t connections() const { return raw_.connection_count(); }

 private:
  void Add(const std::string& head) {
    std::lock_guard lock(mutex_);
    heads_.push_back(head);
  }
  mutable std::mutex mutex_;
  std::vector<std::string> heads_;
  RawResponder raw_;  // last: its threads end before the heads go
};

class RangedReadTest : public ProtocolTest {
 protected:
  std::string Message(const std::string& what, const OpenedFile& f, const std::string& tail) {
    return "HttpFileProtocol::ReadFile " + what + " for " + f.url_utf8() + tail;
  }
};

class Handler : public qv::net::HttpRequestHandler {
 public:
  explicit Handler(bool throws) : throws_(throws) {}
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    if (throws_) throw std::runtime_error("refused");
    request.AddHeader(L"X-Host", L"yes");
  }

 private:
  bool throws_;
};

TEST_F(RangedReadTest, SendsTheRangeAfterTheHandlersOnOneKeptAliveConnection) {
  const std::string body = Bytes(100);
  Server server("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 100-199/900\r\n"
                "Content-Length: 100\r\n\r\n" + body);
  OpenedFile f(protocol_, server.Url("/dir/file.bin?v=2"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(100);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(100, 100, buffer.data(), &total), 100);
  EXPECT_EQ(total, 900u);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), body);
  Handler handler(false);
  qv::net::HttpRequestHandlerManager::RegisterHandler(&handler);
  EXPECT_TRUE(f.ReadExact(100, 100, buffer.data()));
  qv::net::HttpRequestHandlerManager::UnregisterHandler(&handler);
  EXPECT_EQ(server.connections(), 1u);
  const auto heads = server.heads();
  ASSERT_EQ(heads.size(), 2u);
  EXPECT_THAT(heads[0], HasSubstr("GET /dir/file.bin?v=2 HTTP/1.1\r\n"));
  EXPECT_THAT(heads[0], HasSubstr("\r\nRange: bytes=100-199\r\n"));
  EXPECT_THAT(heads[1], HasSubstr("\r\nX-Host: yes\r\nRange: bytes=100-199\r\n"));

  // A handler's exception reaches the caller before anything is sent.
  Handler thrower(true);
  qv::net::HttpRequestHandlerManager::RegisterHandler(&thrower);
  EXPECT_THROW(f.Read(100, 100, buffer.data()), std::runtime_error);
  qv::net::HttpRequestHandlerManager::UnregisterHandler(&thrower);
  EXPECT_EQ(server.heads().size(), 2u);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RangedReadTest, AnswersWithoutAFullContentRange) {
  struct Case {
    const char* name;
    std::string response;
    std::int64_t count;                  // of a read of bytes 0-9 that asks for the total
    std::optional<std::uint64_t> total;  // checked when set
    std::string bytes;                   // the start of the buffer after that read
    const char* message;                 // posted by that read, before and after the URL
    const char* message_tail;
    std::int64_t count_without_total;    // of the same read not asking for the total
    std::string bytes_without_total;
  };
  const std::string body = Bytes(1000);
  const Case cases[] = {
      {"unknown length: the total is the Content-Length",
       "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-9/*\r\nContent-Length: 10\r\n\r\n" +
           body.substr(0, 10),
       10, 10, body.substr(0, 10), nullptr, "", 10, body.substr(0, 10)},
      // The rest of the body is not read: the next read needs a new connection.
      {"range ignored: read from the start of the 200's body",
       "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + body, 10, 1000, body.substr(0, 10),
       nullptr, "", 10, body.substr(0, 10)},
      {"other status: the size is stored, then the read fails",
       "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found", -1, 9, "",
       "HttpQueryInfo Unhandled Status Code", ": 404", -1, ""},
      {"no size at all: fails only when the total is asked",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", -1,
       std::nullopt, "", "HttpQueryInfo Can't find size in headers", "", 5, "hello"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Server server(c.response);
    OpenedFile f(protocol_, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    std::vector<unsigned char> buffer(10);
    std::uint64_t total = 0;
    EXPECT_EQ(f.Read(0, 10, buffer.data(), &total), c.count);
    if (c.total) {
      EXPECT_EQ(total, *c.total);
    }
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + c.bytes.size()), c.bytes);
    if (c.message == nullptr) {
      EXPECT_THAT(TakeLog(), IsEmpty());
    } else {
      EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, Message(c.message, f, c.message_tail)}));
    }
    std::fill(buffer.begin(), buffer.end(), 0);
    EXPECT_EQ(f.Read(0, 10, buffer.data()), c.count_without_total);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + c.bytes_without_total.size()),
              c.bytes_without_total);
    log_.Clear();
  }
}

TEST_F(RangedReadTest, RangePastTheEndIsRefusedBy416AndOneCrossingTheEndIsCut) {
  const std::string content = Bytes(900);
  Server server([&](const std::string& head) -> std::string {
    if (head.find("\r\nRange: bytes=895-904\r\n") == std::string::npos) {
      return "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */900\r\n"
             "Content-Length: 0\r\n\r\n";
    }
    return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 895-899/900\r\n"
           "Content-Length: 5\r\n\r\n" + content.substr(895);
  });
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(10);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(1000, 10, buffer.data(), &total), -1);
  EXPECT_THAT(TakeLog(), ElementsAre(Posted{
                             1, Message("HttpQueryInfo Unhandled Status Code", f, ": 416")}));
  ASSERT_EQ(server.heads().size(), 1u);
  EXPECT_THAT(server.heads()[0], HasSubstr("\r\nRange: bytes=1000-1009\r\n"));

  EXPECT_EQ(f.Read(895, 10, buffer.data(), &total), 5);
  EXPECT_EQ(total, 900u);
  EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 5), content.substr(895));
}

TEST_F(RangedReadTest, PlatformFailuresEndTheReadAsDocumented) {
  Server server(k206Abcd);
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4);

  // Two send time-outs are retried (a third ends the read: tests/faults, stall before head).
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 4);
  EXPECT_EQ(TqPlatformInjectedFailures("HttpSendRequestW"), 2u);
  EXPECT_EQ(server.heads().size(), 1u);
  EXPECT_THAT(TakeLog(), IsEmpty());

  // Any other send error is not retried.
  TqPlatformClearFaults();
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_CANNOT_CONNECT, 1, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), -1);
  EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, Message("HttpSendRequest", f, " failed: 12029")}));

  // A request that cannot be opened reads 0 bytes; ReadFile then also reports partial data.
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_OUT_OF_HANDLES, 2, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 0);
  EXPECT_FALSE(f.ReadExact(0, 4, buffer.data()));
  const Posted open_failed{1, Message("HttpOpenRequest", f, " failed: 12001")};
  EXPECT_THAT(TakeLog(), ElementsAre(open_failed, open_failed,
                                     Posted{1, Message("InternetReadFile partial data", f,
                                                       ": 12001")}));

  ASSERT_TRUE(TqPlatformInjectFault("HttpQueryInfoW", ERROR_HTTP_INVALID_QUERY_REQUEST, 1, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), -1);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, Message("HttpQueryInfo Status Code", f,
                                                   " failed: 12154")}));
}

TEST_F(RangedReadTest, BadHandlesBuffersAndRangesAreRefusedWithoutARequest) {
  Server server("HTTP/1.1 500 No\r\nContent-Length: 0\r\n\r\n");
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  // Size 0 asks for nothing: no bytes, and no total to give.
  unsigned char byte = 0;
  std::uint64_t total = 7;
  EXPECT_EQ(f.Read(0, 0, &byte), 0);
  EXPECT_EQ(f.Read(0, 0, &byte, &total), -1);
  EXPECT_EQ(total, 7u);
  EXPECT_TRUE(f.ReadExact(0, 0, &byte));
  EXPECT_THAT(TakeLog(), IsEmpty());

  TqUFileRequestHandle* request = protocol_->SetupReadFile(f.file(), 0, 4);
  ASSERT_NE(request, nullptr);
  std::vector<unsigned char> buffer(4);
  auto read = [&](TqUFileHandle* file, TqUThreadHandle* thread, TqUFileRequestHandle* req,
                  std::uint64_t offset, unsigned char* into) {
    return protocol_->ReadFileToSize(file, thread, req, offset, 4, into, nullptr);
  };
  EXPECT_EQ(read(nullptr, f.thread(), request, 0, buffer.data()), -1);
  EXPECT_EQ(read(f.file(), nullptr, request, 0, buffer.data()), -1);
  EXPECT_EQ(read(f.file(), f.thread(), nullptr, 0, buffer.data()), -1);
  // A thread handle where the file handle belongs, and memory that is no handle at all.
  EXPECT_EQ(read(reinterpret_cast<TqUFileHandle*>(f.thread()), f.thread(), request, 0,
                 buffer.data()),
            -1);
  alignas(8) unsigned char junk[64] = {};
  EXPECT_FALSE(protocol_->ReadFile(f.file(), reinterpret_cast<TqUThreadHandle*>(junk), request, 0,
                                   4, buffer.data()));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  // A null buffer, and a range whose last byte does not exist.
  EXPECT_EQ(read(f.file(), f.thread(), request, 0, nullptr), -1);
  EXPECT_EQ(protocol_->ReadFileToSize(f.file(), f.thread(), request, UINT64_MAX, 2, buffer.data(),
                                      nullptr),
            -1);
  EXPECT_EQ(server.connections(), 0u);
  const Posted refused{1, "HttpFileProtocol::ReadFile invalid handle"};
  const Posted bad_range{1, Message("invalid buffer or range", f, "")};
  EXPECT_THAT(Log(), ElementsAre(refused, refused, refused, refused, refused, bad_range,
                                 bad_range));
  EXPECT_TRUE(protocol_->ReleaseRequestHandle(request));
}

TEST_F(RangedReadTest, ReadOf4GiBOrMoreAsksForEveryByte) {
  const std::string body = Bytes(100);
  Server server("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + body);
  OpenedFile f(protocol_, server.Url("/huge"));
  ASSERT_TRUE(f.ok());
  // Address space only: the server sends 100 bytes, so only the first page is touched.
  const std::uint64_t size = (std::uint64_t{1} << 32) + 16;
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) GTEST_SKIP() << "cannot reserve 4 GiB of address space";
  auto* buffer = static_cast<unsigned char*>(memory);
  // Cut to its low 32 bits the read would have asked for 16 bytes only.
  EXPECT_EQ(f.Read(0, size, buffer), 100);
  EXPECT_EQ(std::string(buffer, buffer + 100), body);
  munmap(memory, size);
  ASSERT_EQ(server.heads().size(), 1u);
  EXPECT_THAT(server.heads()[0], HasSubstr("\r\nRange: bytes=0-4294967311\r\n"));
}

}  // namespace
}  // namespace tq::test
