// The stream layer against a loopback server whose framing lies, through the real transport.
#include <gtest/gtest.h>

#include <string>

#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "tests/support/read_all.h"
#include "tests/support/same_answer_server.h"

namespace {

// Regression: a 200 announcing two different lengths was served (the bytes of one framing,
// which a proxy on the way may have read with the other). The copies are told apart through
// the system's own indexed header query, which a fake transport cannot stand for.
TEST(HostileNet, DifferingContentLengthsServeNothing) {
  qv::net::IHttpApi* previous = qv::net::SetHttpApi(new qv::net::WinInet());
  tq::test::SameAnswerServer responder(
      "HTTP/1.1 200 OK\r\nContent-Length: 400\r\nContent-Length: 10\r\n\r\n" +
      std::string(400, 'x'));
  ASSERT_TRUE(responder.ok());
  const std::wstring url = qv::Utf8ToWide(responder.Url("/twice"));
  auto stream = qv::net::HttpReadStream::Open(url, 0, {});
  EXPECT_FALSE(stream->Succeeded());
  EXPECT_EQ(tq::test::ReadAll(*stream), "");
  stream.reset();
  // Without a cache the URL is read into memory: nothing of the body comes out (an empty
  // stream, as for any answer that is not used, or none at all).
  auto opened = qv::net::OpenFileOrUrl(url, 0, {});
  if (opened) {
    EXPECT_EQ(tq::test::ReadAll(*opened), "");
  }
  qv::net::HttpConnectionPool::Terminate();
  delete qv::net::SetHttpApi(previous);
}

}  // namespace
