#include "tour_server.h"

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <string_view>
#include <chrono>
#include <thread>
#include <vector>

namespace {

#if defined(_WIN32)
using Socket = SOCKET;
const Socket kNoSocket = INVALID_SOCKET;
void CloseSocket(Socket s) { ::closesocket(s); }
int Poll(pollfd* fds, int count, int timeout) { return ::WSAPoll(fds, static_cast<ULONG>(count), timeout); }
constexpr int kShutBoth = SD_BOTH;
#else
using Socket = int;
constexpr Socket kNoSocket = -1;
void CloseSocket(Socket s) { ::close(s); }
int Poll(pollfd* fds, int count, int timeout) { return ::poll(fds, static_cast<nfds_t>(count), timeout); }
constexpr int kShutBoth = SHUT_RDWR;
#endif

// A request head larger than this is refused: the tour's client never sends one.
constexpr std::size_t kMaxHead = 64 * 1024;

// Threads wait for their socket in slices this long, and look whether the server is stopping in
// between: neither system promises that closing or shutting down a socket wakes a thread
// blocked on it (Wine's does not), and the client may keep an idle connection open for a minute.
constexpr int kWaitSliceMs = 100;

// True when `s` can be read (or accepted from) without blocking; false after a slice without.
bool Readable(Socket s) {
  pollfd entry{};
  entry.fd = s;
  entry.events = POLLIN;
  return Poll(&entry, 1, kWaitSliceMs) > 0;
}

bool SendAll(Socket s, std::string_view bytes) {
  while (!bytes.empty()) {
    const int chunk = static_cast<int>(std::min<std::size_t>(bytes.size(), 1 << 20));
    const auto sent = ::send(s, bytes.data(), chunk, 0);
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return std::string(text);
}

std::string HttpDate(std::time_t t) {
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&t));
  return text;
}

struct Request {
  std::string method, path, version;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string Header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
  }
};

bool ParseHead(const std::string& head, Request* request) {
  std::size_t end = head.find("\r\n");
  const std::string line = head.substr(0, end);
  const std::size_t a = line.find(' '), b = line.rfind(' ');
  if (a == std::string::npos || b == a) return false;
  request->method = line.substr(0, a);
  request->path = line.substr(a + 1, b - a - 1);
  request->version = line.substr(b + 1);
  request->path = request->path.substr(0, request->path.find('?'));
  while (end != std::string::npos && end + 2 < head.size()) {
    const std::size_t start = end + 2;
    end = head.find("\r\n", start);
    const std::string field = head.substr(start, end - start);
    const std::size_t colon = field.find(':');
    if (colon == std::string::npos) return false;
    request->headers[Lower(Trim(field.substr(0, colon)))] = Trim(field.substr(colon + 1));
  }
  return true;
}

// One "bytes=first-last", "bytes=first-" or "bytes=-suffix" range of a body of `size` bytes.
// Anything else is ignored (the whole body is sent), as a server may.
enum class RangeKind { kNone, kSatisfiable, kUnsatisfiable };
RangeKind ParseRange(const std::string& value, std::uint64_t size, std::uint64_t* first,
                     std::uint64_t* last) {
  if (value.rfind("bytes=", 0) != 0 || value.find(',') != std::string::npos) return RangeKind::kNone;
  const std::string range = value.substr(6);
  const std::size_t dash = range.find('-');
  if (dash == std::string::npos) return RangeKind::kNone;
  const std::string a = range.substr(0, dash), b = range.substr(dash + 1);
  auto number = [](const std::string& text, std::uint64_t* out) {
    if (text.empty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      return false;
    }
    *out = std::stoull(text);
    return true;
  };
  std::uint64_t x = 0, y = 0;
  if (a.empty()) {  // the last y bytes
    if (!number(b, &y)) return RangeKind::kNone;
    if (y == 0 || size == 0) return RangeKind::kUnsatisfiable;
    *first = size - std::min(y, size);
    *last = size - 1;
    return RangeKind::kSatisfiable;
  }
  if (!number(a, &x) || (!b.empty() && (!number(b, &y) || y < x))) return RangeKind::kNone;
  if (x >= size) return RangeKind::kUnsatisfiable;
  *first = x;
  *last = b.empty() ? size - 1 : std::min(y, size - 1);
  return RangeKind::kSatisfiable;
}

bool TagMatches(const std::string& if_none_match, const std::string& etag) {
  std::size_t start = 0;
  while (start <= if_none_match.size()) {
    std::size_t comma = if_none_match.find(',', start);
    if (comma == std::string::npos) comma = if_none_match.size();
    std::string tag = Trim(std::string_view(if_none_match).substr(start, comma - start));
    if (tag.rfind("W/", 0) == 0) tag.erase(0, 2);
    if (tag == "*" || tag == etag) return true;
    start = comma + 1;
  }
  return false;
}

}  // namespace

struct TourServer::Impl {
  Socket listener = kNoSocket;
  int port = 0;
  std::thread acceptor;
  std::mutex mutex;
  std::atomic<bool> stopping{false};
  std::vector<Socket> connections;
  std::vector<std::thread> workers;
  std::map<std::string, File> files;
  std::map<std::string, int> requests;

  void Accept() {
    while (!stopping) {
      if (!Readable(listener)) continue;
      const Socket s = ::accept(listener, nullptr, nullptr);
      if (s == kNoSocket) continue;
      std::lock_guard lock(mutex);
      connections.push_back(s);
      workers.emplace_back([this, s] {
        Serve(s);
        std::lock_guard done(mutex);
        connections.erase(std::find(connections.begin(), connections.end(), s));
        CloseSocket(s);
      });
    }
  }

