// tqfetch run as a person runs it: its words on failure, its exit status, its help.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "tests/support/same_answer_server.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace {

struct Outcome {
  int status = -1;
  std::string output;  // stdout and stderr together
};

// Runs tqfetch with its disk cache in `cache_home`.
Outcome Tqfetch(const std::string& args, const std::filesystem::path& cache_home) {
  const std::string command = "XDG_CACHE_HOME='" + cache_home.string() + "' '" TQFETCH_PATH "' " +
                              args + " 2>&1 </dev/null";
  Outcome run;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return run;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) run.output.append(buffer, n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(TqfetchCliTest, AClosedPortIsReportedAsConnectionRefusedWithStatus1) {
  tq::test::TempDir home;
  const std::string url = "http://127.0.0.1:1/x";  // nothing listens there
  for (const std::string& command : {"fetch " + url, "info " + url, "range " + url + " 0 10",
                                    "download " + url + " " + (home.path() / "x").string()}) {
    const Outcome run = Tqfetch(command, home.path());
    EXPECT_EQ(run.status, 1) << command;
    // One line that names the URL and ends in the reason.
    EXPECT_EQ(run.output.rfind("tqfetch: ", 0), 0u) << command << ": " << run.output;
    EXPECT_NE(run.output.find(url), std::string::npos) << command << ": " << run.output;
    EXPECT_TRUE(run.output.ends_with(": connection refused\n")) << command << ": " << run.output;
  }
}

TEST(TqfetchCliTest, AnHttpFailureAndAnUntrustedCertificateAreNamed) {
  tq::test::TempDir home;
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const Outcome missing = Tqfetch("fetch " + server.Url("/missing"), home.path());
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.output.find(": HTTP 404 Not Found\n"), std::string::npos) << missing.output;

  // The reason is the failed request's own: a server that answers differently when asked again
  // (here 404 first, 503 after) is named by its first answer.
  const std::string changing = server.Url("/changing");
  for (const std::string& command :
       {"fetch " + changing, "info " + changing, "range " + changing + " 0 10",
        "download " + changing + " " + (home.path() / "changing").string()}) {
    auto answers = std::make_shared<std::atomic<int>>(0);
    server.Route("/changing", [answers](const tq::test::RecordedRequest&) {
      return tq::test::ScriptedResponse((*answers)++ == 0 ? 404 : 503);
    });
    const Outcome run = Tqfetch(command, home.path());
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_TRUE(run.output.ends_with(": HTTP 404 Not Found\n")) << command << ": " << run.output;
  }

  tq::test::TlsFiles tls;
  ASSERT_TRUE(tq::test::MakeSelfSignedCert(home.path(), "127.0.0.1", &tls));
  tq::test::ScriptedServer secure({tls.cert.string(), tls.key.string()});
  ASSERT_TRUE(secure.ok());
  secure.Route("/a", tq::test::ScriptedResponse(200, "a"));
  const Outcome untrusted = Tqfetch("fetch " + secure.Url("/a"), home.path());
  EXPECT_EQ(untrusted.status, 1);
  EXPECT_NE(untrusted.output.find(": certificate not trusted\n"), std::string::npos)
      << untrusted.output;
}

// What is written to standard output is the body, byte for byte (line ends included).
TEST(TqfetchCliTest, FetchAndRangeWriteTheBodyAsItCame) {
  tq::test::TempDir home;
  tq::test::ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body("a\nb\r\nc\x1a\0d\n", 10);
  server.Route("/f", tq::test::ScriptedResponse(200, body));
  const Outcome fetched = Tqfetch("fetch " + server.Url("/f"), home.path());
  EXPECT_EQ(fetched.status, 0);
  EXPECT_EQ(fetched.output, body);
  const Outcome range = Tqfetch("range " + server.Url("/f") + " 1 6", home.path());
  EXPECT_EQ(range.status, 0);
  EXPECT_EQ(range.output, body.substr(1, 6));

  // Output that cannot be written is a failure, not a success with the bytes lost.
  for (const std::string& command : {"fetch " + server.Url("/f") + " >/dev/full",
                                     "range " + server.Url("/f") + " 1 6 >/dev/full",
                                     "fetch " + server.Url("/f") + " -o /dev/full"}) {
    EXPECT_EQ(Tqfetch(command, home.path()).status, 1) << command;
  }

  // So do files, under the names given, whatever their characters.
  const std::filesystem::path file = home.path() / std::filesystem::path(u8"caf\u00e9 \u65e5.bin");
  for (const std::string& command :
       {"fetch " + server.Url("/f") + " -o", "download " + server.Url("/f")}) {
    std::filesystem::remove(file);
    const Outcome run = Tqfetch(command + " '" + file.string() + "'", home.path());
    EXPECT_EQ(run.status, 0) << command << ": " << run.output;
    std::ifstream in(file, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), body) << command;
  }
}

// A server's text reaches the terminal without the control characters that would steer it.
TEST(TqfetchCliTest, InfoShowsTheServersTextWithoutControlCharacters) {
  tq::test::TempDir home;
  tq::test::SameAnswerServer server(
      "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nETag: \"a\x1b]0;title\x07\x1b[2Jb\"\r\n\r\nabcd");
  ASSERT_TRUE(server.ok());
  const Outcome run = Tqfetch("info " + server.Url("/f"), home.path());
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.output.find("  revision  \"a\\x1b]0;title\\x07\\x1b[2Jb\"\n"), std::string::npos)
      << run.output;
}

TEST(TqfetchCliTest, HelpVersionAndUsageErrors) {
  tq::test::TempDir home;
  const Outcome help = Tqfetch("--help", home.path());
  EXPECT_EQ(help.status, 0);
  for (const char* part : {"fetch URL", "download URL FILE", "exit status", "0  success",
                           "1  a network, HTTP or file failure", "2  a usage error"}) {
    EXPECT_NE(help.output.find(part), std::string::npos) << part;
  }
  const Outcome version = Tqfetch("--version", home.path());
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.output.rfind("tqfetch ", 0), 0u) << version.output;

  for (const char* wrong : {"--bogus", "fetch", "range http://127.0.0.1:1/ x 1", "cache empty"}) {
    const Outcome run = Tqfetch(wrong, home.path());
    EXPECT_EQ(run.status, 2) << wrong;
    EXPECT_NE(run.output.find("usage: tqfetch"), std::string::npos) << wrong;
  }
}

}  // namespace
