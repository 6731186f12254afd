#include "net/stream/read_stream.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <string>
#include <thread>
#include <utility>

#include "net/http/connection_pool.h"
#include "net/http/header_number.h"
#include "net/http/http_api.h"
#include "net/http/quiet_close.h"
#include "net/http/request_handler.h"
#include "net/http/send_watch.h"
#include "net/http/stop_watcher.h"
#include "net/stream/thread_pool.h"

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

// A pause before a retry ends early for a stop, and when the worker pool whose task pauses is
// shutting down: the host then waits for the task, and the pause (up to 30 s) would be its wait.
bool PauseCut(const qv::stop_token& stop) {
  return stop.stop_requested() || thread_pool::CallerPoolStopping();
}

// Sleeps `wait` unless the pause is cut first, in slices short enough that the cut is heard
// within one of them. The deadline saturates at the clock's end instead of overflowing.
void SleepUnlessStopped(std::chrono::milliseconds wait, const qv::stop_token& stop) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point now = Clock::now();
  const Clock::duration headroom = Clock::time_point::max() - now;
  const Clock::time_point deadline =
      wait >= std::chrono::duration_cast<std::chrono::milliseconds>(headroom)
          ? Clock::time_point::max()
          : now + std::chrono::duration_cast<Clock::duration>(wait);
  for (Clock::time_point at = now; at < deadline && !PauseCut(stop); at = Clock::now()) {
    const Clock::duration left = deadline - at;
    std::this_thread::sleep_for(std::min<Clock::duration>(left, detail::kStopPollInterval));
  }
}

// Replaced only while no stream is opened (tests), so a plain variable.
detail::RetrySleepFunction& RetrySleep() {
  static detail::RetrySleepFunction sleep;
  return sleep;
}

enum class Pause { Done, Stopped, PoolStopping };

// The pause before a retry, and how it ended: Done when it ran its course; Stopped for a stop
// requested before or during it (the caller gives up instead of sending again); PoolStopping
// when the pool whose task this is shuts down (the caller keeps the answer it has).
Pause WaitBeforeRetry(std::chrono::milliseconds wait, const qv::stop_token& stop) {
  if (wait.count() > 0 && !PauseCut(stop)) {
    const detail::RetrySleepFunction& sleep = RetrySleep();
    if (sleep) {
      sleep(wait);
    } else {
      SleepUnlessStopped(wait, stop);
    }
  }
  if (stop.stop_requested()) return Pause::Stopped;
  return thread_pool::CallerPoolStopping() ? Pause::PoolStopping : Pause::Done;
}

IHttpApi& Api() {
  IHttpApi* api = HttpApi();
  // Opening a stream with no transport installed is a host error; say so instead of crashing.
  if (api == nullptr) throw http_exception("Unable to create HTTP connection\n");
  return *api;
}

std::optional<std::uint64_t> ParseContentLength(const std::optional<std::wstring>& text) {
  if (!text) return std::nullopt;
  return detail::ParseHeaderNumber(*text);
}

std::optional<std::uint64_t> QueryContentSize(IHttpApi& api, void* request) {
  // A transfer coding frames the body and overrides a Content-Length sent beside it: that
  // number is not the body's size.
  if (api.QueryHeader(request, std::wstring(L"Transfer-Encoding"), nullptr)) return std::nullopt;
  // The text, read strictly: it carries lengths past 32 bits, and WinINet's numeric query reads
  // only leading digits ("12abc" as 12, "-1" as 4294967295), a length nothing frames the body by.
  if (auto text = api.QueryHeader(request, HttpHeader::ContentLength, nullptr)) {
    return ParseContentLength(text);
  }
  if (auto number = api.QueryHeaderNumeric(request, HttpHeader::ContentLength, nullptr)) {
    return std::uint64_t{*number};
  }
  return std::nullopt;
}

// More Content-Length headers than this are not compared one by one: no server sends them.
constexpr std::uint32_t kMostContentLengths = 16;

// True when the response announces its length more than once and not always the same number
// (or in a form that is not a number). Which one frames the body is then up to whoever parses
// it, so a proxy or cache on the way may have seen another body than the one read here: such a
// response is not used at all. The transport may let it through: WinINet need not refuse it.
bool ContentLengthsDisagree(IHttpApi& api, void* request) {
  std::uint32_t index = 1;
  std::optional<std::wstring> other = api.QueryHeader(request, HttpHeader::ContentLength, &index);
  if (!other) return false;
  // A host's transport may ignore the index (the stream's own queries pass none) and answer the
  // one copy for every index asked: a copy no answer can have then tells that copies cannot be
  // compared, rather than every answer being refused.
  index = std::numeric_limits<std::uint32_t>::max();
  if (api.QueryHeader(request, HttpHeader::ContentLength, &index)) return false;
  index = 0;
  const std::optional<std::uint64_t> first =
      ParseContentLength(api.QueryHeader(request, HttpHeader::ContentLength, &index));
  for (std::uint32_t occurrence = 1; other; ++occurrence) {
    if (occurrence >= kMostContentLengths) return true;
    const std::optional<std::uint64_t> value = ParseContentLength(other);
    if (!first || value != first) return true;
    index = occurrence + 1;
    other = api.QueryHeader(request, HttpHeader::ContentLength, &index);
  }
  return false;
}

