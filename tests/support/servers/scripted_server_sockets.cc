// ScriptedServer on Windows, over the raw responder: Debian's cpp-httplib is a header of
// declarations and a Linux library, which MinGW cannot build against. It answers as the
// cpp-httplib server does where tests can tell (headers it adds, HEAD, keep-alive); HTTPS is not
// served (ok() is false with a certificate).
#include <cctype>
#include <cstdio>
#include <map>
#include <string_view>

#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"

namespace tq::test {
namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return std::string(text);
}

// The path with %XX decoded, as cpp-httplib gives it to handlers ('+' stays).
std::string DecodePath(const std::string& path) {
  std::string out;
  for (std::size_t i = 0; i < path.size(); ++i) {
    const auto hex = [&](std::size_t at) {
      return at < path.size() && std::isxdigit(static_cast<unsigned char>(path[at]));
    };
    if (path[i] == '%' && hex(i + 1) && hex(i + 2)) {
      out.push_back(static_cast<char>(std::stoi(path.substr(i + 1, 2), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(path[i]);
    }
  }
  return out;
}

const char* Reason(int status) {
  static const std::map<int, const char*> reasons = {
      {100, "Continue"}, {200, "OK"}, {201, "Created"}, {204, "No Content"},
      {206, "Partial Content"}, {301, "Moved Permanently"}, {302, "Found"}, {303, "See Other"},
      {304, "Not Modified"}, {307, "Temporary Redirect"}, {308, "Permanent Redirect"},
      {400, "Bad Request"}, {401, "Unauthorized"}, {403, "Forbidden"}, {404, "Not Found"},
      {405, "Method Not Allowed"}, {407, "Proxy Authentication Required"},
      {408, "Request Timeout"}, {412, "Precondition Failed"}, {416, "Range Not Satisfiable"},
      {429, "Too Many Requests"}, {500, "Internal Server Error"}, {502, "Bad Gateway"},
      {503, "Service Unavailable"}, {504, "Gateway Timeout"}};
  const auto it = reasons.find(status);
  return it != reasons.end() ? it->second : "Unknown";
}

// The request line and header fields of `head` (through its blank line); false for no request.
bool Parse(const std::string& head, RecordedRequest* record, std::string* version) {
  const std::size_t line_end = head.find("\r\n");
  const std::string line = head.substr(0, line_end);
  const std::size_t a = line.find(' '), b = line.rfind(' ');
  if (a == std::string::npos || b == a) return false;
  record->method = line.substr(0, a);
  const std::string target = line.substr(a + 1, b - a - 1);
  *version = line.substr(b + 1);
  const std::size_t query = target.find('?');
  record->path = DecodePath(target.substr(0, query));
  if (query != std::string::npos) record->query = target.substr(query + 1);
  for (std::size_t start = line_end + 2, end; (end = head.find("\r\n", start)) > start;
       start = end + 2) {
    const std::string field = head.substr(start, end - start);
    const std::size_t colon = field.find(':');
    if (colon == std::string::npos) return false;
    record->headers.emplace_back(Trim(field.substr(0, colon)), Trim(field.substr(colon + 1)));
  }
  return true;
}

std::string Hex(std::size_t value) {
  char text[20];
  std::snprintf(text, sizeof text, "%zx", value);
  return text;
}

// The bytes cpp-httplib would send for `answer`.
std::string Format(const ScriptedResponse& answer, const RecordedRequest& record, bool close) {
  std::string head =
      "HTTP/1.1 " + std::to_string(answer.status) + " " + Reason(answer.status) + "\r\n";
  bool has_length = false;
  for (const auto& [name, value] : answer.headers) {
    // The content type is the answer's own, as cpp-httplib's set_content makes it.
    if (Lower(name) == "content-type") continue;
    has_length = has_length || Lower(name) == "content-length";
    head += name + ": " + value + "\r\n";
  }
  head += close ? "Connection: close\r\n" : "Keep-Alive: timeout=5, max=100000\r\n";
  std::string body = answer.body;
  if (answer.chunk_size > 0) {
    head += "Content-Type: application/octet-stream\r\nTransfer-Encoding: chunked\r\n";
    body.clear();
    for (std::size_t at = 0; at < answer.body.size(); at += answer.chunk_size) {
      const std::string piece = answer.body.substr(at, answer.chunk_size);
      body += Hex(piece.size()) + "\r\n" + piece + "\r\n";
    }
    body += "0\r\n\r\n";
  } else if (!answer.body.empty()) {
    head += "Content-Type: application/octet-stream\r\nContent-Length: " +
            std::to_string(answer.body.size()) + "\r\n";
  } else if (!has_length) {
    head += "Content-Length: 0\r\n";
  }
  if (record.method == "HEAD") return head + "Accept-Ranges: bytes\r\n\r\n";
  return head + "\r\n" + body;
}

}  // namespace

struct ScriptedServer::Impl {
  explicit Impl(ScriptedServer& owner)
      : responder([&owner](RawConnection& c) {
          ++owner.accepted_;
          std::string body;
          for (std::string head; !(head = c.ReadRequestHead(&body)).empty();) {
            RecordedRequest record;
            std::string version;
            if (!Parse(head, &record, &version)) return;
            record.body = std::move(body);
            const ScriptedResponse answer = owner.Answer(record);
            const bool close = version != "HTTP/1.1" ||
                               Lower(record.Header("Connection").value_or("")) == "close";
            if (!c.Send(Format(answer, record, close)) || close) return;
          }
        }) {}
  RawResponder responder;
};

ScriptedServer::ScriptedServer(const Options& options) : impl_(std::make_unique<Impl>(*this)) {
  if (options.cert_file.empty() && options.key_file.empty()) port_ = impl_->responder.port();
}

ScriptedServer::~ScriptedServer() = default;

}  // namespace tq::test
