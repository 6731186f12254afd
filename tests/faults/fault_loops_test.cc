// Fault loops: for N = 0, 1, 2, ... the Nth file operation of a cache store, or the Nth transport
// call of a read stream, fails; every N must end in a result the caller can tell apart, with
// nothing torn, left behind or leaked, until N passes the last operation and the call succeeds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "net/cache/disk_cache.h"
#include "net/http/http_status.h"
#include "net/stream/read_stream.h"
#include "tests/cache/cache_test_support.h"
#if !defined(_WIN32)
#include "tests/support/allocation_failure.h"
#endif
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"
#include "tqutil/option.h"
#include "tqutil/sys_file_faults.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

#if defined(_WIN32)
constexpr int kFileFault = ERROR_ACCESS_DENIED;
#else
constexpr int kFileFault = EIO;
#endif

// The body of an entry file whose header is whole and names `key` and `tag`; none when the
// file is not exactly such an entry (a torn or half-written file).
std::optional<std::string> EntryBody(const std::string& bytes, const std::string& tag,
                                     const std::string& key) {
  const std::string empty = EntryBytes(0, 0, tag, key, "");
  if (bytes.size() < empty.size()) return std::nullopt;
  std::string header = bytes.substr(0, empty.size());
  header.replace(4, 16, std::string(16, '\0'));  // the last-used and expiry times
  if (header != empty) return std::nullopt;
  return bytes.substr(empty.size());
}

// A cache on its own directory, and one round of a loop: `act` with the Nth file operation
// failing. Gives the failing operation's name ("none" once N is past the last one).
class CacheStoreFaultLoop : public FakeTransportTest {
 protected:
  template <class Act>
  std::string FailAt(std::uint64_t n, Act act) {
    const std::size_t descriptors = OpenDescriptors();
    TqUSysFileFaults::Arm(n, kFileFault);
    act();
    const char* failed = TqUSysFileFaults::Failed();
    const std::string name = TqUSysFileFaults::Disarm() <= n ? "none" : failed ? failed : "?";
    EXPECT_EQ(OpenDescriptors(), descriptors) << "descriptor leaked, failing operation " << n;
    return name;
  }

  // The answer that replaces the entry of kUrl: kNewBody under the tag "new", in pieces.
  static FakeResponse NewAnswer() {
    FakeResponse answer;
    answer.dates[L"Date"] = 1000;
    answer.Header(L"cache-control", L"max-age=60").Header(L"ETag", L"\"new\"");
    answer.Header(L"Content-Length", std::to_wstring(kNewBody.size()));
    for (std::size_t at = 0; at < kNewBody.size(); at += 30000) {
      answer.Body(kNewBody.substr(at, 30000));
    }
    return answer;
  }

  static constexpr const wchar_t* kUrl = L"http://example.test/entry";
  inline static const std::string kKey = "http://example.test/entry";
  inline static const std::string kNewBody = std::string(100000, 'n');
  TempDir m_dir;
  ScopedClock m_clock{1000};
  qv::net::DiskCache m_cache{m_dir.path().wstring().c_str()};
  const fs::path m_entry = qv::net::DiskCache::ComputeCacheLocation(kUrl, m_cache.Directory());
};

const std::string kCopyFailed =
    "Failed to read or write stream in CopyStream: FileWriteStream: cannot write the file\n";
const std::string kOutOfMemory =
    "Failed to read resource into cache: http://example.test/entry: std::bad_alloc\n";

#if !defined(_WIN32)  // a Windows DLL allocates through its own runtime, out of the test's reach
// `act` with the Nth allocation of this thread failing; whether it came to that.
template <class Act>
bool FailAllocationAt(long n, Act act) {
  const FailingAllocation failing(n);
  act();
  return FailingAllocation::Failed();
}
#endif

