// Whole-file downloads of an answer whose body ends before the length it names.
#include "net/fileprotocol/http_file_protocol.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

// Regression: where the URL Moniker ends a download that the server cut short as it ends a
// whole one (Wine's does, with S_OK), the half-written file was handed to the host as the
// download. The callback has seen the length the server named and the bytes that came.
TEST_F(ProtocolTest, ADownloadCutBeforeItsContentLengthFailsAndLeavesNoFile) {
  RawResponder server([](RawConnection& connection) {
    connection.ReadRequestHead();
    connection.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(500, 'x'));
    connection.Close();
  });
  ASSERT_TRUE(server.ok());
  TempDir dir;
  const std::filesystem::path target = dir.path() / "cut.bin";
  RecordedProgress progress;
  EXPECT_FALSE(protocol_->GetFile(W(server.Url("/cut.bin")).c_str(), target.wstring().c_str(),
                                  &progress));
  EXPECT_FALSE(std::filesystem::exists(target));
  TqUWideStringBuffer path;
  path.SetString(L"untouched");
  EXPECT_FALSE(protocol_->GetFileToCache(W(server.Url("/cut2.bin")).c_str(), nullptr, &path));
  EXPECT_EQ(std::wstring(path.View()), L"untouched");
  EXPECT_EQ(progress.values.back(), 1.0);
}

}  // namespace
}  // namespace tq::test
