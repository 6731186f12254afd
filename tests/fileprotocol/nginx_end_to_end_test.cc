// The file protocol against nginx, the real-world peer, byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

constexpr std::uint64_t kFileSize = 64ull << 20;

class NginxFileProtocolTest : public ProtocolTest {
 protected:
  static void SetUpTestSuite() {
    if (!NginxHarness::Installed()) return;
    nginx_ = new NginxHarness();
    content_ = new std::string(kFileSize, '\0');
    std::mt19937_64 random(42);
    std::generate(content_->begin(), content_->end(), [&] { return static_cast<char>(random()); });
    if (nginx_->ok()) nginx_->WriteFile("data/file.bin", *content_);
  }
  static void TearDownTestSuite() {
    delete nginx_;
    delete content_;
  }
  void SetUp() override {
    if (nginx_ == nullptr) GTEST_SKIP() << "nginx is not installed";
    ASSERT_TRUE(nginx_->ok()) << nginx_->error();
    ProtocolTest::SetUp();
  }

  static inline NginxHarness* nginx_ = nullptr;
  static inline std::string* content_ = nullptr;
};

TEST_F(NginxFileProtocolTest, RandomRangesOnFourThreadsReturnExactlyTheFilesBytes) {
  constexpr int kThreads = 4;
  constexpr std::uint64_t kMaxRead = 256 * 1024;
  TqUFileHandle* file =
      protocol_->OpenFile(W(nginx_->Url("/data/file.bin")).c_str(), TqUFileProtocol::OpenRead);
  ASSERT_NE(file, nullptr);
  std::vector<std::string> first_failure(kThreads);  // empty while every read is right
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      auto fail = [&](const std::string& what) {
        if (first_failure[t].empty()) first_failure[t] = what;
      };
      TqUThreadHandle* thread = protocol_->CreateThreadHandle(file);
      if (thread == nullptr) return fail("no thread handle");
      std::mt19937_64 random(1000 + t);
      std::vector<unsigned char> buffer(kMaxRead);
      for (int i = 0; i < 250; ++i) {
        std::uint64_t offset = random() % kFileSize;
        std::uint64_t size = 1 + random() % kMaxRead;
        if (i == 0) offset = 0, size = 1;
        if (i == 1) offset = kFileSize - 1, size = 1;
        if (i == 2) offset = kFileSize - 100, size = 1000;
        const std::uint64_t expected = std::min(size, kFileSize - offset);
        const std::string at = " at " + std::to_string(offset);
        TqUFileRequestHandle* request = protocol_->SetupReadFile(file, offset, size);
        std::uint64_t total = 0;
        const std::int64_t n = protocol_->ReadFileToSize(file, thread, request, offset, size,
                                                         buffer.data(), &total);
        protocol_->ReleaseRequestHandle(request);
        if (n != static_cast<std::int64_t>(expected)) {
          fail("count " + std::to_string(n) + at);
        } else if (total != kFileSize) {
          fail("total " + std::to_string(total) + at);
        } else if (content_->compare(offset, expected,
                                     reinterpret_cast<const char*>(buffer.data()), expected)) {
          fail("bytes" + at);
        }
      }
      protocol_->ReleaseThreadHandle(thread);
    });
  }
  for (auto& t : threads) t.join();
  protocol_->CloseFile(file);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(first_failure[t], "") << "thread " << t;
  EXPECT_THAT(TakeLog(), ::testing::IsEmpty());
}

TEST_F(NginxFileProtocolTest, FileInformationAndGetFileMatchWhatNginxServes) {
#if defined(_WIN32)
  struct _stat64 st {};
  ASSERT_EQ(_wstat64((nginx_->root() / "data" / "file.bin").c_str(), &st), 0);
#else
  struct stat st {};
  ASSERT_EQ(stat((nginx_->root() / "data" / "file.bin").c_str(), &st), 0);
#endif
  char etag[64];
  std::snprintf(etag, sizeof etag, "\"%llx-%llx\"", static_cast<unsigned long long>(st.st_mtime),
                static_cast<unsigned long long>(st.st_size));
  const std::wstring url = W(nginx_->Url("/data/file.bin"));
  TqUFileInfo info;
  ASSERT_TRUE(protocol_->GetFileInfo(url.c_str(), &info));
  EXPECT_EQ(info.GetFileSize(), kFileSize);
  EXPECT_EQ(info.GetFileRevisionId(), W(etag));
  EXPECT_EQ(info.GetFileModificationTime(), static_cast<std::int64_t>(st.st_mtime));

  TempDir dir;
  const auto target = dir.path() / "copy.bin";
  RecordedProgress progress;
  ASSERT_TRUE(protocol_->GetFile(url.c_str(), W(target.string()).c_str(), &progress));
  std::ifstream in(target, std::ios::binary);
  EXPECT_TRUE(std::string(std::istreambuf_iterator<char>(in), {}) == *content_);
  const auto& p = progress.values;
  ASSERT_GE(p.size(), 3u);
  EXPECT_EQ(p.front(), 0.0);
  EXPECT_EQ(p.back(), 1.0);
  EXPECT_TRUE(std::is_sorted(p.begin(), p.end()));
  EXPECT_TRUE(std::any_of(p.begin(), p.end(), [](double f) { return f > 0.0 && f < 1.0; }));
}

}  // namespace
}  // namespace tq::test
