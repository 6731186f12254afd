#include "tqutil/error_log.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tqutil/component.h"

namespace {

using tq::test::LogCapture;
using Lines = std::vector<std::string>;

TEST(ErrorLogTest, PiecesMakeOneLineWhenAPieceEndsWithNewline) {
  LogCapture log;
  TqUError::LogWideString(L"Error ");
  TqUError::LogInt32(-404);
  TqUSysError::LogUTF8String(" caf\xC3\xA9 ");
  TqUError::LogNat64(18446744073709551615ULL);
  EXPECT_TRUE(log.Lines().empty());
  TqUError::LogWideString(L"\n");
  TqUError::LogWideString(L"\n");  // an empty line is still a line
  EXPECT_EQ(log.Lines(), (Lines{"Error -404 caf\xC3\xA9 18446744073709551615\n", "\n"}));

  log.Clear();
  TqUComponent component;
  component.Initialise(L"HttpFileProtocol");
  TqUError::Post(1, &component, L"%s failed: %d", L"http://h/\u00E9", 12002);
  TqUError::Post(2, nullptr, L"bad %q");
  const auto records = log.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].severity, 1);
  EXPECT_EQ(records[0].component, "HttpFileProtocol");
  EXPECT_EQ(records[0].text, "http://h/\xC3\xA9 failed: 12002");
  EXPECT_EQ(records[1].text, "(bad log format) bad %q");
}

TEST(ErrorLogTest, LinesOfManyThreadsNeverInterleave) {
  LogCapture log;
  constexpr int kThreads = 8, kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) {
        TqUError::LogWideString(L"thread ");
        TqUError::LogInt32(t);
        TqUSysError::LogUTF8String(" line ");
        TqUError::LogNat64(static_cast<std::uint64_t>(i));
        TqUError::LogWideString(L"\n");
      }
    });
  }
  for (auto& th : threads) th.join();
  const Lines lines = log.Lines();
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
  std::vector<int> next(kThreads, 0);
  for (const auto& line : lines) {
    int t = -1, i = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "thread %d line %d", &t, &i), 2) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_EQ(line, "thread " + std::to_string(t) + " line " + std::to_string(i) + "\n");
    EXPECT_EQ(i, next[t]++);
  }
}

TEST(ErrorLogTest, SinksAreReplacedAndRestored) {
  std::vector<std::string> outer;
  TqULogSink before = TqUError::SetSink([&](const TqULogRecord& r) { outer.push_back(r.text); });
  {
    LogCapture inner;
    TqUError::Post(0, nullptr, L"captured");
    EXPECT_EQ(inner.Lines(), Lines{"captured"});
  }
  std::thread([] { TqUSysError::LogUTF8String("unfinished"); }).join();  // flushed at thread end
  EXPECT_EQ(outer, Lines{"unfinished"});
  TqUError::SetSink(std::move(before));
}

}  // namespace