std::optional<std::string> QueryETag(IHttpApi& api, void* request) {
  auto tag = api.QueryHeader(request, HttpHeader::ETag, nullptr);
  if (!tag) return std::nullopt;
  return qv::WideToUtf8(*tag);
}

// Sends through the transport with `stop` named as the stop of the send in flight, so that a
// transport that blocks in the send or in the wait for the response headers can be cancelled.
void* SendWatched(IHttpApi& api, void* connection, const HttpRequest& request,
                  const wchar_t** accept_types, bool& sent, const qv::stop_token& stop) {
  const qv::stop_token* pool_stop = thread_pool::CallerPoolStopToken();
  if (pool_stop == nullptr) {
    detail::SendStopScope scope(stop);
    return api.SendRequest(connection, request, accept_types, sent);
  }
  // On a worker, the pool shutting down cancels the send as a stop does: the host's shut-down
  // waits for the task, and a server holding the request would hold it until the transport's
  // time-out. Only the send is cut; the rest of the task goes on as it would after a send that
  // could not be made.
  qv::stop_source either;
  const auto request_stop = [either]() mutable { either.request_stop(); };
  detail::StopWatch on_stop(stop, request_stop);
  detail::StopWatch on_pool_stop(*pool_stop, request_stop);
  const qv::stop_token either_token = either.get_token();
  detail::SendStopScope scope(either_token);
  return api.SendRequest(connection, request, accept_types, sent);
}

// Runs the pre-request handlers once, then sends, resending after a 429 or a 502 on one shared
// allowance of five retries. Yields the request handle of the last answer (the caller owns it),
// or null when no request could be made or a stop was requested before an answer was kept.
//
// A stop is heard during the send, the wait for the response headers and the pause before a
// retry, not only between them: a host whose user presses cancel must not wait for the receive
// time-out, or for minutes of Retry-After pauses, holding a worker thread all the while. A send
// cancelled that way comes back without a request handle, and a stopped pause closes the answer
// it was waiting on, so both end as a stop seen between the steps does: no request, nothing
// succeeded. A pause cut by the shut-down of the worker pool whose task it is keeps its answer
// instead, as when the retries are spent: the host's shut-down waits for nothing more.
void* SendRequestWithRetry(HttpReadStream::Impl& impl, void* connection, HttpRequest& request,
                           const qv::stop_token& stop) {
  impl.m_status = HttpStatus::Unknown;
  HttpRequestHandlerManager::HandlePreRequest(request);
  // Taken after the handlers: one that shut the library down (TerminateHttp on the host's
  // thread) has deleted the transport there was before them.
  IHttpApi& api = Api();

  const wchar_t* accept_types[] = {L"*/*", nullptr};
  int allowance = 0;
  int retries = 0;
  bool sent = false;
  void* handle = SendWatched(api, connection, request, accept_types, sent, stop);
  // A transport that throws from a query (it should report failure instead) must not leave the
  // answer it was asked about open for good.
  struct CloseOnThrow {
    IHttpApi& api;
    void*& handle;
    int exceptions = std::uncaught_exceptions();
    ~CloseOnThrow() {
      if (std::uncaught_exceptions() > exceptions) detail::CloseQuietly(&api, handle);
    }
  } close_on_throw{api, handle};
  while (handle != nullptr) {
    if (stop.stop_requested()) {
      api.CloseHandle(std::exchange(handle, nullptr));
      return nullptr;
    }
    // A send that failed has no answer to read; the handle is kept for the caller to close.
    if (!sent) return handle;
    impl.m_status = static_cast<HttpStatus>(api.QueryStatusCode(handle));

    std::chrono::milliseconds wait{0};
    if (impl.m_status == HttpStatus::TooManyRequests) {
      if (allowance >= kRetryAllowanceLimit) return handle;
      ++retries;
      allowance += kRetryAllowanceStep;
      // The server's Retry-After when it gives one, else 2 s more for every retry so far.
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
      wait = std::chrono::milliseconds(allowance);  // 50 ms more for every retry so far
    } else {
      return handle;
    }

    const Pause pause = WaitBeforeRetry(wait, stop);
    // A pool shutting down ends the retries as a spent allowance does: its answer is the last.
    if (pause == Pause::PoolStopping) return handle;
    api.CloseHandle(std::exchange(handle, nullptr));
    if (pause == Pause::Stopped) return nullptr;
    sent = false;
    handle = SendWatched(api, connection, request, accept_types, sent, stop);
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

void LogDisagreeingLengths(const HttpRequest& request) {
  TqUSysError::LogUTF8String("Error: HTTP Response with differing Content-Length values for ");
  TqUError::LogWideString(request.GetMethodStr());
  TqUSysError::LogUTF8String(" ");
  TqUError::LogWideString(request.GetUrl().GetString());
  TqUSysError::LogUTF8String("\n");
}

// Sends the main request and tests its answer; true when it was a usable 200 and no stop came.
// Size and entity tag come from the answer unless a HEAD told them already. Every answer that
// is not used keeps its handle open (the caller may still look at its headers) but reads no
// body: a status other than 200, a send that failed, a stop after the answer came, and a 200
// whose Content-Length values differ. The last is logged and treated like a send the transport
// refused, which is what a transport that checks the framing itself reports for it.
bool SendAndCheck(HttpReadStream::Impl& impl, void* connection, HttpRequest& request,
                  const qv::stop_token& stop) {
  impl.m_request = SendRequestWithRetry(impl, connection, request, stop);
  if (impl.m_request == nullptr) return false;
  if (stop.stop_requested()) return false;
  if (impl.m_status == HttpStatus::OK) {
    IHttpApi& api = Api();
    if (ContentLengthsDisagree(api, impl.m_request)) {
      LogDisagreeingLengths(request);
      return false;
    }
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
    if (armed) detail::CloseQuietly(HttpApi(), std::exchange(impl.m_request, nullptr));
  }
};

}  // namespace

namespace detail {
RetrySleepFunction SetRetrySleepForTesting(RetrySleepFunction sleep) {
  return std::exchange(RetrySleep(), std::move(sleep));
}
}  // namespace detail

// A GET of the URL, after a HEAD when asked for: the HEAD's answer, when it is a usable 200,
// gives size and entity tag early; any other answer to it is ignored without a word.
HttpReadStream::HttpReadStream(std::wstring_view url, int flags, qv::stop_token stop)
    : m_impl(std::make_unique<Impl>()) {
  const std::wstring text(url);
  // Parsed as a C string, the URL would end at a NUL inside it: another resource.
  if (text.find(L'\0') != std::wstring::npos) {
    throw http_exception("Unable to create HTTP connection\n");
  }
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
        ~CloseOnExit() { detail::CloseQuietly(HttpApi(), handle); }
      } close_head{head_handle};
      IHttpApi& api = Api();
      if (m_impl->m_status == HttpStatus::OK && !ContentLengthsDisagree(api, head_handle)) {
        m_impl->m_content_size = QueryContentSize(api, head_handle);
        m_impl->m_etag = QueryETag(api, head_handle);
      }
    }
  }

  HttpRequest get(parsed, HttpMethod::Get);
  m_impl->m_succeeded = SendAndCheck(*m_impl, connection, get, stop);
  guard.armed = false;
}

