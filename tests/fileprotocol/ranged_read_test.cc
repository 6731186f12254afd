#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/http/request_handler.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/raw_responder.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Request heads seen by a raw responder, readable from the test thread.
class Heads {
 public:
  void Add(std::string head) {
    std::lock_guard lock(mutex_);
    heads_.push_back(std::move(head));
  }
  std::vector<std::string> Get() const {
    std::lock_guard lock(mutex_);
    return heads_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> heads_;
};

// Answers every request on a kept-alive connection with `response`, recording the heads.
RawResponder::Script Answer(Heads* heads, std::string response) {
  return [heads, response](RawConnection& c) {
    for (;;) {
      std::string head = c.ReadRequestHead();
      if (head.empty()) return;
      heads->Add(std::move(head));
      if (!c.Send(response)) return;
    }
  };
}

// Serves `content` as a server that honours single byte ranges does: 206 with the slice, or 416
// for a range that starts past the end.
RawResponder::Script ServeRanges(Heads* heads, std::string content) {
  return [heads, content](RawConnection& c) {
    for (;;) {
      std::string head = c.ReadRequestHead();
      if (head.empty()) return;
      heads->Add(head);
      unsigned long long first = 0;
      unsigned long long last = 0;
      const std::size_t at = head.find("Range: bytes=");
      if (at == std::string::npos ||
          std::sscanf(head.c_str() + at, "Range: bytes=%llu-%llu", &first, &last) != 2) {
        c.Send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
        continue;
      }
      std::string answer;
      if (first >= content.size()) {
        answer = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" +
                 std::to_string(content.size()) + "\r\nContent-Length: 0\r\n\r\n";
      } else {
        last = std::min<unsigned long long>(last, content.size() - 1);
        const std::string slice = content.substr(first, last - first + 1);
        answer = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(first) +
                 "-" + std::to_string(last) + "/" + std::to_string(content.size()) +
                 "\r\nContent-Length: " + std::to_string(slice.size()) + "\r\n\r\n" + slice;
      }
      if (!c.Send(answer)) return;
    }
  };
}

std::string Bytes(std::size_t n, std::size_t seed = 0) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed) & 0xFF);
  return s;
}

using RangedReadTest = ProtocolTest;

TEST_F(RangedReadTest, SendsTheRangeAndTakesTheTotalFromContentRange) {
  Heads heads;
  const std::string body = Bytes(100);
  RawResponder server(Answer(&heads,
                             "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 100-199/900\r\n"
                             "Content-Length: 100\r\n\r\n" + body));
  OpenedFile f(protocol_, server.Url("/dir/file.bin?v=2"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(100);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(100, 100, buffer.data(), &total), 100);
  EXPECT_EQ(total, 900u);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), body);

  // Sequential reads on one thread handle share one kept-alive connection.
  EXPECT_TRUE(f.ReadExact(100, 100, buffer.data()));
  EXPECT_EQ(server.connection_count(), 1u);
  const auto seen = heads.Get();
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_THAT(seen[0], HasSubstr("GET /dir/file.bin?v=2 HTTP/1.1\r\n"));
  EXPECT_THAT(seen[0], HasSubstr("\r\nRange: bytes=100-199\r\n"));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RangedReadTest, UnknownLengthInContentRangeFallsBackToContentLength) {
  Heads heads;
  RawResponder server(Answer(&heads,
                             "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 100-199/*\r\n"
                             "Content-Length: 100\r\n\r\n" + Bytes(100)));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(100);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(100, 100, buffer.data(), &total), 100);
  EXPECT_EQ(total, 100u);
}

TEST_F(RangedReadTest, ServerIgnoringTheRangeIsReadFromTheStartOfItsBody) {
  Heads heads;
  const std::string body = Bytes(1000);
  RawResponder server(
      Answer(&heads, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + body));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(10);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(0, 10, buffer.data(), &total), 10);
  EXPECT_EQ(total, 1000u);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), body.substr(0, 10));
  // The rest of the body was not read: that connection cannot be reused, and the next read
  // must still work on a new one.
  EXPECT_TRUE(f.ReadExact(0, 10, buffer.data()));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RangedReadTest, StatusOtherThan200Or206FailsAfterStoringTheSize) {
  Heads heads;
  RawResponder server(
      Answer(&heads, "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found"));
  OpenedFile f(protocol_, server.Url("/missing"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(10);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(0, 10, buffer.data(), &total), -1);
  EXPECT_EQ(total, 9u);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Unhandled "
                                           "Status Code for " + f.url_utf8() + ": 404"}));
}

