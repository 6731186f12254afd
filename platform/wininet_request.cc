// HttpOpenRequestW, HttpSendRequestW, InternetReadFile and HttpQueryInfoW: WinINet's rules over
// the transfer engine, which drives libcurl on the calling thread and pulls body bytes into the
// caller's buffer.
#include "platform/wininet_request.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/curl_handles.h"
#include "platform/fault_injection.h"
#include "platform/wide_text.h"

namespace tqplatform {
namespace {

using std::chrono::milliseconds;

// Longest wait for a small body to drain before its connection is dropped instead.
constexpr milliseconds kDrainWait{1000};

// WinINet's time-outs: 0 and 0xFFFFFFFF mean none.
std::optional<milliseconds> TimeoutOf(std::optional<DWORD> value, DWORD fallback) {
  const DWORD ms = value.value_or(fallback);
  if (ms == 0 || ms == kInfiniteTimeout) return std::nullopt;
  return milliseconds(ms);
}

milliseconds LimitOf(std::optional<DWORD> value, DWORD fallback) {
  return TimeoutOf(value, fallback).value_or(milliseconds(0));
}

bool IsToken(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (!IsTokenChar(c)) return false;
  }
  return true;
}

// The resource as sent: characters that cannot appear in a request line are percent-encoded
// (as UTF-8), everything else goes as the caller wrote it.
std::string EncodePathSlowly(const std::wstring_view resource) {
  const std::string utf8 = WideToUtf8(resource);
  const bool rooted = !utf8.empty() && utf8.front() == '/';
  std::string out(rooted ? 0 : 1, '/');
  return out.append(PercentEncodeUnsafe(utf8, "#"));
}

// The same, for the usual resource, ASCII that needs no escape: copied in one pass, without the
// UTF-8 text and the escaped text made in between.
std::string EncodePath(const std::wstring_view resource) {
  const bool rooted = !resource.empty() && resource.front() == L'/';
  std::string out(resource.size() + (rooted ? 0 : 1), '/');
  char* next = out.data() + (rooted ? 0 : 1);
  for (const wchar_t c : resource) {
    const auto cp = static_cast<std::uint32_t>(c);
    if (cp >= 0x80 || NeedsPercentEncoding(static_cast<unsigned char>(cp)) || cp == '#') {
      return EncodePathSlowly(resource);
    }
    *next++ = static_cast<char>(cp);
  }
  return out;
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

}  // namespace

Request::Request(std::shared_ptr<Connection> connection, std::string verb, std::string path,
                 bool http10, std::string accept, std::string referer, DWORD flags)
    : InternetObject(kKind), connection_(std::move(connection)), verb_(std::move(verb)),
      asterisk_(path == "*"), path_(asterisk_ ? std::string("/") : std::move(path)),
      http10_(http10), accept_(std::move(accept)), referer_(std::move(referer)), flags_(flags),
      transfer_(connection_->TakeTransfer(stop_)) {}

Request::~Request() {
  connection_->KeepTransfer(std::move(transfer_));
  connection_->ForgetGoneChildren();
}

std::unique_lock<std::mutex> Request::LockCall() {
  std::unique_lock lock(op_mutex_, std::try_to_lock);
  if (!lock.owns_lock()) {
    RunWaitHook(handle());
    lock.lock();
  }
  return lock;
}

void Request::OnClose() {
  stop_.Stop();
  connection_->WakeWaiters();
}

std::shared_ptr<const Settings> Request::Effective() const {
  std::shared_ptr<const Settings> inherited = connection_->Inherited();
  // Most requests set nothing of their own: what the connection has is theirs as it is.
  if (!settings_.updated()) return inherited;
  auto settings = std::make_shared<Settings>();
  settings_.FillUnset(settings.get());
  settings->Inherit(*inherited);
  return settings;
}

// The header lines sent: Accept and Referer as opened, Pragma when the flag asks for it, the
// caller's own lines, and an empty Accept line when none was given (libcurl would add one).
void Request::DescribeHeaderLines(std::vector<std::string> header_lines,
                                  std::vector<std::string>* lines) {
  // Assigned line by line into the lines there, each keeping its room.
  std::size_t count = 0;
  for (const std::string* fixed : {&accept_, &referer_}) {
    if (fixed->empty()) continue;
    if (count < lines->size()) {
      (*lines)[count] = *fixed;
    } else {
      lines->push_back(*fixed);
    }
    ++count;
  }
  lines->resize(count);
  // The flag asks proxies on the way not to answer from their copies, unless the caller's own
  // Pragma line says otherwise.
  if ((flags_ & INTERNET_FLAG_PRAGMA_NOCACHE) != 0 && !HasHeaderLine(header_lines, "Pragma")) {
    lines->emplace_back("Pragma: no-cache");
  }
  lines->insert(lines->end(), std::make_move_iterator(header_lines.begin()),
                std::make_move_iterator(header_lines.end()));
  sent_lines_ = lines->size();
  if (!HasHeaderLine(*lines, "Accept")) {
    lines->emplace_back("Accept:");  // none sent
  }
}

void Request::Describe(const Settings& settings, std::vector<std::string> header_lines,
                       std::string body, TransferRequest* out) {
  // Assigned, not made anew: the text reuses the room the last request's had.
  out->url.assign(connection_->Origin((flags_ & INTERNET_FLAG_SECURE) != 0)).append(path_);
  out->request_target = asterisk_ ? "*" : "";
  out->method = verb_;
  out->body = std::move(body);
  DescribeHeaderLines(std::move(header_lines), &out->header_lines);
  out->http10 = http10_;
  out->agent = sent_agent_;
  const auto& session = connection_->session();
  out->share = session->share();
  out->proxy_mode = session->proxy_mode();
  if (out->proxy_mode == ProxyMode::kNamed) {
    out->http_proxy = session->ProxyFor("http");
    out->https_proxy = session->ProxyFor("https");
    out->proxy_bypass = session->proxy_bypass();
  } else {
    out->http_proxy.clear();
    out->https_proxy.clear();
    out->proxy_bypass.clear();
  }
  // Without credentials a challenge is the answer: the flag leaves it to the caller.
  const bool credentials = (flags_ & INTERNET_FLAG_NO_AUTH) == 0;
  const auto assign = [credentials](std::string& to, const std::optional<std::string>& from) {
    if (credentials && from.has_value()) {
      to = *from;
    } else {
      to.clear();
    }
  };
  assign(out->user, settings.user);
  assign(out->password, settings.password);
  assign(out->proxy_user, settings.proxy_user);
  assign(out->proxy_password, settings.proxy_password);
  out->verify_host = (flags_ & INTERNET_FLAG_IGNORE_CERT_CN_INVALID) == 0;
  out->ca_file = TestCaFile();
  out->limits.connect = LimitOf(settings.connect_timeout, kDefaultConnectTimeoutMs);
  out->limits.idle = LimitOf(settings.receive_timeout, kDefaultReceiveTimeoutMs);
  out->limits.send = LimitOf(settings.send_timeout, kDefaultSendTimeoutMs);
  // Waiting for a free connection counts as waiting for the server.
  out->slot_wait = TimeoutOf(settings.receive_timeout, kDefaultReceiveTimeoutMs);
  out->redirects.follow = (flags_ & INTERNET_FLAG_NO_AUTO_REDIRECT) == 0;
  out->redirects.allow_https_to_http = (flags_ & INTERNET_FLAG_IGNORE_REDIRECT_TO_HTTP) != 0;
}

// --- the operations ----------------------------------------------------------------------------

DWORD Request::Send(std::vector<std::string> header_lines, std::string body) {
  const auto call = LockCall();
  if (stop_.stopped()) return ERROR_INTERNET_OPERATION_CANCELLED;
  // A resend drops what is left of the previous response.
  transfer_->Finish(kDrainWait);
  transfer_->Reset();
  transfer_->set_waiter(handle());
  const std::shared_ptr<const Settings> settings = Effective();
  if (settings->agent.has_value()) {
    sent_agent_ = *settings->agent;
  } else {
    sent_agent_.clear();
  }
  Describe(*settings, std::move(header_lines), std::move(body), &transfer_->next_request());
  return transfer_->Open();
}

DWORD Request::Read(void* buffer, DWORD size, DWORD* bytes_read) {
  const auto call = LockCall();
  *bytes_read = 0;
  if (!transfer_->HasResponse()) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  if (stop_.stopped()) return ERROR_INTERNET_OPERATION_CANCELLED;
  if (size == 0) return ERROR_SUCCESS;
  std::size_t got = 0;
  const DWORD error = transfer_->Read(static_cast<char*>(buffer), size, &got);
  *bytes_read = static_cast<DWORD>(got);
  return error;
}

DWORD Request::QueryRequestHeaders(DWORD level, void* buffer, DWORD* buffer_length,
                                   DWORD* index) {
  const std::string& url = transfer_->sent_url();
  if (url.empty()) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  auto authority_start = url.find("//") + 2;
  const auto path_start = url.find('/', authority_start);
  // A URL a redirect led to may carry a user name and password; the Host line does not.
  const auto at = url.rfind('@', path_start);
  if (at != std::string::npos && at >= authority_start) authority_start = at + 1;
  std::vector<std::string> sent;
  const std::vector<std::string>& given = transfer_->request().header_lines;
  for (std::size_t i = 0; i < sent_lines_ && i < given.size(); ++i) {
    if (transfer_->CallerLineSent(given[i])) sent.push_back(given[i]);
  }
  std::vector<std::string> lines;
  // A Host line of the caller's goes out in place of the one made from the URL.
  if (!HasHeaderLine(sent, "Host")) {
    // As libcurl sends it: without the port when it is the scheme's own.
    std::string_view host = std::string_view(url).substr(authority_start,
                                                         path_start - authority_start);
    const std::string_view own_port = url.starts_with("https:") ? ":443" : ":80";
    if (host.ends_with(own_port)) host.remove_suffix(own_port.size());
    lines.emplace_back("Host: ").append(host);
  }
  // A User-Agent line of the caller's goes out in place of the agent.
  if (!sent_agent_.empty() && !HasHeaderLine(sent, "User-Agent")) {
    lines.push_back("User-Agent: " + sent_agent_);
  }
  lines.insert(lines.end(), sent.begin(), sent.end());
  // libcurl announces a body's length after the caller's lines, unless the caller's own (right)
  // line went out; a HEAD goes without its body.
  const std::string& method = transfer_->method();
  const std::size_t body_size = transfer_->request().body.size();
  if (method != "HEAD" && (body_size != 0 || method == "POST") &&
      !HasHeaderLine(sent, "Content-Length")) {
    lines.push_back("Content-Length: " + std::to_string(body_size));
  }
  HeaderBlock block;
  const std::string& target = transfer_->sent_target();
  // A redirect's Location may carry a fragment, which libcurl keeps out of the request line.
  const auto path_end = url.find('#', path_start);
  block.SetRequest(transfer_->method() + " " +
                       (!target.empty()                   ? target
                        : path_start == std::string::npos ? "/"
                                                          : url.substr(path_start,
                                                                       path_end - path_start)) +
                       (http10_ ? " HTTP/1.0" : " HTTP/1.1"),
                   lines);
  return QueryHeaderBlock(block, transfer_->method(), level & ~HTTP_QUERY_FLAG_REQUEST_HEADERS,
                          buffer, buffer_length, index);
}

DWORD Request::Query(DWORD level, void* buffer, DWORD* buffer_length, DWORD* index) {
  const auto call = LockCall();
  // A query that waited for a call the handle's close ended fails as that call did.
  if (stop_.stopped()) return ERROR_INTERNET_OPERATION_CANCELLED;
  if ((level & HTTP_QUERY_FLAG_REQUEST_HEADERS) != 0) {
    return QueryRequestHeaders(level, buffer, buffer_length, index);
  }
  if (!transfer_->HasResponse()) return ERROR_INTERNET_INCORRECT_HANDLE_STATE;
  return QueryHeaderBlock(transfer_->response(), transfer_->method(), level, buffer, buffer_length,
                          index);
}

}  // namespace tqplatform

