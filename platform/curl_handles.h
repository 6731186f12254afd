// libcurl's objects behind RAII owners, the library's one libcurl start-up, and libcurl's URL
// parser in the few forms the platform layer needs. Everything in platform/ that holds a libcurl
// object holds it through one of these.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <string_view>

namespace tqplatform {

// libcurl's global state and the process's SIGPIPE disposition, set up once for every user of
// libcurl in the library (the WinINet layer and the URL Moniker downloads).
void EnsureCurlInitialised();

template <auto Cleanup>
struct CurlDeleter {
  template <typename T>
  void operator()(T* object) const {
    Cleanup(object);
  }
};
using CurlEasy = std::unique_ptr<CURL, CurlDeleter<curl_easy_cleanup>>;
using CurlMulti = std::unique_ptr<CURLM, CurlDeleter<curl_multi_cleanup>>;
using CurlShare = std::unique_ptr<CURLSH, CurlDeleter<curl_share_cleanup>>;
using CurlUrl = std::unique_ptr<CURLU, CurlDeleter<curl_url_cleanup>>;
using CurlHeaderList = std::unique_ptr<curl_slist, CurlDeleter<curl_slist_free_all>>;

// A byte no URL may carry as it is: controls, space, DEL and everything past ASCII.
inline bool NeedsPercentEncoding(unsigned char byte) { return byte <= 0x20 || byte >= 0x7F; }

// `text` with the bytes no request line may hold (controls, space, DEL and every byte of a
// character outside ASCII) and those in `also` percent-encoded (upper-case hex), the rest as is.
std::string PercentEncodeUnsafe(std::string_view text, std::string_view also = {});

// An absolute URL as libcurl reads it: `text` is its normalised form (dot segments removed),
// `host` is without IPv6 brackets, `port` has the scheme's default filled in.
struct UrlParts {
  std::string text;
  std::string scheme;
  std::string host;
  long port = 0;
};

// False when libcurl cannot parse `url` as an absolute URL.
bool ParseUrl(const std::string& url, UrlParts* parts);
// `reference` (absolute, or relative to `base`), characters a URL cannot hold percent-encoded,
// as a redirect's Location is read. False when either cannot be parsed.
bool ResolveUrl(const std::string& base, const std::string& reference, UrlParts* parts);

}  // namespace tqplatform
