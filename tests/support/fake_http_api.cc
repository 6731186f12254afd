#include "tests/support/fake_http_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwctype>

#include "net/http/send_watch.h"
#include "tqutil/decimal.h"

namespace tq::test {
namespace {

bool EqualNoCase(std::wstring_view a, std::wstring_view b) {
  return std::ranges::equal(a, b, [](wchar_t x, wchar_t y) {
    return std::towlower(static_cast<wint_t>(x)) == std::towlower(static_cast<wint_t>(y));
  });
}

std::wstring HeaderName(const FakeHttpApi::Selector& header) {
  if (const auto* name = std::get_if<std::wstring>(&header)) return *name;
  switch (std::get<qv::net::HttpHeader>(header)) {
    case qv::net::HttpHeader::ContentLength: return L"Content-Length";
    case qv::net::HttpHeader::ETag: return L"ETag";
    case qv::net::HttpHeader::RetryAfter: return L"Retry-After";
    case qv::net::HttpHeader::RawHeaders: return L"";
  }
  return L"MIME-Version";
}

}  // namespace

bool FakeHttpApi::Fails(std::string call) {
  m_calls.push_back(std::move(call));
  return fail_call && fail_call(m_calls.back());
}

void* FakeHttpApi::NewHandle(Kind kind, FakeResponse response) {
  const std::uintptr_t id = m_next_handle++;
  m_handles.emplace(id, Handle{kind, std::move(response)});
  return reinterpret_cast<void*>(id);
}

FakeHttpApi::Handle* FakeHttpApi::Find(void* handle, Kind kind) {
  auto it = m_handles.find(reinterpret_cast<std::uintptr_t>(handle));
  return it == m_handles.end() || it->second.kind != kind ? nullptr : &it->second;
}

void* FakeHttpApi::OpenInternet(const wchar_t* /*user_agent*/) {
  std::lock_guard lock(m_mutex);
  return Fails("OpenInternet") ? nullptr : NewHandle(Kind::Internet);
}

void* FakeHttpApi::Connect(void* internet, const TqUURL& url) {
  std::lock_guard lock(m_mutex);
  if (Fails("Connect " + qv::WideToUtf8(url.GetHostName()) + ":" + std::to_string(url.GetPort()))) {
    return nullptr;
  }
  if (Find(internet, Kind::Internet) == nullptr) {
    ADD_FAILURE() << "Connect on a handle that is not an open internet handle";
    return nullptr;
  }
  return m_fail_connects > 0 && m_fail_connects-- ? nullptr : NewHandle(Kind::Connection);
}

void* FakeHttpApi::SendRequest(void* connection, const qv::net::HttpRequest& request,
                               const wchar_t** /*accept_types*/, bool& sent) {
  sent = false;
  const SentRequest record{connection, request.GetMethodStr(), request.GetRawUrl(),
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

std::uint32_t FakeHttpApi::QueryStatusCode(void* request) {
  std::lock_guard lock(m_mutex);
  const Handle* handle = Request("Status", request);
  return handle != nullptr ? handle->response.status : 0;
}

std::optional<std::wstring> FakeHttpApi::HeaderText(const char* call, void* request,
                                                    const Selector& header, std::uint32_t* index) {
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

std::optional<std::wstring> FakeHttpApi::QueryHeader(void* request, const Selector& header,
                                                     std::uint32_t* index) {
  std::lock_guard lock(m_mutex);
  auto text = HeaderText("Header", request, header, index);
  if (text && index != nullptr) ++*index;
  return text;
}

std::optional<std::uint32_t> FakeHttpApi::QueryHeaderNumeric(void* request, const Selector& header,
                                                             std::uint32_t* index) {
  std::lock_guard lock(m_mutex);
  const auto text = HeaderText("Numeric", request, header, index);
  const auto value = text ? qv::ParseDecimal(std::wstring_view(*text), 0xFFFFFFFFu) : std::nullopt;
  if (value && index != nullptr) ++*index;
  return value ? std::optional<std::uint32_t>(static_cast<std::uint32_t>(*value)) : std::nullopt;
}

std::optional<std::int64_t> FakeHttpApi::QueryHeaderDateTime(void* request, const Selector& header,
                                                             std::uint32_t* /*index*/) {
  std::lock_guard lock(m_mutex);
  const Handle* handle = Request("Date", request);
  if (handle == nullptr) return std::nullopt;
  for (const auto& [n, v] : handle->response.dates) {
    if (EqualNoCase(n, HeaderName(header))) return v;
  }
  return std::nullopt;
}

bool FakeHttpApi::Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) {
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

bool FakeHttpApi::CloseHandle(void* handle) {
  std::lock_guard lock(m_mutex);
  m_calls.push_back("Close");
  const bool closed = m_handles.erase(reinterpret_cast<std::uintptr_t>(handle)) == 1;
  m_closed.notify_all();
  return closed;
}

}  // namespace tq::test
