#include "tests/support/servers/scripted_server_book.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

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
  bool tls = false;
  int port = -1;
  std::thread thread;
  Book book;

  void Serve(const httplib::Request& req, httplib::Response& res) {
    RecordedRequest record;
    record.method = req.method;
    record.path = req.path;
    const auto query_start = req.target.find('?');
    if (query_start != std::string::npos) record.query = req.target.substr(query_start + 1);
    for (const auto& [name, value] : req.headers) {
      // httplib adds these itself; they did not come from the client.
      if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
          name == "LOCAL_PORT") {
        continue;
      }
      record.headers.emplace_back(name, value);
    }
    record.body = req.body;
    record.remote = req.remote_addr + ":" + std::to_string(req.remote_port);
    const ScriptedResponse answer = book.Answer(record);
    // The answer goes out as scripted: httplib must not cut it to a requested range itself.
    const_cast<httplib::Request&>(req).ranges.clear();
    res.status = answer.status;
    for (const auto& [name, value] : answer.headers) res.headers.emplace(name, value);
    if (answer.chunk_size == 0) {
      res.set_content(answer.body, answer.content_type.c_str());
    } else {
      auto body = std::make_shared<std::string>(answer.body);
      const std::size_t piece = answer.chunk_size;
      res.set_chunked_content_provider(
          answer.content_type.c_str(), [body, piece](std::size_t offset, httplib::DataSink& sink) {
            if (offset < body->size()) {
              sink.write(body->data() + offset, std::min(piece, body->size() - offset));
            } else {
              sink.done();
            }
            return true;
          });
    }
  }
};

ScriptedServer::ScriptedServer() : ScriptedServer(Options{}) {}

ScriptedServer::ScriptedServer(const Options& options) : impl_(std::make_unique<Impl>()) {
  Impl& impl = *impl_;
  if (!options.cert_file.empty() && !options.key_file.empty()) {
    impl.server = std::make_unique<httplib::SSLServer>(options.cert_file.c_str(),
                                                       options.key_file.c_str());
    impl.tls = true;
  } else {
    impl.server = std::make_unique<httplib::Server>();
  }
  if (!impl.server->is_valid()) return;
  auto* accepted = &impl.book.accepted;
  impl.server->new_task_queue = [accepted] { return new ConnectionThreads(accepted); };
  impl.server->set_keep_alive_max_count(options.keep_alive_max);
  impl.server->set_keep_alive_timeout(options.keep_alive_seconds);
  // httplib writes headers and body separately: without this, Nagle's algorithm and delayed
  // acknowledgements add 40 ms to every answer.
  impl.server->set_tcp_nodelay(true);
  // The accept loop then looks at its socket every 50 ms, so stop() cannot miss it.
  impl.server->set_idle_interval(0, 50000);
  const auto handler = [&impl](const httplib::Request& req, httplib::Response& res) {
    impl.Serve(req, res);
  };
  impl.server->Get(".*", handler);
  impl.server->Post(".*", handler);
  impl.server->Put(".*", handler);
  impl.server->Delete(".*", handler);
  impl.server->Options(".*", handler);
  impl.server->Patch(".*", handler);
  impl.port = impl.server->bind_to_any_port("127.0.0.1");
  if (impl.port <= 0) return;
  impl.thread = std::thread([&impl] { impl.server->listen_after_bind(); });
  // stop() does nothing to a server that has not started running yet.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!impl.server->is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
}

ScriptedServer::~ScriptedServer() {
  if (impl_->thread.joinable()) {
    impl_->server->stop();
    impl_->thread.join();
  }
}

bool ScriptedServer::ok() const { return impl_->port > 0 && impl_->thread.joinable(); }
int ScriptedServer::port() const { return impl_->port; }

std::string ScriptedServer::Url(const std::string& path) const {
  return std::string(impl_->tls ? "https" : "http") + "://127.0.0.1:" +
         std::to_string(impl_->port) + path;
}

ScriptedServer::Book& ScriptedServer::book() const { return impl_->book; }

}  // namespace tq::test
