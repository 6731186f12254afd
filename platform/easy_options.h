// The options a transfer sets on a slot's easy handle, applied as one whole for every hop.
//
// A slot's easy handle serves request after request. Rather than clearing every option and
// setting them all again each time, the slot remembers what it last applied and calls libcurl
// only for the options whose value changed; every option a request may change is in HopOptions,
// so none can be left over from the request before. A change of an option that requests rarely
// change (TLS verification, the proxy, the share, the callbacks) or any use of credentials
// clears the handle and sets everything again: libcurl keeps authentication state that follows
// the credentials, and some defaults cannot be set back one by one.
#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/curl_handles.h"

namespace tqplatform {

enum class ProxyMode { kEnvironment, kDirect, kNamed };

// Views into the request being sent; they need to stay valid only while applied (libcurl copies
// strings), except `body` and the two header lists, which libcurl reads while the transfer runs.
struct HopOptions {
  // Changed from request to request.
  std::string_view url;
  std::string_view request_target;  // in place of the URL's path; empty: the path
  std::string_view method;  // "GET", "HEAD", "POST" or any other verb
  std::string_view body;    // sent when not empty, or when the method is POST
  curl_slist* headers = nullptr;  // set again only when it differs (see ForgetHeaders)
  // Lines for a proxy only: libcurl puts them into a tunnel's CONNECT and into requests sent to
  // a proxy in the clear, and sends them nowhere on a direct connection.
  curl_slist* proxy_headers = nullptr;
  bool http10 = false;
  long buffer_size = 0;
  long connect_timeout_ms = 0;
  std::string_view agent;  // libcurl's User-Agent option; empty: none
  void* owner = nullptr;   // what the callbacks are given; must outlive the handle's use
  char* error_buffer = nullptr;  // likewise

  // Rarely changed: a change clears the handle.
  curl_write_callback header_function = nullptr;
  curl_write_callback write_function = nullptr;
  curl_prereq_callback prereq_function = nullptr;
  curl_sockopt_callback sockopt_function = nullptr;
  curl_closesocket_callback closesocket_function = nullptr;  // null: libcurl closes them
  void* closesocket_data = nullptr;
  CURLSH* share = nullptr;
  bool verify_host = true;
  const std::optional<std::string>* ca_file = nullptr;  // null or unset: libcurl's default
  ProxyMode proxy_mode = ProxyMode::kEnvironment;
  std::string_view proxy;  // kNamed: the proxy for the URL's host and scheme ("" for none)
  // Credentials answer 401 (user) and 407 (proxy user) challenges; empty: none.
  std::string_view user;
  std::string_view password;
  std::string_view proxy_user;
  std::string_view proxy_password;
};

// What a slot last set on its easy handle. The handle refers to the parsed URL held here, so
// this must outlive the handle's transfers.
class AppliedOptions {
 public:
  // Brings the handle to `wanted`. False when libcurl refuses an option (out of memory).
  bool Apply(CURL* easy, const HopOptions& wanted);
  // Drops the pointers into the transfer that ran (its body, its lines for a proxy), so that a
  // handle lying idle refers to nothing that may be gone; the callbacks' target, error buffer
  // and header list belong to whoever owns the handle and stay.
  void Release(CURL* easy);
  // Takes the header list off the handle before its owner frees or remakes it: a list made
  // again may sit at the address of the last one, and is then set again all the same.
  void ForgetHeaders(CURL* easy);

 private:
  enum class MethodKind { kGet, kHead, kBody, kCustom };
  bool SameRareOptions(const HopOptions& wanted) const;
  bool SetAll(CURL* easy, const HopOptions& wanted);
  // Parts of SetAll: what a cleared handle needs set again when the request wants it.
  bool SetCallbacks(CURL* easy, const HopOptions& wanted);
  bool SetProxy(CURL* easy, const HopOptions& wanted);
  bool SetCredentials(CURL* easy, const HopOptions& wanted);
  bool SetChanged(CURL* easy, const HopOptions& wanted);
  bool SetMethod(CURL* easy, const HopOptions& wanted);
  bool SetUrl(CURL* easy);

  bool fresh_ = true;  // nothing applied since the handle was made or cleared
  bool failed_ = false;  // libcurl refused an option since

  std::string url_;
  // url_ parsed, as libcurl is given it; when url_ does not parse, libcurl gets the text.
  CurlUrl parsed_url_;
  std::string request_target_;
  curl_slist* headers_ = nullptr;
  curl_slist* proxy_headers_ = nullptr;
  MethodKind method_ = MethodKind::kGet;
  std::string custom_method_;
  long http_version_ = CURL_HTTP_VERSION_NONE;
  long buffer_size_ = 0;
  long connect_timeout_ms_ = 0;
  std::string agent_;
  void* owner_ = nullptr;
  char* error_buffer_ = nullptr;

  curl_write_callback header_function_ = nullptr;
  curl_write_callback write_function_ = nullptr;
  curl_prereq_callback prereq_function_ = nullptr;
  curl_sockopt_callback sockopt_function_ = nullptr;
  curl_closesocket_callback closesocket_function_ = nullptr;
  void* closesocket_data_ = nullptr;
  CURLSH* share_ = nullptr;
  bool verify_host_ = true;
  std::optional<std::string> ca_file_;
  ProxyMode proxy_mode_ = ProxyMode::kEnvironment;
  std::string proxy_;
  bool credentials_ = false;
};

}  // namespace tqplatform
