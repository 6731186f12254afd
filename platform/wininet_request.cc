// HttpOpenRequestW, HttpSendRequestW, InternetReadFile and HttpQueryInfoW over libcurl's multi
// interface: the calling thread drives its own transfer, and body bytes are pulled into the
// caller's buffer when a read is waiting. Between reads the transfer is paused, so what the layer
// holds beyond the caller's buffer is bounded by one libcurl buffer, whatever the body's size.
#include "platform/wininet_request.h"

#include <algorithm>
#include <cstring>

#include "platform/curl_errors.h"
#include "platform/fault_injection.h"
#include "platform/wide_text.h"

namespace tqplatform {
namespace {

using std::chrono::milliseconds;

// Beyond libcurl's own connect time-out, the layer's clock gives it this much before failing.
constexpr milliseconds kConnectGrace{1000};
// libcurl's connect time-out when none is set.
constexpr milliseconds kCurlDefaultConnect{300'000};
// Longest wait for a small body to drain before its connection is dropped instead.
constexpr milliseconds kDrainWait{1000};

// Set by SetWaitHookForTesting (fault_injection.h); null outside tests.
std::atomic<void (*)(HINTERNET)> g_wait_hook{nullptr};

std::optional<milliseconds> TimeoutOf(std::optional<DWORD> value, DWORD fallback) {
  const DWORD ms = value.value_or(fallback);
  if (ms == 0 || ms == kInfiniteTimeout) return std::nullopt;
  return milliseconds(ms);
}

bool IsToken(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u >= 0x7F || std::strchr("()<>@,;:\\\"/[]?={}", c) != nullptr) return false;
  }
  return true;
}

// The resource as sent: characters that cannot appear in a request line are percent-encoded
// (as UTF-8), everything else goes as the caller wrote it.
std::string EncodePath(const std::wstring_view resource) {
  const std::string utf8 = WideToUtf8(resource);
  std::string out;
  if (utf8.empty() || (utf8.front() != '/' && utf8.front() != '*')) out.push_back('/');
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (char c : utf8) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || u >= 0x7F || c == '#') {
      out.push_back('%');
      out.push_back(kHex[u >> 4]);
      out.push_back(kHex[u & 15]);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

std::string Origin(bool secure, const std::string& host, INTERNET_PORT port) {
  std::string url = secure ? "https://" : "http://";
  if (host.find(':') != std::string::npos) {
    url += "[" + host + "]";
  } else {
    url += host;
  }
  if (port != INTERNET_INVALID_PORT_NUMBER) url += ":" + std::to_string(port);
  return url;
}

// Splits the caller's header text into lines ("Name: value") at CR LF or a bare LF. A CR that
// does not start a CR LF, or a NUL, is refused (ERROR_INVALID_PARAMETER) rather than split at:
// where one reader ends a line another may not, and the text after it would travel as a header
// of its own. Lines without a name are refused too.
DWORD SplitHeaders(std::wstring_view text, std::vector<std::string>* lines) {
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t end = text.find_first_of(std::wstring_view(L"\r\n\0", 3), i);
    if (end == std::wstring_view::npos) end = text.size();
    const std::wstring_view line = text.substr(i, end - i);
    if (end < text.size()) {
      if (text[end] == L'\0') return ERROR_INVALID_PARAMETER;
      if (text[end] == L'\r' && (end + 1 == text.size() || text[end + 1] != L'\n')) {
        return ERROR_INVALID_PARAMETER;
      }
    }
    i = end < text.size() ? end + (text[end] == L'\r' ? 2 : 1) : end;
    if (line.empty()) continue;
    std::string bytes;
    if (!WideToLatin1(line, &bytes)) return ERROR_HTTP_INVALID_HEADER;
    const auto colon = bytes.find(':');
    if (colon == std::string::npos || !IsToken(std::string_view(bytes).substr(0, colon))) {
      return ERROR_HTTP_INVALID_HEADER;
    }
    lines->push_back(std::move(bytes));
  }
  return ERROR_SUCCESS;
}

// The URL as libcurl sends it: dot segments removed ("/x/../b" is "/b"), as browsers do. The
// request-headers query reports it, so it must be what went out. Unchanged if libcurl cannot
// parse it (libcurl then refuses it too).
std::string AsSent(const std::string& url) {
  CURLU* parsed = curl_url();
  if (parsed == nullptr) return url;
  char* text = nullptr;
  std::string result = url;
  if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
      curl_url_get(parsed, CURLUPART_URL, &text, 0) == CURLUE_OK) {
    result = text;
  }
  curl_free(text);
  curl_url_cleanup(parsed);
  return result;
}

