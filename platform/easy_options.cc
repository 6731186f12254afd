#include "platform/easy_options.h"

#include <sys/socket.h>

namespace tqplatform {
namespace {

// Sets a string option; empty text with `none_if_empty` clears it (libcurl's default).
bool SetText(CURL* easy, CURLoption option, const std::string& text, bool none_if_empty) {
  const char* value = none_if_empty && text.empty() ? nullptr : text.c_str();
  return curl_easy_setopt(easy, option, value) == CURLE_OK;
}

template <class T>
bool Set(CURL* easy, CURLoption option, T value) {
  return curl_easy_setopt(easy, option, value) == CURLE_OK;
}

// Every socket libcurl opens, made close-on-exec at once: a program the host starts would
// otherwise inherit the server connections and hold them open.
curl_socket_t OpenSocket(void*, curlsocktype, curl_sockaddr* address) {
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

bool HasCredentials(const HopOptions& options) {
  return !options.user.empty() || !options.proxy_user.empty();
}

const std::string* CaFileOf(const HopOptions& options) {
  return options.ca_file != nullptr && options.ca_file->has_value() ? &**options.ca_file
                                                                     : nullptr;
}

}  // namespace

bool AppliedOptions::SameRareOptions(const HopOptions& wanted) const {
  const std::string* ca_file = CaFileOf(wanted);
  return header_function_ == wanted.header_function && write_function_ == wanted.write_function &&
         prereq_function_ == wanted.prereq_function &&
         sockopt_function_ == wanted.sockopt_function &&
         closesocket_function_ == wanted.closesocket_function &&
         closesocket_data_ == wanted.closesocket_data && share_ == wanted.share &&
         verify_host_ == wanted.verify_host &&
         ca_file_.has_value() == (ca_file != nullptr) && (!ca_file_ || *ca_file_ == *ca_file) &&
         proxy_mode_ == wanted.proxy_mode && proxy_ == wanted.proxy;
}

bool AppliedOptions::Apply(CURL* easy, const HopOptions& wanted) {
  // libcurl's authentication state follows the credentials: a request that uses them, or
  // follows one that did, starts from a cleared handle.
  const bool ok = fresh_ || failed_ || credentials_ || HasCredentials(wanted) ||
                          !SameRareOptions(wanted)
                      ? SetAll(easy, wanted)
                      : SetChanged(easy, wanted);
  // After a refusal what is recorded may not be what the handle holds: clear it next time.
  if (!ok) failed_ = true;
  return ok;
}

bool AppliedOptions::SetAll(CURL* easy, const HopOptions& wanted) {
  if (!fresh_) curl_easy_reset(easy);
  // What a cleared handle holds: SetChanged below sets every option that differs from it. The
  // parsed URL is kept for the next parse.
  CurlUrl parsed_url = std::move(parsed_url_);
  *this = AppliedOptions();
  parsed_url_ = std::move(parsed_url);
  fresh_ = false;
  // Never changed.
  bool ok = Set(easy, CURLOPT_PROTOCOLS_STR, "http,https") && Set(easy, CURLOPT_NOSIGNAL, 1L) &&
            // Bodies are handed over as sent, Content-Encoding included.
            Set(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L) &&
            // A transfer stopped or timed out while the host name is being looked up ends at
            // once: the lookup's thread is left to finish on its own instead of being waited
            // for, which an unanswering name server makes tens of seconds.
            Set(easy, CURLOPT_QUICK_EXIT, 1L) &&
            Set(easy, CURLOPT_OPENSOCKETFUNCTION, &OpenSocket);
  // Rarely changed.
  return ok && SetCallbacks(easy, wanted) && SetProxy(easy, wanted) &&
         SetCredentials(easy, wanted) && SetChanged(easy, wanted);
}

bool AppliedOptions::SetCallbacks(CURL* easy, const HopOptions& wanted) {
  header_function_ = wanted.header_function;
  write_function_ = wanted.write_function;
  prereq_function_ = wanted.prereq_function;
  sockopt_function_ = wanted.sockopt_function;
  bool ok = Set(easy, CURLOPT_HEADERFUNCTION, header_function_) &&
            Set(easy, CURLOPT_WRITEFUNCTION, write_function_) &&
            Set(easy, CURLOPT_PREREQFUNCTION, prereq_function_);
  if (sockopt_function_ != nullptr) {
    ok = ok && Set(easy, CURLOPT_SOCKOPTFUNCTION, sockopt_function_);
  }
  closesocket_function_ = wanted.closesocket_function;
  closesocket_data_ = wanted.closesocket_data;
  if (closesocket_function_ != nullptr) {
    ok = ok && Set(easy, CURLOPT_CLOSESOCKETFUNCTION, closesocket_function_) &&
         Set(easy, CURLOPT_CLOSESOCKETDATA, closesocket_data_);
  }
  share_ = wanted.share;
  if (share_ != nullptr) ok = ok && Set(easy, CURLOPT_SHARE, share_);
  verify_host_ = wanted.verify_host;
  if (!verify_host_) ok = ok && Set(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  if (const std::string* ca_file = CaFileOf(wanted)) {
    ca_file_ = *ca_file;
    ok = ok && SetText(easy, CURLOPT_CAINFO, *ca_file_, false);
  }
  return ok;
}

bool AppliedOptions::SetProxy(CURL* easy, const HopOptions& wanted) {
  proxy_mode_ = wanted.proxy_mode;
  switch (proxy_mode_) {
    case ProxyMode::kEnvironment:
      return true;  // libcurl reads http_proxy, https_proxy and no_proxy
    case ProxyMode::kDirect:
      // Every host bypasses: libcurl then skips reading no_proxy and NO_PROXY from the
      // environment, which it would do for every request.
      return Set(easy, CURLOPT_PROXY, "") && Set(easy, CURLOPT_NOPROXY, "*");
    case ProxyMode::kNamed:
      proxy_ = wanted.proxy;
      // The bypass list is applied in `proxy`; an empty list of libcurl's keeps it from reading
      // the environment's, which a named proxy ignores.
      return SetText(easy, CURLOPT_PROXY, proxy_, false) &&
             SetText(easy, CURLOPT_NOPROXY, "", false);
  }
  return false;
}

bool AppliedOptions::SetCredentials(CURL* easy, const HopOptions& wanted) {
  bool ok = true;
  credentials_ = HasCredentials(wanted);
  if (!wanted.user.empty()) {
    ok = ok && SetText(easy, CURLOPT_USERNAME, std::string(wanted.user), false) &&
         SetText(easy, CURLOPT_PASSWORD, std::string(wanted.password), false) &&
         Set(easy, CURLOPT_HTTPAUTH, CURLAUTH_ANY);
  }
  if (!wanted.proxy_user.empty()) {
    ok = ok && SetText(easy, CURLOPT_PROXYUSERNAME, std::string(wanted.proxy_user), false) &&
         SetText(easy, CURLOPT_PROXYPASSWORD, std::string(wanted.proxy_password), false) &&
         Set(easy, CURLOPT_PROXYAUTH, CURLAUTH_ANY);
  }
  return ok;
}

bool AppliedOptions::SetChanged(CURL* easy, const HopOptions& wanted) {
  bool ok = true;
  if (url_.empty() || url_ != wanted.url) {
    url_ = wanted.url;
    ok = ok && SetUrl(easy);
  }
  if (request_target_ != wanted.request_target) {
    request_target_ = wanted.request_target;
    ok = ok && SetText(easy, CURLOPT_REQUEST_TARGET, request_target_, true);
  }
  ok = ok && SetMethod(easy, wanted);
  if (headers_ != wanted.headers) {
    headers_ = wanted.headers;
    ok = ok && Set(easy, CURLOPT_HTTPHEADER, headers_);
  }
  if (proxy_headers_ != wanted.proxy_headers) {
    proxy_headers_ = wanted.proxy_headers;
    ok = ok && Set(easy, CURLOPT_PROXYHEADER, proxy_headers_);
  }
  // HTTP/1.1 at most: paused HTTP/2 streams have a history of stalls.
  const long version = wanted.http10 ? CURL_HTTP_VERSION_1_0 : CURL_HTTP_VERSION_1_1;
  if (http_version_ != version) {
    http_version_ = version;
    ok = ok && Set(easy, CURLOPT_HTTP_VERSION, http_version_);
  }
  if (buffer_size_ != wanted.buffer_size) {
    buffer_size_ = wanted.buffer_size;
    ok = ok && Set(easy, CURLOPT_BUFFERSIZE, buffer_size_);
  }
  if (connect_timeout_ms_ != wanted.connect_timeout_ms) {
    connect_timeout_ms_ = wanted.connect_timeout_ms;
    ok = ok && Set(easy, CURLOPT_CONNECTTIMEOUT_MS, connect_timeout_ms_);
  }
  if (agent_ != wanted.agent) {
    agent_ = wanted.agent;
    ok = ok && SetText(easy, CURLOPT_USERAGENT, agent_, true);
  }
  if (owner_ != wanted.owner) {
    owner_ = wanted.owner;
    ok = ok && Set(easy, CURLOPT_HEADERDATA, owner_) && Set(easy, CURLOPT_WRITEDATA, owner_) &&
         Set(easy, CURLOPT_PREREQDATA, owner_) && Set(easy, CURLOPT_SOCKOPTDATA, owner_);
  }
  if (error_buffer_ != wanted.error_buffer) {
    error_buffer_ = wanted.error_buffer;
    ok = ok && Set(easy, CURLOPT_ERRORBUFFER, error_buffer_);
  }
  return ok;
}

bool AppliedOptions::SetUrl(CURL* easy) {
  // Handed over parsed: libcurl then skips parsing and printing the URL again for every
  // transfer, which is most of its own work on a small request over a kept connection. The flags
  // are those libcurl parses a URL text with.
  if (parsed_url_ == nullptr) parsed_url_.reset(curl_url());
  if (parsed_url_ != nullptr &&
      curl_url_set(parsed_url_.get(), CURLUPART_URL, url_.c_str(),
                   CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) {
    return Set(easy, CURLOPT_CURLU, parsed_url_.get());
  }
  // Unparsable (or no memory to parse it): as text, for libcurl to refuse it in its own words.
  return Set(easy, CURLOPT_CURLU, static_cast<CURLU*>(nullptr)) &&
         SetText(easy, CURLOPT_URL, url_, false);
}

bool AppliedOptions::SetMethod(CURL* easy, const HopOptions& wanted) {
  MethodKind kind = MethodKind::kCustom;
  if (wanted.method == "HEAD") {
    kind = MethodKind::kHead;
  } else if (!wanted.body.empty() || wanted.method == "POST") {
    kind = MethodKind::kBody;
  } else if (wanted.method == "GET") {
    kind = MethodKind::kGet;
  }
  // The usual case: a GET after a GET leaves the handle as it is.
  if (kind == MethodKind::kGet && method_ == MethodKind::kGet) return true;
  // Back to a plain GET first, whatever the last request set: no body, no verb of its own.
  bool ok = Set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1)) &&
            Set(easy, CURLOPT_POSTFIELDS, static_cast<const char*>(nullptr)) &&
            Set(easy, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr)) &&
            Set(easy, CURLOPT_NOBODY, 0L) && Set(easy, CURLOPT_HTTPGET, 1L);
  method_ = kind;
  custom_method_.clear();
  switch (kind) {
    case MethodKind::kGet:
      break;
    case MethodKind::kHead:
      ok = ok && Set(easy, CURLOPT_NOBODY, 1L);
      break;
    case MethodKind::kBody:
      ok = ok && Set(easy, CURLOPT_POSTFIELDS, wanted.body.data()) &&
           Set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(wanted.body.size()));
      if (wanted.method != "POST") {
        custom_method_ = wanted.method;
        ok = ok && SetText(easy, CURLOPT_CUSTOMREQUEST, custom_method_, false);
      }
      break;
    case MethodKind::kCustom:
      custom_method_ = wanted.method;
      ok = ok && SetText(easy, CURLOPT_CUSTOMREQUEST, custom_method_, false);
      break;
  }
  return ok;
}

void AppliedOptions::ForgetHeaders(CURL* easy) {
  if (headers_ == nullptr) return;
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
  headers_ = nullptr;
}

void AppliedOptions::Release(CURL* easy) {
  if (fresh_) return;
  if (proxy_headers_ != nullptr) {
    curl_easy_setopt(easy, CURLOPT_PROXYHEADER, static_cast<curl_slist*>(nullptr));
    proxy_headers_ = nullptr;
  }
  if (method_ == MethodKind::kBody) {
    // The body was the transfer's; the next request sets its method again from a plain GET.
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, static_cast<const char*>(nullptr));
    method_ = MethodKind::kCustom;
  }
}

}  // namespace tqplatform
