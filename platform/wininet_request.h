// Requests (HttpOpenRequestW): WinINet's rules on top of the transfer engine (transfer.h): the
// handle's options and flags, the headers a caller may give, resends, and header queries.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/http_headers.h"
#include "platform/transfer.h"
#include "platform/wininet_session.h"

namespace tqplatform {

class Request : public InternetObject {
 public:
  static constexpr HandleKind kKind = HandleKind::kRequest;

  // `accept` and `referer` are whole header lines, or empty for none.
  Request(std::shared_ptr<Connection> connection, std::string verb, std::string path,
          bool http10, std::string accept, std::string referer, DWORD flags);
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
  // The lock of one call at a time on the request.
  std::unique_lock<std::mutex> LockCall();
  // The settings a send uses: the request's own, the unset ones filled from its connection's.
  std::shared_ptr<const Settings> Effective() const;
  // Fills the transfer's next request, every field of it, with what Send sends.
  void Describe(const Settings& settings, std::vector<std::string> header_lines, std::string body,
                TransferRequest* out);
  // Fills `lines` (reusing the room of those there) and records how many of them were given
  // (all but the empty Accept line).
  void DescribeHeaderLines(std::vector<std::string> header_lines, std::vector<std::string>* lines);
  DWORD QueryRequestHeaders(DWORD level, void* buffer, DWORD* buffer_length, DWORD* index);

  const std::shared_ptr<Connection> connection_;  // lends the slots; outlives transfer_
  const std::string verb_;
  const bool asterisk_;  // the first hop's request line names "*" instead of the path
  // The path of the URL the first hop asks for (after the connection's origin): short ones
  // need no room of their own, and the URL is put together in the room of the last one sent.
  const std::string path_;
  const bool http10_;
  const std::string accept_;   // the Accept line, or empty
  const std::string referer_;  // the Referer line, or empty
  const DWORD flags_;
  SettingsHolder settings_;
  StopSignal stop_;  // the handle's close ends a call in progress

  std::mutex op_mutex_;  // one call at a time on the request; guards everything below
  std::string sent_agent_;
  // The header lines of the last send, as given, are the first of the transfer's request.
  std::size_t sent_lines_ = 0;
  // Lent by the connection for the request's life (see Connection::TakeTransfer).
  std::unique_ptr<Transfer> transfer_;
};

}  // namespace tqplatform
