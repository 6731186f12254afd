#include "net/stream/read_stream.h"

#include <algorithm>
#include <limits>
#include <string>
#include <thread>
#include <utility>

#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/request_handler.h"

namespace qv::net {

const int HttpReadStream::FlagMakeHeadRequest = 1;

struct HttpReadStream::Impl {
  void* m_request = nullptr;
  bool m_succeeded = false;
  HttpStatus m_status = HttpStatus::Unknown;
  std::optional<std::uint64_t> m_content_size;
  std::optional<std::string> m_etag;
};

namespace {

// Both retryable statuses draw on one allowance: 50 per retry, spent at 250 (five retries).
constexpr int kRetryAllowanceStep = 50;
constexpr int kRetryAllowanceLimit = 250;
// A server asking for a longer pause than this gets its answer passed on instead.
constexpr std::uint32_t kLongestRetryAfterSeconds = 30;

void RealRetrySleep(std::chrono::milliseconds wait) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  // The deadline saturates at the clock's end instead of overflowing into the past.
  const Clock::duration headroom = Clock::time_point::max() - now;
  const Clock::duration step =
      wait >= std::chrono::duration_cast<std::chrono::milliseconds>(headroom)
          ? headroom
          : std::chrono::duration_cast<Clock::duration>(wait);
  std::this_thread::sleep_until(now + step);
}

// Replaced only while no stream is opened (tests), so a plain variable.
detail::RetrySleepFunction& RetrySleep() {
  static detail::RetrySleepFunction sleep;
  return sleep;
}

void WaitBeforeRetry(std::chrono::milliseconds wait) {
  const detail::RetrySleepFunction& sleep = RetrySleep();
  if (sleep) {
    sleep(wait);
  } else {
    RealRetrySleep(wait);
  }
}

IHttpApi& Api() {
  IHttpApi* api = HttpApi();
  // Opening a stream with no transport installed is a host error; say so instead of crashing.
  if (api == nullptr) throw http_exception("Unable to create HTTP connection\n");
  return *api;
}

// Content-Length as text, for bodies whose length does not fit the numeric query's 32 bits.
// The WinINet backend's texts carry their terminating NUL, which is ignored here.
std::optional<std::uint64_t> ParseContentLength(const std::optional<std::wstring>& text) {
  if (!text) return std::nullopt;
  std::wstring_view digits(*text);
  while (!digits.empty() && digits.back() == L'\0') digits.remove_suffix(1);
  if (digits.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (wchar_t c : digits) {
    if (c < L'0' || c > L'9') return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - L'0');
    if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

std::optional<std::uint64_t> QueryContentSize(IHttpApi& api, void* request) {
  if (auto number = api.QueryHeaderNumeric(request, HttpHeader::ContentLength, nullptr)) {
    return std::uint64_t{*number};
  }
  // The numeric query fails for a length above 32 bits; the text still tells it.
  return ParseContentLength(api.QueryHeader(request, HttpHeader::ContentLength, nullptr));
}

std::optional<std::string> QueryETag(IHttpApi& api, void* request) {
  auto tag = api.QueryHeader(request, HttpHeader::ETag, nullptr);
  if (!tag) return std::nullopt;
  return qv::WideToUtf8(*tag);
}

// Algorithm 1: send, retrying 429 and 502 on one shared allowance. Yields the request handle
// (owned by the caller) or null.
void* SendRequestWithRetry(HttpReadStream::Impl& impl, void* connection, HttpRequest& request,
                           const qv::stop_token& stop) {
  IHttpApi& api = Api();
  impl.m_status = HttpStatus::Unknown;
  HttpRequestHandlerManager::HandlePreRequest(request);

  const wchar_t* accept_types[] = {L"*/*", nullptr};
  int allowance = 0;
  int retries = 0;
  bool sent = false;
  void* handle = api.SendRequest(connection, request, accept_types, sent);
  while (handle != nullptr) {
    if (stop.stop_requested()) {
      api.CloseHandle(handle);
      return nullptr;
    }
    if (!sent) return handle;
    impl.m_status = static_cast<HttpStatus>(api.QueryStatusCode(handle));

    std::chrono::milliseconds wait{0};
    if (impl.m_status == HttpStatus::TooManyRequests) {
      if (allowance >= kRetryAllowanceLimit) return handle;
      ++retries;
      allowance += kRetryAllowanceStep;
      const std::optional<std::uint32_t> retry_after =
          api.QueryHeaderNumeric(handle, HttpHeader::RetryAfter, nullptr);
      const std::uint32_t seconds =
          retry_after ? *retry_after : static_cast<std::uint32_t>(2 * retries);
      if (seconds > kLongestRetryAfterSeconds) return handle;
      wait = std::chrono::seconds(seconds);
    } else if (impl.m_status == HttpStatus::BadGateway) {
      if (allowance >= kRetryAllowanceLimit) return handle;
      ++retries;
      allowance += kRetryAllowanceStep;
      wait = std::chrono::milliseconds(allowance);
    } else {
      return handle;
    }

    if (wait.count() > 0) WaitBeforeRetry(wait);
    api.CloseHandle(handle);
    sent = false;
    handle = api.SendRequest(connection, request, accept_types, sent);
  }
  return nullptr;
}

void LogErrorStatus(HttpStatus status, const HttpRequest& request) {
  TqUSysError::LogUTF8String("Error: HTTP Response ");
  TqUError::LogInt32(static_cast<std::int32_t>(status));
  TqUSysError::LogUTF8String(" for ");
  TqUError::LogWideString(request.GetMethodStr());
  TqUSysError::LogUTF8String(" ");
  TqUError::LogWideString(request.GetUrl().GetString());
  TqUSysError::LogUTF8String("\n");
}

// Algorithm 3: the main request; true when it was answered with 200 and no stop came.
bool SendAndCheck(HttpReadStream::Impl& impl, void* connection, HttpRequest& request,
                  const qv::stop_token& stop) {
  impl.m_request = SendRequestWithRetry(impl, connection, request, stop);
  if (impl.m_request == nullptr) return false;
  if (stop.stop_requested()) return false;
  if (impl.m_status == HttpStatus::OK) {
    IHttpApi& api = Api();
    if (!impl.m_content_size) impl.m_content_size = QueryContentSize(api, impl.m_request);
    if (!impl.m_etag) impl.m_etag = QueryETag(api, impl.m_request);
  } else if (static_cast<std::int32_t>(impl.m_status) >= 400) {
    LogErrorStatus(impl.m_status, request);
  }
  return impl.m_status == HttpStatus::OK;
}

void* ConnectOrThrow(const TqUURL& url, const qv::stop_token& stop) {
  Api();
  void* connection = HttpConnectionPool::CreateConnection(url);
  if (connection == nullptr || stop.stop_requested()) {
    throw http_exception("Unable to create HTTP connection\n");
  }
  return connection;
}

// Closes a request handle that the constructor's body still holds when it throws.
struct RequestGuard {
  HttpReadStream::Impl& impl;
  bool armed = true;
  ~RequestGuard() {
    if (armed && impl.m_request != nullptr) {
      if (IHttpApi* api = HttpApi()) api->CloseHandle(impl.m_request);
      impl.m_request = nullptr;
    }
  }
};

}  // namespace

namespace detail {
RetrySleepFunction SetRetrySleepForTesting(RetrySleepFunction sleep) {
  return std::exchange(RetrySleep(), std::move(sleep));
}
}  // namespace detail

// Algorithm 2.
HttpReadStream::HttpReadStream(std::wstring_view url, int flags, qv::stop_token stop)
    : m_impl(std::make_unique<Impl>()) {
  const std::wstring text(url);
  const TqUURL parsed(text.c_str(), false);
  void* connection = ConnectOrThrow(parsed, stop);
  RequestGuard guard{*m_impl};

  if ((flags & FlagMakeHeadRequest) != 0) {
    HttpRequest head(parsed, HttpMethod::Head);
    void* head_handle = SendRequestWithRetry(*m_impl, connection, head, stop);
    if (head_handle != nullptr) {
      // A failed HEAD is ignored: the GET may still learn the size and tag itself.
      struct CloseOnExit {
        void* handle;
        ~CloseOnExit() {
          if (IHttpApi* api = HttpApi()) api->CloseHandle(handle);
        }
      } close_head{head_handle};
      if (m_impl->m_status == HttpStatus::OK) {
        IHttpApi& api = Api();
        m_impl->m_content_size = QueryContentSize(api, head_handle);
        m_impl->m_etag = QueryETag(api, head_handle);
      }
    }
  }

  HttpRequest get(parsed, HttpMethod::Get);
  m_impl->m_succeeded = SendAndCheck(*m_impl, connection, get, stop);
  guard.armed = false;
}

// Algorithm 4.
HttpReadStream::HttpReadStream(HttpRequest& request, qv::stop_token stop)
    : m_impl(std::make_unique<Impl>()) {
  void* connection = ConnectOrThrow(request.GetUrl(), stop);
  RequestGuard guard{*m_impl};
  m_impl->m_succeeded = SendAndCheck(*m_impl, connection, request, stop);
  guard.armed = false;
}

HttpReadStream::~HttpReadStream() { Close(); }

std::unique_ptr<HttpReadStream> HttpReadStream::Open(std::wstring_view url, int flags,
                                                     qv::stop_token stop) {
  return std::make_unique<HttpReadStream>(url, flags, std::move(stop));
}

std::unique_ptr<HttpReadStream> HttpReadStream::Open(HttpRequest& request, qv::stop_token stop) {
  return std::make_unique<HttpReadStream>(request, std::move(stop));
}

// Algorithm 5.
std::uint64_t HttpReadStream::Read(void* buffer, std::uint64_t size) {
  if (!m_impl->m_succeeded) return 0;
  // The transport counts in 32 bits; a larger request is served in part, as any read may be.
  const auto chunk = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(size, std::numeric_limits<std::uint32_t>::max()));
  std::uint32_t bytes_read = 0;
  IHttpApi* api = HttpApi();
  if (api == nullptr || !api->Read(m_impl->m_request, buffer, chunk, bytes_read)) {
    throw http_exception("Unable to read HTTP data\n");
  }
  return bytes_read;
}

qv::io::StreamMetaData HttpReadStream::MetaData() {
  qv::io::StreamMetaData meta;
  meta.size = m_impl->m_content_size;
  meta.etag = m_impl->m_etag;
  return meta;
}

bool HttpReadStream::IsOpen() const { return m_impl->m_request != nullptr; }

bool HttpReadStream::Succeeded() const { return m_impl->m_succeeded; }

void HttpReadStream::Close() {
  if (m_impl->m_request != nullptr) {
    // The handle is dropped even if the transport is gone: nothing else may close it later.
    if (IHttpApi* api = HttpApi()) api->CloseHandle(m_impl->m_request);
    m_impl->m_request = nullptr;
  }
}

std::optional<std::uint64_t> HttpReadStream::ContentSize() const {
  return m_impl->m_content_size;
}

std::optional<std::string> HttpReadStream::ETag() const { return m_impl->m_etag; }

HttpStatus HttpReadStream::QueryStatusCode() const { return m_impl->m_status; }

std::optional<std::wstring> HttpReadStream::QueryHeader(const HttpHeaderSelector& header) const {
  IHttpApi* api = HttpApi();
  if (api == nullptr) return std::nullopt;
  return api->QueryHeader(m_impl->m_request, header, nullptr);
}

std::optional<std::uint32_t> HttpReadStream::QueryHeaderNumeric(
    const HttpHeaderSelector& header) const {
  IHttpApi* api = HttpApi();
  if (api == nullptr) return std::nullopt;
  return api->QueryHeaderNumeric(m_impl->m_request, header, nullptr);
}

std::optional<std::int64_t> HttpReadStream::QueryHeaderDateTime(
    const HttpHeaderSelector& header) const {
  IHttpApi* api = HttpApi();
  if (api == nullptr) return std::nullopt;
  return api->QueryHeaderDateTime(m_impl->m_request, header, nullptr);
}

}  // namespace qv::net
