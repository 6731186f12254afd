#include "net/http/connection_pool.h"

#include <memory>
#include <mutex>
#include <unordered_map>

#include "net/http/http_api.h"
#include "net/http/quiet_close.h"

namespace qv::net {
namespace detail {
namespace {

constexpr std::uint64_t kFnvOffsetBasis = 0xcbf29ce484222325ull;
constexpr std::uint64_t kFnvPrime = 0x100000001b3ull;

std::uint64_t Fnv1a(std::uint64_t hash, unsigned char byte) {
  return (hash ^ byte) * kFnvPrime;
}

// Hashes the text's UTF-16 code units, each as two little-endian bytes, so that the value does
// not depend on the size of wchar_t.
std::uint64_t HashUtf16(const std::wstring& text) {
  std::uint64_t hash = kFnvOffsetBasis;
  auto add_unit = [&hash](std::uint16_t unit) {
    hash = Fnv1a(hash, static_cast<unsigned char>(unit & 0xFF));
    hash = Fnv1a(hash, static_cast<unsigned char>(unit >> 8));
  };
  for (wchar_t ch : text) {
    const auto cp = static_cast<std::uint32_t>(ch);
    if (cp >= 0x10000 && cp <= 0x10FFFF) {  // only reachable with 32-bit wchar_t
      const std::uint32_t v = cp - 0x10000;
      add_unit(static_cast<std::uint16_t>(0xD800 + (v >> 10)));
      add_unit(static_cast<std::uint16_t>(0xDC00 + (v & 0x3FF)));
    } else {
      add_unit(static_cast<std::uint16_t>(cp));
    }
  }
  return hash;
}

}  // namespace

std::uint64_t ConnectionKeyHash::operator()(const ConnectionKey& key) const noexcept {
  const std::uint64_t host = HashUtf16(key.host);
  std::uint64_t port = kFnvOffsetBasis;
  port = Fnv1a(port, static_cast<unsigned char>(key.port & 0xFF));
  port = Fnv1a(port, static_cast<unsigned char>(key.port >> 8));
  const std::uint64_t user = HashUtf16(key.user);
  const std::uint64_t pass = HashUtf16(key.password);
  return (((((pass << 1) ^ user) << 1) ^ port) << 1) ^ host;
}

}  // namespace detail

// Connections are owned by the map: only Terminate removes them, closing each through the
// installed transport.
struct HttpConnectionPool::Impl {
  void* m_internet = nullptr;
  std::unordered_map<detail::ConnectionKey, void*, detail::ConnectionKeyHash> m_connections;
  std::mutex m_mutex;

  ~Impl() {
    // With the transport gone (a host that released it first) the handles went with it: there
    // is nothing left to close them through.
    IHttpApi* api = HttpApi();
    for (auto& [key, connection] : m_connections) detail::CloseQuietly(api, connection);
    detail::CloseQuietly(api, m_internet);
    m_connections.clear();
  }
};

namespace {

// A plain pointer, never destroyed at unload: its handles belong to a transport that may be gone
// by then. Terminate frees it.
HttpConnectionPool::Impl* g_pool = nullptr;
// Guards only the creation of the record, so that concurrent first calls build one pool; the
// pool's own mutex serialises everything after.
std::mutex g_pool_creation_mutex;

// Null when there is no transport to open the pool through: no record is made then, so that
// the first call after a transport is installed opens one.
HttpConnectionPool::Impl* PoolRecord() {
  std::lock_guard lock(g_pool_creation_mutex);
  if (!g_pool) {
    IHttpApi* api = HttpApi();
    if (api == nullptr) return nullptr;
    auto record = std::make_unique<HttpConnectionPool::Impl>();
    record->m_internet = api->OpenInternet(qv::kUserAgentWide);
    g_pool = record.release();  // published even when opening failed
  }
  return g_pool;
}

}  // namespace

void* HttpConnectionPool::CreateConnection(const TqUURL& url) {
  Impl* pool = PoolRecord();
  if (pool == nullptr) return nullptr;
  IHttpApi* api = HttpApi();
  // Held across Connect: concurrent first requests to a server open exactly one connection.
  std::lock_guard lock(pool->m_mutex);
  if (pool->m_internet == nullptr) return nullptr;

  const wchar_t* user = url.GetUserNameW();
  const wchar_t* password = url.GetPassword();
  detail::ConnectionKey key{url.GetHostName(), url.GetPort(), user ? user : L"",
                            password ? password : L""};
  if (auto it = pool->m_connections.find(key); it != pool->m_connections.end()) return it->second;

  if (api == nullptr) return nullptr;
  void* connection = api->Connect(pool->m_internet, url);
  if (connection == nullptr) return nullptr;  // nothing stored: the next call tries again
  try {
    pool->m_connections.emplace(std::move(key), connection);
  } catch (...) {
    api->CloseHandle(connection);
    throw;
  }
  return connection;
}

void HttpConnectionPool::Terminate() {
  // No lock: runs when no stream is open and no connection is being created.
  delete g_pool;
  g_pool = nullptr;
}

}  // namespace qv::net
