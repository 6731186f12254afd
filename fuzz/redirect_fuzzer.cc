// A redirect's Location resolved against the URL that answered it, as the transfers follow it.
// Input: the base URL, a newline, the Location value. Beyond not crashing: a success is an
// absolute URL with no byte a request line cannot carry in its target, that reads back the
// same; a reference with neither a scheme nor "//" stays at the base's scheme, host and port; an
// absolute reference libcurl reads as it is, and reads again from its own text, gives that URL;
// and NextHop only ever follows to http(s).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/curl_handles.h"
#include "platform/http_headers.h"
#include "platform/redirect_policy.h"
#include "platform/wide_text.h"

namespace {

using tqplatform::UrlParts;

void Check(bool condition) {
  if (!condition) std::abort();
}

bool HasScheme(std::string_view reference) {
  const std::size_t end = reference.find_first_of(":/?#");
  return end != std::string_view::npos && end > 0 && reference[end] == ':';
}

bool Printable(std::string_view text) {
  for (const char c : text) {
    if (tqplatform::NeedsPercentEncoding(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  tqplatform::EnsureCurlInitialised();
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::size_t newline = bytes.find('\n');
  if (newline == std::string_view::npos) return 0;
  const std::string base(bytes.substr(0, newline));
  const std::string reference(bytes.substr(newline + 1));
  if (base.find('\0') != std::string::npos || reference.find('\0') != std::string::npos) return 0;
  // A request's URL went out percent-encoded: only the Location is the server's.
  UrlParts from;
  if (!Printable(base) || !tqplatform::ParseUrl(base, &from) || (from.scheme != "http" && from.scheme != "https")) {
    return 0;
  }
  // libcurl reads a percent-encoded host ("%30") as it is, and its own text of it ("0") as an
  // address ("0.0.0.0"): the comparisons below are with a base in libcurl's own form.
  UrlParts canonical;
  if (!tqplatform::ParseUrl(from.text, &canonical) || canonical.host != from.host) return 0;

  UrlParts to;
  if (tqplatform::ResolveUrl(base, reference, &to)) {
    // What goes on the request line. libcurl leaves a host name's bytes for its IDN
    // conversion and the fragment as it came, but never sends the fragment.
    const std::size_t target = to.text.find_first_of("/?#", to.text.find("://") + 3);
    Check(target != std::string::npos &&
          Printable(to.text.substr(target, to.text.find('#') - target)));
    UrlParts again;
    Check(tqplatform::ParseUrl(to.text, &again));
    Check(again.scheme == to.scheme && again.port == to.port);
    UrlParts third;
    Check(tqplatform::ParseUrl(again.text, &third) && third.text == again.text &&
          third.host == again.host);
    // As with the base, a Location's percent-encoded host ("1%2e3") reads back as an address
    // ("1.0.0.3") only the second time: never the base's host, which is in libcurl's own form.
    if (!HasScheme(reference) && !reference.starts_with("//")) {
      Check(again.text == to.text && again.host == to.host);
      Check(to.scheme == from.scheme);
      Check(tqplatform::EqualsIgnoreCase(to.host, from.host));
      Check(to.port == from.port);
    }
    // Resolving the result again leads to itself.
    UrlParts twice;
    Check(tqplatform::ResolveUrl(base, to.text, &twice) && twice.text == again.text);
  }
  // Only where libcurl also reads its own text of it: a redirect to a URL that no request can
  // be made with is refused ("ftp:/%7f%7" reads as "ftp://%257/", which does not read again).
  UrlParts direct;
  UrlParts direct_again;
  if (HasScheme(reference) && Printable(reference) && tqplatform::ParseUrl(reference, &direct) &&
      tqplatform::ParseUrl(direct.text, &direct_again)) {
    Check(tqplatform::ResolveUrl(base, reference, &to) && to.text == direct.text);
  }

  // Through the redirect policy: a followed hop is an http(s) URL.
  tqplatform::HeaderBlock response;
  if (response.AddLine("HTTP/1.1 302 Found\r\n") != tqplatform::HeaderBlock::LineResult::kAccepted ||
      response.AddLine("Location: " + reference + "\r\n") !=
          tqplatform::HeaderBlock::LineResult::kAccepted) {
    return 0;
  }
  tqplatform::Hop hop{base, "POST"};
  bool follow = false;
  const DWORD error = tqplatform::NextHop(tqplatform::RedirectRules{}, response, 0, &hop, &follow);
  if (error == ERROR_SUCCESS && follow) {
    UrlParts next;
    Check(tqplatform::ParseUrl(hop.url, &next));
    Check(next.scheme == "http" || next.scheme == "https");
    Check(!(from.scheme == "https" && next.scheme == "http"));
    Check(hop.method == "GET" && hop.drop_body);
  }
  return 0;
}
