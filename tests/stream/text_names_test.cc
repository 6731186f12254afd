// Names that reach the file system through the stream layer's one call for files and URLs.
#include "net/stream/open_file_or_url.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/read_all.h"

namespace {

// A wide name that no UTF-8 (or UTF-16) text can hold became U+FFFD on its way to the file
// system, so it opened the file of that name: another file than the one named.
TEST(OpenFileOrUrlNamesTest, AnIllFormedWideNameOpensNoFileNamedWithTheReplacementCharacter) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "tq_text_names";
  std::filesystem::create_directories(dir);
  const std::filesystem::path planted = dir / std::filesystem::path(u8"x\uFFFD");
  std::ofstream(planted, std::ios::binary) << "not the file named";
  const std::wstring wide_dir = qv::Utf8ToWide(dir.string());
  ASSERT_NE(qv::net::OpenFileOrUrl(wide_dir + L"/x\uFFFD", 0, {}), nullptr);
  for (const std::wstring& name : {wide_dir + L"/x\xD800", wide_dir + L"/x\xDC00",
                                   L"file://" + wide_dir + L"/x\xD800"}) {
    const auto stream = qv::net::OpenFileOrUrl(name, 0, {});
    EXPECT_EQ(stream ? tq::test::ReadAll(*stream) : "", "");
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
