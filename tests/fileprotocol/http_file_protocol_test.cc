// Opening and ranged reads: bad input, platform failures, and answers that ignore or refuse the
// range (the fault suite drives the hostile servers).
#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/raw_responder.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using qv::net::HttpFileProtocol;

std::string Bytes(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131) & 0xFF);
  return s;
}

// Answers every request of a kept-alive connection with the same response; records the heads.
class Server {
 public:
  explicit Server(std::string response)
      : raw_([this, response](RawConnection& c) {
          for (std::string head; !(head = c.ReadRequestHead()).empty();) {
            {
              std::lock_guard lock(mutex_);
              heads_.push_back(head);
            }
            if (!c.Send(response)) return;
          }
        }) {}
  std::vector<std::string> heads() const {
    std::lock_guard lock(mutex_);
    return heads_;
  }
  std::string Url(const std::string& path) const { return raw_.Url(path); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> heads_;
  RawResponder raw_;  // last: its threads end before the heads go
};

using HttpFileProtocolTest = ProtocolTest;

TEST_F(HttpFileProtocolTest, BadUrlsNullAndForeignHandlesAreRefusedWithTheirMessage) {
  EXPECT_EQ(TqUFileProtocolRegistry::Get()->Lookup(L"HTTPS"), protocol_);
  TqUFileInfo info;
  for (const wchar_t* url : {L"not a url", static_cast<const wchar_t*>(nullptr)}) {
    EXPECT_EQ(protocol_->OpenFile(url, TqUFileProtocol::OpenRead), nullptr);
    EXPECT_FALSE(protocol_->GetFileInfo(url, &info));
  }
  EXPECT_EQ(protocol_->SetupReadFile(nullptr, 0, 1), nullptr);
  EXPECT_EQ(protocol_->CreateThreadHandle(nullptr), nullptr);
  EXPECT_THAT(TakeLog(), IsEmpty());

  // Memory that is no handle of this protocol is refused, never freed.
  Server server("HTTP/1.1 500 No\r\nContent-Length: 0\r\n\r\n");
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  alignas(8) unsigned char junk[64] = {1, 2, 3, 4};
  EXPECT_FALSE(protocol_->CloseFile(reinterpret_cast<TqUFileHandle*>(junk)));
  std::vector<unsigned char> buffer(4);
  TqUFileRequestHandle* request = protocol_->SetupReadFile(f.file(), 0, 4);
  EXPECT_FALSE(protocol_->ReadFile(f.file(), reinterpret_cast<TqUThreadHandle*>(junk), request, 0,
                                   4, buffer.data()));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(f.Read(UINT64_MAX, 2, buffer.data()), -1);
  protocol_->ReleaseRequestHandle(request);
  EXPECT_TRUE(server.heads().empty());
  EXPECT_THAT(TakeLog(),
              ElementsAre(Posted{1, "HttpFileProtocol::CloseFile invalid handle"},
                          Posted{1, "HttpFileProtocol::ReadFile invalid handle"},
                          Posted{1, "HttpFileProtocol::ReadFile invalid buffer or range for " +
                                        f.url_utf8()}));
}

TEST_F(HttpFileProtocolTest, FailedOpeningsArePosted) {
  ASSERT_TRUE(TqPlatformInjectFault("InternetOpenW", ERROR_INTERNET_INTERNAL_ERROR, 1, 0));
  EXPECT_EQ(protocol_->OpenFile(L"http://127.0.0.1:1/f", TqUFileProtocol::OpenRead), nullptr);
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", ERROR_INTERNET_NAME_NOT_RESOLVED, 1, 0));
  OpenedFile f(protocol_, "http://127.0.0.1:1/f");
  EXPECT_NE(f.file(), nullptr);
  EXPECT_EQ(f.thread(), nullptr);
  EXPECT_THAT(
      TakeLog(),
      ElementsAre(Posted{1, "HttpFileProtocol::OpenInetHandle InternetOpen failed: 12004"},
                  Posted{1, "HttpFileProtocol::CreateThreadHandle InternetConnect for "
                            "http://127.0.0.1:1/f failed: 12007"}));
}

TEST_F(HttpFileProtocolTest, UserAgentSetBeforeTheFirstOpenReplacesTheDefault) {
  Server server("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nabcd");
  std::vector<unsigned char> buffer(4);
  auto read_once = [&](HttpFileProtocol* protocol) {
    OpenedFile f(protocol, server.Url("/f"));
    EXPECT_TRUE(f.ReadExact(0, 4, buffer.data()));
  };
  read_once(protocol_);
  HttpFileProtocol fresh;
  fresh.SetUserAgentW(L"Host-\u00e9/2.0");
  read_once(&fresh);
  const auto heads = server.heads();
  ASSERT_EQ(heads.size(), 2u);
  EXPECT_THAT(heads[0], HasSubstr("\r\nUser-Agent: Torvik-Quillstone/23.1\r\n"));
  EXPECT_THAT(heads[1], HasSubstr("\r\nUser-Agent: Host-\xc3\xa9/2.0\r\n"));
}

TEST_F(HttpFileProtocolTest, RangesRefusedCutOrIgnoredByTheServer) {
  const std::string body = Bytes(900);
  struct Case {
    std::string response;
    std::uint64_t offset;
    std::int64_t count;
    std::uint64_t total;
    std::string bytes;
    std::vector<Posted> log;
  };
  const Case cases[] = {
      {"HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */900\r\n"
       "Content-Length: 0\r\n\r\n",
       1000, -1, 0, "", {{1, "HttpFileProtocol::ReadFile HttpQueryInfo Unhandled Status Code for "}}},
      {"HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 895-899/900\r\n"
       "Content-Length: 5\r\n\r\n" + body.substr(895),
       895, 5, 900, body.substr(895), {}},
      // The whole file from its start: the first bytes of the 200's body are the ones asked for.
      {"HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\n" + body, 0, 10, 900, body.substr(0, 10),
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.response.substr(0, 20));
    Server server(c.response);
    OpenedFile f(protocol_, server.Url("/f"));
    std::vector<unsigned char> buffer(10);
    std::uint64_t total = 0;
    EXPECT_EQ(f.Read(c.offset, 10, buffer.data(), &total), c.count);
    if (c.count >= 0) {
      EXPECT_EQ(total, c.total);
    }
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + c.bytes.size()), c.bytes);
    ASSERT_EQ(server.heads().size(), 1u);
    EXPECT_THAT(server.heads()[0], HasSubstr("\r\nRange: bytes=" + std::to_string(c.offset) +
                                             "-" + std::to_string(c.offset + 9) + "\r\n"));
    std::vector<Posted> log = c.log;
    if (!log.empty()) log[0].text += f.url_utf8() + ": 416";
    EXPECT_EQ(TakeLog(), log);
  }
}