// A refresh of a stale entry with the Nth file operation, or the Nth allocation of the opening
// thread, failing. The open serves the new body whole, or nothing (silent but for a copy into the
// entry that failed, or the allocation; std::bad_alloc may leave it before it asks the server), or
// with a file failing a body whose read fails with the file stream's error: never a partial body.
// The name holds the old entry whole, the new one whole or nothing, no other file stays, and the
// next open serves the new body.
TEST_F(CacheStoreFaultLoop, AStoreThatFailsAtEveryFileOperationServesOrReturnsNullAndTearsNothing) {
  const std::string old_body = "the old body";
  const char* const kinds[] = {
    "file operation",
#if !defined(_WIN32)
    "allocation"
#endif
  };
  bool rename_failed = false;
  for (const std::string kind : kinds) {
    for (std::uint64_t n = 0;; ++n) {
      ASSERT_LT(n, 1000u) << "the store never got through";
      // A stale entry of another tag, so that the open loads it, asks anew and replaces it.
      WriteFileBytes(m_entry, EntryBytes(1, 999, "\"old\"", kKey, old_body));
      m_api.Queue(NewAnswer());
      m_log.Clear();
      std::string served = "<null>";
      std::unique_ptr<qv::io::IDataSeekableReadStream> stream;
      // The open, and with a file failing the read too.
      const auto act = [&] {
        try {
          stream = m_cache.OpenUrl(kUrl, 0, {});
        } catch (const std::bad_alloc&) {
          if (kind != "allocation") throw;
        }
        if (!stream || kind != "file operation") return;
        try {
          served = ReadAll(*stream, 65536);
        } catch (const std::runtime_error& e) {
          served = std::string("<thrown> ") + e.what();
        }
        stream.reset();
      };
      std::string failed = "none";
      if (kind == "file operation") {
        failed = FailAt(n, act);
#if !defined(_WIN32)
      } else if (FailAllocationAt(static_cast<long>(n), act)) {
        failed = "allocation";
#endif
      }
      if (stream) served = ReadAll(*stream);
      stream.reset();
      const bool stored = failed == "none";
      SCOPED_TRACE(kind + " " + std::to_string(n) + " failing: " + failed);
      // A store whose rename failed has lost its body: it is not renamed into place later, once
      // the temporary file is no longer held (another writer may have taken that name by then,
      // and its half-written file would become the entry). Windows renames no open file, so
      // there the rename is made once it is closed.
      if (failed == "rename") {
        rename_failed = true;
#if !defined(_WIN32)
        EXPECT_TRUE(served == "<null>") << "served " << served.size() << " bytes";
#endif
      }
      if (served == "<null>") {
        const std::string line = kind == "allocation" ? kOutOfMemory : kCopyFailed;
        EXPECT_THAT(m_log.Lines(), AnyOf(IsEmpty(), ElementsAre(line)));
      } else {
        EXPECT_THAT(served, AnyOf(kNewBody, "<thrown> FileReadStream: cannot read the file"));
        EXPECT_THAT(m_log.Lines(), IsEmpty());
      }
      const bool exists = fs::exists(m_entry);
      const std::string bytes = exists ? ReadFileBytes(m_entry) : "";
      const bool old_whole = EntryBody(bytes, "\"old\"", kKey) == old_body;
      const bool new_whole = EntryBody(bytes, "\"new\"", kKey) == kNewBody;
      EXPECT_TRUE(!exists || old_whole || new_whole)
          << "torn entry of " << bytes.size() << " bytes";
      if (kind == "file operation") {
        EXPECT_FALSE(old_whole && served == "<null>") << "a refresh that failed kept the old entry";
      }
      EXPECT_THAT(FileNames(m_cache.Directory()),
                  AnyOf(IsEmpty(), ElementsAre(m_entry.filename().string())))
          << "a file left behind";
      if (stored) {
        EXPECT_EQ(served, kNewBody);
        EXPECT_TRUE(new_whole);
        EXPECT_TRUE(m_api.ScriptConsumed());
      }
      // Whatever the failure left, the next open without one serves the body from the server
      // or from a whole entry.
      if (m_api.ScriptConsumed() && !new_whole) m_api.Queue(NewAnswer());
      auto again = m_cache.OpenUrl(kUrl, 0, {});
      ASSERT_NE(again, nullptr);
      EXPECT_TRUE(ReadAll(*again) == kNewBody);
      again.reset();  // Windows removes no open file
      fs::remove(m_entry);
      if (stored) break;
    }
  }
  EXPECT_TRUE(rename_failed);
}

