// TqULogRecorder keeps the calling thread's records, and only those, while the records still
// reach the sink; recorders nest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tqutil/error_log.h"

namespace tq::test {
namespace {

std::vector<std::string> Texts(const std::vector<TqULogRecord>& records) {
  std::vector<std::string> texts;
  for (const TqULogRecord& r : records) texts.push_back(r.text);
  return texts;
}

TEST(LogRecorderTest, KeepsTheThreadsOwnRecordsWhichStillReachTheSinkAndNests) {
  LogCapture log;
  std::vector<std::string> outer_texts, inner_texts;
  {
    TqULogRecorder outer;
    TqUSysError::LogUTF8String("first ");
    TqUError::LogInt32(1);
    TqUSysError::LogUTF8String("\n");
    std::thread other([] { TqUSysError::LogUTF8String("another thread\n"); });
    other.join();
    {
      TqULogRecorder inner;
      TqUError::Post(2, nullptr, L"posted %d", 7);
      inner_texts = Texts(inner.Records());
    }
    TqUSysError::LogUTF8String("last\n");
    outer_texts = Texts(outer.TakeRecords());
  }
  TqUSysError::LogUTF8String("after\n");
  EXPECT_THAT(inner_texts, ::testing::ElementsAre("posted 7"));
  EXPECT_THAT(outer_texts, ::testing::ElementsAre("first 1\n", "last\n"));
  EXPECT_THAT(log.Lines(), ::testing::ElementsAre("first 1\n", "another thread\n", "posted 7",
                                                  "last\n", "after\n"));

  // A record written again reaches the sink as it stands.
  log.Clear();
  TqUError::Write(TqULogRecord{3, "component", "text\n"});
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].severity, 3);
  EXPECT_EQ(log.Records()[0].component, "component");
  EXPECT_EQ(log.Records()[0].text, "text\n");
}

}  // namespace
}  // namespace tq::test
