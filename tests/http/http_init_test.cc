#include "net/http/http_init.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#endif

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/request_handler.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "net/stream/thread_pool.h"
#include "tests/support/fake_http_api.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/temp_dir.h"

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

// Start-up puts a pool of 4 threads and a WinInet backend in place of a host's transport, which
// stays the host's. Start-up and shut-down that cannot be done leave everything as it was: the
// exception, and the same pool (still serving), transport and file protocol. Regressions:
// InitialiseHttp on a worker (a pre-request handler runs there) destroyed that worker's own pool,
// whose join of the calling thread ended the process; TerminateHttp there unregistered the file
// protocol first.
TEST(HttpInitTest, StartUpAndShutDownThatCannotBeDoneChangeNothing) {
  std::atomic<int> destroyed{0};
  auto* host = new TrackedApi(destroyed);
  SetHttpApi(host);
  InitialiseHttp();
  IHttpApi* const api = HttpApi();
  thread_pool* const pool = WorkerThreadPool();
  EXPECT_NE(dynamic_cast<WinInet*>(api), nullptr);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->ThreadCount(), 4u);
  EXPECT_EQ(destroyed, 0);
  if (destroyed == 0) delete host;
  // The error comes back as a code, not as the exception: an exception object handed between
  // threads through a future has its reference count inside libstdc++, where ThreadSanitizer
  // cannot see it, and would be reported as a race.
  const auto on_worker = [pool](void (*call)()) {
    return [=] {
      const std::error_code error = pool->submit([call] {
                                          try {
                                            call();
                                          } catch (const std::system_error& e) {
                                            return e.code();
                                          }
                                          return std::error_code();
                                        }).get();
      if (error) throw std::system_error(error);
    };
  };
  const auto unavailable = std::make_error_code(std::errc::resource_unavailable_try_again);
  const struct {
    const char* name;
    std::function<void()> run;
    std::error_code error;
  } rows[] = {
      {"InitialiseHttp on a worker", on_worker(&InitialiseHttp),
       std::make_error_code(std::errc::resource_deadlock_would_occur)},
      {"TerminateHttp on a worker", on_worker(&TerminateHttp),
       std::make_error_code(std::errc::resource_deadlock_would_occur)},
      // The workers already started are stopped and joined, not left waiting for a task.
      {"InitialiseHttp whose third worker cannot start",
       [&] {
         detail::SetThreadStartHookForTesting([&](std::uint32_t index) {
           if (index == 2) throw std::system_error(unavailable);
         });
         try {
           InitialiseHttp();
         } catch (...) {
           detail::SetThreadStartHookForTesting(nullptr);
           throw;
         }
         detail::SetThreadStartHookForTesting(nullptr);
       },
       unavailable},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      row.run();
      ADD_FAILURE() << "no exception";
    } catch (const std::system_error& e) {
      EXPECT_EQ(e.code(), row.error);
    }
    EXPECT_EQ(HttpApi(), api);
    EXPECT_EQ(WorkerThreadPool(), pool);
    EXPECT_TRUE(HttpFileProtocol::IsInitialised());
    EXPECT_EQ(pool->submit([] { return 7; }).get(), 7);
  }
  TerminateHttp();
}