// A body kept under a name of the caller's is written straight into its entry file. Whatever
// file operation fails while its write stream is made or written, or whatever allocation fails
// while a write or read stream of the name is made, the caller is told (null, or the error
// thrown), no other body than the old one or the new one whole is read back under the name, a
// write cut short leaves no body, and the name is not left held: it can be written again. A
// body becomes the name's as its stream closes; a failure there, after every write went
// through, leaves no body rather than one not known to be whole.
TEST_F(CacheStoreFaultLoop, ANamedBodyWriteThatFailsAtEveryFileOperationNeverLeavesAFakeBody) {
  const std::string old_body(50000, 'o');
  const std::string new_body(100000, 'n');
  const auto write = [&](const std::string& body) {
    auto stream = m_cache.OpenWriteStream(L"name");
    ASSERT_NE(stream, nullptr) << "the name is still held";
    ASSERT_EQ(stream->Write(body.data(), body.size()), body.size());
  };
  // What a reader gets under the name, told in a few words.
  const auto read_back = [&]() -> std::string {
    auto stream = m_cache.OpenReadStream(L"name");
    if (!stream) return "<null>";
    const std::string body = ReadAll(*stream);
    if (body == old_body) return "old body";
    if (body == new_body) return "new body";
    return "another body of " + std::to_string(body.size()) + " bytes";
  };
  const char* const kinds[] = {
    "file operation",
#if !defined(_WIN32)
    "allocation opening a write stream",
    "allocation opening a read stream"
#endif
  };
  for (const std::string kind : kinds) {
    for (std::uint64_t n = 0;; ++n) {
      ASSERT_LT(n, 1000u) << "the " << kind << " never got through";
      write(old_body);
      std::string outcome = "<null>";
      std::unique_ptr<qv::io::IDataSeekableWriteStream> written;
      std::unique_ptr<qv::io::IDataSeekableReadStream> read;
      // The open, and with a file failing the write too, the Nth step failing.
      const auto act = [&] {
        try {
          if (kind == "allocation opening a read stream") {
            read = m_cache.OpenReadStream(L"name");
          } else {
            written = m_cache.OpenWriteStream(L"name");
          }
          if (written && kind == "file operation") {
            written->Write(new_body.data(), new_body.size());
            outcome = "written";
          }
        } catch (const std::runtime_error& e) {
          outcome = std::string("<thrown> ") + e.what();
        } catch (const std::bad_alloc&) {
          if (kind == "file operation") throw;
        }
        if (kind == "file operation") written.reset();
      };
      bool failed = true;
      if (kind == "file operation") {
        failed = FailAt(n, act) != "none";
#if !defined(_WIN32)
      } else {
        failed = FailAllocationAt(static_cast<long>(n), act);
#endif
      }
      SCOPED_TRACE(kind + " " + std::to_string(n) + (failed ? " failed" : ": none failed"));
      if (written) {
        ASSERT_EQ(written->Write(new_body.data(), new_body.size()), new_body.size());
        written.reset();
        outcome = "written";
      }
      if (read) {
        EXPECT_TRUE(ReadAll(*read) == old_body);
        read.reset();
        outcome = "read";
      }
      if (outcome == "<null>") {
        EXPECT_THAT(read_back(), AnyOf("<null>", "old body"));
      } else if (kind == "file operation" && outcome == "written" && failed) {
        EXPECT_THAT(read_back(), AnyOf("new body", "<null>")) << "the close failed";
      } else if (outcome == "written" || outcome == "read") {
        EXPECT_EQ(read_back(), outcome == "read" ? "old body" : "new body");
      } else {
        EXPECT_EQ(outcome, "<thrown> FileWriteStream: cannot write the file");
        EXPECT_EQ(read_back(), "<null>") << "a body cut short by the failed write is read back";
      }
      write(new_body);
      EXPECT_EQ(read_back(), "new body");
      if (!failed) break;
    }
  }
}

