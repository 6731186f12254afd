#include "net/http/http_init.h"

#include <gtest/gtest.h>

#include <atomic>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/thread_pool.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/servers/gate.h"

namespace qv::net {
namespace {

// A transport that tells when it is destroyed.
class TrackedApi : public tq::test::FakeHttpApi {
 public:
  explicit TrackedApi(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
  ~TrackedApi() override { ++m_destroyed; }

 private:
  std::atomic<int>& m_destroyed;
};

TqUFileProtocol* Registered(const wchar_t* scheme) {
  TqUFileProtocolRegistry* registry = TqUFileProtocolRegistry::Get();
  return registry ? registry->Lookup(scheme) : nullptr;
}

TEST(HttpInitTest, InstallsReplacesAndReleasesTransportPoolAndProtocol) {
  ASSERT_EQ(HttpApi(), nullptr);
  InitialiseHttp();
  ASSERT_NE(dynamic_cast<WinInet*>(HttpApi()), nullptr);
  ASSERT_NE(WorkerThreadPool(), nullptr);
  EXPECT_EQ(WorkerThreadPool()->ThreadCount(), 4u);
  ASSERT_NE(Registered(L"http"), nullptr);
  EXPECT_EQ(Registered(L"http"), Registered(L"https"));
  EXPECT_NE(dynamic_cast<HttpFileProtocol*>(Registered(L"https")), nullptr);
  TerminateHttp();
  EXPECT_EQ(HttpApi(), nullptr);
  EXPECT_EQ(WorkerThreadPool(), nullptr);
  EXPECT_EQ(Registered(L"http"), nullptr);
  EXPECT_EQ(Registered(L"https"), nullptr);
  TerminateHttp();  // a second one finds nothing to destroy
  EXPECT_EQ(HttpApi(), nullptr);

  // A second InitialiseHttp replaces the pool (a use of the old one would show under
  // AddressSanitizer) and installs a new backend; the first backend is its owner's, the test's.
  InitialiseHttp();
  IHttpApi* first_backend = HttpApi();
  InitialiseHttp();
  ASSERT_NE(WorkerThreadPool(), nullptr);
  EXPECT_EQ(WorkerThreadPool()->ThreadCount(), 4u);
  EXPECT_NE(HttpApi(), first_backend);
  delete first_backend;
  TerminateHttp();
  TerminateHttp();
  EXPECT_FALSE(HttpFileProtocol::IsInitialised());
}

TEST(HttpInitTest, OwnershipOfTransportsSwappedInAndOut) {
  std::atomic<int> destroyed{0};

  // Installed before InitialiseHttp: replaced, not destroyed; the host still owns it.
  auto* before = new TrackedApi(destroyed);
  SetHttpApi(before);
  InitialiseHttp();
  EXPECT_EQ(destroyed, 0);
  EXPECT_NE(HttpApi(), before);
  delete before;
  destroyed = 0;

  // Swapped in after InitialiseHttp: SetHttpApi hands back the default backend, and
  // TerminateHttp destroys whatever is installed.
  auto* mine = new TrackedApi(destroyed);
  IHttpApi* backend = SetHttpApi(mine);
  EXPECT_NE(dynamic_cast<WinInet*>(backend), nullptr);
  delete backend;
  TerminateHttp();
  EXPECT_EQ(destroyed, 1);

  // Swapped out again before TerminateHttp: nothing is destroyed.
  TrackedApi kept(destroyed);
  InitialiseHttp();
  delete SetHttpApi(&kept);
  SetHttpApi(nullptr);
  TerminateHttp();
  EXPECT_EQ(destroyed, 1);
}

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
  auto stream = future.get();
  ASSERT_NE(stream, nullptr);
  char buffer[8] = {};
  EXPECT_EQ(stream->Read(buffer, sizeof buffer), 4u);
}

}  // namespace
}  // namespace qv::net