struct UrlParts {
  std::string scheme;
  std::string host;
  long port = 0;
};

bool ParseUrl(CURLU* url, UrlParts* parts) {
  char* scheme = nullptr;
  char* host = nullptr;
  char* port = nullptr;
  bool ok = curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
            curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
            curl_url_get(url, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK;
  if (ok) {
    parts->scheme = scheme;
    parts->host = host;
    if (parts->host.size() > 2 && parts->host.front() == '[') {
      parts->host = parts->host.substr(1, parts->host.size() - 2);
    }
    parts->port = std::strtol(port, nullptr, 10);
  }
  curl_free(scheme);
  curl_free(host);
  curl_free(port);
  return ok;
}

}  // namespace

Request::Request(std::shared_ptr<Connection> connection, std::string verb, std::string path,
                 bool http10, std::vector<std::string> fixed_headers, DWORD flags)
    : InternetObject(kKind), connection_(std::move(connection)), verb_(std::move(verb)),
      path_(std::move(path)), http10_(http10), fixed_headers_(std::move(fixed_headers)),
      flags_(flags) {}

Request::~Request() {
  if (slot_ != nullptr) FinishTransfer(milliseconds(0));
  curl_slist_free_all(curl_headers_);
}

void Request::OnClose() {
  cancelled_ = true;
  connection_->WakeWaiters();
  std::lock_guard lock(live_mutex_);
  if (live_multi_ != nullptr) curl_multi_wakeup(live_multi_);
}

Settings Request::Effective() const {
  Settings settings = settings_.Get();
  settings.Inherit(connection_->Effective());
  return settings;
}

DWORD Request::AcquireSlot(const Settings& settings) {
  DWORD error = ERROR_SUCCESS;
  // Waiting for a free connection counts as waiting for the server.
  slot_ = connection_->Acquire(cancelled_, TimeoutOf(settings.receive_timeout,
                                                     kDefaultReceiveTimeoutMs), &error);
  if (slot_ == nullptr) return error;
  if (spill_pos_ >= spill_.size()) {
    spill_.swap(slot_->spill);
    spill_.clear();
    spill_pos_ = 0;
  }
  std::lock_guard lock(live_mutex_);
  live_multi_ = slot_->multi;
  return ERROR_SUCCESS;
}

void Request::ReleaseSlot() {
  if (slot_ == nullptr) return;
  {
    std::lock_guard lock(live_mutex_);
    live_multi_ = nullptr;
  }
  // Removing an unfinished transfer closes its connection; a finished one stays in the multi's
  // connection cache for the next request.
  if (slot_->attached) {
    curl_multi_remove_handle(slot_->multi, slot_->easy);
    slot_->attached = false;
  }
  // No option of this request (callbacks, header list) may outlive it in the handle.
  curl_easy_reset(slot_->easy);
  slot_->clean = true;
  // The spill buffer goes back with the slot unless it still holds bytes for the next read.
  if (spill_pos_ >= spill_.size() && slot_->spill.capacity() < spill_.capacity()) {
    spill_.clear();
    spill_pos_ = 0;
    slot_->spill.swap(spill_);
  }
  paused_ = false;
  connection_->Release(std::move(slot_));
}

void Request::ResetResponse() {
  sent_ = false;
  pending_.Clear();
  response_.Clear();
  block_open_ = false;
  tentative_ = false;
  headers_final_ = false;
  header_error_ = 0;
  done_ = false;
  result_ = CURLE_OK;
  error_ = 0;
  paused_ = false;
  spill_.clear();
  spill_pos_ = 0;
  discard_ = false;
  discarded_ = 0;
  discard_full_ = false;
  connected_ = false;
}

