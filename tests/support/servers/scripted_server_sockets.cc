// ScriptedServer on Windows, over the test servers' own sockets: Debian's cpp-httplib is a
// header of declarations and a Linux library, which MinGW cannot build against. It answers as
// the cpp-httplib server does where tests can tell (headers it adds, HEAD, keep-alive); HTTPS is
// not served (ok() is false with a certificate).
#include "tests/support/servers/scripted_server_book.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "tests/support/servers/sockets.h"

namespace tq::test {
namespace {

// Bounds on what a client may send: a request head, and a request body.
constexpr std::size_t kMaxHead = 64 * 1024;
constexpr std::uint64_t kMaxBody = 256ull << 20;

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return std::string(text);
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The path with %XX decoded, as cpp-httplib gives it to handlers ('+' stays).
std::string DecodePath(std::string_view path) {
  std::string out;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '%' && i + 2 < path.size() && HexValue(path[i + 1]) >= 0 &&
        HexValue(path[i + 2]) >= 0) {
      out.push_back(static_cast<char>(HexValue(path[i + 1]) * 16 + HexValue(path[i + 2])));
      i += 2;
    } else {
      out.push_back(path[i]);
    }
  }
  return out;
}

const char* Reason(int status) {
  switch (status) {
    case 100: return "Continue";
    case 200: return "OK";
    case 201: return "Created";
    case 204: return "No Content";
    case 206: return "Partial Content";
    case 301: return "Moved Permanently";
    case 302: return "Found";
    case 303: return "See Other";
    case 304: return "Not Modified";
    case 307: return "Temporary Redirect";
    case 308: return "Permanent Redirect";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 407: return "Proxy Authentication Required";
    case 408: return "Request Timeout";
    case 412: return "Precondition Failed";
    case 416: return "Range Not Satisfiable";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return "Unknown";
  }
}

// The bytes of one connection, read as they are needed.
class Reader {
 public:
  Reader(sockets::Handle s, const std::atomic<bool>& stopping) : s_(s), stopping_(stopping) {}

  // One line without its CRLF, or a request head through its blank line. False when the peer
  // closed, the server is stopping, the wait passed `timeout_ms`, or the line is too long.
  bool ReadUntil(std::string_view end, std::size_t limit, int timeout_ms, std::string* out) {
    std::size_t found;
    while ((found = data_.find(end)) == std::string::npos) {
      if (data_.size() > limit || !Fill(timeout_ms)) return false;
    }
    out->assign(data_, 0, found);
    data_.erase(0, found + end.size());
    return true;
  }
  bool Read(std::uint64_t size, std::string* out) {
    while (data_.size() < size) {
      if (!Fill(-1)) return false;
    }
    out->append(data_, 0, static_cast<std::size_t>(size));
    data_.erase(0, static_cast<std::size_t>(size));
    return true;
  }

 private:
  bool Fill(int timeout_ms) {
    if (!sockets::WaitReadable(s_, stopping_, timeout_ms)) return false;
    char buffer[16384];
    const long n = sockets::Receive(s_, buffer, sizeof buffer);
    if (n <= 0) return false;
    data_.append(buffer, static_cast<std::size_t>(n));
    return true;
  }

  sockets::Handle s_;
  const std::atomic<bool>& stopping_;
  std::string data_;
};

struct Request {
  RecordedRequest record;
  std::string version;
};

}  // namespace

struct ScriptedServer::Impl {
  explicit Impl(const Options& given)
      : options(given), server([this](sockets::Handle s, std::size_t) {
          ++book.accepted;
          ServeConnection(s);
          server.Close(s);
        }) {}

  Options options;
  Book book;
  sockets::LoopbackServer server;  // last: its threads use the members above

