#include "net/fileprotocol/file_handles.h"

#include <memory>
#include <utility>

#include "net/host/tqutil.h"

namespace qv::net {
namespace {

// The live records of one kind, keyed by the handle value the file layer holds. Records are
// destroyed after the table's lock is let go (a thread handle's destructor closes its
// connection), and reading threads, each with its own thread and request handles, do not take
// turns at one lock for every read.
template <typename Record, typename Handle>
class LiveRecords {
 public:
  Handle* Adopt(std::unique_ptr<Record> record) {
    std::shared_ptr<Record> shared(std::move(record));
    Handle* handle = shared.get();
    m_live.Insert(handle, std::move(shared));
    return handle;
  }

  std::shared_ptr<Record> Find(Handle* handle) {
    return handle == nullptr ? nullptr : m_live.Find(handle);
  }

  // Takes the record out of the table and hands it back, so that it dies (unless a call still
  // holds it) after the lock is let go.
  std::shared_ptr<Record> Remove(Handle* handle) {
    return handle == nullptr ? nullptr : m_live.Take(handle);
  }

  // Never destroyed: a host may release handles from its own static destructors.
  static LiveRecords& Instance() {
    static auto* records = new LiveRecords;
    return *records;
  }

 private:
  qv::ShardedMap<const Handle*, std::shared_ptr<Record>> m_live;
};

using LiveFiles = LiveRecords<HttpFileHandle, TqUFileHandle>;
using LiveThreads = LiveRecords<HttpFileThreadHandle, TqUThreadHandle>;
using LiveRequests = LiveRecords<HttpFileRequestHandle, TqUFileRequestHandle>;

// Whether two pointers share one owner: compared by owner, a record freed and another made at
// its address are still two files.
template <class A, class B>
bool SameOwner(const A& a, const B& b) {
  return !a.owner_before(b) && !b.owner_before(a);
}

// True when `tied` was never tied to a file, or is tied to `file` itself.
bool ServesFile(const std::weak_ptr<HttpFileHandle>& tied,
                const std::shared_ptr<HttpFileHandle>& file) {
  return SameOwner(tied, std::weak_ptr<HttpFileHandle>{}) || SameOwner(tied, file);
}

}  // namespace

HttpFileHandle::HttpFileHandle(const wchar_t* url_text, const TqUURL& parsed_url)
    : m_url_text(url_text), m_parsed_url(parsed_url) {}

HttpFileHandle::HttpFileHandle(const HttpFileHandle& other)
    : TqUFileHandle(), m_url_text(other.m_url_text), m_parsed_url(other.m_parsed_url) {}

HttpFileHandle::HttpFileHandle(HttpFileHandle&& other)
    : TqUFileHandle(), m_parsed_url(other.m_parsed_url) {
  // The URL first: if its copy throws, the source still has its text.
  m_url_text = std::move(other.m_url_text);
  other.m_url_text.SetString(nullptr);
}

HttpFileHandle& HttpFileHandle::operator=(const HttpFileHandle& other) {
  m_url_text = other.m_url_text;
  m_parsed_url = other.m_parsed_url;
  return *this;
}

HttpFileHandle& HttpFileHandle::operator=(HttpFileHandle&& other) {
  if (this != &other) {
    m_parsed_url = other.m_parsed_url;  // first, as in the constructor
    m_url_text = std::move(other.m_url_text);
    other.m_url_text.SetString(nullptr);
  }
  return *this;
}

HttpFileHandle::~HttpFileHandle() = default;

TqUFileHandle* HttpFileHandle::Adopt(std::unique_ptr<HttpFileHandle> record) {
  return LiveFiles::Instance().Adopt(std::move(record));
}

std::shared_ptr<HttpFileHandle> HttpFileHandle::From(TqUFileHandle* handle) {
  return LiveFiles::Instance().Find(handle);
}

bool HttpFileHandle::Release(TqUFileHandle* handle) {
  return LiveFiles::Instance().Remove(handle) != nullptr;
}

HttpFileThreadHandle::HttpFileThreadHandle(bool secure, HINTERNET connection)
    : m_secure(secure), m_connection(connection) {}

HttpFileThreadHandle::~HttpFileThreadHandle() {
  if (m_connection != nullptr) InternetCloseHandle(m_connection);
}

bool HttpFileThreadHandle::Serves(const std::shared_ptr<HttpFileHandle>& file) const {
  return ServesFile(m_file, file);
}

TqUThreadHandle* HttpFileThreadHandle::Adopt(std::unique_ptr<HttpFileThreadHandle> record) {
  return LiveThreads::Instance().Adopt(std::move(record));
}

std::shared_ptr<HttpFileThreadHandle> HttpFileThreadHandle::From(TqUThreadHandle* handle) {
  return LiveThreads::Instance().Find(handle);
}

bool HttpFileThreadHandle::Release(TqUThreadHandle* handle) {
  return LiveThreads::Instance().Remove(handle) != nullptr;
}

HttpFileRequestHandle::HttpFileRequestHandle(const wchar_t* resource) : m_resource(resource) {}

HttpFileRequestHandle::HttpFileRequestHandle(const HttpFileRequestHandle& other)
    : TqUFileRequestHandle(), m_resource(other.m_resource), m_file(other.m_file) {}

HttpFileRequestHandle::HttpFileRequestHandle(HttpFileRequestHandle&& other) noexcept
    : TqUFileRequestHandle(), m_resource(std::move(other.m_resource)),
      m_file(std::move(other.m_file)) {
  other.m_resource.SetString(nullptr);
}

HttpFileRequestHandle& HttpFileRequestHandle::operator=(const HttpFileRequestHandle& other) {
  m_resource = other.m_resource;
  m_file = other.m_file;
  return *this;
}

HttpFileRequestHandle& HttpFileRequestHandle::operator=(HttpFileRequestHandle&& other) noexcept {
  if (this != &other) {
    m_resource = std::move(other.m_resource);
    m_file = std::move(other.m_file);
    other.m_resource.SetString(nullptr);
  }
  return *this;
}

bool HttpFileRequestHandle::Serves(const std::shared_ptr<HttpFileHandle>& file) const {
  return ServesFile(m_file, file);
}

HttpFileRequestHandle::~HttpFileRequestHandle() = default;

TqUFileRequestHandle* HttpFileRequestHandle::Adopt(std::unique_ptr<HttpFileRequestHandle> record) {
  return LiveRequests::Instance().Adopt(std::move(record));
}

std::shared_ptr<HttpFileRequestHandle> HttpFileRequestHandle::From(TqUFileRequestHandle* handle) {
  return LiveRequests::Instance().Find(handle);
}

bool HttpFileRequestHandle::Release(TqUFileRequestHandle* handle) {
  return LiveRequests::Instance().Remove(handle) != nullptr;
}

}  // namespace qv::net