  // Appends what arrives on `s` to `buffer`; false when the client closed the connection or
  // the server is stopping.
  bool Receive(Socket s, std::string& buffer) {
    while (!Readable(s)) {
      if (stopping) return false;
    }
    char chunk[16384];
    const auto got = ::recv(s, chunk, sizeof chunk, 0);
    if (got <= 0) return false;
    buffer.append(chunk, static_cast<std::size_t>(got));
    return true;
  }

  // Answers requests on one connection until the client closes it or the server stops.
  void Serve(Socket s) {
    std::string buffer;
    for (;;) {
      std::size_t head_end;
      while ((head_end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (buffer.size() > kMaxHead || !Receive(s, buffer)) return;
      }
      Request request;
      const bool parsed = ParseHead(buffer.substr(0, head_end), &request);
      buffer.erase(0, head_end + 4);
      if (!parsed) {
        SendAll(s, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        return;
      }
      // A request body (none is expected) is read and dropped, up to the same bound.
      const std::string length = request.Header("content-length");
      if (!length.empty()) {
        std::uint64_t remaining = 0;
        try {
          remaining = std::stoull(length);
        } catch (const std::exception&) {
          return;
        }
        if (remaining > kMaxHead) return;
        while (buffer.size() < remaining) {
          if (!Receive(s, buffer)) return;
        }
        buffer.erase(0, static_cast<std::size_t>(remaining));
      }
      const bool keep_alive = request.version == "HTTP/1.1" &&
                              Lower(request.Header("connection")) != "close";
      if (!SendAll(s, Answer(request, keep_alive)) || !keep_alive) return;
    }
  }

  std::string Answer(const Request& request, bool keep_alive) {
    std::string head, body;
    const bool head_only = request.method == "HEAD";
    int delay_ms = 0;
    {
      std::lock_guard lock(mutex);
      ++requests[request.path];
      const auto it = files.find(request.path);
      if (request.method != "GET" && !head_only) {
        head = "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, HEAD\r\n";
      } else if (it == files.end()) {
        head = "HTTP/1.1 404 Not Found\r\n";
      } else {
        const File& file = it->second;
        delay_ms = file.delay_ms;
        const std::uint64_t size = file.body.size();
        std::string fields = "ETag: " + file.etag + "\r\nDate: " + HttpDate(std::time(nullptr)) +
                             "\r\nCache-Control: max-age=600\r\n"
                             "Last-Modified: Mon, 02 Nov 2026 10:00:00 GMT\r\n"
                             "Accept-Ranges: bytes\r\n";
        std::uint64_t first = 0, last = 0;
        const RangeKind range = ParseRange(request.Header("range"), size, &first, &last);
        if (TagMatches(request.Header("if-none-match"), file.etag)) {
          head = "HTTP/1.1 304 Not Modified\r\n" + fields;
        } else if (range == RangeKind::kUnsatisfiable) {
          head = "HTTP/1.1 416 Range Not Satisfiable\r\n" + fields + "Content-Range: bytes */" +
                 std::to_string(size) + "\r\n";
        } else if (range == RangeKind::kSatisfiable) {
          head = "HTTP/1.1 206 Partial Content\r\n" + fields + "Content-Range: bytes " +
                 std::to_string(first) + "-" + std::to_string(last) + "/" +
                 std::to_string(size) + "\r\n";
          body = file.body.substr(first, last - first + 1);
        } else {
          head = "HTTP/1.1 200 OK\r\n" + fields;
          body = file.body;
        }
        head += "Content-Type: application/octet-stream\r\n";
      }
    }
    if (delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    if (head.rfind("HTTP/1.1 304", 0) != 0) {
      head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    if (!keep_alive) head += "Connection: close\r\n";
    head += "\r\n";
    if (!head_only) head += body;
    return head;
  }
};

TourServer::TourServer() : m_impl(std::make_unique<Impl>()) {
#if defined(_WIN32)
  WSADATA data;
  if (::WSAStartup(MAKEWORD(2, 2), &data) != 0) throw std::runtime_error("WSAStartup failed");
#endif
  Impl& impl = *m_impl;
  impl.listener = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (impl.listener == kNoSocket ||
      ::bind(impl.listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(impl.listener, 16) != 0 ||
      ::getsockname(impl.listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (impl.listener != kNoSocket) CloseSocket(impl.listener);
#if defined(_WIN32)
    ::WSACleanup();
#endif
    throw std::runtime_error("cannot listen on 127.0.0.1");
  }
  impl.port = ntohs(address.sin_port);
  impl.acceptor = std::thread([&impl] { impl.Accept(); });
}

TourServer::~TourServer() {
  Impl& impl = *m_impl;
  impl.stopping = true;
  impl.acceptor.join();
  {
    // Also ends a send to a client that stopped reading.
    std::lock_guard lock(impl.mutex);
    for (Socket s : impl.connections) ::shutdown(s, kShutBoth);
  }
  for (std::thread& worker : impl.workers) worker.join();  // each closes its connection
  CloseSocket(impl.listener);
#if defined(_WIN32)
  ::WSACleanup();
#endif
}

void TourServer::Put(const std::string& path, File file) {
  std::lock_guard lock(m_impl->mutex);
  m_impl->files[path] = std::move(file);
}

std::string TourServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(m_impl->port) + path;
}

int TourServer::Requests(const std::string& path) {
  std::lock_guard lock(m_impl->mutex);
  return m_impl->requests[path];
}

std::string TourServer::Body(const std::string& path) {
  std::lock_guard lock(m_impl->mutex);
  return m_impl->files.at(path).body;
}
