#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "net/stream/open_file_or_url.h"
#include "net/stream/thread_pool.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/latch.h"
#include "tests/support/read_all.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/temp_dir.h"

namespace {

using qv::net::OpenFileOrUrlAsync;
using qv::net::thread_pool;
using tq::test::Gate;

// Read only once the pool that ran the task is joined: a stored exception's reference count
// lives in the uninstrumented runtime, out of ThreadSanitizer's view.
template <typename T>
std::error_code ErrorOf(std::future<T>& future) {
  try {
    future.get();
  } catch (const std::future_error& e) {
    return e.code();
  } catch (const std::system_error& e) {
    return e.code();
  }
  return {};
}

TEST(ThreadPoolTest, FourRunTogetherTheFifthWhenOneEndsAndDestructionBreaksQueuedTasks) {
  auto pool = std::make_unique<thread_pool>(4);
  Gate gates[6];
  std::vector<std::future<void>> futures;
  for (auto& gate : gates) futures.push_back(pool->submit([&gate] { gate.Wait(); }));
  for (int id = 0; id < 4; ++id) ASSERT_TRUE(gates[id].WaitForWaiters(1)) << id;
  EXPECT_EQ(gates[4].waiters(), 0);
  gates[2].Open();
  EXPECT_TRUE(gates[4].WaitForWaiters(1));
  // The running tasks may end only once no worker can take another task.
  qv::net::detail::SetStopHookForTesting([&] {
    for (int id : {0, 1, 3, 4}) gates[id].Open();
  });
  pool.reset();
  qv::net::detail::SetStopHookForTesting(nullptr);
  for (int id = 0; id < 5; ++id) EXPECT_EQ(ErrorOf(futures[id]), std::error_code()) << id;
  EXPECT_EQ(gates[5].waiters(), 0);
  EXPECT_EQ(ErrorOf(futures[5]), std::make_error_code(std::future_errc::broken_promise));

  // A task cannot shut its own pool down: refused with the deadlock error, the pool still serves.
  auto other = std::make_unique<thread_pool>(1);
  auto self = other->submit([&] { other->Shutdown(); });
  auto failing = other->submit([]() -> int { throw std::runtime_error("task failed"); });
  EXPECT_EQ(other->submit([] { return 3; }).get(), 3);
  other.reset();
  EXPECT_EQ(ErrorOf(self), std::make_error_code(std::errc::resource_deadlock_would_occur));
  EXPECT_THROW(failing.get(), std::runtime_error);
}

class OpenFileOrUrlAsyncTest : public tq::test::FakeTransportTest {
 protected:
  void TearDown() override {
    // The pool first: no task may outlive the transport it uses.
    qv::net::ExchangeWorkerThreadPool(nullptr).reset();
    FakeTransportTest::TearDown();
  }
};

TEST_F(OpenFileOrUrlAsyncTest, UrlsRunOnWorkersLocalFilesAtOnceAndAStopEndsAQueuedOrBlockedOpen) {
  auto no_pool = OpenFileOrUrlAsync(L"http://example.test/x", 0, {});
  EXPECT_EQ(ErrorOf(no_pool), std::make_error_code(std::future_errc::broken_promise));

  qv::net::ExchangeWorkerThreadPool(std::make_unique<thread_pool>(4));
  thread_pool* pool = qv::net::WorkerThreadPool();
  m_api.SetResponder([](const tq::test::SentRequest& sent) {
    const std::string body = "body of " + qv::WideToUtf8(sent.resource);
    tq::test::FakeResponse response;
    response.Header(L"Content-Length", std::to_wstring(body.size())).Body(body);
    return response;
  });
  std::vector<std::future<std::unique_ptr<qv::io::IDataSeekableReadStream>>> futures;
  for (int i = 0; i < 32; ++i) {
    futures.push_back(OpenFileOrUrlAsync(L"http://example.test/f" + std::to_wstring(i), 0, {}));
  }
  for (int i = 0; i < 32; ++i) {
    auto stream = futures[i].get();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(tq::test::ReadAll(*stream, 32), "body of /f" + std::to_string(i));
  }
  EXPECT_EQ(m_api.CountCalls("Connect"), 1) << "one pooled connection for the server";

  // Every worker is held: a local file is still ready at once, and a stop made while a URL's
  // task is queued means it sends nothing.
  Gate gate;
  std::vector<std::future<void>> held;
  for (int i = 0; i < 4; ++i) held.push_back(pool->submit([&gate] { gate.Wait(); }));
  const tq::test::TempDir dir;  // of its own: another run of the suite may be going on beside
  const auto file = dir.path() / "local.txt";
  std::ofstream(file, std::ios::binary) << "local file body";
  auto local = OpenFileOrUrlAsync(file.wstring(), 0, {});
  ASSERT_EQ(local.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  EXPECT_EQ(tq::test::ReadAll(*local.get(), 32), "local file body");
#ifdef _WIN32
  {  // the same file through its long-path form, which the system opens as it is
    auto long_form = OpenFileOrUrlAsync(L"\\\\?\\" + file.wstring(), 0, {}).get();
    ASSERT_NE(long_form, nullptr);
    EXPECT_EQ(tq::test::ReadAll(*long_form, 32), "local file body");
  }
#endif
  qv::stop_source stop;
  auto stopped = OpenFileOrUrlAsync(L"http://example.test/stopped", 0, stop.get_token());
  stop.request_stop();
  gate.Open();
  for (auto& task : held) task.get();
  EXPECT_EQ(stopped.get(), nullptr);
  EXPECT_EQ(m_api.CountCalls("Send"), 32);

  // The stop also reaches a send blocked on a worker: it is cancelled, its handle closed once,
  // and the future holds null. Before, the worker stayed blocked until the transport's time-out.
  tq::test::FakeResponse blocking;
  blocking.block_until_closed = true;
  m_api.Queue(blocking);
  tq::test::Latch blocked(1);
  m_api.OnBlocked([&] { blocked.count_down(); });
  const int closes = m_api.CloseCount();
  qv::stop_source cancel;
  auto cancelled = OpenFileOrUrlAsync(L"http://example.test/slow", 0, cancel.get_token());
  blocked.wait();
  cancel.request_stop();
  EXPECT_EQ(cancelled.get(), nullptr);
  EXPECT_EQ(m_api.CloseCount() - closes, 1);
  m_api.OnBlocked({});

  // The pool shutting down cuts a task's pause before a retry (here a Retry-After of 30 s): the
  // answer waited on is the task's, and nothing more is sent. Before, the shut-down waited.
  tq::test::FakeResponse busy;
  busy.status = 429;
  m_api.Queue(busy.Header(L"Retry-After", L"30"));
  Gate paused, resumed;
  auto recording = qv::net::detail::SetRetrySleepForTesting([&](auto) {
    paused.Open();
    resumed.Wait();
  });
  qv::net::detail::SetStopHookForTesting([&] { resumed.Open(); });
  const int sends = m_api.CountCalls("Send");
  auto answered = OpenFileOrUrlAsync(L"http://example.test/busy", 0, {});
  ASSERT_TRUE(paused.Wait());
  qv::net::ExchangeWorkerThreadPool(nullptr).reset();
  qv::net::detail::SetStopHookForTesting(nullptr);
  qv::net::detail::SetRetrySleepForTesting(std::move(recording));
  auto stream = answered.get();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(tq::test::ReadAll(*stream, 32), "");
  EXPECT_EQ(m_api.CountCalls("Send") - sends, 1);
}

}  // namespace
