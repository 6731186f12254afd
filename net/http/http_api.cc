#include "net/http/http_api.h"

namespace qv::net {
namespace {
// Plain pointer: installed while no request is in flight, then only read.
IHttpApi* g_http_api = nullptr;
}  // namespace

IHttpApi::~IHttpApi() = default;

IHttpApi* HttpApi() { return g_http_api; }

IHttpApi* SetHttpApi(IHttpApi* api) {
  IHttpApi* previous = g_http_api;
  g_http_api = api;
  return previous;
}

std::uint32_t MaxNumConnectionsPerServer() { return 4; }

}  // namespace qv::net
