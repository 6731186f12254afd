// A scripted IHttpApi for tests: it answers from a script of responses, records every call with
// its arguments, and can tell whether the script was consumed and every handle closed. Header
// queries honour the index as WinINet does (the n-th occurrence; on success the index moves on).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "net/http/http_api.h"

namespace tq::test {

// One scripted answer to SendRequest.
struct FakeResponse {
  std::uint32_t status = 200;
  std::vector<std::pair<std::wstring, std::wstring>> headers;  // name, value (text)
  std::map<std::wstring, std::int64_t> dates;  // header name (any case) -> TqUSysTime seconds
  std::vector<std::string> body_chunks;        // each Read hands out at most one chunk
  std::optional<std::size_t> read_fails_after;  // Read fails once this many chunks were read
  // SendRequest hands the new request handle to the stop watcher of the send, as the WinINet
  // backend does, and blocks until that handle is closed from another thread; the send then
  // counts as cancelled (null, sent false). Only for sends made with a stop token; a send not
  // cancelled within FakeHttpApi::kMaxBlock fails the test and returns its handle, not sent.
  bool block_until_closed = false;

  FakeResponse& Header(std::wstring name, std::wstring value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
  FakeResponse& Body(std::string chunk) {
    body_chunks.push_back(std::move(chunk));
    return *this;
  }
};

// What a SendRequest call was given.
struct SentRequest {
  void* connection = nullptr;
  std::wstring method;
  std::wstring url;
  std::wstring resource;
  std::wstring headers;  // FormatHeaders()
  std::vector<std::wstring> accept_types;
  bool secure = false;
};

class FakeHttpApi : public qv::net::IHttpApi {
 public:
  // A blocked send waits at most this long, so that a failing test cannot hang.
  static constexpr std::chrono::seconds kMaxBlock{10};

  FakeHttpApi() = default;
  ~FakeHttpApi() override;

  // --- script ---
  void Queue(FakeResponse response);  // answered to the next SendRequest, in order
  // Answers SendRequest when the queue is empty; without one an unscripted send fails the test.
  void SetResponder(std::function<FakeResponse(const SentRequest&)> responder);
  void FailNextConnects(int count) { m_fail_connects = count; }
  // Runs inside SendRequest (outside the fake's lock), e.g. to request a stop mid-exchange.
  void OnSend(std::function<void(const SentRequest&)> hook) { m_on_send = std::move(hook); }
  // Runs when a send scripted with block_until_closed is about to block (outside the lock).
  void OnBlocked(std::function<void()> hook) { m_on_blocked = std::move(hook); }

  // --- records ---
  std::vector<std::string> Calls() const;  // "OpenInternet", "Connect host:port", "Send GET url",
                                           // "Status", "Header", "Numeric", "Date", "Read",
                                           // "Close" — one entry per call, in order
  std::vector<SentRequest> Sent() const;
  int CountCalls(const std::string& prefix) const;
  bool ScriptConsumed() const;      // every queued response was used
  std::size_t OpenRequestHandles() const;  // request handles not closed yet
  std::size_t OpenHandles() const;         // handles of every kind not closed yet
  int CloseCount() const;

  // --- IHttpApi ---
  void* OpenInternet(const wchar_t* user_agent) override;
  void* Connect(void* internet, const TqUURL& url) override;
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** accept_types, bool& sent) override;
  std::uint32_t QueryStatusCode(void* request) override;
  std::optional<std::wstring> QueryHeader(void* request,
                                          const qv::net::HttpHeaderSelector& header,
                                          std::uint32_t* index) override;
  std::optional<std::uint32_t> QueryHeaderNumeric(void* request,
                                                  const qv::net::HttpHeaderSelector& header,
                                                  std::uint32_t* index) override;
  std::optional<std::int64_t> QueryHeaderDateTime(void* request,
                                                  const qv::net::HttpHeaderSelector& header,
                                                  std::uint32_t* index) override;
  bool Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) override;
  bool CloseHandle(void* handle) override;

 private:
  enum class Kind { Internet, Connection, Request };
  struct Handle {
    Kind kind;
    FakeResponse response;
    std::size_t chunk = 0;   // next chunk to hand out
    std::size_t offset = 0;  // bytes of that chunk handed out already
    std::size_t chunks_read = 0;
  };

  void* NewHandle(Kind kind, FakeResponse response = {});
  Handle* Find(void* handle);  // caller holds m_mutex
  // The `occurrence`-th value of a header (0: the first), as WinINet's index selects it.
  std::optional<std::wstring> HeaderText(const Handle& handle,
                                         const qv::net::HttpHeaderSelector& header,
                                         std::uint32_t occurrence = 0) const;
  void* BlockUntilClosed(void* handle, const std::function<void()>& on_blocked);

  mutable std::mutex m_mutex;
  std::deque<FakeResponse> m_queue;
  std::size_t m_queued_total = 0;
  std::function<FakeResponse(const SentRequest&)> m_responder;
  std::function<void(const SentRequest&)> m_on_send;
  std::function<void()> m_on_blocked;
  std::condition_variable m_closed;  // a handle was closed
  int m_fail_connects = 0;
  std::map<std::uintptr_t, Handle> m_handles;
  std::uintptr_t m_next_handle = 0x1000;
  std::vector<std::string> m_calls;
  std::vector<SentRequest> m_sent;
  int m_close_count = 0;
};

}  // namespace tq::test