// A file that is not an entry is deleted when it is loaded, and the load says so; when the file
// cannot be opened, or cannot be deleted, the load says that instead and the file stays.
TEST_F(CacheStoreFaultLoop, ALoadThatFailsAtEveryFileOperationSaysWhatBecameOfTheFile) {
  const fs::path path = m_dir.path() / "not-an-entry";
  std::vector<std::string> failures;
  for (std::uint64_t n = 0;; ++n) {
    ASSERT_LT(n, 20u) << "the load never got through";
    WriteFileBytes(path, "no markers here");
    std::string thrown = "<nothing>";
    const std::string failed = FailAt(n, [&] {
      try {
        qv::net::CacheEntry::Load(path);
      } catch (const qv::net::invalid_cache_header& e) {
        thrown = std::string("invalid: ") + e.what();
      } catch (const std::runtime_error& e) {
        thrown = e.what();
      }
    });
    SCOPED_TRACE("failing operation " + std::to_string(n) + ": " + failed);
    failures.push_back(failed);
    const bool not_opened = failed == "open" || failed == "lock";  // the sharing's lock too
    const std::string in_use = " Maybe in use by another process?";
    if (not_opened) {
      EXPECT_EQ(thrown, "Cache entry could not be opened." + in_use);
    } else {
      EXPECT_EQ(thrown, failed == "remove"
                            ? "Cache entry was invalid but unable to delete it." + in_use
                            : "invalid: Cache entry was invalid or corrupt. It was deleted.");
    }
    EXPECT_EQ(fs::exists(path), not_opened || failed == "remove");
    if (failed == "none") break;
  }
  EXPECT_THAT(failures, ::testing::IsSupersetOf({"open", "remove", "none"}));
}

#if !defined(_WIN32)  // a Windows DLL allocates through its own runtime, out of the test's reach
// The clean-up with the Nth allocation of the calling thread failing: the host's call still
// returns true, and the run deletes whole entries or leaves them as they were.
TEST_F(CacheStoreFaultLoop, ACleanUpThatRunsOutOfMemoryStillSucceedsAndLeavesEntriesWhole) {
  TqUOption::SetInt32("general.localcache.max_size", 0);  // every entry goes
  std::vector<std::string> entries;
  for (const char name : {'a', 'b', 'c'}) {
    entries.push_back(EntryBytes(1, 2000, "", kKey + name, std::string(1000, name)));
  }
  for (long n = 0;; ++n) {
    ASSERT_LT(n, 1000) << "the clean-up never got through";
    for (std::size_t i = 0; i < entries.size(); ++i) {
      WriteFileBytes(m_dir.path() / std::to_string(i), entries[i]);
    }
    bool result = false;
    const bool failed = FailAllocationAt(n, [&] { result = m_cache.CleanUp(); });
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    EXPECT_TRUE(result);
    for (const std::string& name : FileNames(m_cache.Directory())) {
      EXPECT_EQ(ReadFileBytes(m_cache.Directory() / name), entries.at(std::stoul(name)));
    }
    if (!failed) {
      EXPECT_THAT(FileNames(m_cache.Directory()), IsEmpty());
      break;
    }
  }
  TqUOption::Unset("general.localcache.max_size");
}
#endif

using ReadStreamFaultLoop = FakeTransportTest;