// The caller's request, as the handlers leave it; never a HEAD first.
HttpReadStream::HttpReadStream(HttpRequest& request, qv::stop_token stop)
    : m_impl(std::make_unique<Impl>()) {
  void* connection = ConnectOrThrow(request.GetUrl(), stop);
  RequestGuard guard{*m_impl};
  m_impl->m_succeeded = SendAndCheck(*m_impl, connection, request, stop);
  guard.armed = false;
}

HttpReadStream::~HttpReadStream() {
  detail::CloseQuietly(HttpApi(), std::exchange(m_impl->m_request, nullptr));
}

std::unique_ptr<HttpReadStream> HttpReadStream::Open(std::wstring_view url, int flags,
                                                     qv::stop_token stop) {
  return std::make_unique<HttpReadStream>(url, flags, std::move(stop));
}

std::unique_ptr<HttpReadStream> HttpReadStream::Open(HttpRequest& request, qv::stop_token stop) {
  return std::make_unique<HttpReadStream>(request, std::move(stop));
}

// The body, straight from the transport; nothing at all for a request that did not succeed.
std::uint64_t HttpReadStream::Read(void* buffer, std::uint64_t size) {
  if (!m_impl->m_succeeded) return 0;
  // The transport counts in 32 bits; a larger request is served in part, as any read may be.
  const auto chunk = static_cast<std::uint32_t>(
      std::min<std::uint64_t>(size, std::numeric_limits<std::uint32_t>::max()));
  std::uint32_t bytes_read = 0;
  IHttpApi* api = HttpApi();
  // A count past the size asked for is a broken transport, not data: handed on, it would send
  // the caller past the end of its buffer.
  if (api == nullptr || !api->Read(m_impl->m_request, buffer, chunk, bytes_read) ||
      bytes_read > chunk) {
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
  // The handle is dropped first, even if the transport is gone or its close throws: nothing
  // else may close it later.
  void* request = std::exchange(m_impl->m_request, nullptr);
  if (request == nullptr) return;
  if (IHttpApi* api = HttpApi()) api->CloseHandle(request);
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