using namespace tqplatform;

extern "C" {

HINTERNET HttpOpenRequestW(HINTERNET connect, LPCWSTR verb, LPCWSTR object_name, LPCWSTR version,
                           LPCWSTR referrer, LPCWSTR* accept_types, DWORD flags,
                           DWORD_PTR /*context*/) {
  return Guarded(HINTERNET{}, [&]() -> HINTERNET {
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
    std::string accept_line;
    std::string referer_line;
    if (accept_types != nullptr) {
      // The line is made in place: "Accept: " and the types joined with ", ".
      constexpr std::string_view kAccept = "Accept: ";
      std::string accept(kAccept);
      std::string text;
      for (LPCWSTR* type = accept_types; *type != nullptr; ++type) {
        if (!WideToLatin1(*type, &text) || text.find_first_of("\r\n") != std::string::npos) {
          return FailNull(ERROR_INVALID_PARAMETER);
        }
        if (text.empty()) continue;
        if (accept.size() > kAccept.size()) accept += ", ";
        accept += text;
      }
      if (accept.size() > kAccept.size()) accept_line = std::move(accept);
    }
    if (WideLength(referrer) != 0) {
      std::string text;
      if (!WideToLatin1(referrer, &text) || text.find_first_of("\r\n") != std::string::npos) {
        return FailNull(ERROR_INVALID_PARAMETER);
      }
      referer_line = "Referer: " + text;
    }
    const std::wstring_view resource =
        object_name != nullptr ? std::wstring_view(object_name) : std::wstring_view(L"/");
    // "*" (as in "OPTIONS *") names the server itself, not a resource.
    auto request = std::make_shared<Request>(connection, std::move(method),
                                             resource == L"*" ? "*" : EncodePath(resource),
                                             http10, std::move(accept_line),
                                             std::move(referer_line), flags);
    return RegisterChild(*connection, request);
  });
}

BOOL HttpSendRequestW(HINTERNET request_handle, LPCWSTR headers, DWORD headers_length,
                      LPVOID optional, DWORD optional_length) {
  return Guarded(FALSE, [&]() -> BOOL {
    if (DWORD fault = TakeInjectedFault("HttpSendRequestW")) return Fail(fault);
    auto request = Lookup<Request>(request_handle);
    if (request == nullptr) return FALSE;
    if (optional == nullptr && optional_length != 0) return Fail(ERROR_INVALID_PARAMETER);
    std::vector<std::string> lines;
    if (headers != nullptr) {
      // A length of -1 means the text ends at its terminator. A length that counts the terminator
      // too is common: NULs at the very end cut nothing off. Any other NUL is refused.
      const std::size_t length =
          headers_length == 0xFFFFFFFFu ? WideLength(headers) : headers_length;
      std::wstring_view text(headers, length);
      while (!text.empty() && text.back() == L'\0') text.remove_suffix(1);
      if (DWORD error = SplitHeaders(text, &lines)) return Fail(error);
    }
    std::string body;
    if (optional_length != 0) body.assign(static_cast<const char*>(optional), optional_length);
    if (DWORD error = request->Send(std::move(lines), std::move(body))) return Fail(error);
    return TRUE;
  });
}

BOOL InternetReadFile(HINTERNET file, LPVOID buffer, DWORD bytes_to_read, LPDWORD bytes_read) {
  // The count is zeroed before any check: a caller may look at it after a failure, and must
  // not find the last read's count there.
  if (bytes_read != nullptr) *bytes_read = 0;
  return Guarded(FALSE, [&]() -> BOOL {
    if (DWORD fault = TakeInjectedFault("InternetReadFile")) return Fail(fault);
    auto request = Lookup<Request>(file);
    if (request == nullptr) return FALSE;
    if (bytes_read == nullptr || (buffer == nullptr && bytes_to_read != 0)) {
      return Fail(ERROR_INVALID_PARAMETER);
    }
    if (DWORD error = request->Read(buffer, bytes_to_read, bytes_read)) return Fail(error);
    return TRUE;
  });
}

BOOL HttpQueryInfoW(HINTERNET request_handle, DWORD info_level, LPVOID buffer,
                    LPDWORD buffer_length, LPDWORD index) {
  return Guarded(FALSE, [&]() -> BOOL {
    if (DWORD fault = TakeInjectedFault("HttpQueryInfoW")) return Fail(fault);
    auto request = Lookup<Request>(request_handle);
    if (request == nullptr) return FALSE;
    if (buffer_length == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    if (DWORD error = request->Query(info_level, buffer, buffer_length, index)) return Fail(error);
    return TRUE;
  });
}

}  // extern "C"
