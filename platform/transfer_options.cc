// The options of one hop of a transfer, one concern per function.
#include "platform/transfer.h"

#include <string>
#include <string_view>
#include <vector>

#include "platform/wide_text.h"

namespace tqplatform {
namespace {

bool HasHeaderLine(const std::vector<std::string>& lines, std::string_view name) {
  for (const auto& line : lines) {
    if (EqualsIgnoreCase(std::string_view(line).substr(0, line.find(':')), name)) return true;
  }
  return false;
}

}  // namespace

void Transfer::ClearResponse() {
  pending_.Clear();
  response_.Clear();
  content_length_ = 0;
  keep_whole_body_ = false;
  header_error_ = 0;
  result_ = CURLE_OK;
  error_ = ERROR_SUCCESS;
  error_text_[0] = '\0';
  spill_.Clear();
  discarded_ = 0;
}

DWORD Transfer::Configure(bool same_origin) {
  ClearResponse();
  CURL* easy = slot_->easy();
  slot_->PrepareOptions();
  // No CURLOPT_PATH_AS_IS: libcurl removes dot segments, as browsers do, so "/x/../b" goes out
  // as "/b". A cache keys on the normalised URL; what it keys on must be what is sent.
  sent_url_ = slot_->SentUrl(request_.url);
  method_ = request_.method;
  clock_.Start(request_.limits, !request_.body.empty(), TransferClock::Clock::now());
  SetTransport(easy);
  SetCallbacks(easy);
  SetProxy(easy);
  if (DWORD error = SetHeaders(easy)) return error;
  SetMethod(easy);
  SetCredentials(easy, same_origin);
  if (!slot_->Attach()) return ERROR_INTERNET_INTERNAL_ERROR;
  MoveTo(TransferState::kConnecting);
  return ERROR_SUCCESS;
}

void Transfer::SetTransport(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_URL, sent_url_.c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (request_.share != nullptr) curl_easy_setopt(easy, CURLOPT_SHARE, request_.share);
  // HTTP/1.1 at most: paused HTTP/2 streams have a history of stalls.
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION,
                   request_.http10 ? CURL_HTTP_VERSION_1_0 : CURL_HTTP_VERSION_1_1);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kBufferSize);
  // Bodies are handed over as sent, Content-Encoding included.
  curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error_text_);
  if (!request_.verify_host) curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  if (request_.ca_file.has_value()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, request_.ca_file->c_str());
  }
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(clock_.connect_limit().count()));
  if (!request_.agent.empty() && !AgentAsHeaderLine()) {
    curl_easy_setopt(easy, CURLOPT_USERAGENT, request_.agent.c_str());
  }
}

bool Transfer::AgentAsHeaderLine() const {
  // Without a proxy the agent goes out among the request's own lines: the same line in the same
  // place (after Host and credentials), without libcurl formatting it anew for every request.
  // Through a proxy libcurl's option also puts it into the CONNECT request.
  return !request_.agent.empty() && request_.proxy_mode == ProxyMode::kDirect;
}

void Transfer::SetCallbacks(CURL* easy) {
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::HeaderCallback);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::WriteCallback);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &Transfer::PrereqCallback);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);
}

void Transfer::SetProxy(CURL* easy) {
  switch (request_.proxy_mode) {
    case ProxyMode::kEnvironment:
      break;  // libcurl reads http_proxy, https_proxy and no_proxy
    case ProxyMode::kDirect:
      curl_easy_setopt(easy, CURLOPT_PROXY, "");
      break;
    case ProxyMode::kNamed: {
      const bool secure = request_.url.rfind("https:", 0) == 0;
      curl_easy_setopt(easy, CURLOPT_PROXY,
                       (secure ? request_.https_proxy : request_.http_proxy).c_str());
      if (!request_.no_proxy.empty()) {
        curl_easy_setopt(easy, CURLOPT_NOPROXY, request_.no_proxy.c_str());
      }
      break;
    }
  }
}

DWORD Transfer::SetHeaders(CURL* easy) {
  header_list_.reset();
  auto append = [this](const char* line) {
    curl_slist* grown = curl_slist_append(header_list_.get(), line);
    if (grown == nullptr) return false;  // the list so far stays owned
    (void)header_list_.release();
    header_list_.reset(grown);
    return true;
  };
  if (AgentAsHeaderLine() && !HasHeaderLine(request_.header_lines, "User-Agent")) {
    // A caller's own User-Agent line replaces the agent, as libcurl's option would let it.
    if (!append(("User-Agent: " + request_.agent).c_str())) return ERROR_NOT_ENOUGH_MEMORY;
  }
  for (const auto& line : request_.header_lines) {
    if (!append(line.c_str())) return ERROR_NOT_ENOUGH_MEMORY;
  }
  // No 100-continue round trip before a body (libcurl asks for one only when sending a body).
  if (!request_.body.empty() && !append("Expect:")) return ERROR_NOT_ENOUGH_MEMORY;
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, header_list_.get());
  return ERROR_SUCCESS;
}

void Transfer::SetMethod(CURL* easy) {
  const std::string& method = request_.method;
  if (method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (!request_.body.empty() || method == "POST") {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request_.body.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request_.body.size()));
    if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  } else if (method == "GET") {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
}

void Transfer::SetCredentials(CURL* easy, bool same_origin) {
  // Credentials answer a 401 challenge; they go to the first origin only.
  answers_401_ = same_origin && !request_.user.empty();
  if (answers_401_) {
    curl_easy_setopt(easy, CURLOPT_USERNAME, request_.user.c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, request_.password.c_str());
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
  }
  answers_407_ = !request_.proxy_user.empty();
  if (answers_407_) {
    curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, request_.proxy_user.c_str());
    curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, request_.proxy_password.c_str());
    curl_easy_setopt(easy, CURLOPT_PROXYAUTH, CURLAUTH_ANY);
  }
}

}  // namespace tqplatform
