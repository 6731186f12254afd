#include "tqutil/streams.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

namespace {

using qv::io::MemoryStream;
using qv::io::StreamPosition;

std::string ReadAll(qv::io::IDataReadStream& s, std::uint64_t chunk) {
  std::string out;
  std::string buffer(chunk, '\0');
  while (const auto n = s.Read(buffer.data(), chunk)) out.append(buffer.data(), n);
  return out;
}

TEST(MemoryStreamTest, WriteThenReadAndSeekAtEveryChunkSize) {
  MemoryStream s(1024);
  EXPECT_EQ(s.Size(), 0u);
  EXPECT_EQ(s.Write("hello ", 6), 6u);
  EXPECT_EQ(s.Write("world", 5), 5u);
  EXPECT_EQ(*s.MetaData().size, 11u);
  EXPECT_FALSE(s.MetaData().etag);
  for (std::uint64_t chunk = 1; chunk <= 12; ++chunk) {
    EXPECT_EQ(s.RSeek(0, StreamPosition::Begin), 0u);
    EXPECT_EQ(ReadAll(s, chunk), "hello world") << chunk;
  }
  EXPECT_EQ(s.RSeek(-5, StreamPosition::End), 6u);
  EXPECT_EQ(s.RSeek(1, StreamPosition::Current), 7u);
  EXPECT_EQ(ReadAll(s, 3), "orld");
  EXPECT_EQ(s.RSeek(100, StreamPosition::Begin), 100u);  // past the end reads nothing
  char c;
  EXPECT_EQ(s.Read(&c, 1), 0u);
  EXPECT_THROW(s.RSeek(-1, StreamPosition::Begin), std::runtime_error);
  EXPECT_THROW(s.RSeek(-12, StreamPosition::End), std::runtime_error);
  EXPECT_EQ(s.RTell(), 100u) << "a refused seek leaves the position";
}

TEST(MemoryStreamTest, StreamsOverOneSinkKeepTheirOwnPositions) {
  auto first = std::make_unique<MemoryStream>();
  first->Write("abcdef", 6);
  std::shared_ptr<qv::io::MemorySink> sink = first->Sink();
  MemoryStream second(sink);
  MemoryStream third(sink);
  char buffer[3];
  ASSERT_EQ(second.Read(buffer, 2), 2u);
  EXPECT_EQ(std::string(buffer, 2), "ab");
  EXPECT_EQ(third.RTell(), 0u);
  EXPECT_EQ(ReadAll(third, 4), "abcdef");
  EXPECT_EQ(first->RTell(), 0u);

  // Bytes written through any stream are seen by all; the sink outlives the writer.
  first->Write("gh", 2);
  first.reset();
  EXPECT_EQ(ReadAll(second, 3), "cdefgh");
  EXPECT_EQ(sink.use_count(), 3);
  EXPECT_EQ(second.Size(), 8u);

  MemoryStream fresh(std::shared_ptr<qv::io::MemorySink>{});
  EXPECT_EQ(fresh.Size(), 0u) << "a null sink starts an empty one";
  EXPECT_THROW(fresh.Write(nullptr, 1), std::runtime_error);
}

}  // namespace
