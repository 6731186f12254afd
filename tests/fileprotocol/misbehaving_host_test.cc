// Host code that misbehaves around the file protocol: texts it sets that would break a request.
#include "net/fileprotocol/http_file_protocol.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

// Regression: a user agent holding a line break went to the internet handle as it was: a
// header injected into every request where the transport sends it verbatim, and no file opened
// at all where it refuses it.
TEST_F(ProtocolTest, AUserAgentThatWouldBreakTheHeaderLineIsRefused) {
  ScriptedServer server;
  server.Route("/f", ScriptedResponse(200, "file"));
  protocol_->SetUserAgentU("Host/2.0\r\nX-Injected: 1");
  {
    OpenedFile f(protocol_, server.Url("/f"));
    ASSERT_TRUE(f.ok());
    std::string got(4, '\0');
    EXPECT_EQ(f.Read(0, 4, reinterpret_cast<unsigned char*>(got.data())), 4);
    EXPECT_EQ(got, "file");
  }
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].Header("User-Agent"), "Torvik-Quillstone/23.1");
  EXPECT_EQ(requests[0].Header("X-Injected"), std::nullopt);
}

}  // namespace
}  // namespace tq::test
