// The options of one hop of a transfer and its list of header lines.
#include "platform/transfer.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/wide_text.h"
#include "tqutil/decimal.h"

namespace tqplatform {
namespace {

// The one Accept line, when it asks for "*/*": libcurl sends that line itself when no line names
// Accept, without formatting one of ours for every request. Null otherwise.
const std::string* DefaultAcceptLine(const std::vector<std::string>& lines) {
  const std::string* found = nullptr;
  for (const auto& line : lines) {
    if (!EqualsIgnoreCase(LineName(line), "Accept")) continue;
    if (found != nullptr) return nullptr;
    if (LineValue(line) != "*/*") return nullptr;
    found = &line;
  }
  return found;
}

// Lines a caller writes for the origin it asked: libcurl's own following never takes them to
// another host, and neither does this layer's.
bool OnlyForTheFirstOrigin(std::string_view line) {
  const std::string_view name = LineName(line);
  return EqualsIgnoreCase(name, "Host") || EqualsIgnoreCase(name, "Authorization") ||
         EqualsIgnoreCase(name, "Cookie");
}

// A proxy's credentials, which an origin must never see: inside a tunnel, or on a direct
// connection, the line would hand them to the server at the other end.
bool OnlyForAProxy(std::string_view line) {
  return EqualsIgnoreCase(LineName(line), "Proxy-Authorization");
}

// A caller's Content-Length line that is not the length of the body really sent (none when a
// redirect drops it): the server would read the bytes past a smaller number as a request of
// their own, or wait for bytes that never come. libcurl writes the right line in its place.
bool WrongLength(std::string_view line, std::size_t body_size) {
  return EqualsIgnoreCase(LineName(line), "Content-Length") &&
         qv::ParseDecimal(LineValue(line)) != std::uint64_t{body_size};
}

}  // namespace

bool BypassesProxy(const std::vector<std::string>& patterns, std::string_view host) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  // Greedy glob: on a mismatch the last "*" takes one character more.
  const auto matches = [&](std::string_view pattern) {
    std::size_t p = 0, h = 0, star = std::string_view::npos, star_h = 0;
    while (h < host.size()) {
      if (p < pattern.size() && pattern[p] == '*') {
        star = p++;
        star_h = h;
      } else if (p < pattern.size() && lower(pattern[p]) == lower(host[h])) {
        ++p;
        ++h;
      } else if (star != std::string_view::npos) {
        p = star + 1;
        h = ++star_h;
      } else {
        return false;
      }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
  };
  for (const std::string& pattern : patterns) {
    if (pattern == "<local>" ? host.find('.') == std::string_view::npos : matches(pattern)) {
      return true;
    }
  }
  return false;
}

void Transfer::ClearResponse() {
  blocks_[0].Clear();
  blocks_[1].Clear();
  content_length_ = 0;
  keep_whole_body_ = false;
  header_error_ = 0;
  trailer_bytes_ = 0;
  challenges_answered_ = 0;
  progress_noted_ = false;
  request_out_ = false;
  answer_begun_ = false;
  resent_ = false;
  in_challenge_body_ = false;
  tunnel_challenged_ = false;
  proxy_answered_ = false;
  result_ = CURLE_OK;
  error_ = ERROR_SUCCESS;
  error_text_[0] = '\0';
  spill_.Clear();
  discarded_ = 0;
}

DWORD Transfer::Configure(bool same_origin) {
  ClearResponse();
  slot_->error_text()[0] = '\0';
  // No CURLOPT_PATH_AS_IS: libcurl removes dot segments, as browsers do, so "/x/../b" goes out
  // as "/b". A cache keys on the normalised URL; what it keys on must be what is sent.
  sent_url_ = slot_->SentUrl(request_.url);
  sent_same_origin_ = same_origin;
  method_ = request_.method;
  clock_.Start(request_.limits, !request_.body.empty(), TransferClock::Clock::now());
  if (DWORD error = MakeHeaderList()) return error;
  // libcurl answers a challenge itself when it has the credentials for it.
  answers_401_ = same_origin && !request_.user.empty();
  answers_407_ = !request_.proxy_user.empty();
  if (!slot_->ApplyOptions(Options(same_origin))) return ERROR_NOT_ENOUGH_MEMORY;
  if (!slot_->Attach()) return ERROR_INTERNET_INTERNAL_ERROR;
  MoveTo(TransferState::kConnecting);
  return ERROR_SUCCESS;
}

HopOptions Transfer::Options(bool same_origin) const {
  HopOptions options;
  options.url = sent_url_;
  options.request_target = request_.request_target;
  options.method = request_.method;
  options.body = request_.body;
  options.headers = header_list_;
  options.proxy_headers = proxy_header_list_.get();
  options.http10 = request_.http10;
  options.buffer_size = kBufferSize;
  options.connect_timeout_ms = static_cast<long>(clock_.connect_limit().count());
  if (!AgentAsHeaderLine()) options.agent = request_.agent;
  options.owner = slot_.get();
  options.error_buffer = slot_->error_text();
  options.header_function = &Transfer::HeaderCallback;
  options.write_function = &Transfer::WriteCallback;
  options.prereq_function = &Transfer::PrereqCallback;
  options.sockopt_function = &Transfer::SocketCallback;
  options.closesocket_function = &TransferSlot::CloseSocketCallback;
  options.closesocket_data = slot_.get();
  options.share = request_.share;
  options.verify_host = request_.verify_host;
  options.ca_file = &request_.ca_file;
  options.proxy_mode = request_.proxy_mode;
  if (request_.proxy_mode == ProxyMode::kNamed) {
    const bool secure = request_.url.rfind("https:", 0) == 0;
    options.proxy = secure ? request_.https_proxy : request_.http_proxy;
    UrlParts parts;
    if (!options.proxy.empty() && !request_.proxy_bypass.empty() &&
        ParseUrl(request_.url, &parts) && BypassesProxy(request_.proxy_bypass, parts.host)) {
      options.proxy = {};  // each hop asks anew: a redirect may lead past the list or into it
    }
  }
  // Credentials answer a 401 challenge; they go to the first origin only.
  if (same_origin) {
    options.user = request_.user;
    options.password = request_.password;
  }
  options.proxy_user = request_.proxy_user;
  options.proxy_password = request_.proxy_password;
  return options;
}

bool Transfer::CallerLineSent(std::string_view line) const {
  // libcurl sends a HEAD without the body it was given.
  const std::size_t body_sent = request_.method == "HEAD" ? 0 : request_.body.size();
  return (sent_same_origin_ || !OnlyForTheFirstOrigin(line)) && !OnlyForAProxy(line) &&
         !WrongLength(line, body_sent);
}

bool Transfer::AgentAsHeaderLine() const {
  // Without a proxy the agent goes out among the request's own lines: the same line in the same
  // place (after Host and credentials), without libcurl formatting it anew for every request.
  // Through a proxy libcurl's option also puts it into the CONNECT request.
  return !request_.agent.empty() && request_.proxy_mode == ProxyMode::kDirect;
}

DWORD Transfer::MakeHeaderList() {
  std::vector<std::string_view>& lines = slot_->NewHeaderLines();
  if (AgentAsHeaderLine() && !HasHeaderLine(request_.header_lines, "User-Agent")) {
    // A caller's own User-Agent line replaces the agent, as libcurl's option would let it.
    std::string& agent_line = slot_->made_line();
    agent_line.assign("User-Agent: ").append(request_.agent);
    lines.emplace_back(agent_line);
  }
  const std::string* default_accept = DefaultAcceptLine(request_.header_lines);
  for (const auto& line : request_.header_lines) {
    if (&line != default_accept && CallerLineSent(line)) lines.emplace_back(line);
  }
  // No 100-continue round trip before a body (libcurl asks for one only when sending a body).
  if (!request_.body.empty()) lines.emplace_back("Expect:");
  // libcurl labels a body it sends as a form unless told otherwise; the body is the caller's
  // bytes, labelled as the caller says or not at all.
  if ((!request_.body.empty() || request_.method == "POST") &&
      !HasHeaderLine(request_.header_lines, "Content-Type")) {
    lines.emplace_back("Content-Type:");
  }
  bool ok = true;
  header_list_ = slot_->HeaderList(&ok);
  proxy_header_list_.reset();
  for (const auto& line : request_.header_lines) {
    if (!ok || !OnlyForAProxy(line)) continue;
    curl_slist* grown = curl_slist_append(proxy_header_list_.get(), line.c_str());
    ok = grown != nullptr;
    if (ok) (void)proxy_header_list_.release();  // `grown` starts with the list so far
    proxy_header_list_.reset(grown);
  }
  return ok ? ERROR_SUCCESS : ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace tqplatform
