#include "tqutil/file_streams.h"

#include <fstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tests/tqutil/temp_dir.h"

namespace {

using qv::io::FileReadStream;
using qv::io::FileWriteStream;
using qv::io::StreamPosition;

std::string ReadAll(qv::io::IDataReadStream& s, std::uint64_t chunk) {
  std::string out;
  std::string buffer(chunk, '\0');
  while (const auto n = s.Read(buffer.data(), chunk)) out.append(buffer.data(), n);
  return out;
}

// Create is OpenFile for a sharing reader, whose refusals the TqUSysFile tests cover.
TEST(FileReadStreamTest, ReadersShareTheFileAndTheBaseOffsetIsPositionZero) {
  tq::test::TempDir dir;
  std::ofstream(dir / "f", std::ios::binary) << "HEADER|body bytes";
  EXPECT_FALSE(FileReadStream::Create(dir / "missing"));
  auto whole = FileReadStream::Create(dir / "f");  // open throughout: the others share the file
  ASSERT_TRUE(whole);
  EXPECT_EQ(*whole->MetaData().size, 17u);
  EXPECT_EQ(ReadAll(*whole, 3), "HEADER|body bytes");
  for (std::uint64_t chunk : {1u, 2u, 5u, 64u}) {
    auto s = FileReadStream::Create(dir / "f");
    ASSERT_TRUE(s);
    s->SetBaseOffset(7);
    EXPECT_EQ(*s->MetaData().size, 10u);
    EXPECT_EQ(s->RTell(), 0u);
    EXPECT_EQ(ReadAll(*s, chunk), "body bytes") << chunk;
    EXPECT_EQ(s->RTell(), 10u);
    EXPECT_EQ(s->RSeek(0, StreamPosition::Begin), 0u);
    EXPECT_EQ(s->RSeek(-5, StreamPosition::End), 5u);
    EXPECT_EQ(ReadAll(*s, chunk), "bytes");
    EXPECT_EQ(s->RSeek(-6, StreamPosition::Current), 4u);
    EXPECT_EQ(ReadAll(*s, chunk), " bytes");
    EXPECT_THROW(s->RSeek(-1, StreamPosition::Begin), std::runtime_error);
    EXPECT_THROW(s->RSeek(-11, StreamPosition::End), std::runtime_error);
    EXPECT_EQ(s->RTell(), 10u) << "a refused seek leaves the position";
    EXPECT_EQ(s->RSeek(2, StreamPosition::Begin), 2u);
    EXPECT_EQ(ReadAll(*s, chunk), "dy bytes");
  }
  auto s = FileReadStream::Create(dir / "f");
  s->SetBaseOffset(100);
  EXPECT_EQ(*s->MetaData().size, 0u) << "a base beyond the end leaves nothing";
  char c;
  EXPECT_EQ(s->Read(&c, 1), 0u);

  FileReadStream invalid(TqUSysFile::kInvalid);
  EXPECT_THROW(invalid.Read(&c, 1), std::runtime_error);
  EXPECT_FALSE(invalid.MetaData().size);
}

TEST(FileWriteStreamTest, WritesFromTheBaseOffsetAndOwnsTheFile) {
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
    EXPECT_EQ(w.WTell(), 0u);
    EXPECT_EQ(w.Write("abcdef", 6), 6u);
    EXPECT_EQ(w.WTell(), 6u);
    EXPECT_EQ(w.WSeek(1, StreamPosition::Begin), 1u);
    EXPECT_EQ(w.Write("B", 1), 1u);
    EXPECT_EQ(w.WSeek(0, StreamPosition::End), 6u);
    EXPECT_EQ(w.Write("!", 1), 1u);
    EXPECT_THROW(w.WSeek(-1, StreamPosition::Begin), std::runtime_error);
    // The stream holds the file: nobody else may open it.
    EXPECT_FALSE(FileReadStream::Create(path));
  }
  auto r = FileReadStream::Create(path);
  ASSERT_TRUE(r) << "the stream closed its file";
  EXPECT_EQ(ReadAll(*r, 4), "HDRaBcdef!");

  if (std::filesystem::exists("/dev/full")) {
    FileWriteStream full(TqUSysFile::OpenFile("/dev/full", TqUSysFile::kAccessWrite,
                                              TqUSysFile::kShareRead,
                                              TqUSysFile::kOpenExistingWrite, 0, 0));
    EXPECT_THROW(full.Write("x", 1), std::runtime_error);
  }
}

}  // namespace
