#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#if defined(_WIN32)
#include <windows.h>
#endif

#include "tests/support/log_capture.h"
#include "tests/support/servers/temp_dir.h"
#if !defined(_WIN32)
#include "tests/support/allocation_failure.h"
#endif
#include "tqutil/app_info.h"
#include "tqutil/component.h"
#include "tqutil/crypt_hash.h"
#include "tqutil/error_log.h"
#include "tqutil/file_streams.h"
#include "tqutil/memory_pages.h"
#include "tqutil/stop_token.h"
#include "tqutil/sys_file_faults.h"
#include "tqutil/sys_time.h"

namespace {

TEST(StopTokenTest, AStopRequestedOnOneThreadIsSeenOnOthers) {
  auto source = std::make_unique<qv::stop_source>();
  const qv::stop_token survivor = source->get_token();
  EXPECT_FALSE(survivor.stop_requested());
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
  const auto zero_to = [&](std::size_t n) {
    return std::all_of(memory.get(), memory.get() + n, [](std::uint8_t b) { return b == 0; });
  };
  EXPECT_TRUE(zero_to(kSize));
  for (std::size_t used : {std::size_t{1}, std::size_t{3000001}, kSize}) {
    std::memset(memory.get(), 0x5A, used);
    EXPECT_TRUE(qv::RezeroMemory(memory, used));
    EXPECT_TRUE(zero_to(kSize)) << used;
  }
  // The pages past the first MiB cannot be given back (POSIX: cleared in place), or were given
  // back and could not be had again (Windows: ERROR_COMMITMENT_LIMIT): none of them is touched.
  struct Expect {
    const char* fault;
    int error;
    bool reusable;
  };
#if defined(_WIN32)
  constexpr Expect kExpect{"commit", 1455, false};
#else
  constexpr Expect kExpect{"discard", ENOMEM, true};
#endif
  std::memset(memory.get(), 0x5A, kSize);
  TqUSysFileFaults::Arm(0, kExpect.error);
  EXPECT_EQ(qv::RezeroMemory(memory, kSize), kExpect.reusable);
  EXPECT_STREQ(TqUSysFileFaults::Failed(), kExpect.fault);
  TqUSysFileFaults::Disarm();
  EXPECT_TRUE(zero_to(kExpect.reusable ? kSize : std::size_t{1} << 20));
}

TEST(CryptHashTest, Sha256InPiecesAndTruncated) {
  const auto hex = [](const unsigned char* d, std::size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += {kDigits[d[i] >> 4], kDigits[d[i] & 15]};
    return s;
  };
  auto h = TqUSysCryptHash::Create(0);
  ASSERT_TRUE(h && h->AddData("a", 1) && h->AddData("bc", 2));
  unsigned char digest[32];
  ASSERT_TRUE(h->GenerateAndDestroy(digest, sizeof digest));
  EXPECT_EQ(hex(digest, 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  ASSERT_TRUE(TqUSysCryptHash::Create(0)->GenerateAndDestroy(digest, 5));
  EXPECT_EQ(hex(digest, 5), "e3b0c44298");
  constexpr std::uint64_t kEpoch = 116444736000000000ULL;  // 1970-01-01 in file time
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch + 9999999), 0);
  EXPECT_EQ(TqUSysTime::FromFileTime(kEpoch - 1), -1) << "before 1970 rounds down";
  EXPECT_EQ(TqUSysTime::FromFileTime(UINT64_MAX), 1844674407370 - 11644473600);
}

// The value of an environment variable; none when it is not set.
std::optional<std::string> Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

// Sets an environment variable, or removes it (on Windows an empty value removes it too).
void SetVariable(const char* name, const std::optional<std::string>& value) {
#if defined(_WIN32)
  _putenv_s(name, value ? value->c_str() : "");
#else
  value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
#endif
}

TEST(AppInfoTest, CacheDirectoryOfTheApplication) {
  struct Case {
    std::optional<std::string> base, home;  // the cache home's variable, and HOME
    const wchar_t* expected;                // null: no directory
  };
#if defined(_WIN32)
  const char* const base = "LOCALAPPDATA";
  const Case cases[] = {
      {"C:\\Users\\u\\AppData\\Local", {}, L"C:\\Users\\u\\AppData\\Local\\tqnetwork"},
      {"D:\\Local\\", {}, L"D:\\Local\\tqnetwork"},
      {"", {}, nullptr}};
#else
  const char* const base = "XDG_CACHE_HOME";
  const Case cases[] = {{"/xdg/cache", "/home/u", L"/xdg/cache/tqnetwork"},
                        {"relative/ignored", "/home/u/", L"/home/u/.cache/tqnetwork"},
                        // A relative home is none: the cache would move with the working
                        // directory.
                        {std::nullopt, "relative/home", nullptr},
                        {std::nullopt, std::nullopt, nullptr}};
#endif
  // The variables as they were, back for the tests that run after this one in the process.
  const std::optional<std::string> saved_base = Variable(base), saved_home = Variable("HOME");
  for (const Case& c : cases) {
    SetVariable(base, c.base);
    SetVariable("HOME", c.home);
    TqUWideStringBuffer dir;
    EXPECT_EQ(TqUAppInfo::GetAppDir(0, &dir), c.expected != nullptr);
    if (c.expected != nullptr) {
      EXPECT_EQ(dir.View(), c.expected);
    }
  }
  SetVariable(base, saved_base);
  SetVariable("HOME", saved_home);
}

using tq::test::LogCapture;
using Lines = std::vector<std::string>;

// Pieces make one line, a posted line is formatted, a thread's unfinished line is flushed at
// its end; a recorder keeps the calling thread's records, and only those, while they still
// reach the sink, and recorders nest; a capture puts the sink before it back.
TEST(ErrorLogTest, LinesOfPiecesPostsAndRecordersOnEachThread) {
  Lines outer;
  TqULogSink before = TqUError::SetSink([&](const TqULogRecord& r) { outer.push_back(r.text); });
  {
    LogCapture log;
    Lines outer_texts, inner_texts;
    const auto texts = [](const std::vector<TqULogRecord>& records) {
      Lines texts;
      for (const TqULogRecord& r : records) texts.push_back(r.text);
      return texts;
    };
    {
      TqULogRecorder recorder;
      TqUError::LogWideString(L"Error ");
      TqUError::LogInt32(-404);
      TqUSysError::LogUTF8String(" caf\xC3\xA9 ");
      TqUError::LogNat64(18446744073709551615ULL);
      EXPECT_TRUE(log.Lines().empty());
      // Another thread's line, whole while this one's is unfinished, comes first.
      std::thread([] { TqUSysError::LogUTF8String("another thread\n"); }).join();
      TqUError::LogWideString(L"\n");
      {
        TqULogRecorder inner;
        TqUComponent component;
        component.Initialise(L"HttpFileProtocol");
        TqUError::Post(1, &component, L"%s failed: %d", L"http://h/\u00E9", 12002);
        inner_texts = texts(inner.Records());
      }
      TqUError::Post(2, nullptr, L"bad %q");
      outer_texts = texts(recorder.TakeRecords());
    }
    TqUSysError::LogUTF8String("after\n");
    const Lines all{"another thread\n", "Error -404 caf\xC3\xA9 18446744073709551615\n",
                    "http://h/\xC3\xA9 failed: 12002", "(bad log format) bad %q", "after\n"};
    EXPECT_EQ(log.Lines(), all);
    EXPECT_EQ(log.Records()[2].component, "HttpFileProtocol");
    EXPECT_EQ(inner_texts, Lines{all[2]});
    EXPECT_EQ(outer_texts, (Lines{all[1], all[3]}));
  }
  std::thread([] { TqUSysError::LogUTF8String("unfinished"); }).join();  // flushed at thread end
  EXPECT_EQ(outer, Lines{"unfinished"});
  TqUError::SetSink(std::move(before));
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

#if !defined(_WIN32)  // a Windows DLL allocates through its own runtime, out of the test's reach
  // Memory that runs out at any allocation of a writer: nothing thrown, and a line is whole or
  // not there, never one with a piece missing.
  TqUError::SetSink({});
  const std::string line = "Failed: http://h/" + std::string(100, 'p') + ": 42\n";
  const std::wstring url = L"http://h/" + std::wstring(100, L'p');
  for (long n = 0;; ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    bool failed = false;
    {
      LogCapture capture;
      {
        const tq::test::FailingAllocation failing(n);
        EXPECT_NO_THROW({
          TqUSysError::LogUTF8String("Failed: ");
          TqUError::LogWideString(url.c_str());
          TqUSysError::LogUTF8String(": ");
          TqUError::LogInt32(42);
          TqUError::LogWideString(L"\n");
          TqUError::Post(1, nullptr, L"%s %d", L"posted", 7);
        });
        failed = tq::test::FailingAllocation::Failed();
      }
      TqUSysError::LogUTF8String("next\n");
      for (const std::string& text : capture.Lines()) {
        EXPECT_TRUE(text == line || text == "posted 7" || text == "next\n") << text;
      }
      if (!failed) {
        EXPECT_EQ(capture.Lines(), (Lines{line, "posted 7", "next\n"}));
      }
    }
    if (!failed) break;
  }
#endif
}

#if defined(_WIN32)
// Regression: every writer cleared the caller's last error (its thread's slots, the sink), so a
// failure logged before its caller read GetLastError read 0, and so did a second message about
// the same failure.
TEST(ErrorLogTest, EveryWriterKeepsTheCallersLastError) {
  const std::pair<const char*, std::function<void()>> writers[] = {
      {"post", [] { TqUError::Post(1, nullptr, L"failed: %d", 5); }},
      {"wide", [] { TqUError::LogWideString(L"Error "); }},
      {"int32", [] { TqUError::LogInt32(5); }},
      {"nat64", [] { TqUError::LogNat64(5); }},
      {"utf8", [] { TqUSysError::LogUTF8String(" for x"); }},
      {"line end", [] { TqUError::LogWideString(L"\n"); }},
      {"record", [] { TqUError::Write(TqULogRecord{1, "c", "text\n"}); }}};
  for (const bool sink : {true, false}) {
    std::optional<LogCapture> log;
    if (sink) log.emplace();  // else standard error
    for (const auto& [name, write] : writers) {
      ::SetLastError(ERROR_SHARING_VIOLATION);
      write();
      EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION))
          << name << (sink ? " to a sink" : " to standard error");
    }
  }
}
#endif