// --- libcurl callbacks ---------------------------------------------------------------------------

size_t Request::HeaderCallback(char* data, size_t size, size_t count, void* self) {
  return static_cast<Request*>(self)->OnHeader(data, size * count);
}

size_t Request::WriteCallback(char* data, size_t size, size_t count, void* self) {
  return static_cast<Request*>(self)->OnBody(data, size * count);
}

int Request::PrereqCallback(void* self, char*, char*, int, int) {
  auto* request = static_cast<Request*>(self);
  request->connected_ = true;
  request->last_progress_ = Clock::now();
  request->request_sent_ = request->last_progress_;
  return CURL_PREREQFUNC_OK;
}

size_t Request::OnHeader(const char* data, size_t size) {
  last_progress_ = Clock::now();
  const std::string_view line(data, size);
  if (headers_final_) return size;  // trailers of a chunked body
  if (!block_open_) {
    pending_.Clear();
    block_open_ = true;
  }
  switch (pending_.AddLine(line)) {
    case HeaderBlock::LineResult::kInvalid:
      header_error_ = ERROR_HTTP_INVALID_SERVER_RESPONSE;
      return 0;  // makes libcurl stop the transfer
    case HeaderBlock::LineResult::kAccepted:
      return size;
    case HeaderBlock::LineResult::kEndOfBlock:
      break;
  }
  block_open_ = false;
  const int status = pending_.status_code();
  if (status >= 100 && status < 200) return size;  // interim response; the real one follows
  if (!pending_.ContentLengthAgrees()) {
    header_error_ = ERROR_HTTP_INVALID_SERVER_RESPONSE;
    return 0;
  }
  response_ = std::move(pending_);
  pending_.Clear();
  // libcurl answers an authentication challenge itself when it has credentials: such a block
  // is final only if no other response follows it (the body or the end of the transfer tells).
  tentative_ = (status == 401 && credentials_in_use_) || (status == 407 && proxy_credentials_in_use_);
  if (!tentative_) {
    headers_final_ = true;
  } else {
    request_sent_ = last_progress_;  // libcurl answers the challenge: a new request goes out
  }
  return size;
}

size_t Request::OnBody(const char* data, size_t size) {
  last_progress_ = Clock::now();
  headers_final_ = true;  // libcurl hands over only the final response's body
  if (discard_) {
    if (discarded_ + size > kDrainLimit) {
      discard_full_ = true;
      paused_ = true;
      return CURL_WRITEFUNC_PAUSE;
    }
    discarded_ += size;
    return size;
  }
  const std::size_t room = target_ != nullptr ? target_len_ - target_filled_ : 0;
  if (target_ == nullptr && spill_.empty()) {
    // Nobody reads yet (the send is returning): keep this one chunk rather than pause, so that
    // a small body completes, and frees its connection, without a pause and resume.
    spill_.assign(data, size);
    spill_pos_ = 0;
    return size;
  }
  if (room == 0) {
    // Nobody is reading: stop the transfer; libcurl delivers this chunk again when it resumes.
    paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  }
  const std::size_t take = std::min(room, size);
  std::memcpy(target_ + target_filled_, data, take);
  target_filled_ += take;
  if (take < size) {
    // The rest of this chunk waits for the next read; at most one libcurl buffer.
    spill_.assign(data + take, size - take);
    spill_pos_ = 0;
  }
  return size;
}

// --- driving the transfer --------------------------------------------------------------------

void Request::CollectDone() {
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(slot_->multi, &queued)) {
    if (message->msg == CURLMSG_DONE) {
      done_ = true;
      result_ = message->data.result;
    }
  }
}

DWORD Request::TransferError() const {
  if (header_error_ != 0) return header_error_;
  // libcurl reports a header line over its limit as running out of memory.
  if (result_ == CURLE_OUT_OF_MEMORY && !headers_final_) return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  return WinInetErrorFromCurl(result_, slot_ != nullptr ? slot_->easy : nullptr);
}

