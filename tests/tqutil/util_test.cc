#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tqutil/app_info.h"
#include "tqutil/component.h"
#include "tqutil/crypt_hash.h"
#include "tqutil/error_log.h"
#include "tqutil/memory_pages.h"
#include "tqutil/stop_token.h"
#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_time.h"

namespace {

TEST(StopTokenTest, AStopRequestedOnOneThreadIsSeenOnOthers) {
  auto source = std::make_unique<qv::stop_source>();
  const qv::stop_token survivor = source->get_token();
  std::atomic<int> winners{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([token = source->get_token()] {
      while (!qv::stop_token(token).stop_requested()) {  // copies made and dropped meanwhile
      }
    });
    threads.emplace_back([&, s = *source]() mutable { winners += s.request_stop(); });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(winners, 1);
  source.reset();
  EXPECT_TRUE(survivor.stop_requested()) << "a token outlives its source";
}

TEST(ZeroedMemoryTest, BuffersAreZeroAndRezeroedWhereUsed) {
  constexpr std::size_t kSize = 8388608;
  qv::ZeroedMemory memory = qv::AllocateZeroed(kSize);
  ASSERT_NE(memory.get(), nullptr);
  const auto all_zero = [&](std::size_t n) {
    return std::all_of(memory.get(), memory.get() + n, [](std::uint8_t b) { return b == 0; });
  };
  EXPECT_TRUE(all_zero(kSize));
  for (std::size_t used : {std::size_t{1}, std::size_t{3000001}, kSize}) {
    std::memset(memory.get(), 0x5A, used);
    EXPECT_TRUE(qv::RezeroMemory(memory, used));
    EXPECT_TRUE(all_zero(kSize)) << used;
  }
  // The pages past the first MiB cannot be given back (POSIX: cleared in place), or were given
  // back and could not be had again (Windows): the call then touches none of them.
#if defined(_WIN32)
  constexpr const char* kFault = "commit";
  constexpr int kError = 1455;  // ERROR_COMMITMENT_LIMIT
  constexpr bool kReusable = false;
#else
  constexpr const char* kFault = "discard";
  constexpr int kError = ENOMEM;
  constexpr bool kReusable = true;
#endif
  std::memset(memory.get(), 0x5A, kSize);
  TqUSysFileFaults::Arm(0, kError);
  const bool reusable = qv::RezeroMemory(memory, kSize);
  EXPECT_STREQ(TqUSysFileFaults::Failed(), kFault);
  TqUSysFileFaults::Disarm();
  EXPECT_EQ(reusable, kReusable);
  EXPECT_TRUE(all_zero(reusable ? kSize : std::size_t{1} << 20));
  std::vector<std::uint8_t> bytes(300000);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i % 253);
  const std::vector<std::uint8_t> before = bytes;
  qv::PrepareForWrite(bytes.data() + 1001, 250000);
  EXPECT_EQ(bytes, before);
}

TEST(CryptHashTest, Sha256InPiecesAndTruncated) {
  const auto hex = [](const unsigned char* d, std::size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += {kDigits[d[i] >> 4], kDigits[d[i] & 15]};
    return s;
  };
  auto h = TqUSysCryptHash::Create(0);
  ASSERT_TRUE(h);
  ASSERT_TRUE(h->AddData("a", 1));
  ASSERT_TRUE(h->AddData("bc", 2));
  unsigned char digest[32];
  ASSERT_TRUE(h->GenerateAndDestroy(digest, sizeof digest));
  EXPECT_EQ(hex(digest, 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  ASSERT_TRUE(TqUSysCryptHash::Create(0)->GenerateAndDestroy(digest, 5));
  EXPECT_EQ(hex(digest, 5), "e3b0c44298");
}

TEST(SysTimeTest, FromFileTimeIsExactAndRoundsDown) {
  constexpr std::uint64_t kEpoch = 116444736000000000ULL;  // 1970-01-01 in file time
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch + 9999999), 0);
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch - 1), -1) << "before 1970 rounds down";
  EXPECT_EQ(TqUSysTime::FromFileTime(UINT64_MAX), 1844674407370 - 11644473600);
}

#if defined(_WIN32)
TEST(AppInfoTest, CacheDirectoryOfTheApplication) {
  // The variable as it was, back for the tests that run after this one in the process (an
  // empty value removes it).
  struct Restore {
    const wchar_t* before = _wgetenv(L"LOCALAPPDATA");
    std::wstring local = before != nullptr ? before : L"";
    ~Restore() { _wputenv_s(L"LOCALAPPDATA", local.c_str()); }
  } restore;
  TqUWideStringBuffer dir;
  _wputenv_s(L"LOCALAPPDATA", L"C:\\Users\\u\\AppData\\Local");
  ASSERT_TRUE(TqUAppInfo::GetAppDir(0, &dir));
  EXPECT_EQ(dir.View(), L"C:\\Users\\u\\AppData\\Local\\tqnetwork");
  _wputenv_s(L"LOCALAPPDATA", L"D:\\Local\\");
  ASSERT_TRUE(TqUAppInfo::GetAppDir(0, &dir));
  EXPECT_EQ(dir.View(), L"D:\\Local\\tqnetwork");
  _wputenv_s(L"LOCALAPPDATA", L"");
  EXPECT_FALSE(TqUAppInfo::GetAppDir(0, &dir));
}
#else
TEST(AppInfoTest, CacheDirectoryOfTheApplication) {
  // The variables as they were, back for the tests that run after this one in the process.
  const auto get = [](const char* name) -> std::optional<std::string> {
    const char* value = std::getenv(name);
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
  };
  const auto put = [](const char* name, const std::optional<std::string>& value) {
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  };
  const std::optional<std::string> xdg = get("XDG_CACHE_HOME"), home = get("HOME");
  struct Case {
    std::optional<std::string> xdg, home;
    const wchar_t* expected;  // null: no directory
  };
  const Case cases[] = {{"/xdg/cache", "/home/u", L"/xdg/cache/tqnetwork"},
                        {"relative/ignored", "/home/u/", L"/home/u/.cache/tqnetwork"},
                        {std::nullopt, std::nullopt, nullptr}};
  for (const Case& c : cases) {
    put("XDG_CACHE_HOME", c.xdg);
    put("HOME", c.home);
    TqUWideStringBuffer dir;
    EXPECT_EQ(TqUAppInfo::GetAppDir(0, &dir), c.expected != nullptr);
    if (c.expected != nullptr) {
      EXPECT_EQ(dir.View(), c.expected);
    }
  }
  put("XDG_CACHE_HOME", xdg);
  put("HOME", home);
}
#endif

