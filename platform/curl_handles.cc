#include "platform/curl_handles.h"

#include <signal.h>

#include <cstdlib>
#include <mutex>

namespace tqplatform {
namespace {

using CurlText = std::unique_ptr<char, CurlDeleter<curl_free>>;

bool GetPart(CURLU* url, CURLUPart part, unsigned flags, std::string* out) {
  char* raw = nullptr;
  const bool ok = curl_url_get(url, part, &raw, flags) == CURLUE_OK;
  const CurlText text(raw);
  if (ok) *out = text.get();
  return ok;
}

bool ReadParts(CURLU* url, UrlParts* parts) {
  std::string port;
  if (!GetPart(url, CURLUPART_URL, 0, &parts->text) ||
      !GetPart(url, CURLUPART_SCHEME, 0, &parts->scheme) ||
      !GetPart(url, CURLUPART_HOST, 0, &parts->host) ||
      !GetPart(url, CURLUPART_PORT, CURLU_DEFAULT_PORT, &port)) {
    return false;
  }
  if (parts->host.size() > 2 && parts->host.front() == '[') {
    parts->host = parts->host.substr(1, parts->host.size() - 2);
  }
  parts->port = std::strtol(port.c_str(), nullptr, 10);
  return true;
}

}  // namespace

void EnsureCurlInitialised() {
  static std::once_flag once;
  std::call_once(once, [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    // A peer closing a TLS connection must not kill the process: OpenSSL writes with write(2),
    // which raises SIGPIPE. Leave a handler the host installed alone.
    struct sigaction current {};
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
      signal(SIGPIPE, SIG_IGN);
    }
  });
}

std::string PercentEncodeUnsafe(std::string_view text, std::string_view also) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (NeedsPercentEncoding(u) || also.find(c) != std::string_view::npos) {
      out.push_back('%');
      out.push_back(kHex[u >> 4]);
      out.push_back(kHex[u & 15]);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

bool ParseUrl(const std::string& url, UrlParts* parts) {
  const CurlUrl parsed(curl_url());
  return parsed != nullptr &&
         curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
         ReadParts(parsed.get(), parts);
}

bool ResolveUrl(const std::string& base, const std::string& reference, UrlParts* parts) {
  UrlParts from;
  if (!ParseUrl(base, &from)) return false;
  // libcurl merges a relative reference wrongly when a dot segment comes before its query, or
  // when it is a fragment alone ("./?q" from /x/y leads to /x?q, "#f" to /x/): it is made
  // absolute here by RFC 3986's merge, and libcurl only removes the dot segments.
  std::string absolute;
  const std::size_t scheme_end = reference.find_first_of(":/?#");
  const bool has_scheme = scheme_end != std::string::npos && scheme_end > 0 &&
                          reference[scheme_end] == ':';
  if (!has_scheme && !reference.starts_with("//")) {
    const std::string& text = from.text;
    const std::size_t path = text.find('/', text.find("://") + 3);
    const std::size_t query = text.find_first_of("?#", path);
    const std::size_t fragment = text.find('#', path);
    if (reference.empty() || reference.front() == '/') {
      absolute.assign(text, 0, path).append(reference);
    } else if (reference.front() == '?') {
      absolute.assign(text, 0, query).append(reference);
    } else if (reference.front() == '#') {
      absolute.assign(text, 0, fragment).append(reference);
    } else {
      absolute.assign(text, 0, text.rfind('/', query - 1) + 1).append(reference);
    }
  }
  if (absolute.empty()) absolute = reference;
  // libcurl's encoding makes a space in the query a "+", which many servers read as a plus sign.
  for (std::size_t space = absolute.find(' '); space != std::string::npos;
       space = absolute.find(' ', space)) {
    absolute.replace(space, 1, "%20");
  }
  const CurlUrl parsed(curl_url());
  UrlParts again;
  // libcurl decodes a host's escapes ("%7f" gives a raw DEL) and gives the result back as the
  // URL's text, which it then refuses to parse: such a URL leads nowhere.
  return parsed != nullptr &&
         curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), 0) == CURLUE_OK &&
         curl_url_set(parsed.get(), CURLUPART_URL, absolute.c_str(), CURLU_URLENCODE) ==
             CURLUE_OK &&
         ReadParts(parsed.get(), parts) && ParseUrl(parts->text, &again);
}

}  // namespace tqplatform
