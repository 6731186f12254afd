// URL downloads and the connections they use.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/urlmon.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using namespace tq::test;

// A redirect's small body is read to its end so that its connection serves the next hop: a
// download led elsewhere on the same server goes on the connection it came on.
TEST(UrlDownloadTest, ARedirectOnTheSameServerIsFollowedOnTheSameConnection) {
  RawResponder server([](RawConnection& c) {
    for (std::string head; !(head = c.ReadRequestHead()).empty();) {
      c.Send(head.starts_with("GET /moved ")
                 ? "HTTP/1.1 302 Found\r\nLocation: /file\r\nContent-Length: 5\r\n\r\nmoved"
                 : "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody");
    }
  });
  ASSERT_TRUE(server.ok());
  TempDir dir;
  const std::string url = server.Url("/moved");
  const std::filesystem::path target = dir.path() / "file";
  ASSERT_EQ(URLDownloadToFileW(nullptr, std::wstring(url.begin(), url.end()).c_str(),
                               target.wstring().c_str(), 0, nullptr),
            S_OK);
  std::ifstream in(target, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "body");
  EXPECT_EQ(server.connection_count(), 1u);
}

}  // namespace
