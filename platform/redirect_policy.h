// Where a response leads: the one redirect policy of the platform layer's transfers. Pure apart
// from libcurl's URL parser, so it is tested without a network.
#pragma once

#include <string>

#include "platform/http_headers.h"
#include "platform/wininet.h"

namespace tqplatform {

// Where redirects may lead. The WinINet requests and the URL Moniker differ only in these.
struct RedirectRules {
  static constexpr int kMaxHops = 10;
  bool follow = true;
  bool allow_https_to_http = false;
};

// One request of a redirect chain.
struct Hop {
  std::string url;
  std::string method;
  bool same_origin = true;  // still at the first hop's origin: credentials may go along
  bool drop_body = false;   // the next request goes without the body
};

// Whether a response with this status may redirect under these rules (NextHop then looks at it).
inline bool MayRedirect(const RedirectRules& rules, int status) {
  return rules.follow &&
         (status == 301 || status == 302 || status == 303 || status == 307 || status == 308);
}

// Decides whether `response` (to the `hop`-th request, counting from 0) redirects. Returns
// ERROR_SUCCESS with `*follow` telling whether to go on and `*next` updated when it does, or
// ERROR_HTTP_REDIRECT_FAILED (too many hops, a Location that cannot be read or leads outside
// http and https) or ERROR_INTERNET_HTTPS_TO_HTTP_ON_REDIR.
DWORD NextHop(const RedirectRules& rules, const HeaderBlock& response, int hop, Hop* next,
              bool* follow);

}  // namespace tqplatform
