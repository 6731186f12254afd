// ScriptedServer over cpp-httplib, with HTTPS when given a certificate.
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

// One thread per accepted connection: the test controls how many connections there are, and a
// fixed pool could starve held answers. Counting enqueued tasks counts accepted connections.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  explicit ConnectionThreads(std::atomic<std::size_t>* accepted) : accepted_(accepted) {}
  void enqueue(std::function<void()> fn) override {
    ++*accepted_;
    std::lock_guard lock(mutex_);
    threads_.emplace_back(std::move(fn));
  }
  void shutdown() override {
    std::vector<std::thread> threads;
    {
      std::lock_guard lock(mutex_);
      threads.swap(threads_);
    }
    for (auto& t : threads) t.join();
  }

 private:
  std::atomic<std::size_t>* accepted_;
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

}  // namespace

struct ScriptedServer::Impl {
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
};

ScriptedServer::ScriptedServer(const Options& options) : impl_(std::make_unique<Impl>()) {
  auto& server = impl_->server;
  tls_ = !options.cert_file.empty() && !options.key_file.empty();
  if (tls_) {
    server = std::make_unique<httplib::SSLServer>(options.cert_file.c_str(),
                                                  options.key_file.c_str());
  } else {
    server = std::make_unique<httplib::Server>();
  }
  if (!server->is_valid()) return;
  server->new_task_queue = [this] { return new ConnectionThreads(&accepted_); };
  server->set_keep_alive_max_count(100000);
  // httplib writes headers and body separately: without this, Nagle's algorithm and delayed
  // acknowledgements add 40 ms to every answer.
  server->set_tcp_nodelay(true);
  // The accept loop then looks at its socket every 50 ms, so stop() cannot miss it.
  server->set_idle_interval(0, 50000);
  const auto handler = [this](const httplib::Request& req, httplib::Response& res) {
    RecordedRequest record;
    record.method = req.method;
    record.path = req.path;
    const auto query = req.target.find('?');
    if (query != std::string::npos) record.query = req.target.substr(query + 1);
    for (const auto& [name, value] : req.headers) {
      // httplib adds these itself; they did not come from the client.
      if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" &&
          name != "LOCAL_PORT") {
        record.headers.emplace_back(name, value);
      }
    }
    record.body = req.body;
    const ScriptedResponse answer = Answer(record);
    // The answer goes out as scripted: httplib must not cut it to a requested range itself.
    const_cast<httplib::Request&>(req).ranges.clear();
    res.status = answer.status;
    for (const auto& [name, value] : answer.headers) res.headers.emplace(name, value);
    if (answer.chunk_size == 0) return res.set_content(answer.body, "application/octet-stream");
    auto body = std::make_shared<std::string>(answer.body);
    const std::size_t piece = answer.chunk_size;
    res.set_chunked_content_provider("application/octet-stream", [body, piece](std::size_t at,
                                                                               auto& sink) {
      if (at >= body->size()) return sink.done(), true;
      return sink.write(body->data() + at, std::min(piece, body->size() - at));
    });
  };
  server->Get(".*", handler).Post(".*", handler).Put(".*", handler);
  server->Delete(".*", handler).Options(".*", handler).Patch(".*", handler);
  const int port = server->bind_to_any_port("127.0.0.1");
  if (port <= 0) return;
  impl_->thread = std::thread([this] { impl_->server->listen_after_bind(); });
  // stop() does nothing to a server that has not started running yet.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server->is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  port_ = port;
}

ScriptedServer::~ScriptedServer() {
  if (impl_->thread.joinable()) {
    impl_->server->stop();
    impl_->thread.join();
  }
}

}  // namespace tq::test
