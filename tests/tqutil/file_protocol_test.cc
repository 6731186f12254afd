#include "tqutil/file_protocol.h"

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"
#include "tqutil/file_url.h"

namespace {

std::wstring Absolute(const wchar_t* path, const wchar_t* base, const wchar_t* directory) {
  TqUWideStringBuffer out(L"untouched");
  if (!TqUFileProtocol::ResolveAbsoluteFileOrURL(path, base, directory, &out)) return L"<fail>";
  return std::wstring(out.View());
}

TEST(FileProtocolTest, ResolveAbsoluteFileOrUrl) {
  EXPECT_EQ(Absolute(L"/abs/file", L"http://h/", L"/dir"), L"/abs/file");
  EXPECT_EQ(Absolute(L"..\\up.png", L"http://h/docs/page.html", nullptr), L"http://h/up.png");
  EXPECT_EQ(Absolute(L"b.txt", L"sub/a.txt", L"/dir"), L"/dir/sub/b.txt");
  EXPECT_EQ(Absolute(L"b.txt", nullptr, nullptr), L"<fail>");
  EXPECT_EQ(Absolute(nullptr, L"http://h/", nullptr), L"<fail>");
}

TEST(FileProtocolRegistryTest, CountedLifetimeAndCaseInsensitiveSchemes) {
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
  TqUFileProtocolRegistry::Initialise();
  TqUFileProtocolRegistry::Initialise();
  TqUFileProtocolRegistry* registry = TqUFileProtocolRegistry::Get();
  ASSERT_NE(registry, nullptr);
  TqUFileProtocol http, other;
  EXPECT_TRUE(registry->Register(L"HTTP", &http));
  EXPECT_FALSE(registry->Register(L"http", &other)) << "the first registration stays";
  EXPECT_FALSE(registry->Register(nullptr, &other));
  EXPECT_EQ(registry->Lookup(L"Http"), &http);
  EXPECT_EQ(registry->Unregister(L"hTTp"), &http);
  EXPECT_EQ(registry->Lookup(L"http"), nullptr);

  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), registry) << "still counted once";
  TqUFileProtocolRegistry::Terminate();
  TqUFileProtocolRegistry::Terminate();  // an extra terminate is harmless
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
}

TEST(FileInfoCacheTest, ForgetsTheLeastRecentlyUsed) {
  TqUFileInfoCache cache(2);
  TqUFileInfo a, b, out;
  a.SetFileSize(1);
  cache.Add(L"a", a);
  cache.Add(L"b", b);
  ASSERT_TRUE(cache.Lookup(L"a", &out));  // "a" is now the most recent
  EXPECT_EQ(out.GetFileSize(), 1u);
  cache.Add(L"c", b);
  EXPECT_EQ(cache.Size(), 2u);
  EXPECT_FALSE(cache.Lookup(L"b", &out));
  EXPECT_TRUE(cache.Lookup(L"a", nullptr));
}

TEST(FileUrlTest, OpensFileUrlsWithATagFromSizeAndTime) {
  tq::test::TempDir dir;
  std::ofstream(dir / "caf\xC3\xA9 x.txt", std::ios::binary) << "contents";
  const std::wstring url =
      L"file://" + qv::Utf8ToWide(dir.Path().string()) + L"/caf%C3%A9%20x.txt";
  auto s = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(s);
  char buffer[16];
  EXPECT_EQ(std::string(buffer, s->Read(buffer, sizeof buffer)), "contents");
  const auto meta = s->MetaData();
  ASSERT_TRUE(meta.size && meta.etag && meta.modified);
  EXPECT_EQ(*meta.etag, "8-" + std::to_string(*meta.modified));
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"file://otherhost/etc/hostname", {}));
  EXPECT_EQ(TqUFileURL::GetURLType(L"C:\\x"), 0);
  EXPECT_NE(TqUFileURL::GetURLType(L"a+b.c-d:x"), 0);

  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";
}

}  // namespace