  // Reads one request; false when the connection is to be closed without an answer.
  bool ReadRequest(Reader& reader, sockets::Handle s, Request* request) {
    std::string head;
    if (!reader.ReadUntil("\r\n\r\n", kMaxHead, options.keep_alive_seconds * 1000, &head)) {
      return false;
    }
    std::size_t line_end = head.find("\r\n");
    const std::string line = head.substr(0, line_end);
    const std::size_t a = line.find(' '), b = line.rfind(' ');
    if (a == std::string::npos || b == a) return false;
    RecordedRequest& record = request->record;
    record.method = line.substr(0, a);
    const std::string target = line.substr(a + 1, b - a - 1);
    request->version = line.substr(b + 1);
    const std::size_t query = target.find('?');
    record.path = DecodePath(std::string_view(target).substr(0, query));
    if (query != std::string::npos) record.query = target.substr(query + 1);
    while (line_end != std::string::npos) {
      const std::size_t start = line_end + 2;
      line_end = head.find("\r\n", start);
      const std::string field = head.substr(start, line_end - start);
      const std::size_t colon = field.find(':');
      if (colon == std::string::npos) return false;
      record.headers.emplace_back(Trim(field.substr(0, colon)), Trim(field.substr(colon + 1)));
    }
    record.remote = sockets::PeerName(s);

    if (Lower(record.Header("Expect").value_or("")) == "100-continue") {
      const std::string_view go_on = "HTTP/1.1 100 Continue\r\n\r\n";
      if (!sockets::SendAll(s, go_on.data(), go_on.size())) return false;
    }
    if (Lower(record.Header("Transfer-Encoding").value_or("")) == "chunked") {
      for (;;) {
        std::string size_line;
        if (!reader.ReadUntil("\r\n", 1024, -1, &size_line)) return false;
        std::uint64_t size = 0;
        std::size_t digits = 0;
        for (char c : size_line) {
          const int v = HexValue(c);
          if (v < 0) break;
          size = size * 16 + static_cast<std::uint64_t>(v);
          if (++digits > 15) return false;
        }
        if (digits == 0 || record.body.size() + size > kMaxBody) return false;
        if (size == 0) {
          std::string trailer;
          do {
            if (!reader.ReadUntil("\r\n", kMaxHead, -1, &trailer)) return false;
          } while (!trailer.empty());
          break;
        }
        std::string crlf;
        if (!reader.Read(size, &record.body) || !reader.Read(2, &crlf)) return false;
      }
    } else if (const auto length = record.Header("Content-Length")) {
      std::uint64_t size = 0;
      if (length->empty() || length->size() > 15 ||
          !std::all_of(length->begin(), length->end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
      }
      size = std::stoull(*length);
      if (size > kMaxBody || !reader.Read(size, &record.body)) return false;
    }
    return true;
  }

  void ServeConnection(sockets::Handle s) {
    Reader reader(s, server.stopping());
    for (std::size_t served = 0;;) {
      Request request;
      if (!ReadRequest(reader, s, &request)) return;
      ++served;
      const RecordedRequest& record = request.record;
      const ScriptedResponse answer = book.Answer(record);
      const bool close = served >= options.keep_alive_max || request.version != "HTTP/1.1" ||
                         Lower(record.Header("Connection").value_or("")) == "close";

      std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " +
                         Reason(answer.status) + "\r\n";
      bool has_length = false;
      for (const auto& [name, value] : answer.headers) {
        // The content type is the answer's own, as cpp-httplib's set_content makes it.
        if (Lower(name) == "content-type") continue;
        if (Lower(name) == "content-length") has_length = true;
        head += name + ": " + value + "\r\n";
      }
      if (close) {
        head += "Connection: close\r\n";
      } else {
        head += "Keep-Alive: timeout=" + std::to_string(options.keep_alive_seconds) +
                ", max=" + std::to_string(options.keep_alive_max) + "\r\n";
      }
      const bool chunked = answer.chunk_size > 0;
      if (chunked || !answer.body.empty()) head += "Content-Type: " + answer.content_type + "\r\n";
      if (chunked) {
        head += "Transfer-Encoding: chunked\r\n";
      } else if (!answer.body.empty()) {
        head += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
      } else if (!has_length) {
        head += "Content-Length: 0\r\n";
      }
      if (record.method == "HEAD") head += "Accept-Ranges: bytes\r\n";
      head += "\r\n";

      std::string bytes = std::move(head);
      if (record.method != "HEAD") {
        if (chunked) {
          char size[32];
          for (std::size_t offset = 0; offset < answer.body.size(); offset += answer.chunk_size) {
            const std::size_t piece = std::min(answer.chunk_size, answer.body.size() - offset);
            std::snprintf(size, sizeof size, "%zx\r\n", piece);
            bytes += size;
            bytes.append(answer.body, offset, piece);
            bytes += "\r\n";
          }
          bytes += "0\r\n\r\n";
        } else {
          bytes += answer.body;
        }
      }
      if (!sockets::SendAll(s, bytes.data(), bytes.size()) || close) return;
    }
  }
};

ScriptedServer::ScriptedServer() : ScriptedServer(Options{}) {}

ScriptedServer::ScriptedServer(const Options& options) : impl_(std::make_unique<Impl>(options)) {
  if (!options.cert_file.empty() || !options.key_file.empty()) impl_->server.Stop();  // no HTTPS
}

ScriptedServer::~ScriptedServer() = default;

bool ScriptedServer::ok() const { return impl_->server.ok() && !impl_->server.stopping(); }
int ScriptedServer::port() const { return impl_->server.port(); }

std::string ScriptedServer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + path;
}

ScriptedServer::Book& ScriptedServer::book() const { return impl_->book; }

}  // namespace tq::test
