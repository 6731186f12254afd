#include "tqutil/file_url.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"
#include "tqutil/strings.h"

namespace {

TEST(FileUrlTest, UrlTypeTellsLocalPathsFromUrls) {
  for (const wchar_t* local : {L"/x", L"x/y", L"C:\\x", L"C:/x", L"c:", L"\\\\server\\share",
                               L"", L"1a:b", L":x", L"a b:c"}) {
    EXPECT_EQ(TqUFileURL::GetURLType(local), 0) << qv::WideToUtf8(local);
  }
  EXPECT_EQ(TqUFileURL::GetURLType(nullptr), 0);
  for (const wchar_t* url : {L"http://h/", L"https:", L"file:///x", L"qvcache://n", L"a+b.c-d:x"}) {
    EXPECT_NE(TqUFileURL::GetURLType(url), 0) << qv::WideToUtf8(url);
  }
}

TEST(FileUrlTest, OpensFileUrlsWithATagFromSizeAndTime) {
  tq::test::TempDir dir;
  const auto path = dir / "caf\xC3\xA9 x.txt";
  std::ofstream(path, std::ios::binary) << "contents";
  const std::wstring url =
      L"file://" + qv::Utf8ToWide(dir.Path().string()) + L"/caf%C3%A9%20x.txt";
  auto s = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(s);
  char buffer[16];
  EXPECT_EQ(s->Read(buffer, sizeof buffer), 8u);
  EXPECT_EQ(std::string(buffer, 8), "contents");
  const auto meta = s->MetaData();
  ASSERT_TRUE(meta.size && meta.etag && meta.modified);
  EXPECT_EQ(*meta.size, 8u);
  EXPECT_EQ(*meta.etag, "8-" + std::to_string(*meta.modified));

  // The same file written as an IRI and with "localhost" opens too.
  const std::wstring iri = L"file://localhost" + qv::Utf8ToWide(dir.Path().string()) +
                           L"/caf\u00E9 x.txt";
  EXPECT_TRUE(TqUFileURL::OpenURLReadStream(iri.c_str(), {}));

  // A changed size changes the tag.
  std::ofstream(path, std::ios::binary) << "longer contents";
  auto again = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(again);
  EXPECT_NE(*again->MetaData().etag, *meta.etag);

  const std::wstring directory = L"file://" + qv::Utf8ToWide(dir.Path().string());
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(directory.c_str(), {}));
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"http://127.0.0.1/", {}));
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"file://otherhost/etc/hostname", {}));
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(nullptr, {}));

  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";
}

}  // namespace