TEST_F(ReadStreamFaultLoop, AReadThatFailsAtEveryTransportCallEndsInTheStateOfThatCall) {
  const std::wstring url = L"http://example.test/stream";
  const std::string body = "first-second-third";
  // Every GET is first answered 502 (and retried), then 200 with the body in three chunks.
  int sends = 0;
  m_api.SetResponder([&](const SentRequest& sent) {
    FakeResponse r;
    if (sent.method == L"GET" && sends++ % 2 == 0) {
      r.status = 502;
      return r;
    }
    r.Header(L"Content-Length", std::to_wstring(body.size())).Header(L"ETag", L"\"t\"");
    if (sent.method == L"GET") r.Body("first-").Body("second-").Body("third");
    return r;
  });
  // The call numbered `fail_at` fails (CloseHandle never counts: a handle is always given back).
  std::uint64_t count = 0, fail_at = 0;
  std::string failed;  // "" while none has failed
  int sends_made = 0, sends_before = 0;  // before the failure: 0 HEAD, 1 first GET, 2 retry
  m_api.fail_call = [&](const std::string& call) {
    if (failed == "Read" && call == "Read") return true;  // a broken transfer stays broken
    if (count++ == fail_at) {
      failed = call.substr(0, call.find(' '));
      sends_before = sends_made;
      return true;
    }
    sends_made += call.starts_with("Send ");
    return false;
  };

  bool read = false;
  for (std::uint64_t n = 0; !read; ++n) {
    ASSERT_LT(n, 100u) << "the read never got through";
    qv::net::HttpConnectionPool::Terminate();  // every round connects anew
    sends = 0;
    m_log.Clear();
    const std::size_t sleeps_before = Sleeps().size();
    count = 0, fail_at = n, sends_made = 0, failed.clear();

    std::string got;
    std::string error;
    std::unique_ptr<qv::net::HttpReadStream> stream;
    try {
      stream = qv::net::HttpReadStream::Open(url, qv::net::HttpReadStream::FlagMakeHeadRequest, {});
      got = ReadAll(*stream, 64);
    } catch (const qv::net::http_exception& e) {
      error = e.what();
    }
    read = failed.empty();
    SCOPED_TRACE("call " + std::to_string(n) + " failed: " + (read ? "none" : failed) +
                 " after " + std::to_string(sends_before) + " sends");
    const bool retried = Sleeps().size() > sleeps_before;

    if (failed == "OpenInternet" || failed == "Connect") {
      // No connection: the open throws and nothing was sent.
      EXPECT_EQ(error, "Unable to create HTTP connection\n");
      EXPECT_EQ(stream, nullptr);
    } else if ((failed == "Send" && sends_before > 0) || (failed == "Status" && sends_before > 1)) {
      // The GET (first or retried) could not be made, a stream without a request; or its status
      // could not be read, open but unusable. Either is silent and not retried.
      ASSERT_NE(stream, nullptr);
      EXPECT_EQ(stream->IsOpen(), failed == "Status");
      EXPECT_FALSE(stream->Succeeded());
      if (failed == "Status") {
        EXPECT_EQ(stream->QueryStatusCode(), qv::net::HttpStatus::Unknown);
      }
      EXPECT_EQ(got + error, "");
      EXPECT_EQ(retried, sends_before == (failed == "Send" ? 2 : 3));
    } else if (failed == "Read") {
      // A read that fails throws the stream's error after the chunks that came whole.
      ASSERT_NE(stream, nullptr);
      EXPECT_TRUE(stream->Succeeded());
      EXPECT_EQ(error, "Unable to read HTTP data\n");
      EXPECT_THAT(got, AnyOf("", "first-", "first-second-", body));
      char byte = 0;
      EXPECT_THROW(stream->Read(&byte, 1), qv::net::http_exception) << "the failure sticks";
      EXPECT_TRUE(retried);
    } else {
      // Anything else (the HEAD failing at any step, or a header query of the GET) still reads
      // the body whole after one retry of the 502, with the size and tag the GET tells.
      ASSERT_NE(stream, nullptr);
      EXPECT_TRUE(stream->Succeeded());
      EXPECT_EQ(got, body);
      EXPECT_EQ(error, "");
      EXPECT_TRUE(retried);
      EXPECT_EQ(stream->ContentSize(), body.size());
      EXPECT_EQ(stream->ETag(), "\"t\"");
    }
    // The 502's error line is the only one ever logged, and only when its status was read.
    for (const std::string& line : m_log.Lines()) {
      EXPECT_EQ(line, "Error: HTTP Response 502 for GET http://example.test/stream\n");
    }
    stream.reset();
    qv::net::HttpConnectionPool::Terminate();
    EXPECT_EQ(m_api.OpenHandles(), 0u) << "handles left open";
  }
  m_api.fail_call = {};
}

}  // namespace
}  // namespace tq::test
