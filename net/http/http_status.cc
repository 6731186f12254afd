#include "net/http/http_status.h"

namespace qv::net {
namespace {

// The enumerator's name of a listed code; null for 0 and codes that are not listed.
const char* StatusName(int code) {
  switch (code) {
    case 100: return "Continue";
    case 101: return "SwitchingProtocols";
    case 102: return "Processing";
    case 103: return "EarlyHints";
    case 200: return "OK";
    case 201: return "Created";
    case 202: return "Accepted";
    case 203: return "NonAuthoritativeInformation";
    case 204: return "NoContent";
    case 205: return "ResetContent";
    case 206: return "PartialContent";
    case 207: return "MultiStatus";
    case 208: return "AlreadyReported";
    case 226: return "IMUsed";
    case 300: return "MultipleChoices";
    case 301: return "MovedPermanently";
    case 302: return "Found";
    case 303: return "SeeOther";
    case 304: return "NotModified";
    case 305: return "UseProxy";
    case 307: return "TemporaryRedirect";
    case 308: return "PermanentRedirect";
    case 400: return "BadRequest";
    case 401: return "Unauthorized";
    case 402: return "PaymentRequired";
    case 403: return "Forbidden";
    case 404: return "NotFound";
    case 405: return "MethodNotAllowed";
    case 406: return "NotAcceptable";
    case 407: return "ProxyAuthenticationRequired";
    case 408: return "RequestTimeout";
    case 409: return "Conflict";
    case 410: return "Gone";
    case 411: return "LengthRequired";
    case 412: return "PreconditionFailed";
    case 413: return "PayloadTooLarge";
    case 414: return "URITooLong";
    case 415: return "UnsupportedMediaType";
    case 416: return "RangeNotSatisfiable";
    case 417: return "ExpectationFailed";
    case 421: return "MisdirectedRequest";
    case 422: return "UnprocessableContent";
    case 423: return "Locked";
    case 424: return "FailedDependency";
    case 425: return "TooEarly";
    case 426: return "UpgradeRequired";
    case 428: return "PreconditionRequired";
    case 429: return "TooManyRequests";
    case 431: return "RequestHeaderFieldsTooLarge";
    case 451: return "UnavailableForLegalReasons";
    case 500: return "InternalServerError";
    case 501: return "NotImplemented";
    case 502: return "BadGateway";
    case 503: return "ServiceUnavailable";
    case 504: return "GatewayTimeout";
    case 505: return "HTTPVersionNotSupported";
    case 506: return "VariantAlsoNegotiates";
    case 507: return "InsufficientStorage";
    case 508: return "LoopDetected";
    case 510: return "NotExtended";
    case 511: return "NetworkAuthenticationRequired";
    default: return nullptr;
  }
}

}  // namespace

const char* HttpErrorCategory::name() const noexcept { return "http"; }

std::string HttpErrorCategory::message(int code) const {
  if (code == 418) return "I'm A Teapot (418)";
  const char* name = StatusName(code);
  if (name == nullptr) return "Unknown";
  return std::string(name) + " (" + std::to_string(code) + ")";
}

const std::error_category& HttpCategory() {
  static const HttpErrorCategory category;
  return category;
}

struct HttpResponse::Impl {};

HttpResponse::HttpResponse(HttpStatus /*status*/, const wchar_t* /*text*/) : m_impl(new Impl) {}
HttpResponse::HttpResponse(const HttpResponse& /*other*/) : m_impl(new Impl) {}
HttpResponse& HttpResponse::operator=(const HttpResponse& /*other*/) { return *this; }
HttpResponse::~HttpResponse() { delete m_impl; }

}  // namespace qv::net