TEST_F(HttpFileProtocolTest, ReadOf4GiBOrMoreAsksForEveryByte) {
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
  EXPECT_EQ(f.Read(0, size, buffer), 100);
  EXPECT_EQ(std::string(buffer, buffer + 100), body);
  munmap(memory, size);
  ASSERT_EQ(server.heads().size(), 1u);
  EXPECT_THAT(server.heads()[0], HasSubstr("\r\nRange: bytes=0-4294967311\r\n"));
}

TEST_F(HttpFileProtocolTest, SendTimeOutsAreRetriedAndAFailedRequestOpenReadsNothing) {
  Server server("HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-3/4\r\n"
                "Content-Length: 4\r\n\r\nabcd");
  OpenedFile f(protocol_, server.Url("/f"));
  ASSERT_TRUE(f.ok());
  std::vector<unsigned char> buffer(4);
  ASSERT_TRUE(TqPlatformInjectFault("HttpSendRequestW", ERROR_INTERNET_TIMEOUT, 2, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 4);
  EXPECT_EQ(TqPlatformInjectedFailures("HttpSendRequestW"), 2u);
  EXPECT_EQ(server.heads().size(), 1u);

  ASSERT_TRUE(TqPlatformInjectFault("HttpOpenRequestW", ERROR_INTERNET_OUT_OF_HANDLES, 1, 0));
  EXPECT_EQ(f.Read(0, 4, buffer.data()), 0);
  EXPECT_THAT(TakeLog(), ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpOpenRequest for " +
                                                   f.url_utf8() + " failed: 12001"}));
}

}  // namespace
}  // namespace tq::test
