// The file protocol (ranged reads, file information, whole-file downloads) driven through every
// fault of a hostile server, and a download onto a disk that fills up: each call ends in its
// documented result (-1, a short count, false) and message within its time-out bound, and a
// failed download never leaves a partial file or replaces the file that was there.
#include "net/fileprotocol/http_file_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/faults/fault_fixture.h"
#include "tests/faults/fault_responder.h"
#include "tests/faults/file_size_limit.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

class FileProtocolFaultTest : public FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    protocol_ = static_cast<qv::net::HttpFileProtocol*>(
        TqUFileProtocolRegistry::Get()->Lookup(L"http"));
    ASSERT_NE(protocol_, nullptr);
  }

  // Every message posted since the last call, each from the protocol's component.
  std::vector<Posted> TakeLog() {
    std::vector<Posted> out;
    for (const TqULogRecord& r : log_.Records()) {
      EXPECT_EQ(r.component, "HttpFileProtocol") << r.text;
      out.push_back({r.severity, r.text});
    }
    log_.Clear();
    return out;
  }

  qv::net::HttpFileProtocol* protocol_ = nullptr;
};

TEST_F(FileProtocolFaultTest, RangedReadsEndInMinusOneOrAShortCountWithTheirMessage) {
  const std::string body = FaultBody(48 * 1024, 11);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    OpenedFile f(protocol_, server.Url("/ranged"));
    ASSERT_TRUE(f.ok());
    const std::string url = f.url_utf8();
    std::vector<unsigned char> buffer(body.size(), 0);

    const std::int64_t got = Bounded([&] { return f.Read(0, body.size(), buffer.data()); });
    const std::vector<Posted> posted = TakeLog();
    if (IsBodyFault(fault)) {
      // What arrived is in the buffer, exactly; nothing past it was touched.
      ASSERT_GE(got, 0);
      EXPECT_LE(static_cast<std::size_t>(got), body.size() / 2);
      if (fault != Fault::kResetMidBody) {
        EXPECT_EQ(static_cast<std::size_t>(got), body.size() / 2);
      }
      EXPECT_TRUE(std::string(buffer.begin(), buffer.begin() + got) == body.substr(0, got));
      EXPECT_TRUE(std::all_of(buffer.begin() + got, buffer.end(), [](unsigned char c) { return c == 0; }));
      EXPECT_THAT(posted, IsEmpty());
      // The exact form fails and says the data was partial.
      EXPECT_FALSE(Bounded([&] { return f.ReadExact(0, body.size(), buffer.data()); }));
      const std::vector<Posted> partial = TakeLog();
      ASSERT_EQ(partial.size(), 1u);
      EXPECT_EQ(partial[0].severity, 1);
      EXPECT_THAT(partial[0].text,
                  MatchesRegex("HttpFileProtocol::ReadFile InternetReadFile partial data for " +
                               std::string("http://127\\.0\\.0\\.1:[0-9]+/ranged: [0-9]+")));
    } else if (fault == Fault::kStallBeforeHead) {
      // Three sends, each timed out; the last ends the read without a message.
      EXPECT_EQ(got, -1);
      EXPECT_THAT(posted, IsEmpty());
      EXPECT_EQ(server.request_count(), 3u);
    } else if (fault == Fault::kTooManyRequests || fault == Fault::kBadGateway) {
      // No retry here: the status is simply not one the protocol handles.
      EXPECT_EQ(got, -1);
      const char* status = fault == Fault::kTooManyRequests ? "429" : "502";
      EXPECT_THAT(posted, ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpQueryInfo "
                                                "Unhandled Status Code for " + url + ": " +
                                                status}));
      EXPECT_EQ(server.request_count(), 1u);
      EXPECT_THAT(TakeSleeps(), IsEmpty());
    } else {
      EXPECT_EQ(got, -1);
      const int error = fault == Fault::kResetBeforeHead ? ERROR_INTERNET_CONNECTION_RESET
                                                         : ERROR_HTTP_INVALID_SERVER_RESPONSE;
      EXPECT_THAT(posted, ElementsAre(Posted{1, "HttpFileProtocol::ReadFile HttpSendRequest for " +
                                                url + " failed: " + std::to_string(error)}));
    }
  }
}