#if !defined(_WIN32)  // a Windows DLL allocates through its own runtime, out of the test's reach
// Regression: a stream that could not be made for want of memory left the file it was to own
// open, held against every writer for the life of the process.
TEST(FileStreamTest, AStreamThatCannotBeMadeLeavesItsFileClosed) {
  tq::test::TempDir dir;
  const auto path = dir.WriteFile("f", "bytes");
  for (long n = 0;; ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    bool failed = false;
    {
      std::unique_ptr<qv::io::FileReadStream> stream;
      {
        const tq::test::FailingAllocation failing(n);
        try {
          stream = qv::io::FileReadStream::Create(path);  // null or bad_alloc, out of memory
        } catch (const std::bad_alloc&) {
        }
        failed = tq::test::FailingAllocation::Failed();
      }
      if (!failed) {
        EXPECT_NE(stream, nullptr);
      }
    }
    const TqUSysFile::Handle writer =
        TqUSysFile::OpenFile(path, TqUSysFile::kAccessWrite, TqUSysFile::kShareNone,
                             TqUSysFile::kOpenExistingWrite, 0, 0);
    EXPECT_NE(writer, TqUSysFile::kInvalid) << "the file is still held";
    TqUSysFile::CloseFile(writer);
    if (!failed) break;
  }
}
#endif

}  // namespace
