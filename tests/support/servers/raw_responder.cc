#include "tests/support/servers/raw_responder.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/servers/gate.h"

namespace tq::test {

// Accepts connections on a thread of its own and runs the script for each on a thread of its
// own, so that the test decides how many there are.
struct RawResponder::Impl {
  explicit Impl(Script run) : script(std::move(run)) {
    listener = sockets::ListenOnLoopback(64, &port);
    if (listener == sockets::kNone) {
      port = -1;
      return;
    }
    acceptor = std::thread([this] {
      while (sockets::WaitReadable(listener, stopping)) {
        const sockets::Handle s = sockets::Accept(listener);
        if (s == sockets::kNone) continue;
        std::lock_guard lock(mutex);
        if (stopping) {  // Stop()'s own connection, made to wake this loop
          sockets::Close(s);
          return;
        }
        sockets::SetNoDelay(s);  // answers sent in pieces go out as they are written
        open.insert(s);
        ++accepted;
        workers.emplace_back([this, s] {
          RawConnection connection(s, this);
          script(connection);
          connection.Close();
        });
      }
    });
  }

  // Wakes every wait, ends both directions of the open connections and joins every thread.
  void Stop() {
    stopping = true;
    release.Open();
    if (acceptor.joinable()) {
      const sockets::Handle wake = sockets::ConnectToLoopback(port);  // wakes the accept loop
      acceptor.join();
      if (wake != sockets::kNone) sockets::Close(wake);
    }
    std::vector<std::thread> joining;
    {
      std::lock_guard lock(mutex);
      for (const sockets::Handle s : open) sockets::Shutdown(s);  // unblocks reads and sends
      joining.swap(workers);
    }
    for (auto& worker : joining) worker.join();
    if (listener != sockets::kNone) sockets::Close(listener);
  }

  void Close(sockets::Handle s) {
    std::lock_guard lock(mutex);
    open.erase(s);
    sockets::Close(s);
  }

  Script script;
  Gate release;
  sockets::Handle listener = sockets::kNone;
  int port = -1;
  std::atomic<std::size_t> accepted{0};
  std::atomic<bool> stopping{false};
  std::mutex mutex;
  std::set<sockets::Handle> open;
  std::vector<std::thread> workers;
  std::thread acceptor;
};

std::string RawConnection::ReadRequestHead(std::string* body) {
  auto* impl = static_cast<RawResponder::Impl*>(owner_);
  std::string data = std::move(pending_);
  pending_.clear();
  char buffer[16384];
  // Appends what arrives; false when the peer closed or the responder is stopping.
  const auto receive = [&] {
    if (socket_ == sockets::kNone || !sockets::WaitReadable(socket_, impl->stopping)) return false;
    const long n = sockets::Receive(socket_, buffer, sizeof buffer);
    if (n <= 0) return false;
    data.append(buffer, static_cast<std::size_t>(n));
    return true;
  };
  std::size_t head_end;
  while ((head_end = data.find("\r\n\r\n")) == std::string::npos) {
    if (!receive()) return "";
  }
  std::string head = data.substr(0, head_end + 4);
  data.erase(0, head_end + 4);
  // Take the body a Content-Length announces, so the next request starts clean.
  std::string lower = head;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::size_t at = lower.find("\r\ncontent-length:");
  const std::size_t body_length =
      at == std::string::npos ? 0 : std::strtoull(head.c_str() + at + 17, nullptr, 10);
  while (data.size() < body_length) {
    if (!receive()) return "";
  }
  if (body != nullptr) body->assign(data, 0, body_length);
  pending_ = data.substr(body_length);
  return head;
}

bool RawConnection::Send(std::string_view bytes, std::size_t piece) {
  if (socket_ == sockets::kNone) return false;
  if (piece == 0) piece = bytes.size();
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    if (!sockets::SendAll(socket_, bytes.data() + at, std::min(piece, bytes.size() - at))) {
      return false;
    }
  }
  return true;
}

bool RawConnection::Stall() {
  auto* impl = static_cast<RawResponder::Impl*>(owner_);
  impl->release.Wait();
  return !impl->stopping;
}

void RawConnection::Reset() {
  if (socket_ == sockets::kNone) return;
  sockets::ResetOnClose(socket_);
  Close();
}

void RawConnection::Close() {
  if (socket_ == sockets::kNone) return;
  static_cast<RawResponder::Impl*>(owner_)->Close(socket_);
  socket_ = sockets::kNone;
}

RawResponder::RawResponder(Script script) : impl_(std::make_unique<Impl>(std::move(script))) {}

RawResponder::~RawResponder() { impl_->Stop(); }

bool RawResponder::ok() const { return impl_->port > 0; }
int RawResponder::port() const { return impl_->port; }

std::string RawResponder::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + path;
}

std::size_t RawResponder::connection_count() const { return impl_->accepted.load(); }

void RawResponder::Release() { impl_->release.Open(); }

}  // namespace tq::test