TEST_F(RangedReadTest, RangePastTheEndIsRefusedBy416) {
  Heads heads;
  const std::string content = Bytes(900);
  RawResponder server(ServeRanges(&heads, content));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(10);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(1000, 10, buffer.data(), &total), -1);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Unhandled "
                                           "Status Code for " + f.url_utf8() + ": 416"}));
  ASSERT_EQ(heads.Get().size(), 1u);
  EXPECT_THAT(heads.Get()[0], HasSubstr("\r\nRange: bytes=1000-1009\r\n"));

  // A range crossing the end gets what there is, and the full size.
  EXPECT_EQ(f.Read(895, 10, buffer.data(), &total), 5);
  EXPECT_EQ(total, 900u);
  EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 5), content.substr(895));
}

TEST_F(RangedReadTest, AnswerWithoutAnySizeFailsOnlyWhenTheSizeIsAsked) {
  Heads heads;
  RawResponder server(Answer(&heads,
                             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                             "5\r\nhello\r\n0\r\n\r\n"));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(5);
  std::uint64_t total = 0;
  EXPECT_EQ(f.Read(0, 5, buffer.data(), &total), -1);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Can't find "
                                           "size in headers for " + f.url_utf8()}));
  EXPECT_EQ(f.Read(0, 5, buffer.data()), 5);
  EXPECT_EQ(std::string(buffer.begin(), buffer.end()), "hello");
}

TEST_F(RangedReadTest, ServerClosingMidRangeGivesAShortCount) {
  RawResponder server([](RawConnection& c) {
    c.ReadRequestHead();
    c.Send("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-99/100\r\n"
           "Content-Length: 100\r\n\r\n" + std::string(40, 'x'));
    c.Close();
  });
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(100);
  EXPECT_EQ(f.Read(0, 100, buffer.data()), 40);
  EXPECT_THAT(Log(), IsEmpty());

  EXPECT_FALSE(f.ReadExact(0, 100, buffer.data()));
  const DWORD error = GetLastError();
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile InternetReadFile partial "
                                           "data for " + f.url_utf8() + ": " +
                                           std::to_string(error)}));
}

TEST_F(RangedReadTest, SendTimeOutsAreRetriedTwice) {
  Heads heads;
  RawResponder server(Answer(&heads,
                             "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-3/4\r\n"
                             "Content-Length: 4\r\n\r\nabcd"));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4);

  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 4);
  EXPECT_EQ(TqPlatformInjectedFailures("HttpSendRequestW"), 2u);
  EXPECT_EQ(heads.Get().size(), 1u);

  // A third time-out ends the read, without a message.
  TqPlatformClearFaults();
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 3, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), -1);
  EXPECT_EQ(TqPlatformInjectedFailures("HttpSendRequestW"), 3u);
  EXPECT_EQ(heads.Get().size(), 1u);
  EXPECT_THAT(Log(), IsEmpty());

  // Any other error is not retried.
  TqPlatformClearFaults();
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_CANNOT_CONNECT, 1, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), -1);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpSendRequest for " +
                                           f.url_utf8() + " failed: 12029"}));
}

TEST_F(RangedReadTest, FailedOpenAndFailedStatusQueryArePosted) {
  Heads heads;
  RawResponder server(Answer(&heads,
                             "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-3/4\r\n"
                             "Content-Length: 4\r\n\r\nabcd"));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4);

  // A request that cannot be opened reads 0 bytes; ReadFile then also reports partial data.
  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_OUT_OF_HANDLES, 2, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 0);
  EXPECT_FALSE(f.ReadExact(0, 4, buffer.data()));
  const std::string open_failed =
      "HttpFileProtocol::ReadFile HttpOpenRequest for " + f.url_utf8() + " failed: 12001";
  EXPECT_THAT(Log(), ElementsAre(Posted{1, open_failed}, Posted{1, open_failed},
                                 Posted{1, "HttpFileProtocol::ReadFile InternetReadFile partial "
                                           "data for " + f.url_utf8() + ": 12001"}));

  log_.Clear();
  TqPlatformClearFaults();
  ASSERT_TRUE(TqPlatformInjectFault("HttpQueryInfoW", ERROR_HTTP_INVALID_QUERY_REQUEST, 1, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), -1);
  EXPECT_THAT(Log(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo Status Code "
                                           "for " + f.url_utf8() + " failed: 12154"}));
}

