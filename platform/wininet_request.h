// Requests (HttpOpenRequestW): sending, pull reads of the body and header queries.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/http_headers.h"
#include "platform/wininet_session.h"

namespace tqplatform {

class Request : public InternetObject {
 public:
  static constexpr HandleKind kKind = HandleKind::kRequest;

  // Redirects followed for one send before giving up.
  static constexpr int kMaxRedirects = 10;
  // A response body up to this size is read and dropped when a request is resent, redirected or
  // closed before its end, so that its connection stays usable; a larger one closes it.
  static constexpr std::size_t kDrainLimit = 64 * 1024;
  // libcurl's receive buffer; it also bounds what a read keeps beyond the caller's buffer.
  static constexpr long kBufferSize = 256 * 1024;

  Request(std::shared_ptr<Connection> connection, std::string verb, std::string path,
          bool http10, std::vector<std::string> fixed_headers, DWORD flags);
  ~Request() override;

  SettingsHolder& settings() { return settings_; }

  // Sends the request (again) and returns once the final response's headers are in.
  // Returns ERROR_SUCCESS or a WinINet error code.
  DWORD Send(std::vector<std::string> header_lines, std::string body);
  // Reads body bytes; blocks until at least one byte, the end (0 bytes) or an error.
  DWORD Read(void* buffer, DWORD size, DWORD* bytes_read);
  DWORD Query(DWORD level, void* buffer, DWORD* buffer_length, DWORD* index);

 protected:
  void OnClose() override;

 private:
  enum class Goal { kHeaders, kData, kDrain };
  using Clock = std::chrono::steady_clock;

  static size_t HeaderCallback(char* data, size_t size, size_t count, void* self);
  static size_t WriteCallback(char* data, size_t size, size_t count, void* self);
  static int PrereqCallback(void* self, char*, char*, int, int);

  size_t OnHeader(const char* data, size_t size);
  size_t OnBody(const char* data, size_t size);

  Settings Effective() const;
  DWORD AcquireSlot(const Settings& settings);
  void ReleaseSlot();
  DWORD Configure(const std::string& url, const std::string& method, bool send_credentials,
                  const Settings& settings);
  DWORD Drive(Goal goal);
  void CollectDone();
  DWORD TransferError() const;
  void ResetResponse();
  // Ends the current transfer: drains a small rest of the body so the connection can be reused
  // (waiting at most `wait`), else drops the connection.
  void FinishTransfer(std::chrono::milliseconds wait);
  // Decides whether the response redirects; updates url/method. Returns an error, or
  // ERROR_SUCCESS with *follow telling whether to go on.
  DWORD NextHop(int hop, std::string* url, std::string* method, bool* same_origin, bool* follow);

  const std::shared_ptr<Connection> connection_;
  const std::string verb_;
  const std::string path_;
  const bool http10_;
  const std::vector<std::string> fixed_headers_;  // Accept, Referer
  const DWORD flags_;
  SettingsHolder settings_;

  std::atomic<bool> cancelled_{false};
  std::mutex live_mutex_;  // guards live_multi_, used by other threads to wake a transfer
  CURLM* live_multi_ = nullptr;

  std::mutex op_mutex_;  // one call at a time on the request; guards everything below
  std::unique_ptr<TransferSlot> slot_;
  std::vector<std::string> header_lines_;
  std::string body_;
  curl_slist* curl_headers_ = nullptr;
  HeaderBlock request_block_;  // built from the three below when queried
  std::string sent_url_;
  std::string sent_agent_;
  std::vector<std::string> sent_lines_;
  std::string current_method_;

  bool sent_ = false;
  HeaderBlock pending_;   // the block being received
  HeaderBlock response_;  // the last complete block
  bool block_open_ = false;
  bool tentative_ = false;       // a 401/407 that libcurl may answer itself
  bool headers_final_ = false;
  bool credentials_in_use_ = false;
  bool proxy_credentials_in_use_ = false;
  DWORD header_error_ = 0;
  bool done_ = false;
  CURLcode result_ = CURLE_OK;
  DWORD error_ = 0;  // sticky error of a failed body
  bool paused_ = false;

  char* target_ = nullptr;
  std::size_t target_len_ = 0;
  std::size_t target_filled_ = 0;
  std::string spill_;
  std::size_t spill_pos_ = 0;
  bool discard_ = false;
  std::size_t discarded_ = 0;
  bool discard_full_ = false;

  bool connected_ = false;
  Clock::time_point phase_start_;
  Clock::time_point last_progress_;
  Clock::time_point request_sent_;  // the header block's deadline counts from here
  Clock::time_point drain_deadline_;
  std::chrono::milliseconds connect_limit_{0};
  // The receive time-out: the header block's deadline, then the body's idle limit. 0: none.
  std::chrono::milliseconds idle_limit_{0};
};

}  // namespace tqplatform
