// A scripted IHttpApi for tests: it answers from a script of responses, records every call with
// its arguments, and can tell whether the script was consumed and every handle closed. Header
// queries honour the index as WinINet does (the n-th occurrence; on success the index moves on).
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <cwctype>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/http/http_api.h"
#include "net/http/send_watch.h"
#include "tqutil/decimal.h"

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
  // Asked for every call but CloseHandle, with its record (as CountCalls sees it), under the lock:
  // true makes the call fail as a transport reports failure (a null handle, status 0, no
  // header, a failed read).
  std::function<bool(const std::string& call)> fail_call;

  std::vector<SentRequest> Sent() const { return Locked([&] { return m_sent; }); }
  // Calls are recorded as "OpenInternet", "Connect host:port", "Send GET url", "Status",
  // "Header", "Numeric", "Date", "Read", "Close"; this counts those starting with `prefix`.
  int CountCalls(const std::string& prefix) const {
    const auto starts = [&](const std::string& call) { return call.starts_with(prefix); };
    return Locked([&] { return int(std::ranges::count_if(m_calls, starts)); });
  }
  bool ScriptConsumed() const { return Locked([&] { return m_queue.empty(); }); }
  std::size_t OpenHandles() const { return Locked([&] { return m_handles.size(); }); }
  int CloseCount() const { return CountCalls("Close"); }

  void* OpenInternet(const wchar_t* /*user_agent*/) override {
    std::lock_guard lock(m_mutex);
    return Fails("OpenInternet") ? nullptr : NewHandle(Kind::Internet);
  }
  void* Connect(void* internet, const TqUURL& url) override {
    std::lock_guard lock(m_mutex);
    const std::string host = qv::WideToUtf8(url.GetHostName());
    if (Fails("Connect " + host + ":" + std::to_string(url.GetPort()))) return nullptr;
    if (Find(internet, Kind::Internet) == nullptr) {
      ADD_FAILURE() << "Connect on a handle that is not an open internet handle";
      return nullptr;
    }
    return m_fail_connects > 0 && m_fail_connects-- ? nullptr : NewHandle(Kind::Connection);
  }
  void* SendRequest(void* connection, const qv::net::HttpRequest& request,
                    const wchar_t** /*accept_types*/, bool& sent) override {
    sent = false;
    const SentRequest record{request.GetMethodStr(), request.GetRawUrl(),
                             request.GetUrl().GetResource(), request.FormatHeaders()};
    const std::string call =
        "Send " + qv::WideToUtf8(record.method) + " " + qv::WideToUtf8(record.url);
    std::unique_lock lock(m_mutex);
    if (Fails(call)) return nullptr;
    m_sent.push_back(record);
    if (Find(connection, Kind::Connection) == nullptr) {
      ADD_FAILURE() << "SendRequest on a handle that is not an open connection";
      return nullptr;
    }
    FakeResponse response;
    if (!m_queue.empty()) {
      response = std::move(m_queue.front());
      m_queue.pop_front();
    } else if (m_responder) {
      response = m_responder(record);
    } else {
      ADD_FAILURE() << "Unscripted request: " << call;
      return nullptr;
    }
    const auto on_send = m_on_send;
    lock.unlock();
    if (on_send) on_send(record);

    lock.lock();
    const bool block = response.block_until_closed;
    sent = !block;
    void* const handle = NewHandle(Kind::Request, std::move(response));
    const auto on_blocked = m_on_blocked;
    lock.unlock();
    if (!block) return handle;
    // As the WinINet backend does: on a stop the watcher of the send closes the handle.
    qv::net::detail::SendWatch watch(handle, [this](void* h) { CloseHandle(h); });
    if (on_blocked) on_blocked();
    lock.lock();
    const bool closed =
        m_closed.wait_for(lock, kMaxBlock, [&] { return !Find(handle, Kind::Request); });
    lock.unlock();
    if (watch.Cancelled()) return nullptr;
    // Closed by someone else, or never: the send fails (and the caller closes the handle).
    ADD_FAILURE() << (closed ? "a blocked send's handle was closed by someone else"
                             : "a blocked send was not cancelled");
    return closed ? nullptr : handle;
  }
  std::uint32_t QueryStatusCode(void* request) override {
    std::lock_guard lock(m_mutex);
    const Handle* handle = Request("Status", request);
    return handle != nullptr ? handle->response.status : 0;
  }
  using Selector = qv::net::HttpHeaderSelector;
  std::optional<std::wstring> QueryHeader(void* request, const Selector& header,
                                          std::uint32_t* index) override {
    std::lock_guard lock(m_mutex);
    auto text = HeaderText("Header", request, header, index);
    if (text && index != nullptr) ++*index;
    return text;
  }
  std::optional<std::uint32_t> QueryHeaderNumeric(void* request, const Selector& header,
                                                  std::uint32_t* index) override {
    std::lock_guard lock(m_mutex);
    const auto text = HeaderText("Numeric", request, header, index);
    const auto value =
        text ? qv::ParseDecimal(std::wstring_view(*text), 0xFFFFFFFFu) : std::nullopt;
    if (value && index != nullptr) ++*index;
    return value ? std::optional<std::uint32_t>(static_cast<std::uint32_t>(*value)) : std::nullopt;
  }
  std::optional<std::int64_t> QueryHeaderDateTime(void* request, const Selector& header,
                                                  std::uint32_t* /*index*/) override {
    std::lock_guard lock(m_mutex);
    const Handle* handle = Request("Date", request);
    if (handle == nullptr) return std::nullopt;
    for (const auto& [n, v] : handle->response.dates) {
      if (EqualNoCase(n, HeaderName(header))) return v;
    }
    return std::nullopt;
  }
  bool Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) override {
    if (on_read) on_read();
    std::lock_guard lock(m_mutex);
    bytes_read = 0;
    Handle* handle = Request("Read", request);
    if (handle == nullptr) return false;
    const FakeResponse& response = handle->response;
    if (response.read_fails_after && handle->chunk >= *response.read_fails_after) return false;
    if (handle->chunk >= response.body_chunks.size()) return true;
    const std::string& chunk = response.body_chunks[handle->chunk];
    const std::size_t n = std::min<std::size_t>(size, chunk.size() - handle->offset);
    std::memcpy(buffer, chunk.data() + handle->offset, n);
    handle->offset += n;
    if (handle->offset == chunk.size()) ++handle->chunk, handle->offset = 0;
    bytes_read = static_cast<std::uint32_t>(n);
    return true;
  }
  bool CloseHandle(void* handle) override {
    std::lock_guard lock(m_mutex);
    m_calls.push_back("Close");
    const bool closed = m_handles.erase(reinterpret_cast<std::uintptr_t>(handle)) == 1;
    m_closed.notify_all();
    return closed;
  }

 private:
  enum class Kind { Internet, Connection, Request };
  static bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
    return std::ranges::equal(a, b, [](wchar_t x, wchar_t y) {
      return std::towlower(static_cast<wint_t>(x)) == std::towlower(static_cast<wint_t>(y));
    });
  }
  static std::wstring HeaderName(const Selector& header) {
    if (const auto* name = std::get_if<std::wstring>(&header)) return *name;
    switch (std::get<qv::net::HttpHeader>(header)) {
      case qv::net::HttpHeader::ContentLength: return L"Content-Length";
      case qv::net::HttpHeader::ETag: return L"ETag";
      case qv::net::HttpHeader::RetryAfter: return L"Retry-After";
      case qv::net::HttpHeader::RawHeaders: return L"";
    }
    return L"MIME-Version";
  }
  struct Handle {
    Kind kind;
    FakeResponse response;
    std::size_t chunk = 0;   // next chunk to hand out
    std::size_t offset = 0;  // bytes of that chunk handed out already
  };

  // The caller holds m_mutex for these.
  bool Fails(std::string call) {
    m_calls.push_back(std::move(call));
    return fail_call && fail_call(m_calls.back());
  }
  void* NewHandle(Kind kind, FakeResponse response = {}) {
    const std::uintptr_t id = m_next_handle++;
    m_handles.emplace(id, Handle{kind, std::move(response)});
    return reinterpret_cast<void*>(id);
  }
  Handle* Find(void* handle, Kind kind) {
    auto it = m_handles.find(reinterpret_cast<std::uintptr_t>(handle));
    return it == m_handles.end() || it->second.kind != kind ? nullptr : &it->second;
  }
  // The request handle a query or read named `call` is made on; null when the call fails.
  Handle* Request(const char* call, void* request) {
    return Fails(call) ? nullptr : Find(request, Kind::Request);
  }
  // The value of a header, or at *index its index-th occurrence (WinINet's index).
  std::optional<std::wstring> HeaderText(const char* call, void* request, const Selector& header,
                                         std::uint32_t* index) {
    const Handle* handle = Request(call, request);
    if (handle == nullptr) return std::nullopt;
    const FakeResponse& response = handle->response;
    if (header == Selector(qv::net::HttpHeader::RawHeaders)) {
      std::wstring raw = L"HTTP/1.1 " + std::to_wstring(response.status) + L"\r\n";
      for (const auto& [n, v] : response.headers) raw += n + L": " + v + L"\r\n";
      return raw + L"\r\n";
    }
    std::uint32_t occurrence = index != nullptr ? *index : 0;
    for (const auto& [n, v] : response.headers) {
      if (EqualNoCase(n, HeaderName(header)) && occurrence-- == 0) return v;
    }
    return std::nullopt;
  }

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
