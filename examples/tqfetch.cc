// tqfetch: a small host program that shows what tqnetwork does.
#include <cstdio>
#include <string>
#include <system_error>

#include "net/http/http_request.h"
#include "net/http/http_status.h"
#include "net/http/request_handler.h"

namespace {

// A host-side hook: every request the library sends carries the host's client id.
class ClientIdHandler : public qv::net::HttpRequestHandler {
 public:
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    request.AddHeader(L"X-Client-Id", L"tqfetch-demo");
  }
};

}  // namespace

int main() {
  using namespace qv::net;

  ClientIdHandler handler;
  HttpRequestHandlerManager::RegisterHandler(&handler);

  HttpRequest request(L"https://example.com/files/report.pdf?rev=3", HttpMethod::Get);
  request.AddHeader(L"Range", L"bytes=0-1023");
  request.AddHeader(L"If-None-Match", L"\"v3\"");
  HttpRequestHandlerManager::HandlePreRequest(request);

  std::printf("%s %s\n", qv::WideToUtf8(request.GetMethodStr()).c_str(),
              qv::WideToUtf8(request.GetRawUrl()).c_str());
  std::printf("  host %s, port %u, resource %s, secure %s\n",
              qv::WideToUtf8(request.GetUrl().GetHostName()).c_str(), request.GetUrl().GetPort(),
              qv::WideToUtf8(request.GetUrl().GetResource()).c_str(),
              request.IsSecure() ? "yes" : "no");
  std::printf("headers as sent:\n%s\n\n", qv::WideToUtf8(request.FormatHeaders()).c_str());

  for (int code : {200, 206, 304, 404, 418, 429, 502, 509}) {
    const std::error_code status(code, HttpCategory());
    std::printf("status %d: %s\n", code, status.message().c_str());
  }

  HttpRequestHandlerManager::UnregisterHandler(&handler);
  return 0;
}
