#include "tests/support/fake_http_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwctype>

#include "net/http/send_watch.h"

namespace tq::test {
namespace {

bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](wchar_t x, wchar_t y) {
           return std::towlower(static_cast<wint_t>(x)) == std::towlower(static_cast<wint_t>(y));
         });
}

std::wstring WellKnownName(qv::net::HttpHeader header) {
  switch (header) {
    case qv::net::HttpHeader::ContentLength: return L"Content-Length";
    case qv::net::HttpHeader::ETag: return L"ETag";
    case qv::net::HttpHeader::RetryAfter: return L"Retry-After";
    case qv::net::HttpHeader::RawHeaders: return L"";
  }
  return L"MIME-Version";
}

std::string Narrow(std::wstring_view text) { return qv::WideToUtf8(text); }

}  // namespace

FakeHttpApi::~FakeHttpApi() = default;

void FakeHttpApi::Queue(FakeResponse response) {
  std::lock_guard lock(m_mutex);
  m_queue.push_back(std::move(response));
  ++m_queued_total;
}

void FakeHttpApi::SetResponder(std::function<FakeResponse(const SentRequest&)> responder) {
  std::lock_guard lock(m_mutex);
  m_responder = std::move(responder);
}

std::vector<std::string> FakeHttpApi::Calls() const {
  std::lock_guard lock(m_mutex);
  return m_calls;
}

std::vector<SentRequest> FakeHttpApi::Sent() const {
  std::lock_guard lock(m_mutex);
  return m_sent;
}

int FakeHttpApi::CountCalls(const std::string& prefix) const {
  std::lock_guard lock(m_mutex);
  return static_cast<int>(std::count_if(m_calls.begin(), m_calls.end(), [&](const std::string& c) {
    return c.compare(0, prefix.size(), prefix) == 0;
  }));
}

bool FakeHttpApi::ScriptConsumed() const {
  std::lock_guard lock(m_mutex);
  return m_queue.empty();
}

std::size_t FakeHttpApi::OpenRequestHandles() const {
  std::lock_guard lock(m_mutex);
  return static_cast<std::size_t>(std::count_if(m_handles.begin(), m_handles.end(), [](const auto& h) {
    return h.second.kind == Kind::Request;
  }));
}

std::size_t FakeHttpApi::OpenHandles() const {
  std::lock_guard lock(m_mutex);
  return m_handles.size();
}

int FakeHttpApi::CloseCount() const {
  std::lock_guard lock(m_mutex);
  return m_close_count;
}

void* FakeHttpApi::NewHandle(Kind kind, FakeResponse response) {
  const std::uintptr_t id = m_next_handle++;
  m_handles.emplace(id, Handle{kind, std::move(response)});
  return reinterpret_cast<void*>(id);
}

FakeHttpApi::Handle* FakeHttpApi::Find(void* handle) {
  auto it = m_handles.find(reinterpret_cast<std::uintptr_t>(handle));
  return it == m_handles.end() ? nullptr : &it->second;
}

void* FakeHttpApi::OpenInternet(const wchar_t* /*user_agent*/) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("OpenInternet");
  return NewHandle(Kind::Internet);
}

void* FakeHttpApi::Connect(void* internet, const TqUURL& url) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Connect " + Narrow(url.GetHostName()) + ":" + std::to_string(url.GetPort()));
  Handle* parent = Find(internet);
  if (parent == nullptr || parent->kind != Kind::Internet) {
    ADD_FAILURE() << "Connect on a handle that is not an open internet handle";
    return nullptr;
  }
  if (m_fail_connects > 0) {
    --m_fail_connects;
    return nullptr;
  }
  return NewHandle(Kind::Connection);
}

void* FakeHttpApi::SendRequest(void* connection, const qv::net::HttpRequest& request,
                               const wchar_t** accept_types, bool& sent) {
  sent = false;
  SentRequest record;
  record.connection = connection;
  record.method = request.GetMethodStr();
  record.url = request.GetRawUrl();
  record.resource = request.GetUrl().GetResource();
  record.headers = request.FormatHeaders();
  record.secure = request.IsSecure();
  for (const wchar_t** type = accept_types; type != nullptr && *type != nullptr; ++type) {
    record.accept_types.emplace_back(*type);
  }

  std::function<void(const SentRequest&)> hook;
  FakeResponse response;
  {
    std::lock_guard lock(m_mutex);
    m_calls.push_back("Send " + Narrow(record.method) + " " + Narrow(record.url));
    m_sent.push_back(record);
    hook = m_on_send;
    Handle* parent = Find(connection);
    if (parent == nullptr || parent->kind != Kind::Connection) {
      ADD_FAILURE() << "SendRequest on a handle that is not an open connection";
      return nullptr;
    }
    if (!m_queue.empty()) {
      response = std::move(m_queue.front());
      m_queue.pop_front();
    } else if (m_responder) {
      auto responder = m_responder;
      response = responder(record);
    } else {
      ADD_FAILURE() << "Unscripted request: " << Narrow(record.method) << " " << Narrow(record.url);
      return nullptr;
    }
  }
  if (hook) hook(record);

  void* handle = nullptr;
  std::function<void()> on_blocked;
  {
    std::lock_guard lock(m_mutex);
    const bool block = response.block_until_closed;
    sent = !block;
    handle = NewHandle(Kind::Request, std::move(response));
    if (!block) return handle;
    on_blocked = m_on_blocked;
  }
  return BlockUntilClosed(handle, on_blocked);
}