TEST_F(FileProtocolFaultTest, FileInformationFailsWithItsMessageAndRemembersNothing) {
  // Body faults do not apply: the information comes from a HEAD, which carries no body.
  for (const Fault fault : kAllFaults) {
    if (IsBodyFault(fault)) continue;
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, FaultBody(1000), "ETag: \"x\"\r\n");
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/info");
    const std::wstring wide = W(url);
    TqUFileInfo info;
    EXPECT_FALSE(Bounded([&] { return protocol_->GetFileInfo(wide.c_str(), &info); }));
    EXPECT_FALSE(info.GetFileSize().has_value());
    EXPECT_FALSE(info.GetFileRevisionId().has_value());
    const std::vector<Posted> posted = TakeLog();
    switch (fault) {
      case Fault::kTooManyRequests:
        EXPECT_THAT(posted, ElementsAre(Posted{5, "HttpFileProtocol::GetFileInfo HttpQueryInfo "
                                                  "Unhandled Status Code for " + url + ": 429"}));
        EXPECT_EQ(server.request_count(), 1u);
        break;
      case Fault::kBadGateway:
        // Sent again three times on the same request, then given up without a message.
        EXPECT_THAT(posted, IsEmpty());
        EXPECT_EQ(server.request_count(), 4u);
        break;
      default: {
        const DWORD error = fault == Fault::kResetBeforeHead     ? ERROR_INTERNET_CONNECTION_RESET
                            : fault == Fault::kStallBeforeHead ? ERROR_INTERNET_TIMEOUT
                                                               : ERROR_HTTP_INVALID_SERVER_RESPONSE;
        EXPECT_THAT(posted, ElementsAre(Posted{1, "HttpFileProtocol::GetFileInfo HttpSendRequest "
                                                  "for " + url + " failed: " +
                                                  std::to_string(error)}));
        EXPECT_EQ(server.request_count(), 1u);
      }
    }
    // Nothing was remembered: asking again goes to the server again.
    const std::size_t before = server.request_count();
    EXPECT_FALSE(Bounded([&] { return protocol_->GetFileInfo(wide.c_str(), &info); }));
    EXPECT_GT(server.request_count(), before);
    TakeLog();
  }
}

std::string FileBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Names(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(directory)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

TEST_F(FileProtocolFaultTest, AFailedDownloadKeepsTheOldFileAndLeavesNothingElse) {
  TempDir dir;
  const fs::path target = dir.path() / "keep.bin";
  const std::wstring wide_target = W(target.string());
  const std::string old_contents = "the old contents, never to be mixed with a new body";
  dir.WriteFile("keep.bin", old_contents);
  const std::string body = FaultBody(96 * 1024, 12);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    EXPECT_FALSE(Bounded(
        [&] { return protocol_->GetFile(W(server.Url("/file")).c_str(), wide_target.c_str(), nullptr); }));
    EXPECT_TRUE(FileBytes(target) == old_contents);
    EXPECT_THAT(Names(dir.path()), ElementsAre("keep.bin"));
    EXPECT_THAT(TakeLog(), IsEmpty());
  }
}

TEST_F(FileProtocolFaultTest, ADownloadOntoADiskThatFillsUpFailsWithoutAPartialFile) {
  TempDir dir;
  ScriptedServer server;
  ASSERT_TRUE(server.ok());
  const std::string body = FaultBody(512 * 1024, 13);
  server.Route("/big", ScriptedResponse(200, body));
  const std::wstring url = W(server.Url("/big"));
  const fs::path target = dir.path() / "keep.bin";
  const std::wstring wide_target = W(target.string());
  dir.WriteFile("keep.bin", "old");
  for (const std::uint64_t limit : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{64 * 1024},
                                    std::uint64_t{512 * 1024 - 1}}) {
    SCOPED_TRACE("file size limit " + std::to_string(limit));
    bool done = true;
    {
      FileSizeLimit full(limit);
      ASSERT_TRUE(full.ok());
      done = Bounded([&] { return protocol_->GetFile(url.c_str(), wide_target.c_str(), nullptr); });
    }
    EXPECT_FALSE(done);
    EXPECT_EQ(FileBytes(target), "old");
    EXPECT_THAT(Names(dir.path()), ElementsAre("keep.bin"));
  }
  // With room the same download succeeds and replaces the file whole.
  EXPECT_TRUE(protocol_->GetFile(url.c_str(), wide_target.c_str(), nullptr));
  EXPECT_TRUE(FileBytes(target) == body);
  EXPECT_THAT(Names(dir.path()), ElementsAre("keep.bin"));
  EXPECT_THAT(TakeLog(), IsEmpty());
}

}  // namespace
}  // namespace tq::test
