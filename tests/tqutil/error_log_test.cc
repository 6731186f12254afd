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
  TqUError::LogWideString(L"Error: HTTP Response ");
  TqUError::LogInt32(-404);
  TqUError::LogWideString(L" for GET ");
  TqUSysError::LogUTF8String("http://h/caf\xC3\xA9");
  TqUError::LogWideString(L" size ");
  TqUError::LogNat64(18446744073709551615ULL);
  EXPECT_TRUE(log.Lines().empty());  // nothing until the line ends
  TqUError::LogWideString(L"\n");
  TqUError::LogWideString(nullptr);
  TqUSysError::LogUTF8String(nullptr);
  TqUError::LogWideString(L"\n");  // an empty line is still a line
  TqUSysError::LogUTF8String("two\nparts ");
  TqUSysError::LogUTF8String("end\n");
  EXPECT_EQ(log.Lines(), (Lines{"Error: HTTP Response -404 for GET http://h/caf\xC3\xA9 size "
                                "18446744073709551615\n",
                                "\n", "two\nparts end\n"}));
  const auto records = log.Records();
  EXPECT_EQ(records[0].severity, 0);
  EXPECT_EQ(records[0].component, "");
}

TEST(ErrorLogTest, PostFormatsOneRecordWithSeverityAndComponent) {
  LogCapture log;
  TqUComponent component;
  component.Initialise(L"HttpFileProtocol");
  TqUError::Post(1, &component, L"HttpFileProtocol::ReadFile HttpSendRequest for %s failed: %d",
                 L"http://h/\u00E9", 12002);
  TqUError::Post(5, nullptr, L"%hs %llu", "narrow", 5ULL);
  const auto records = log.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].severity, 1);
  EXPECT_EQ(records[0].component, "HttpFileProtocol");
  EXPECT_EQ(records[0].text,
            "HttpFileProtocol::ReadFile HttpSendRequest for http://h/\xC3\xA9 failed: 12002");
  EXPECT_EQ(records[1].severity, 5);
  EXPECT_EQ(records[1].component, "");
  EXPECT_EQ(records[1].text, "narrow 5");

  // An empty message is still a message; a broken format leaves a trace instead of nothing.
  log.Clear();
  TqUError::Post(2, nullptr, L"%s", L"");
  TqUError::Post(2, nullptr, L"bad %q");
  EXPECT_EQ(log.Lines(), (Lines{"", "(bad log format) bad %q"}));
}

TEST(ErrorLogTest, LinesOfManyThreadsNeverInterleave) {
  LogCapture log;
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
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
    EXPECT_EQ(i, next[t]++);  // each thread's lines in its own order
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
  TqUError::Post(0, nullptr, L"outer %d", 1);
  EXPECT_EQ(outer, Lines{"outer 1"});
  TqUError::SetSink(std::move(before));

  // A thread that ends in the middle of a line still has its text written.
  LogCapture log;
  std::thread([] { TqUSysError::LogUTF8String("unfinished"); }).join();
  EXPECT_EQ(log.Lines(), Lines{"unfinished"});
}

}  // namespace
