#include "net/http/http_init.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/request_handler.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "net/stream/thread_pool.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/servers/gate.h"

namespace qv::net {
namespace {

class TrackedApi : public tq::test::FakeHttpApi {
 public:
  explicit TrackedApi(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
  ~TrackedApi() override { ++m_destroyed; }

 private:
  std::atomic<int>& m_destroyed;
};

// Regression: a task still running when TerminateHttp released the transport used a destroyed
// object. The pool now lets running tasks finish before the transport goes.
TEST(HttpInitTest, AsyncTaskRunningAtTerminateFinishesBeforeTheTransportIsDestroyed) {
  std::atomic<int> destroyed{0};
  InitialiseHttp();
  delete SetHttpApi(nullptr);
  auto* api = new TrackedApi(destroyed);
  SetHttpApi(api);

  tq::test::Gate in_send, release;
  api->OnSend([&](const tq::test::SentRequest&) {
    in_send.Open();
    release.Wait();
  });
  api->Queue(tq::test::FakeResponse{}.Body("body"));

  std::atomic<int> stops{0};
  std::atomic<bool> transport_alive_at_stop{false};
  auto previous_hook = detail::SetStopHookForTesting([&] {
    if (stops++ == 0) transport_alive_at_stop = HttpApi() == api && destroyed == 0;
    release.Open();  // the task may end only now, after the pool stopped taking tasks
  });

  auto future = OpenFileOrUrlAsync(L"http://example.com/file", 0, {});
  ASSERT_TRUE(in_send.Wait());
  // The host's shut-down order; the layer tolerates a connection closed under a request.
  HttpConnectionPool::Terminate();
  TerminateHttp();
  detail::SetStopHookForTesting(previous_hook);

  EXPECT_TRUE(transport_alive_at_stop);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(HttpApi(), nullptr);
  EXPECT_EQ(WorkerThreadPool(), nullptr);
  EXPECT_FALSE(HttpFileProtocol::IsInitialised());
  auto stream = future.get();
  ASSERT_NE(stream, nullptr);
  char buffer[8] = {};
  EXPECT_EQ(stream->Read(buffer, sizeof buffer), 4u);
}

struct CountingHandler : HttpRequestHandler {
  void HandlePreRequest(HttpRequest&) override { ++calls; }
  std::atomic<int> calls{0};
};

// Run in a child process: the host returns without TerminateHttp while a task's send blocks, and
// the task is stopped only as the process ends, while the pool is ended. Exits 0 when the stop
// watcher cancelled that send and the task's next request went out as usual.
[[noreturn]] void ExitWhileATaskSends() {
  InitialiseHttp();
  delete SetHttpApi(nullptr);
  auto* api = new tq::test::FakeHttpApi;  // the host's own transport, never destroyed
  SetHttpApi(api);
  auto* handler = new CountingHandler;  // registered for the whole run, as hosts do
  HttpRequestHandlerManager::RegisterHandler(handler);
  auto* stop = new qv::stop_source;
  detail::SetStopHookForTesting([stop] { stop->request_stop(); });
  tq::test::FakeResponse blocking;
  blocking.block_until_closed = true;
  api->Queue(blocking);
  api->Queue(tq::test::FakeResponse{});
  tq::test::Gate blocked;
  api->OnBlocked([&] { blocked.Open(); });
  WorkerThreadPool()->submit([=] {
    HttpReadStream::Open(L"http://example.com/", 0, stop->get_token());
    // The fake reports a send that no watcher cancelled as a failure.
    if (::testing::Test::HasFailure()) std::_Exit(3);
    if (!HttpReadStream::Open(L"http://example.com/", 0, {})->Succeeded()) std::_Exit(4);
    if (handler->calls != 2) std::_Exit(5);
  });
  if (!blocked.Wait()) std::_Exit(2);
  std::exit(0);
}

// Regression: the pool, ended at exit, outlived the stop watcher and the handler list that its
// running task still used.
TEST(HttpInitTest, HostExitingWithoutTerminateEndsARunningTaskWhileWhatItUsesExists) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitWhileATaskSends(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qv::net
