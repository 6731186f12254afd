#include "net/startup/http_init.h"

#include <memory>

#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/http_api.h"
#include "net/http/stop_watcher.h"
#include "net/http/wininet_api.h"
#include "net/stream/thread_pool.h"

namespace qv::net {

void InitialiseHttp() {
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
