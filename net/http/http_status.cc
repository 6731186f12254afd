#include "net/http/http_status.h"

#include <algorithm>
#include <iterator>

#include "net/http/status_names.h"

namespace qv::net {
namespace {

// By code, for FindStatus to search by halves.
constexpr detail::StatusNames kStatuses[] = {
    {100, "Continue", "Continue"},
    {101, "SwitchingProtocols", "Switching Protocols"},
    {102, "Processing", "Processing"},
    {103, "EarlyHints", "Early Hints"},
    {200, "OK", "OK"},
    {201, "Created", "Created"},
    {202, "Accepted", "Accepted"},
    {203, "NonAuthoritativeInformation", "Non-Authoritative Information"},
    {204, "NoContent", "No Content"},
    {205, "ResetContent", "Reset Content"},
    {206, "PartialContent", "Partial Content"},
    {207, "MultiStatus", "Multi-Status"},
    {208, "AlreadyReported", "Already Reported"},
    {226, "IMUsed", "IM Used"},
    {300, "MultipleChoices", "Multiple Choices"},
    {301, "MovedPermanently", "Moved Permanently"},
    {302, "Found", "Found"},
    {303, "SeeOther", "See Other"},
    {304, "NotModified", "Not Modified"},
    {305, "UseProxy", "Use Proxy"},
    {307, "TemporaryRedirect", "Temporary Redirect"},
    {308, "PermanentRedirect", "Permanent Redirect"},
    {400, "BadRequest", "Bad Request"},
    {401, "Unauthorized", "Unauthorized"},
    {402, "PaymentRequired", "Payment Required"},
    {403, "Forbidden", "Forbidden"},
    {404, "NotFound", "Not Found"},
    {405, "MethodNotAllowed", "Method Not Allowed"},
    {406, "NotAcceptable", "Not Acceptable"},
    {407, "ProxyAuthenticationRequired", "Proxy Authentication Required"},
    {408, "RequestTimeout", "Request Timeout"},
    {409, "Conflict", "Conflict"},
    {410, "Gone", "Gone"},
    {411, "LengthRequired", "Length Required"},
    {412, "PreconditionFailed", "Precondition Failed"},
    {413, "PayloadTooLarge", "Content Too Large"},
    {414, "URITooLong", "URI Too Long"},
    {415, "UnsupportedMediaType", "Unsupported Media Type"},
    {416, "RangeNotSatisfiable", "Range Not Satisfiable"},
    {417, "ExpectationFailed", "Expectation Failed"},
    {418, "ImATeapot", "I'm a teapot"},
    {421, "MisdirectedRequest", "Misdirected Request"},
    {422, "UnprocessableContent", "Unprocessable Content"},
    {423, "Locked", "Locked"},
    {424, "FailedDependency", "Failed Dependency"},
    {425, "TooEarly", "Too Early"},
    {426, "UpgradeRequired", "Upgrade Required"},
    {428, "PreconditionRequired", "Precondition Required"},
    {429, "TooManyRequests", "Too Many Requests"},
    {431, "RequestHeaderFieldsTooLarge", "Request Header Fields Too Large"},
    {451, "UnavailableForLegalReasons", "Unavailable For Legal Reasons"},
    {500, "InternalServerError", "Internal Server Error"},
    {501, "NotImplemented", "Not Implemented"},
    {502, "BadGateway", "Bad Gateway"},
    {503, "ServiceUnavailable", "Service Unavailable"},
    {504, "GatewayTimeout", "Gateway Timeout"},
    {505, "HTTPVersionNotSupported", "HTTP Version Not Supported"},
    {506, "VariantAlsoNegotiates", "Variant Also Negotiates"},
    {507, "InsufficientStorage", "Insufficient Storage"},
    {508, "LoopDetected", "Loop Detected"},
    {510, "NotExtended", "Not Extended"},
    {511, "NetworkAuthenticationRequired", "Network Authentication Required"},
};
static_assert(std::is_sorted(std::begin(kStatuses), std::end(kStatuses),
                             [](const detail::StatusNames& a, const detail::StatusNames& b) {
                               return a.code < b.code;
                             }));

}  // namespace

namespace detail {

const StatusNames* FindStatus(int code) {
  const auto* found = std::lower_bound(
      std::begin(kStatuses), std::end(kStatuses), code,
      [](const StatusNames& entry, int wanted) { return entry.code < wanted; });
  return found != std::end(kStatuses) && found->code == code ? found : nullptr;
}

}  // namespace detail

const char* HttpErrorCategory::name() const noexcept { return "http"; }

std::string HttpErrorCategory::message(int code) const {
  if (code == 418) return "I'm A Teapot (418)";  // its enumerator's name reads badly as words
  const detail::StatusNames* status = detail::FindStatus(code);
  if (status == nullptr) return "Unknown";
  return std::string(status->name) + " (" + std::to_string(code) + ")";
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