using tq::test::LogCapture;
using Lines = std::vector<std::string>;

TEST(ErrorLogTest, PiecesMakeOneLineAndSinksAreRestored) {
  std::vector<std::string> outer;
  TqULogSink before = TqUError::SetSink([&](const TqULogRecord& r) { outer.push_back(r.text); });
  {
    LogCapture log;
    TqUError::LogWideString(L"Error ");
    TqUError::LogInt32(-404);
    TqUSysError::LogUTF8String(" caf\xC3\xA9 ");
    TqUError::LogNat64(18446744073709551615ULL);
    EXPECT_TRUE(log.Lines().empty());
    TqUError::LogWideString(L"\n");
    TqUComponent component;
    component.Initialise(L"HttpFileProtocol");
    TqUError::Post(1, &component, L"%s failed: %d", L"http://h/\u00E9", 12002);
    TqUError::Post(2, nullptr, L"bad %q");
    EXPECT_EQ(log.Lines(), (Lines{"Error -404 caf\xC3\xA9 18446744073709551615\n",
                                  "http://h/\xC3\xA9 failed: 12002", "(bad log format) bad %q"}));
    EXPECT_EQ(log.Records()[1].component, "HttpFileProtocol");
  }
  std::thread([] { TqUSysError::LogUTF8String("unfinished"); }).join();  // flushed at thread end
  EXPECT_EQ(outer, Lines{"unfinished"});
  TqUError::SetSink(std::move(before));
}

Lines Texts(const std::vector<TqULogRecord>& records) {
  Lines texts;
  for (const TqULogRecord& r : records) texts.push_back(r.text);
  return texts;
}

// A recorder keeps the calling thread's records, and only those, while they still reach the
// sink; recorders nest.
TEST(ErrorLogTest, ARecorderKeepsTheThreadsOwnRecordsWhichStillReachTheSinkAndNests) {
  LogCapture log;
  Lines outer_texts, inner_texts;
  {
    TqULogRecorder outer;
    TqUSysError::LogUTF8String("first ");
    TqUError::LogInt32(1);
    TqUSysError::LogUTF8String("\n");
    std::thread([] { TqUSysError::LogUTF8String("another thread\n"); }).join();
    {
      TqULogRecorder inner;
      TqUError::Post(2, nullptr, L"posted %d", 7);
      inner_texts = Texts(inner.Records());
    }
    TqUSysError::LogUTF8String("last\n");
    outer_texts = Texts(outer.TakeRecords());
  }
  TqUSysError::LogUTF8String("after\n");
  EXPECT_EQ(inner_texts, Lines{"posted 7"});
  EXPECT_EQ(outer_texts, (Lines{"first 1\n", "last\n"}));
  EXPECT_EQ(log.Lines(), (Lines{"first 1\n", "another thread\n", "posted 7", "last\n", "after\n"}));
}

// Regressions: a sink's exception left the log, out of the library's own calls (transport
// operations that throw nothing, a cache that reports false) and out of a thread's end with half
// a line written, which ended the process; and a sink that put another in its place from inside
// its own call was destroyed while it ran.
TEST(ErrorLogTest, ASinkThatThrowsOrReplacesItselfLeavesTheWritersAlone) {
  LogCapture log;
  std::atomic<int> calls{0};
  TqUError::SetSink([&calls](const TqULogRecord&) {
    ++calls;
    throw std::runtime_error("sink");
  });
  EXPECT_NO_THROW(TqUError::Post(1, nullptr, L"posted"));
  EXPECT_NO_THROW(TqUSysError::LogUTF8String("piece\n"));
  std::thread([] { TqUSysError::LogUTF8String("unfinished"); }).join();
  EXPECT_EQ(calls.load(), 3);

  Lines seen;
  // Long enough to live on the heap, where a destroyed sink's copy of it is freed.
  const std::string tag(100, 't');
  TqUError::SetSink([&seen, tag](const TqULogRecord& record) {
    TqUError::SetSink([&seen](const TqULogRecord& r) { seen.push_back("after " + r.text); });
    seen.push_back(tag.substr(0, 1) + " " + record.text);
  });
  TqUSysError::LogUTF8String("one\n");
  TqUSysError::LogUTF8String("two\n");
  EXPECT_EQ(seen, (Lines{"t one\n", "after two\n"}));
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

}  // namespace