// Regression: a pre-request handler that shut the library down on the host's own thread (not a
// worker, where it is refused) deleted the transport the opening stream then sent through.
TEST(HttpInitTest, TerminateHttpFromAHandlerOnTheHostThreadLeavesTheOpenWithoutATransport) {
  struct Terminating : HttpRequestHandler {
    void HandlePreRequest(HttpRequest&) override { TerminateHttp(); }
  } handler;
  InitialiseHttp();
  delete SetHttpApi(new tq::test::FakeHttpApi);
  HttpRequestHandlerManager::RegisterHandler(&handler);
  try {
    HttpReadStream::Open(L"http://example.com/", 0, {});
    ADD_FAILURE() << "no exception";
  } catch (const http_exception& e) {
    EXPECT_STREQ(e.what(), "Unable to create HTTP connection\n");
  }
  HttpRequestHandlerManager::UnregisterHandler(&handler);
  EXPECT_EQ(HttpApi(), nullptr);
  HttpConnectionPool::Terminate();
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

#ifdef _WIN32
// A function of the library loaded as a host loads it, found by its exported (GCC) name.
template <typename F>
F* Exported(HMODULE module, const char* name) {
  return reinterpret_cast<F*>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

// tqnetwork.dll loaded as a host loads it, and the functions the cases below call.
struct LoadedLibrary {
  HMODULE module = ::LoadLibraryW(L"tqnetwork.dll");
  void (*initialise)() = Exported<void()>(module, "_ZN2qv3net14InitialiseHttpEv");
  void (*terminate)() = Exported<void()>(module, "_ZN2qv3net13TerminateHttpEv");
  void (*terminate_pool)() =
      Exported<void()>(module, "_ZN2qv3net18HttpConnectionPool9TerminateEv");
  IHttpApi* (*set_api)(IHttpApi*) =
      Exported<IHttpApi*(IHttpApi*)>(module, "_ZN2qv3net10SetHttpApiEPNS0_8IHttpApiE");
  std::unique_ptr<HttpReadStream> (*open)(std::wstring_view, int, qv::stop_token) =
      Exported<std::unique_ptr<HttpReadStream>(std::wstring_view, int, qv::stop_token)>(
          module, "_ZN2qv3net14HttpReadStream4OpenESt17basic_string_viewIwSt11char_traitsIwEEiNS_"
                  "10stop_tokenE");
  std::unique_ptr<qv::io::IDataSeekableReadStream> (*open_file_or_url)(std::wstring_view, int,
                                                                       qv::stop_token) =
      Exported<std::unique_ptr<qv::io::IDataSeekableReadStream>(std::wstring_view, int,
                                                                qv::stop_token)>(
          module, "_ZN2qv3net13OpenFileOrUrlESt17basic_string_viewIwSt11char_traitsIwEEiNS_10"
                  "stop_tokenE");

  bool ok() const {
    return module && initialise && terminate && terminate_pool && set_api && open &&
           open_file_or_url;
  }
};

// Regression: a host that ended its process without TerminateHttp, with tqnetwork.dll's workers
// and stop watcher running, never ended. Windows ends those threads first, wherever they wait;
// the DLL's static destructors then joined them and woke their conditions, which waited for ever.
[[noreturn]] void EndTheProcessWhileTheDllsThreadsRun() {
  const LoadedLibrary dll;
  if (!dll.ok()) std::_Exit(2);
  dll.initialise();
  qv::stop_source stop;  // a send that can be stopped starts the watcher
  if (dll.open(L"http://127.0.0.1:1/", 0, stop.get_token())->Succeeded()) std::_Exit(4);
  std::exit(0);
}

TEST(HttpInitTest, AProcessEndingWhileTheDllsThreadsRunEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(EndTheProcessWhileTheDllsThreadsRun(), ::testing::ExitedWithCode(0), "");
}

// Regression: a host that unloaded the utility library (with a plug-in of its own) after one of
// its threads had logged crashed as that thread ended: the thread's log line was freed by code
// that was gone.
[[noreturn]] void EndAThreadThatLoggedAfterTheUnload() {
  std::thread([] {
    HMODULE module = ::LoadLibraryW(L"tqutil.dll");
    if (module == nullptr) std::_Exit(2);
    auto* log = Exported<void(const wchar_t*)>(module, "_ZN8TqUError13LogWideStringEPKw");
    if (log == nullptr) std::_Exit(3);
    log(L"logged before the unload\n");
    ::FreeLibrary(module);
  }).join();
  std::exit(0);
}

TEST(HttpInitTest, AThreadThatLoggedEndsAfterTheUtilityLibraryIsUnloaded) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(EndAThreadThatLoggedAfterTheUnload(), ::testing::ExitedWithCode(0),
              "logged before the unload");
}

// Regressions: a host that unloaded the library without TerminateHttp, while the workers or the
// stop watcher ran, never got FreeLibrary back: the unload ended those threads under the loader
// lock, which a thread needs to end. The module now stays while they run; the host's own
// shut-down ends them, and its last reference then unloads the module. And a host thread that
// had copied a body through the library crashed as it ended after the unload: the copy buffer
// kept for the thread was released by the library's code, gone by then.
TEST(HttpInitTest, UnloadingTheLibraryWhileItsThreadsRunKeepsItLoadedUntilTheyEnd) {
  // The host's own utility library stays loaded, as it does in a host, to the process's end.
  ASSERT_NE(::LoadLibraryW(L"tqutil.dll"), nullptr);
  const tq::test::TempDir dir;  // of its own: another run of the suite may be going on beside
  const auto file = dir.path() / "copy.txt";
  std::ofstream(file, std::ios::binary) << "body";
  for (const bool pool : {true, false}) {
    SCOPED_TRACE(pool ? "worker pool" : "stop watcher alone");
    const LoadedLibrary dll;
    ASSERT_TRUE(dll.ok());
    const auto [module, initialise, terminate, terminate_pool, set_api, open, open_file_or_url] =
        dll;
    initialise();
    // A host thread that copied through the library ends only once the library is gone: what
    // the library kept for it must not call into the unloaded code as it ends.
    tq::test::Gate copied, unloaded;
    std::thread host_thread([&] {
      // A file URL, with no cache installed, is copied into memory.
      std::wstring url = L"file:///" + file.wstring();
      std::replace(url.begin(), url.end(), L'\\', L'/');
      if (auto stream = open_file_or_url(url, 0, {})) {
        char text[8] = {};
        EXPECT_EQ(stream->Read(text, sizeof text), 4u);
      } else {
        ADD_FAILURE() << "the file URL was not read";
      }
      copied.Open();
      unloaded.Wait();
    });
    EXPECT_TRUE(copied.Wait());
    if (!pool) {
      // The library's transport without its pool; a send that can be stopped starts the watcher.
      IHttpApi* api = set_api(nullptr);
      terminate();
      set_api(api);
      qv::stop_source stop;
      EXPECT_FALSE(open(L"http://127.0.0.1:1/", 0, stop.get_token())->Succeeded());
    }
    EXPECT_TRUE(::FreeLibrary(module));
    EXPECT_EQ(::GetModuleHandleW(L"tqnetwork.dll"), module) << "kept while its threads run";
    EXPECT_EQ(::LoadLibraryW(L"tqnetwork.dll"), module);
    terminate_pool();
    terminate();
    EXPECT_TRUE(::FreeLibrary(module));
    EXPECT_EQ(::GetModuleHandleW(L"tqnetwork.dll"), nullptr);
    unloaded.Open();
    host_thread.join();
  }
}
#endif

}  // namespace
}  // namespace qv::net
