#include "tqutil/streams.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"
#include "tqutil/file_protocol.h"
#include "tqutil/file_streams.h"
#include "tqutil/file_url.h"

namespace {

using qv::io::FileReadStream;
using qv::io::FileWriteStream;
using qv::io::MemoryStream;
using qv::io::StreamPosition;

std::string ReadAll(qv::io::IDataReadStream& s, std::uint64_t chunk) {
  std::string out;
  std::string buffer(chunk, '\0');
  while (const auto n = s.Read(buffer.data(), chunk)) out.append(buffer.data(), n);
  return out;
}

TEST(MemoryStreamTest, StreamsOverOneSinkKeepTheirOwnPositions) {
  auto first = std::make_unique<MemoryStream>();
  first->Write("abcdef", 6);
  MemoryStream second(first->Sink());
  char buffer[3];
  ASSERT_EQ(second.Read(buffer, 2), 2u);
  EXPECT_EQ(ReadAll(*first, 4), "abcdef");
  first->Write("gh", 2);
  first.reset();  // the sink outlives the writer
  EXPECT_EQ(ReadAll(second, 3), "cdefgh");
  EXPECT_EQ(second.RSeek(-5, StreamPosition::End), 3u);
  EXPECT_EQ(second.RSeek(1, StreamPosition::Current), 4u);
  EXPECT_EQ(ReadAll(second, 1), "efgh");
  EXPECT_THROW(second.RSeek(-1, StreamPosition::Begin), std::runtime_error);
  EXPECT_EQ(second.RTell(), 8u) << "a refused seek leaves the position";
  EXPECT_THROW(second.Write(nullptr, 1), std::runtime_error);
}

TEST(FileStreamTest, BaseOffsetIsPositionZeroAndFileUrlsOpenTheSameBytes) {
  tq::test::TempDir dir;
  const auto path = dir / "f";
  {
    TqUSysFile::Handle h = TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite,
                                                TqUSysFile::kShareNone,
                                                TqUSysFile::kCreateAlways, 0, 0);
    ASSERT_TRUE(h);
    std::uint64_t n = 0;
    ASSERT_TRUE(TqUSysFile::WriteFile(h, "HDR", 3, &n));
    FileWriteStream w(h);
    w.SetBaseOffset(3);
    EXPECT_EQ(w.Write("abcdef", 6), 6u);
    EXPECT_EQ(w.WSeek(1, StreamPosition::Begin), 1u);
    EXPECT_EQ(w.Write("B", 1), 1u);
    EXPECT_FALSE(FileReadStream::Create(path)) << "the stream holds the file";
  }
  EXPECT_FALSE(FileReadStream::Create(dir / "missing"));
  auto whole = FileReadStream::Create(path);  // open throughout: readers share the file
  ASSERT_TRUE(whole);
  EXPECT_EQ(ReadAll(*whole, 4), "HDRaBcdef");
  auto s = FileReadStream::Create(path);
  ASSERT_TRUE(s);
  s->SetBaseOffset(3);
  EXPECT_EQ(*s->MetaData().size, 6u);
  EXPECT_EQ(ReadAll(*s, 4), "aBcdef");
  EXPECT_EQ(s->RSeek(-2, StreamPosition::End), 4u);
  EXPECT_THROW(s->RSeek(-7, StreamPosition::End), std::runtime_error);

  const std::wstring url = L"file://" + qv::Utf8ToWide(dir.Path().string()) + L"/%66";
  auto u = TqUFileURL::OpenURLReadStream(url.c_str(), {});
  ASSERT_TRUE(u);
  EXPECT_EQ(ReadAll(*u, 4), "HDRaBcdef");
  const auto meta = u->MetaData();
  ASSERT_TRUE(meta.etag && meta.modified);
  EXPECT_EQ(*meta.etag, "9-" + std::to_string(*meta.modified)) << "a tag from size and time";
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(L"file://otherhost/etc/hostname", {}));
  qv::stop_source stop;
  stop.request_stop();
  EXPECT_FALSE(TqUFileURL::OpenURLReadStream(url.c_str(), stop.get_token()))
      << "a stopped open does not start";

  if (std::filesystem::exists("/dev/full")) {
    FileWriteStream full(TqUSysFile::OpenFile("/dev/full", TqUSysFile::kAccessWrite,
                                              TqUSysFile::kShareRead,
                                              TqUSysFile::kOpenExistingWrite, 0, 0));
    EXPECT_THROW(full.Write("x", 1), std::runtime_error);
  }
}

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
  EXPECT_EQ(registry->Lookup(L"Http"), &http);
  EXPECT_EQ(registry->Unregister(L"hTTp"), &http);
  EXPECT_EQ(registry->Lookup(L"http"), nullptr);

  TqUFileProtocolRegistry::Terminate();
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), registry) << "still counted once";
  TqUFileProtocolRegistry::Terminate();
  TqUFileProtocolRegistry::Terminate();  // an extra terminate is harmless
  EXPECT_EQ(TqUFileProtocolRegistry::Get(), nullptr);
}

}  // namespace