TEST_F(RangedReadTest, SizeZeroMakesNoRequest) {
  Heads heads;
  RawResponder server(Answer(&heads, "HTTP/1.1 500 No\r\nContent-Length: 0\r\n\r\n"));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  unsigned char byte = 0;
  std::uint64_t total = 7;
  EXPECT_EQ(f.Read(0, 0, &byte), 0);
  EXPECT_EQ(f.Read(0, 0, &byte, &total), -1);
  EXPECT_EQ(total, 7u);
  EXPECT_TRUE(f.ReadExact(0, 0, &byte));
  EXPECT_EQ(server.connection_count(), 0u);
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(RangedReadTest, NullForeignAndMismatchedHandlesAreRefused) {
  Heads heads;
  RawResponder server(Answer(&heads, "HTTP/1.1 500 No\r\nContent-Length: 0\r\n\r\n"));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  TqUFileRequestHandle* request = protocol_->SetupReadFile(f.file(), 0, 4);
  ASSERT_NE(request, nullptr);
  std::vector<unsigned char> buffer(4);
  const std::string refused = "HttpFileProtocol::ReadFile invalid handle";

  EXPECT_EQ(protocol_->ReadFileToSize(nullptr, f.thread(), request, 0, 4, buffer.data(), nullptr),
            -1);
  EXPECT_EQ(protocol_->ReadFileToSize(f.file(), nullptr, request, 0, 4, buffer.data(), nullptr),
            -1);
  EXPECT_EQ(protocol_->ReadFileToSize(f.file(), f.thread(), nullptr, 0, 4, buffer.data(), nullptr),
            -1);
  // A thread handle passed where the file handle belongs, and memory that is no handle at all.
  auto* swapped = reinterpret_cast<TqUFileHandle*>(f.thread());
  EXPECT_EQ(protocol_->ReadFileToSize(swapped, f.thread(), request, 0, 4, buffer.data(), nullptr),
            -1);
  alignas(8) unsigned char junk[64] = {};
  EXPECT_FALSE(protocol_->ReadFile(f.file(), reinterpret_cast<TqUThreadHandle*>(junk), request, 0,
                                   4, buffer.data()));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  // A null buffer and a range whose last byte does not exist.
  EXPECT_EQ(protocol_->ReadFileToSize(f.file(), f.thread(), request, 0, 4, nullptr, nullptr), -1);
  EXPECT_EQ(protocol_->ReadFileToSize(f.file(), f.thread(), request, UINT64_MAX, 2, buffer.data(),
                                      nullptr),
            -1);
  EXPECT_EQ(server.connection_count(), 0u);
  const std::string bad_range = "HttpFileProtocol::ReadFile invalid buffer or range for " + f.url_utf8();
  EXPECT_THAT(Log(), ElementsAre(Posted{1, refused}, Posted{1, refused}, Posted{1, refused},
                                 Posted{1, refused}, Posted{1, refused}, Posted{1, bad_range},
                                 Posted{1, bad_range}));
  EXPECT_TRUE(protocol_->ReleaseRequestHandle(request));
}

TEST_F(RangedReadTest, ReadOf4GiBOrMoreAsksForEveryByte) {
  Heads heads;
  const std::string body = Bytes(100);
  RawResponder server(
      Answer(&heads, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + body));
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
  ASSERT_EQ(heads.Get().size(), 1u);
  EXPECT_THAT(heads.Get()[0], HasSubstr("\r\nRange: bytes=0-4294967311\r\n"));
}

class AddHeaderHandler : public qv::net::HttpRequestHandler {
 public:
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    request.AddHeader(L"X-Host", L"yes");
  }
};

class ThrowingHandler : public qv::net::HttpRequestHandler {
 public:
  void HandlePreRequest(qv::net::HttpRequest&) override { throw std::runtime_error("refused"); }
};

TEST_F(RangedReadTest, PreRequestHandlersAmendTheRequestBeforeTheRange) {
  Heads heads;
  RawResponder server(Answer(&heads,
                             "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-3/4\r\n"
                             "Content-Length: 4\r\n\r\nabcd"));
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4);
  AddHeaderHandler handler;
  qv::net::HttpRequestHandlerManager::RegisterHandler(&handler);
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 4);
  qv::net::HttpRequestHandlerManager::UnregisterHandler(&handler);
  ASSERT_EQ(heads.Get().size(), 1u);
  EXPECT_THAT(heads.Get()[0], HasSubstr("\r\nX-Host: yes\r\nRange: bytes=0-3\r\n"));

  // A handler's exception reaches the caller before anything is sent.
  ThrowingHandler thrower;
  qv::net::HttpRequestHandlerManager::RegisterHandler(&thrower);
  EXPECT_THROW(f.Read(0, 4, buffer.data()), std::runtime_error);
  qv::net::HttpRequestHandlerManager::UnregisterHandler(&thrower);
  EXPECT_EQ(heads.Get().size(), 1u);
}

}  // namespace
}  // namespace tq::test
