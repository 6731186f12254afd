// A scripted IHttpApi for tests: it answers from a script of responses, records every call with
// its arguments, and can tell whether the script was consumed and every handle closed. Header
// queries honour the index as WinINet does (the n-th occurrence; on success the index moves on).
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
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
  // The send hands its handle to the send's stop watcher, as the WinINet backend does, and
  // blocks until that handle is closed from another thread: cancelled (null, not sent). Only for
  // sends made with a stop token; one not cancelled within kMaxBlock fails the test.
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
  std::wstring method, url, resource;
  std::wstring headers;  // FormatHeaders()
};

class FakeHttpApi : public qv::net::IHttpApi {
  template <class F>
  auto Locked(F&& f) const {
    std::lock_guard lock(m_mutex);
    return f();
  }

 public:
  static constexpr std::chrono::seconds kMaxBlock{10};  // a failing test cannot hang

  // Answered to the next SendRequest, in order.
  void Queue(FakeResponse r) { Locked([&] { m_queue.push_back(std::move(r)); }); }
  // Answers SendRequest when the queue is empty; without one an unscripted send fails the test.
  void SetResponder(std::function<FakeResponse(const SentRequest&)> responder) {
    Locked([&] { m_responder = std::move(responder); });
  }
  void FailNextConnects(int count) { m_fail_connects = count; }
  // Runs inside SendRequest (outside the fake's lock), e.g. to request a stop mid-exchange.
  void OnSend(std::function<void(const SentRequest&)> hook) { m_on_send = std::move(hook); }
  // Runs when a send scripted with block_until_closed is about to block (outside the lock).
  void OnBlocked(std::function<void()> hook) { m_on_blocked = std::move(hook); }
  // Runs before each Read (outside the lock), e.g. to request a stop in mid-copy.
  std::function<void()> on_read;
  // Asked for every call but CloseHandle, with its record (as Calls() lists it), under the lock:
  // true makes the call fail as a transport reports failure (a null handle, status 0, no
  // header, a failed read).
  std::function<bool(const std::string& call)> fail_call;

  // "OpenInternet", "Connect host:port", "Send GET url", "Status", "Header", "Numeric", "Date",
  // "Read", "Close": one entry per call, in order.
  std::vector<std::string> Calls() const { return Locked([&] { return m_calls; }); }
  std::vector<SentRequest> Sent() const { return Locked([&] { return m_sent; }); }
  int CountCalls(const std::string& prefix) const {
    const auto starts = [&](const std::string& call) { return call.starts_with(prefix); };
    return Locked([&] { return int(std::ranges::count_if(m_calls, starts)); });
  }
  bool ScriptConsumed() const { return Locked([&] { return m_queue.empty(); }); }
  std::size_t OpenRequestHandles() const {  // request handles not closed yet
    const auto requests = [](const auto& h) { return h.second.kind == Kind::Request; };
    return Locked([&] { return std::size_t(std::ranges::count_if(m_handles, requests)); });
  }
  std::size_t OpenHandles() const { return Locked([&] { return m_handles.size(); }); }
  int CloseCount() const { return CountCalls("Close"); }

  void* OpenInternet(const wchar_t* user_agent) override;
  void* Connect(void* internet, const TqUURL& url) override;
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** accept_types, bool& sent) override;
  std::uint32_t QueryStatusCode(void* request) override;
  using Selector = qv::net::HttpHeaderSelector;
  std::optional<std::wstring> QueryHeader(void* request, const Selector& header,
                                          std::uint32_t* index) override;
  std::optional<std::uint32_t> QueryHeaderNumeric(void* request, const Selector& header,
                                                  std::uint32_t* index) override;
  std::optional<std::int64_t> QueryHeaderDateTime(void* request, const Selector& header,
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
  };

  // The caller holds m_mutex for these.
  bool Fails(std::string call);  // records the call; true when fail_call fails it
  void* NewHandle(Kind kind, FakeResponse response = {});
  Handle* Find(void* handle, Kind kind);  // null unless an open handle of that kind
  // The request handle a query or read named `call` is made on; null when the call fails.
  Handle* Request(const char* call, void* request) {
    return Fails(call) ? nullptr : Find(request, Kind::Request);
  }
  // The value of a header, or at *index its index-th occurrence (WinINet's index).
  std::optional<std::wstring> HeaderText(const char* call, void* request, const Selector& header,
                                         std::uint32_t* index);

  mutable std::mutex m_mutex;
  std::deque<FakeResponse> m_queue;
  std::function<FakeResponse(const SentRequest&)> m_responder;
  std::function<void(const SentRequest&)> m_on_send;
  std::function<void()> m_on_blocked;
  std::condition_variable m_closed;  // a handle was closed
  int m_fail_connects = 0;
  std::map<std::uintptr_t, Handle> m_handles;
  std::uintptr_t m_next_handle = 0x1000;
  std::vector<std::string> m_calls;
  std::vector<SentRequest> m_sent;
};

}  // namespace tq::test