DWORD Request::Drive(Goal goal) {
  for (;;) {
    int running = 0;
    const CURLMcode code = curl_multi_perform(slot_->multi, &running);
    if (code != CURLM_OK) {
      return code == CURLM_OUT_OF_MEMORY ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INTERNET_INTERNAL_ERROR;
    }
    CollectDone();
    if (done_) return ERROR_SUCCESS;
    switch (goal) {
      case Goal::kHeaders:
        if (headers_final_) return ERROR_SUCCESS;
        break;
      case Goal::kData:
        if (target_filled_ == target_len_) return ERROR_SUCCESS;
        break;
      case Goal::kDrain:
        if (discard_full_) return ERROR_SUCCESS;
        break;
    }
    if (cancelled_) return ERROR_INTERNET_OPERATION_CANCELLED;

    // The layer's own clock: libcurl's time-outs do not run while a transfer is paused.
    const auto now = Clock::now();
    auto deadline = Clock::time_point::max();
    if (!connected_) {
      deadline = phase_start_ + connect_limit_ + kConnectGrace;
    } else if (idle_limit_.count() > 0) {
      // The whole header block has one deadline from the request's sending, however slowly its
      // lines come; body bytes have an idle limit that each byte starts again.
      deadline = (headers_final_ ? last_progress_ : request_sent_) + idle_limit_;
    }
    if (goal == Goal::kDrain) deadline = std::min(deadline, drain_deadline_);
    if (now >= deadline) return ERROR_INTERNET_TIMEOUT;
    const bool have_data = goal == Goal::kData && target_filled_ > 0;
    int wait_ms = 1000;
    if (deadline != Clock::time_point::max()) {
      const auto left = std::chrono::duration_cast<milliseconds>(deadline - now).count() + 1;
      wait_ms = static_cast<int>(std::min<long long>(wait_ms, left));
    }
    if (have_data) wait_ms = 0;  // hand over what is there rather than wait for more
    if (auto* hook = g_wait_hook.load(); hook != nullptr && wait_ms > 0) hook(handle());
    int ready = 0;
    if (curl_multi_poll(slot_->multi, nullptr, 0, wait_ms, &ready) != CURLM_OK) {
      return ERROR_INTERNET_INTERNAL_ERROR;
    }
    if (have_data && ready == 0) return ERROR_SUCCESS;
  }
}

void Request::FinishTransfer(milliseconds wait) {
  if (slot_ == nullptr) return;
  if (!done_ && headers_final_ && header_error_ == 0) {
    discard_ = true;
    discarded_ = 0;
    discard_full_ = false;
    target_ = nullptr;
    drain_deadline_ = Clock::now() + wait;
    if (paused_) {
      paused_ = false;
      curl_easy_pause(slot_->easy, CURLPAUSE_CONT);
    }
    if (!discard_full_) Drive(Goal::kDrain);
    discard_ = false;
  }
  ReleaseSlot();
}

