// The worker pool shutting down while a task waits on a server.
#include "net/stream/thread_pool.h"

#include <gtest/gtest.h>

#include <memory>

#include "net/stream/open_file_or_url.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/latch.h"
#include "tests/support/read_all.h"

namespace {

using PoolShutdownTest = tq::test::FakeTransportTest;

// Regression: the shut-down cut a task's pause before a retry, but not a send blocked in the
// transport, so TerminateHttp waited for the transport's own time-out (a minute by default)
// while a server held a worker's request. The send is now cancelled, as a stop cancels it: the
// request could not be made.
TEST_F(PoolShutdownTest, AShutdownCancelsASendBlockedOnAWorker) {
  qv::net::ExchangeWorkerThreadPool(std::make_unique<qv::net::thread_pool>(4));
  tq::test::FakeResponse blocking;
  blocking.block_until_closed = true;
  m_api.Queue(blocking);
  tq::test::Latch blocked(1);
  m_api.OnBlocked([&] { blocked.count_down(); });
  auto opened = qv::net::OpenFileOrUrlAsync(L"http://example.test/slow", 0, {});
  blocked.wait();
  qv::net::ExchangeWorkerThreadPool(nullptr).reset();
  m_api.OnBlocked({});
  const auto stream = opened.get();
  ASSERT_NE(stream, nullptr) << "without a cache an unmade request reads as an empty body";
  EXPECT_EQ(tq::test::ReadAll(*stream, 16), "");
  EXPECT_EQ(m_api.CloseCount(), 1) << "the cancelled send's handle, closed once";
}

}  // namespace
