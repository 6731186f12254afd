// Names that reach the file system or a server through the stream layer's calls for files and
// URLs.
#include "net/stream/open_file_or_url.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "net/stream/url_reading.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/read_all.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using namespace std::string_literals;

// Each test has a directory of its own: the cases run as processes side by side.
class StreamNamesTest : public tq::test::FakeTransportTest {
 protected:
  std::wstring Dir() const {
    const std::u8string text = m_dir.u8string();
    return qv::Utf8ToWide(std::string(text.begin(), text.end()));
  }
  tq::test::TempDir m_temp;
  const std::filesystem::path m_dir = m_temp.path();
};

// A wide name that no UTF-8 (or UTF-16) text can hold became U+FFFD on its way to the file
// system, so it opened the file of that name: another file than the one named.
TEST_F(StreamNamesTest, AnIllFormedWideNameOpensNoFileNamedWithTheReplacementCharacter) {
  std::ofstream(m_dir / std::filesystem::path(u8"x\uFFFD"), std::ios::binary) << "another file";
  ASSERT_NE(qv::net::OpenFileOrUrl(Dir() + L"/x\uFFFD", 0, {}), nullptr);
  for (const std::wstring& name :
       {Dir() + L"/x\xD800", Dir() + L"/x\xDC00", L"file://" + Dir() + L"/x\xD800"}) {
    const auto stream = qv::net::OpenFileOrUrl(name, 0, {});
    EXPECT_EQ(stream ? tq::test::ReadAll(*stream) : "", "");
  }
}

// A URL is handed on as a C string, which ends at a NUL inside it: the part before the NUL was
// fetched, another file or resource than the one named. The local path is refused already.
TEST_F(StreamNamesTest, AUrlHoldingANulFetchesNothing) {
  std::ofstream(m_dir / "a", std::ios::binary) << "another file";
  const std::wstring file_url = L"file://" + Dir() + L"/a\0b"s;
  const std::wstring http_url = L"http://example.test/a\0b"s;
  EXPECT_EQ(qv::net::OpenFileOrUrl(file_url, 0, {}), nullptr);
  EXPECT_EQ(qv::net::ReadUrlIntoMemory(file_url, {}), nullptr);
  EXPECT_EQ(qv::net::OpenFileOrUrl(http_url, 0, {}), nullptr);
  EXPECT_THROW(qv::net::HttpReadStream::Open(http_url, 0, {}), qv::net::http_exception);
  EXPECT_TRUE(m_api.Sent().empty());
}

}  // namespace
