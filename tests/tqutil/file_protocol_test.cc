#include "tqutil/file_protocol.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::wstring Absolute(const wchar_t* path, const wchar_t* base, const wchar_t* directory) {
  TqUWideStringBuffer out(L"untouched");
  if (!TqUFileProtocol::ResolveAbsoluteFileOrURL(path, base, directory, &out)) return L"<fail>";
  return std::wstring(out.View());
}

TEST(FileProtocolTest, ResolveAbsoluteFileOrUrl) {
  EXPECT_EQ(Absolute(L"http://h/x", L"http://other/", nullptr), L"http://h/x");
  EXPECT_EQ(Absolute(L"/abs/file", L"http://h/", L"/dir"), L"/abs/file");
  EXPECT_EQ(Absolute(L"C:\\abs", nullptr, nullptr), L"C:\\abs");
  EXPECT_EQ(Absolute(L"img/a.png", L"http://h/docs/page.html?q", nullptr),
            L"http://h/docs/img/a.png");
  EXPECT_EQ(Absolute(L"..\\up.png", L"http://h/docs/page.html", nullptr), L"http://h/up.png");
  EXPECT_EQ(Absolute(L"b.txt", L"/data/a.txt", L"/ignored"), L"/data/b.txt");
  EXPECT_EQ(Absolute(L"b.txt", L"C:\\data\\a.txt", nullptr), L"C:\\data\\b.txt");
  EXPECT_EQ(Absolute(L"b.txt", L"sub/a.txt", L"/dir"), L"/dir/sub/b.txt");
  EXPECT_EQ(Absolute(L"b.txt", nullptr, L"/dir/"), L"/dir/b.txt");
  EXPECT_EQ(Absolute(L"b.txt", L"", L"/dir"), L"/dir/b.txt");
  EXPECT_EQ(Absolute(L"b.txt", nullptr, nullptr), L"<fail>");
  EXPECT_EQ(Absolute(L"b.txt", L"sub/a.txt", nullptr), L"<fail>");
  EXPECT_EQ(Absolute(nullptr, L"http://h/", nullptr), L"<fail>");
  EXPECT_EQ(Absolute(L"a b", L"http://h/", nullptr), L"<fail>");
}

// Run from several threads too: the registry and the cache are shared by every open.
void OnThreads(int threads, const std::function<void(int)>& run) {
  std::vector<std::thread> started;
  for (int t = 0; t < threads; ++t) started.emplace_back(run, t);
  for (auto& th : started) th.join();
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
  EXPECT_EQ(registry->Lookup(L"https"), nullptr);
  EXPECT_EQ(registry->Unregister(L"hTTp"), &http);
  EXPECT_EQ(registry->Unregister(L"http"), nullptr);

  std::atomic<int> registered{0};  // each of 64 schemes registered once by 4 threads at once
  OnThreads(4, [&](int) {
    for (int i = 0; i < 64; ++i) {
      registered += registry->Register((L"s" + std::to_wstring(i)).c_str(), &other);
    }
  });
  EXPECT_EQ(registered, 64);

  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), registry) << "still counted once";
  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
  TqUFileProtocolRegistry::Terminate();  // an extra terminate is harmless
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
}

TEST(FileInfoCacheTest, ForgetsTheLeastRecentlyUsed) {
  TqUFileInfoCache cache(2);
  TqUFileInfo a, b, c, out;
  a.SetFileSize(1);
  b.SetFileModificationTime(-5);
  c.SetFileRevisionId(L"rev");
  cache.Add(L"a", a);
  cache.Add(L"b", b);
  ASSERT_TRUE(cache.Lookup(L"a", &out));  // "a" is now the most recent
  EXPECT_EQ(out.GetFileSize(), 1u);
  EXPECT_FALSE(out.GetFileModificationTime());
  cache.Add(L"c", c);
  EXPECT_EQ(cache.Size(), 2u);
  EXPECT_FALSE(cache.Lookup(L"b", &out)) << "the least recently used went";
  ASSERT_TRUE(cache.Lookup(L"c", &out));
  EXPECT_EQ(out.GetFileRevisionId(), L"rev");
  EXPECT_TRUE(cache.Lookup(L"a", nullptr));
  cache.Add(L"c", a);  // replacing refreshes without growing
  EXPECT_EQ(cache.Size(), 2u);
  ASSERT_TRUE(cache.Lookup(L"c", &out));
  EXPECT_EQ(out.GetFileSize(), 1u);
  EXPECT_FALSE(cache.Lookup(nullptr, &out));
  TqUFileInfoCache none(0);
  none.Add(L"a", a);
  EXPECT_EQ(none.Size(), 0u);

  TqUFileInfoCache shared(30);  // concurrent use keeps the bound
  OnThreads(4, [&](int t) {
    TqUFileInfo info, got;
    for (int i = 0; i < 500; ++i) {
      const std::wstring name = std::to_wstring((i * 7 + t) % 50);
      info.SetFileSize(static_cast<std::uint64_t>(i));
      shared.Add(name.c_str(), info);
      shared.Lookup(name.c_str(), &got);
    }
  });
  EXPECT_EQ(shared.Size(), 30u);
}

}  // namespace