DWORD Request::Configure(const std::string& url, const std::string& method,
                         bool send_credentials, const Settings& settings) {
  CURL* easy = slot_->easy;
  // Slots come back reset; only a redirect reconfigures a used one.
  if (!slot_->clean) curl_easy_reset(easy);
  slot_->clean = false;
  const auto& session = connection_->session();
  // No CURLOPT_PATH_AS_IS: libcurl removes dot segments, as browsers do, so "/x/../b" goes out
  // as "/b". A cache keys on the normalised URL; what it keys on must be what is sent.
  const std::string sent_url = AsSent(url);
  curl_easy_setopt(easy, CURLOPT_URL, sent_url.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_SHARE, session->share());
  // HTTP/1.1 only: paused HTTP/2 streams have a history of stalls.
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                   http10_ ? CURL_HTTP_VERSION_1_0 : CURL_HTTP_VERSION_1_1);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kBufferSize);
  // Bodies are handed over as sent, Content-Encoding included, as WinINet does by default.
  curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Request::HeaderCallback);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Request::WriteCallback);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &Request::PrereqCallback);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);

  const auto connect = TimeoutOf(settings.connect_timeout, kDefaultConnectTimeoutMs);
  connect_limit_ = connect.value_or(kCurlDefaultConnect);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connect_limit_.count()));
  auto idle = TimeoutOf(settings.receive_timeout, kDefaultReceiveTimeoutMs);
  if (idle.has_value() && !body_.empty()) {
    const auto send = TimeoutOf(settings.send_timeout, kDefaultSendTimeoutMs);
    idle = send.has_value() ? std::max(*idle, *send) : send;
  }
  idle_limit_ = idle.value_or(milliseconds(0));

  switch (session->proxy_mode()) {
    case ProxyMode::kEnvironment:
      break;  // libcurl reads http_proxy, https_proxy and no_proxy
    case ProxyMode::kDirect:
      curl_easy_setopt(easy, CURLOPT_PROXY, "");
      break;
    case ProxyMode::kNamed: {
      const std::string proxy = session->ProxyFor(url.rfind("https:", 0) == 0 ? "https" : "http");
      curl_easy_setopt(easy, CURLOPT_PROXY, proxy.c_str());
      if (!session->no_proxy().empty()) {
        curl_easy_setopt(easy, CURLOPT_NOPROXY, session->no_proxy().c_str());
      }
      break;
    }
  }
  if (settings.agent.has_value() && !settings.agent->empty()) {
    curl_easy_setopt(easy, CURLOPT_USERAGENT, settings.agent->c_str());
  }

  curl_slist_free_all(curl_headers_);
  curl_headers_ = nullptr;
  std::vector<std::string> lines = fixed_headers_;
  lines.insert(lines.end(), header_lines_.begin(), header_lines_.end());
  bool has_accept = false;
  for (const auto& line : lines) {
    if (EqualsIgnoreCase(std::string_view(line).substr(0, line.find(':')), "Accept")) {
      has_accept = true;
    }
  }
  std::vector<std::string> curl_lines = lines;
  if (!has_accept) curl_lines.emplace_back("Accept:");  // no accept types: none sent
  curl_lines.emplace_back("Expect:");                   // no 100-continue round trip
  for (const auto& line : curl_lines) {
    curl_slist* grown = curl_slist_append(curl_headers_, line.c_str());
    if (grown == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    curl_headers_ = grown;
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, curl_headers_);

  if (method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (!body_.empty() || method == "POST") {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body_.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_.size()));
    if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else if (method == "GET") {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  }

  // Credentials answer a 401 challenge; they go to the connection's server only.
  credentials_in_use_ = send_credentials && settings.user.has_value() && !settings.user->empty();
  if (credentials_in_use_) {
    curl_easy_setopt(easy, CURLOPT_USERNAME, settings.user->c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, settings.password.value_or("").c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
  }
  proxy_credentials_in_use_ = settings.proxy_user.has_value() && !settings.proxy_user->empty();
  if (proxy_credentials_in_use_) {
    curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, settings.proxy_user->c_str());
    curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, settings.proxy_password.value_or("").c_str());
    curl_easy_setopt(easy, CURLOPT_PROXYAUTH, CURLAUTH_ANY);
  }
  if ((flags_ & INTERNET_FLAG_IGNORE_CERT_CN_INVALID) != 0) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (const auto ca_file = TestCaFile()) curl_easy_setopt(easy, CURLOPT_CAINFO, ca_file->c_str());

  // What HTTP_QUERY_FLAG_REQUEST_HEADERS reports, put together only when asked for.
  sent_url_ = sent_url;
  sent_agent_ = settings.agent.value_or("");
  sent_lines_ = std::move(lines);
  request_block_.Clear();

  if (curl_multi_add_handle(slot_->multi, easy) != CURLM_OK) return ERROR_INTERNET_INTERNAL_ERROR;
  slot_->attached = true;
  connected_ = false;
  phase_start_ = Clock::now();
  last_progress_ = phase_start_;
  request_sent_ = phase_start_;
  return ERROR_SUCCESS;
}

