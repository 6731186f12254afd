#include "platform/redirect_policy.h"

#include "platform/curl_handles.h"
#include "platform/wide_text.h"

namespace tqplatform {

DWORD NextHop(const RedirectRules& rules, const HeaderBlock& response, int hop, Hop* next,
              bool* follow) {
  *follow = false;
  const int status = response.status_code();
  if (!MayRedirect(rules, status)) return ERROR_SUCCESS;
  const std::optional<std::string> location(response.Find("Location"));
  if (!location || location->empty()) return ERROR_SUCCESS;
  if (hop >= RedirectRules::kMaxHops) return ERROR_HTTP_REDIRECT_FAILED;

  UrlParts from;
  UrlParts to;
  if (!ParseUrl(next->url, &from) || !ResolveUrl(next->url, *location, &to) ||
      (to.scheme != "http" && to.scheme != "https")) {
    return ERROR_HTTP_REDIRECT_FAILED;
  }
  if (from.scheme == "https" && to.scheme == "http" && !rules.allow_https_to_http) {
    return ERROR_INTERNET_HTTPS_TO_HTTP_ON_REDIR;
  }
  // 303 (but for a HEAD, which stays one), and 301/302 after a POST, continue with GET and no
  // body, as browsers do.
  next->drop_body = false;
  if ((status == 303 && next->method != "HEAD") ||
      ((status == 301 || status == 302) && next->method == "POST")) {
    next->method = "GET";
    next->drop_body = true;
  }
  next->same_origin = next->same_origin && EqualsIgnoreCase(to.host, from.host) &&
                      to.port == from.port && to.scheme == from.scheme;
  next->url = to.text;
  *follow = true;
  return ERROR_SUCCESS;
}

}  // namespace tqplatform
