#include "tests/support/servers/raw_responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/servers/gate.h"

namespace tq::test {

struct RawResponder::Impl {
  Script script;
  int listen_fd = -1;
  int wake[2] = {-1, -1};
  int port = -1;
  std::thread acceptor;
  std::atomic<std::size_t> accepted{0};
  std::atomic<bool> stopping{false};
  Gate release;

  std::mutex mutex;
  std::set<int> open_fds;
  std::vector<std::thread> workers;

  void AcceptLoop() {
    for (;;) {
      pollfd fds[2] = {{listen_fd, POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (poll(fds, 2, -1) < 0) continue;
      if (stopping || (fds[1].revents & POLLIN) != 0) return;
      const int fd = accept(listen_fd, nullptr, nullptr);
      if (fd < 0) continue;
      const std::size_t index = accepted++;
      std::lock_guard lock(mutex);
      open_fds.insert(fd);
      workers.emplace_back([this, fd, index] {
        RawConnection connection(fd, index, this);
        script(connection);
        connection.Close();
      });
    }
  }

  void Forget(int fd) {
    std::lock_guard lock(mutex);
    open_fds.erase(fd);
  }
};

std::string RawConnection::ReadRequestHead() {
  auto* impl = static_cast<RawResponder::Impl*>(owner_);
  std::string data = std::move(pending_);
  pending_.clear();
  char buffer[16384];
  std::size_t head_end;
  while ((head_end = data.find("\r\n\r\n")) == std::string::npos) {
    if (fd_ < 0 || impl->stopping) return "";
    const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n <= 0) return "";
    data.append(buffer, static_cast<std::size_t>(n));
  }
  std::string head = data.substr(0, head_end + 4);
  std::string rest = data.substr(head_end + 4);
  // Skip the body a Content-Length announces, so the next request starts clean.
  std::size_t body_length = 0;
  for (std::size_t pos = 0; (pos = head.find("\r\n", pos)) != std::string::npos;) {
    pos += 2;
    static constexpr std::string_view kName = "content-length:";
    if (head.size() - pos > kName.size()) {
      std::string name = head.substr(pos, kName.size());
      for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (name == kName) body_length = std::strtoull(head.c_str() + pos + kName.size(), nullptr, 10);
    }
  }
  while (rest.size() < body_length) {
    const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n <= 0) return "";
    rest.append(buffer, static_cast<std::size_t>(n));
  }
  pending_ = rest.substr(body_length);
  return head;
}

bool RawConnection::Send(std::string_view bytes) {
  while (!bytes.empty() && fd_ >= 0) {
    const ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return fd_ >= 0;
}

bool RawConnection::Stall() {
  auto* impl = static_cast<RawResponder::Impl*>(owner_);
  impl->release.Wait();
  return !impl->stopping;
}

void RawConnection::Reset() {
  if (fd_ < 0) return;
  linger hard{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  Close();
}

void RawConnection::Close() {
  if (fd_ < 0) return;
  static_cast<RawResponder::Impl*>(owner_)->Forget(fd_);
  close(fd_);
  fd_ = -1;
}

RawResponder::RawResponder(Script script) : impl_(std::make_unique<Impl>()) {
  Impl& impl = *impl_;
  impl.script = std::move(script);
  impl.listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (impl.listen_fd < 0 || pipe(impl.wake) != 0) return;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (bind(impl.listen_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(impl.listen_fd, 64) != 0 ||
      getsockname(impl.listen_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return;
  }
  impl.port = ntohs(address.sin_port);
  impl.acceptor = std::thread([&impl] { impl.AcceptLoop(); });
}

RawResponder::~RawResponder() {
  Impl& impl = *impl_;
  impl.stopping = true;
  impl.release.Open();
  if (impl.acceptor.joinable()) {
    const char byte = 0;
    [[maybe_unused]] const ssize_t ignored = write(impl.wake[1], &byte, 1);
    impl.acceptor.join();
  }
  std::vector<std::thread> workers;
  {
    std::lock_guard lock(impl.mutex);
    // Unblocks reads; each worker closes its own descriptor.
    for (int fd : impl.open_fds) shutdown(fd, SHUT_RDWR);
    workers.swap(impl.workers);
  }
  for (auto& worker : workers) worker.join();
  if (impl.listen_fd >= 0) close(impl.listen_fd);
  if (impl.wake[0] >= 0) close(impl.wake[0]);
  if (impl.wake[1] >= 0) close(impl.wake[1]);
}

bool RawResponder::ok() const { return impl_->port > 0; }
int RawResponder::port() const { return impl_->port; }

std::string RawResponder::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + path;
}

std::size_t RawResponder::connection_count() const { return impl_->accepted.load(); }

void RawResponder::Release() { impl_->release.Open(); }

}  // namespace tq::test