void* FakeHttpApi::BlockUntilClosed(void* handle, const std::function<void()>& on_blocked) {
  // As the WinINet backend does: on a stop the watcher of the send closes the handle.
  qv::net::detail::SendWatch watch(handle, [this](void* request) { CloseHandle(request); });
  if (on_blocked) on_blocked();
  bool closed = false;
  {
    std::unique_lock lock(m_mutex);
    closed = m_closed.wait_for(lock, kMaxBlock, [&] { return Find(handle) == nullptr; });
  }
  const bool cancelled = watch.Cancelled();
  if (!closed && !cancelled) {
    // Never cancelled: the send fails instead, and the caller closes the handle as usual.
    ADD_FAILURE() << "a blocked send was not cancelled";
    return handle;
  }
  if (!cancelled) ADD_FAILURE() << "a blocked send's handle was closed by someone else";
  return nullptr;
}

std::uint32_t FakeHttpApi::QueryStatusCode(void* request) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Status");
  Handle* handle = Find(request);
  if (handle == nullptr || handle->kind != Kind::Request) return 0;
  return handle->response.status;
}

std::optional<std::wstring> FakeHttpApi::HeaderText(const Handle& handle,
                                                    const qv::net::HttpHeaderSelector& header,
                                                    std::uint32_t occurrence) const {
  std::wstring name;
  if (header.index() == 0) {
    const auto which = std::get<0>(header);
    if (which == qv::net::HttpHeader::RawHeaders) {
      std::wstring raw = L"HTTP/1.1 " + std::to_wstring(handle.response.status) + L"\r\n";
      for (const auto& [n, v] : handle.response.headers) raw += n + L": " + v + L"\r\n";
      return raw + L"\r\n";
    }
    name = WellKnownName(which);
  } else {
    name = std::get<1>(header);
  }
  for (const auto& [n, v] : handle.response.headers) {
    if (EqualNoCase(n, name) && occurrence-- == 0) return v;
  }
  return std::nullopt;
}

std::optional<std::wstring> FakeHttpApi::QueryHeader(void* request,
                                                     const qv::net::HttpHeaderSelector& header,
                                                     std::uint32_t* index) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Header");
  Handle* handle = Find(request);
  if (handle == nullptr || handle->kind != Kind::Request) return std::nullopt;
  auto text = HeaderText(*handle, header, index != nullptr ? *index : 0);
  if (text && index != nullptr) ++*index;
  return text;
}

std::optional<std::uint32_t> FakeHttpApi::QueryHeaderNumeric(
    void* request, const qv::net::HttpHeaderSelector& header, std::uint32_t* index) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Numeric");
  Handle* handle = Find(request);
  if (handle == nullptr || handle->kind != Kind::Request) return std::nullopt;
  auto text = HeaderText(*handle, header, index != nullptr ? *index : 0);
  if (!text || text->empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (wchar_t c : *text) {
    if (c < L'0' || c > L'9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - L'0');
    if (value > 0xFFFFFFFFu) return std::nullopt;
  }
  if (index != nullptr) ++*index;
  return static_cast<std::uint32_t>(value);
}

std::optional<std::int64_t> FakeHttpApi::QueryHeaderDateTime(
    void* request, const qv::net::HttpHeaderSelector& header, std::uint32_t* /*index*/) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Date");
  Handle* handle = Find(request);
  if (handle == nullptr || handle->kind != Kind::Request) return std::nullopt;
  const std::wstring name =
      header.index() == 0 ? WellKnownName(std::get<0>(header)) : std::get<1>(header);
  for (const auto& [n, v] : handle->response.dates) {
    if (EqualNoCase(n, name)) return v;
  }
  return std::nullopt;
}

bool FakeHttpApi::Read(void* request, void* buffer, std::uint32_t size,
                       std::uint32_t& bytes_read) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Read");
  bytes_read = 0;
  Handle* handle = Find(request);
  if (handle == nullptr || handle->kind != Kind::Request) return false;
  FakeResponse& response = handle->response;
  if (response.read_fails_after && handle->chunks_read >= *response.read_fails_after) return false;
  if (handle->chunk >= response.body_chunks.size()) return true;
  const std::string& chunk = response.body_chunks[handle->chunk];
  const std::size_t n = std::min<std::size_t>(size, chunk.size() - handle->offset);
  std::memcpy(buffer, chunk.data() + handle->offset, n);
  handle->offset += n;
  if (handle->offset == chunk.size()) {
    ++handle->chunk;
    handle->offset = 0;
    ++handle->chunks_read;
  }
  bytes_read = static_cast<std::uint32_t>(n);
  return true;
}

bool FakeHttpApi::CloseHandle(void* handle) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Close");
  ++m_close_count;
  const bool closed = m_handles.erase(reinterpret_cast<std::uintptr_t>(handle)) == 1;
  m_closed.notify_all();
  return closed;
}

}  // namespace tq::test
