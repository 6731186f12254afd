#include "net/fileprotocol/file_handles.h"

#include <cstring>
#include <utility>

namespace qv::net {
namespace {

// A store the compiler may not drop as dead although the record dies right after it.
void ClearTag(std::uint32_t* tag) { *static_cast<volatile std::uint32_t*>(tag) = 0; }

// Reads the tag at the start of a record without assuming the record's type.
template <typename Record, typename Base>
Record* Checked(Base* handle, std::uint32_t tag) {
  if (handle == nullptr) return nullptr;
  auto* record = static_cast<Record*>(handle);
  std::uint32_t seen = 0;
  static_assert(sizeof(seen) == sizeof(tag));
  std::memcpy(&seen, static_cast<const void*>(handle), sizeof seen);
  return seen == tag ? record : nullptr;
}

}  // namespace

// The tag must be the first bytes of each record for Checked to find it: the bases are empty.
static_assert(sizeof(TqUFileHandle) == 1 && sizeof(TqUThreadHandle) == 1 &&
              sizeof(TqUFileRequestHandle) == 1);

HttpFileHandle::HttpFileHandle(const wchar_t* url_text, const TqUURL& parsed_url)
    : m_url_text(url_text), m_parsed_url(parsed_url) {}

HttpFileHandle::HttpFileHandle(const HttpFileHandle& other)
    : TqUFileHandle(), m_url_text(other.m_url_text), m_parsed_url(other.m_parsed_url) {}

HttpFileHandle::HttpFileHandle(HttpFileHandle&& other) noexcept
    : TqUFileHandle(), m_url_text(std::move(other.m_url_text)), m_parsed_url(other.m_parsed_url) {
  other.m_url_text.SetString(nullptr);
}

HttpFileHandle& HttpFileHandle::operator=(const HttpFileHandle& other) {
  m_url_text = other.m_url_text;
  m_parsed_url = other.m_parsed_url;
  return *this;
}

HttpFileHandle& HttpFileHandle::operator=(HttpFileHandle&& other) noexcept {
  if (this != &other) {
    m_url_text = std::move(other.m_url_text);
    other.m_url_text.SetString(nullptr);
    m_parsed_url = other.m_parsed_url;
  }
  return *this;
}

HttpFileHandle::~HttpFileHandle() { ClearTag(&m_tag); }

HttpFileHandle* HttpFileHandle::From(TqUFileHandle* handle) {
  return Checked<HttpFileHandle>(handle, detail::kFileHandleTag);
}

HttpFileThreadHandle::HttpFileThreadHandle(bool secure, HINTERNET connection)
    : m_secure(secure), m_connection(connection) {}

HttpFileThreadHandle::~HttpFileThreadHandle() {
  ClearTag(&m_tag);
  if (m_connection != nullptr) InternetCloseHandle(m_connection);
}

HttpFileThreadHandle* HttpFileThreadHandle::From(TqUThreadHandle* handle) {
  return Checked<HttpFileThreadHandle>(handle, detail::kThreadHandleTag);
}

HttpFileRequestHandle::HttpFileRequestHandle(const wchar_t* resource) : m_resource(resource) {}

HttpFileRequestHandle::HttpFileRequestHandle(const HttpFileRequestHandle& other)
    : TqUFileRequestHandle(), m_resource(other.m_resource) {}

HttpFileRequestHandle::HttpFileRequestHandle(HttpFileRequestHandle&& other) noexcept
    : TqUFileRequestHandle(), m_resource(std::move(other.m_resource)) {
  other.m_resource.SetString(nullptr);
}

HttpFileRequestHandle& HttpFileRequestHandle::operator=(const HttpFileRequestHandle& other) {
  m_resource = other.m_resource;
  return *this;
}

HttpFileRequestHandle& HttpFileRequestHandle::operator=(HttpFileRequestHandle&& other) noexcept {
  if (this != &other) {
    m_resource = std::move(other.m_resource);
    other.m_resource.SetString(nullptr);
  }
  return *this;
}

HttpFileRequestHandle::~HttpFileRequestHandle() { ClearTag(&m_tag); }

HttpFileRequestHandle* HttpFileRequestHandle::From(TqUFileRequestHandle* handle) {
  return Checked<HttpFileRequestHandle>(handle, detail::kRequestHandleTag);
}

}  // namespace qv::net
