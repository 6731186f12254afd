// How the library names HTTP outcomes: status codes, the "http" error category, the stream
// layer's exception, and the (empty) response value class.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <system_error>

#include "net/export.h"

namespace qv::net {

/// The HTTP status code itself; a variable may hold any code a server sends, listed or not.
enum class HttpStatus : std::int32_t {
  Unknown = 0,
  Continue = 100,
  SwitchingProtocols = 101,
  Processing = 102,
  EarlyHints = 103,
  OK = 200,
  Created = 201,
  Accepted = 202,
  NonAuthoritativeInformation = 203,
  NoContent = 204,
  ResetContent = 205,
  PartialContent = 206,
  MultiStatus = 207,
  AlreadyReported = 208,
  IMUsed = 226,
  MultipleChoices = 300,
  MovedPermanently = 301,
  Found = 302,
  SeeOther = 303,
  NotModified = 304,
  UseProxy = 305,
  TemporaryRedirect = 307,
  PermanentRedirect = 308,
  BadRequest = 400,
  Unauthorized = 401,
  PaymentRequired = 402,
  Forbidden = 403,
  NotFound = 404,
  MethodNotAllowed = 405,
  NotAcceptable = 406,
  ProxyAuthenticationRequired = 407,
  RequestTimeout = 408,
  Conflict = 409,
  Gone = 410,
  LengthRequired = 411,
  PreconditionFailed = 412,
  PayloadTooLarge = 413,
  URITooLong = 414,
  UnsupportedMediaType = 415,
  RangeNotSatisfiable = 416,
  ExpectationFailed = 417,
  ImATeapot = 418,
  MisdirectedRequest = 421,
  UnprocessableContent = 422,
  Locked = 423,
  FailedDependency = 424,
  TooEarly = 425,
  UpgradeRequired = 426,
  PreconditionRequired = 428,
  TooManyRequests = 429,
  RequestHeaderFieldsTooLarge = 431,
  UnavailableForLegalReasons = 451,
  InternalServerError = 500,
  NotImplemented = 501,
  BadGateway = 502,
  ServiceUnavailable = 503,
  GatewayTimeout = 504,
  HTTPVersionNotSupported = 505,
  VariantAlsoNegotiates = 506,
  InsufficientStorage = 507,
  LoopDetected = 508,
  NotExtended = 510,
  NetworkAuthenticationRequired = 511,
};

/// Turns a status value inside a std::error_code into a readable message.
class TQNET_EXPORT HttpErrorCategory : public std::error_category {
 public:
  /// "http".
  const char* name() const noexcept override;
  /// "NotFound (404)" for a listed code, "I'm A Teapot (418)", and "Unknown" for 0, unlisted
  /// and negative codes.
  std::string message(int code) const override;
};

/// The process's one category object (a function-local static).
TQNET_EXPORT const std::error_category& HttpCategory();

/// Thrown by the read stream when no HTTP exchange can take place, or when reading the body
/// fails. Messages end in a line feed.
class TQNET_EXPORT http_exception : public std::runtime_error {
 public:
  /// Keeps a copy of `message`.
  explicit http_exception(const char* message) : std::runtime_error(message) {}
};

/// A response value; it keeps nothing of what it is given.
class TQNET_EXPORT HttpResponse {
 public:
  /// Neither argument is kept.
  HttpResponse(HttpStatus status, const wchar_t* text);
  /// Each object has its own (empty) record: copying and assigning share nothing.
  /// @{
  HttpResponse(const HttpResponse& other);
  HttpResponse& operator=(const HttpResponse& other);
  /// @}
  ~HttpResponse();

 private:
  struct Impl;
  Impl* m_impl;
};

}  // namespace qv::net