DWORD Request::NextHop(int hop, std::string* url, std::string* method, bool* same_origin,
                       bool* follow) {
  *follow = false;
  const int status = response_.status_code();
  if ((flags_ & INTERNET_FLAG_NO_AUTO_REDIRECT) != 0) return ERROR_SUCCESS;
  if (status != 301 && status != 302 && status != 303 && status != 307 && status != 308) {
    return ERROR_SUCCESS;
  }
  const std::string* location = response_.Find("Location");
  if (location == nullptr || location->empty()) return ERROR_SUCCESS;
  if (hop >= kMaxRedirects) return ERROR_HTTP_REDIRECT_FAILED;

  CURLU* parsed = curl_url();
  if (parsed == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
  UrlParts from;
  UrlParts to;
  char* next = nullptr;
  const bool ok = curl_url_set(parsed, CURLUPART_URL, url->c_str(), 0) == CURLUE_OK &&
                  ParseUrl(parsed, &from) &&
                  curl_url_set(parsed, CURLUPART_URL, location->c_str(), CURLU_URLENCODE) ==
                      CURLUE_OK &&
                  ParseUrl(parsed, &to) &&
                  curl_url_get(parsed, CURLUPART_URL, &next, 0) == CURLUE_OK;
  const std::string next_url = ok ? next : "";
  curl_free(next);
  curl_url_cleanup(parsed);
  if (!ok || (to.scheme != "http" && to.scheme != "https")) return ERROR_HTTP_REDIRECT_FAILED;
  if (from.scheme == "https" && to.scheme == "http" &&
      (flags_ & INTERNET_FLAG_IGNORE_REDIRECT_TO_HTTP) == 0) {
    return ERROR_INTERNET_HTTPS_TO_HTTP_ON_REDIR;
  }
  // 303 always, and 301/302 after a POST, continue with GET and no body, as browsers do.
  if ((status == 303 && *method != "HEAD") ||
      ((status == 301 || status == 302) && *method == "POST")) {
    *method = "GET";
    body_.clear();
  }
  *same_origin = *same_origin && EqualsIgnoreCase(to.host, from.host) && to.port == from.port &&
                 to.scheme == from.scheme;
  *url = next_url;
  *follow = true;
  return ERROR_SUCCESS;
}

// --- the operations ----------------------------------------------------------------------------

DWORD Request::Send(std::vector<std::string> header_lines, std::string body) {
  std::lock_guard op(op_mutex_);
  if (cancelled_) return ERROR_INTERNET_OPERATION_CANCELLED;
  // A resend drops what is left of the previous response.
  FinishTransfer(kDrainWait);
  ResetResponse();
  header_lines_ = std::move(header_lines);
  body_ = std::move(body);

  const Settings settings = Effective();
  const bool secure = (flags_ & INTERNET_FLAG_SECURE) != 0;
  std::string url = Origin(secure, connection_->host(), connection_->port()) + path_;
  std::string method = verb_;
  bool same_origin = true;
  for (int hop = 0;; ++hop) {
    current_method_ = method;
    if (slot_ == nullptr) {
      if (DWORD error = AcquireSlot(settings)) return error;
    }
    if (DWORD error = Configure(url, method, same_origin, settings)) {
      ReleaseSlot();
      return error;
    }
    if (DWORD error = Drive(Goal::kHeaders)) {
      ReleaseSlot();
      return error;
    }
    if (done_ && result_ != CURLE_OK) {
      const DWORD error = TransferError();
      const bool body_failed = headers_final_ && header_error_ == 0 && !response_.empty();
      ReleaseSlot();
      if (!body_failed) return error;
      // The answer's headers were fine and only its body broke: the send succeeds and the
      // reads report the failure, as they would had it come later.
      error_ = error;
    }
    if (response_.empty() || (!headers_final_ && !done_)) {
      ReleaseSlot();
      return ERROR_HTTP_INVALID_SERVER_RESPONSE;
    }
    headers_final_ = true;
    if (done_) ReleaseSlot();
    const DWORD body_error = error_;

    bool follow = false;
    if (DWORD error = NextHop(hop, &url, &method, &same_origin, &follow)) {
      FinishTransfer(milliseconds(0));
      return error;
    }
    if (!follow) {
      error_ = body_error;
      break;
    }
    // The redirect's own body is dropped; a small one keeps its connection for the next hop.
    if (slot_ != nullptr) {
      FinishTransfer(kDrainWait);
    }
    ResetResponse();
  }
  sent_ = true;
  return ERROR_SUCCESS;
}

DWORD Request::Read(void* buffer, DWORD size, DWORD* bytes_read) {
  std::lock_guard op(op_mutex_);
  *bytes_read = 0;
  if (!sent_) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (cancelled_) return ERROR_INTERNET_OPERATION_CANCELLED;
  if (size == 0) return ERROR_SUCCESS;
  auto* out = static_cast<char*>(buffer);
  std::size_t filled = 0;
  if (spill_pos_ < spill_.size()) {
    filled = std::min<std::size_t>(size, spill_.size() - spill_pos_);
    std::memcpy(out, spill_.data() + spill_pos_, filled);
    spill_pos_ += filled;
    if (spill_pos_ == spill_.size()) {
      spill_.clear();
      spill_pos_ = 0;
    }
  }
  if (filled < size && slot_ != nullptr) {
    target_ = out;
    target_len_ = size;
    target_filled_ = filled;
    last_progress_ = Clock::now();  // time spent paused between reads does not count
    if (paused_) {
      // Redelivers the chunk refused while nobody was reading, straight into `out`.
      paused_ = false;
      curl_easy_pause(slot_->easy, CURLPAUSE_CONT);
    }
    DWORD error = Drive(Goal::kData);
    if (error == ERROR_SUCCESS) CollectDone();
    filled = target_filled_;
    target_ = nullptr;
    target_len_ = 0;
    target_filled_ = 0;
    if (error == ERROR_SUCCESS && done_) {
      error = result_ == CURLE_OK ? ERROR_SUCCESS : TransferError();
      ReleaseSlot();
    } else if (error != ERROR_SUCCESS) {
      ReleaseSlot();
    }
    if (error != ERROR_SUCCESS) error_ = error;
  }
  *bytes_read = static_cast<DWORD>(filled);
  // Bytes received before a failure are handed over first; the failure comes with the next read.
  if (filled > 0 || spill_pos_ < spill_.size()) return ERROR_SUCCESS;
  return error_;
}

DWORD Request::Query(DWORD level, void* buffer, DWORD* buffer_length, DWORD* index) {
  std::lock_guard op(op_mutex_);
  if ((level & HTTP_QUERY_FLAG_REQUEST_HEADERS) != 0) {
    if (sent_url_.empty()) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
    if (request_block_.empty()) {
      const auto authority_start = sent_url_.find("//") + 2;
      const auto path_start = sent_url_.find('/', authority_start);
      std::vector<std::string> lines;
      lines.push_back("Host: " + sent_url_.substr(authority_start, path_start - authority_start));
      if (!sent_agent_.empty()) lines.push_back("User-Agent: " + sent_agent_);
      lines.insert(lines.end(), sent_lines_.begin(), sent_lines_.end());
      request_block_.SetRequest(current_method_ + " " +
                                    (path_start == std::string::npos ? "/" : sent_url_.substr(path_start)) +
                                    (http10_ ? " HTTP/1.0" : " HTTP/1.1"),
                                lines);
    }
    return QueryHeaderBlock(request_block_, current_method_,
                            level & ~HTTP_QUERY_FLAG_REQUEST_HEADERS, buffer, buffer_length, index);
  }
  if (!sent_) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  return QueryHeaderBlock(response_, current_method_, level, buffer, buffer_length, index);
}

void SetWaitHookForTesting(void (*hook)(HINTERNET)) { g_wait_hook = hook; }

}  // namespace tqplatform

