#include "net/startup/http_init.h"

#include <memory>
#include <system_error>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/http_api.h"
#include "net/http/stop_watcher.h"
#include "net/http/wininet_api.h"
#include "net/stream/thread_pool.h"

namespace qv::net {
namespace {

// Both would stop the installed pool, whose threads a host reaches through its own callbacks
// (a pre-request handler runs on the worker that opens the URL): from there the pool would wait
// for the very thread that asks. Refused before anything changes.
void RefuseOnWorker(const char* operation) {
  if (thread_pool* pool = WorkerThreadPool(); pool != nullptr && pool->IsOwnThread()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                            operation);
  }
}

}  // namespace

void InitialiseHttp() {
  RefuseOnWorker("InitialiseHttp on a worker thread");
  // Both are made before anything is installed: a failure leaves the earlier pool and
  // transport in place.
  auto pool = std::make_unique<thread_pool>(kWorkerThreads);
  auto backend = std::make_unique<WinInet>();

  std::unique_ptr<thread_pool> previous = ExchangeWorkerThreadPool(std::move(pool));
  previous.reset();  // the old pool stops after the new one is in place

  // A transport installed before is not destroyed: it stays its owner's.
  SetHttpApi(backend.release());
  HttpFileProtocol::Initialise();
}

void TerminateHttp() {
  RefuseOnWorker("TerminateHttp on a worker thread");
  HttpFileProtocol::Terminate();

  // Tasks still running on the workers use the transport: let them finish before it goes.
  // Queued tasks never start; their futures break when the pool is destroyed below.
  if (thread_pool* pool = WorkerThreadPool()) pool->Shutdown();

  delete SetHttpApi(nullptr);
  ExchangeWorkerThreadPool(nullptr).reset();
  // No send is in flight any more; a later InitialiseHttp starts the watcher again on demand.
  detail::ShutdownStopWatcher();
}

}  // namespace qv::net