using namespace tqplatform;

extern "C" {

HINTERNET HttpOpenRequestW(HINTERNET connect, LPCWSTR verb, LPCWSTR object_name, LPCWSTR version,
                           LPCWSTR referrer, LPCWSTR* accept_types, DWORD flags,
                           DWORD_PTR /*context*/) {
  if (DWORD fault = TakeInjectedFault("HttpOpenRequestW")) return FailNull(fault);
  auto connection = Lookup<Connection>(connect);
  if (connection == nullptr) return nullptr;
  std::string method = WideToUtf8(verb != nullptr ? verb : L"");
  if (method.empty()) method = "GET";
  if (!IsToken(method)) return FailNull(ERROR_INVALID_PARAMETER);
  bool http10 = false;
  if (version != nullptr && WideLength(version) != 0) {
    const std::string v = WideToUtf8(version);
    if (v == "HTTP/1.0") {
      http10 = true;
    } else if (v != "HTTP/1.1") {
      return FailNull(ERROR_INVALID_PARAMETER);
    }
  }
  std::vector<std::string> fixed;
  if (accept_types != nullptr) {
    std::string accept;
    for (LPCWSTR* type = accept_types; *type != nullptr; ++type) {
      std::string text;
      if (!WideToLatin1(*type, &text) || text.find_first_of("\r\n") != std::string::npos) {
        return FailNull(ERROR_INVALID_PARAMETER);
      }
      if (text.empty()) continue;
      if (!accept.empty()) accept += ", ";
      accept += text;
    }
    if (!accept.empty()) fixed.push_back("Accept: " + accept);
  }
  if (WideLength(referrer) != 0) {
    std::string text;
    if (!WideToLatin1(referrer, &text) || text.find_first_of("\r\n") != std::string::npos) {
      return FailNull(ERROR_INVALID_PARAMETER);
    }
    fixed.push_back("Referer: " + text);
  }
  const std::wstring_view resource =
      object_name != nullptr ? std::wstring_view(object_name) : std::wstring_view(L"/");
  auto request = std::make_shared<Request>(connection, std::move(method), EncodePath(resource),
                                           http10, std::move(fixed), flags);
  HINTERNET handle = RegisterHandle(request);
  if (!connection->AddChild(request)) {  // the connection was closed meanwhile
    CloseHandleTree(handle);
    return FailNull(ERROR_INVALID_HANDLE);
  }
  return handle;
}

BOOL HttpSendRequestW(HINTERNET request_handle, LPCWSTR headers, DWORD headers_length,
                      LPVOID optional, DWORD optional_length) {
  if (DWORD fault = TakeInjectedFault("HttpSendRequestW")) return Fail(fault);
  auto request = Lookup<Request>(request_handle);
  if (request == nullptr) return FALSE;
  if (optional == nullptr && optional_length != 0) return Fail(ERROR_INVALID_PARAMETER);
  std::vector<std::string> lines;
  if (headers != nullptr) {
    // A length of -1 means the text ends at its terminator. A length that counts the terminator
    // too is common: NULs at the very end cut nothing off. Any other NUL is refused.
    const std::size_t length = headers_length == 0xFFFFFFFFu ? WideLength(headers) : headers_length;
    std::wstring_view text(headers, length);
    while (!text.empty() && text.back() == L'\0') text.remove_suffix(1);
    if (DWORD error = SplitHeaders(text, &lines)) return Fail(error);
  }
  std::string body;
  if (optional_length != 0) body.assign(static_cast<const char*>(optional), optional_length);
  if (DWORD error = request->Send(std::move(lines), std::move(body))) return Fail(error);
  return TRUE;
}

BOOL InternetReadFile(HINTERNET file, LPVOID buffer, DWORD bytes_to_read, LPDWORD bytes_read) {
  if (DWORD fault = TakeInjectedFault("InternetReadFile")) {
    if (bytes_read != nullptr) *bytes_read = 0;
    return Fail(fault);
  }
  auto request = Lookup<Request>(file);
  if (request == nullptr) return FALSE;
  if (bytes_read == nullptr || (buffer == nullptr && bytes_to_read != 0)) {
    return Fail(ERROR_INVALID_PARAMETER);
  }
  if (DWORD error = request->Read(buffer, bytes_to_read, bytes_read)) return Fail(error);
  return TRUE;
}

BOOL HttpQueryInfoW(HINTERNET request_handle, DWORD info_level, LPVOID buffer,
                    LPDWORD buffer_length, LPDWORD index) {
  if (DWORD fault = TakeInjectedFault("HttpQueryInfoW")) return Fail(fault);
  auto request = Lookup<Request>(request_handle);
  if (request == nullptr) return FALSE;
  if (buffer_length == nullptr) return Fail(ERROR_INVALID_PARAMETER);
  if (DWORD error = request->Query(info_level, buffer, buffer_length, index)) return Fail(error);
  return TRUE;
}

}  // extern "C"
