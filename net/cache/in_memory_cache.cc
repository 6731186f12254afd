#include "net/cache/in_memory_cache.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include <gsl/util>

#include "net/stream/url_reading.h"

namespace qv::net {
namespace {
std::function<void()>& WaitHook() {
  static std::function<void()> hook;
  return hook;
}
}  // namespace

namespace detail {
void SetInMemoryCacheWaitHookForTesting(std::function<void()> hook) {
  WaitHook() = std::move(hook);
}
}  // namespace detail

class InMemoryCache::Impl : public IUrlCache {
 public:
  Impl() : m_entries(8) { m_entries.max_load_factor(1.0f); }

  bool QueryFlag() override { return false; }

  // `flags` means nothing here: nothing expires.
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view url, int /*flags*/,
                                                           qv::stop_token stop) override {
    std::wstring key(url);
    std::unique_lock lock(m_mutex);
    for (;;) {
      if (auto it = m_entries.find(key); it != m_entries.end()) {
        return std::make_unique<qv::io::MemoryStream>(it->second);
      }
      if (m_downloading.count(key) == 0) break;
      // One download per URL at a time: a second caller waits for the first one's body
      // instead of fetching it again; other URLs go on meanwhile (the lock is not held while
      // downloading). A waiter that is told to stop gives up, so no one waits without bound
      // on its own account.
      if (stop.stop_requested()) return nullptr;
      if (WaitHook()) WaitHook()();
      if (stop.stop_possible()) {
        m_download_ended.wait_for(lock, std::chrono::milliseconds(20));
      } else {
        m_download_ended.wait(lock);
      }
    }
    m_downloading.insert(key);
    lock.unlock();

    std::unique_ptr<qv::io::MemoryStream> stream;
    try {
      stream = ReadUrlIntoMemory(key, stop);
    } catch (...) {
      EndDownload(key, nullptr);
      throw;
    }
    // A failed download stores nothing: the next caller (or a waiter) tries again.
    EndDownload(key, stream ? stream->Sink() : nullptr);
    return stream;
  }

  // The host asks to forget: every body goes; streams handed out keep their bytes through the
  // shared sink. A download under way still stores its (newer) body when it ends.
  void Clear() override {
    std::lock_guard lock(m_mutex);
    m_entries.clear();
  }

  bool CleanUp() override { return true; }

  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(std::wstring_view) override {
    return nullptr;
  }

  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(std::wstring_view) override {
    return nullptr;
  }

 private:
  // Stores the body (if any) and ends the download under one lock, so that a waiter never sees
  // the URL neither stored nor being downloaded and starts a second download. A store that fails
  // for want of memory still ends the download, or every later open would wait for it for ever.
  void EndDownload(const std::wstring& key, std::shared_ptr<qv::io::MemorySink> body) {
    const auto wake = gsl::finally([this] { m_download_ended.notify_all(); });
    std::lock_guard lock(m_mutex);
    const auto end = gsl::finally([&] { m_downloading.erase(key); });
    if (body) m_entries.insert_or_assign(key, std::move(body));
  }

  std::mutex m_mutex;  // guards both sets below
  std::condition_variable m_download_ended;
  // URL text (code unit by code unit, not normalised) to its body.
  std::unordered_map<std::wstring, std::shared_ptr<qv::io::MemorySink>> m_entries;
  std::unordered_set<std::wstring> m_downloading;
};

InMemoryCache::InMemoryCache() : m_impl(std::make_unique<Impl>()) {}
InMemoryCache::~InMemoryCache() = default;

bool InMemoryCache::QueryFlag() { return m_impl->QueryFlag(); }

std::unique_ptr<qv::io::IDataSeekableReadStream> InMemoryCache::OpenUrl(std::wstring_view url,
                                                                        int flags,
                                                                        qv::stop_token stop) {
  return m_impl->OpenUrl(url, flags, std::move(stop));
}

void InMemoryCache::Clear() { m_impl->Clear(); }

bool InMemoryCache::CleanUp() { return m_impl->CleanUp(); }

std::unique_ptr<qv::io::IDataSeekableWriteStream> InMemoryCache::OpenWriteStream(
    std::wstring_view name) {
  return m_impl->OpenWriteStream(name);
}

std::unique_ptr<qv::io::IDataSeekableReadStream> InMemoryCache::OpenReadStream(
    std::wstring_view name) {
  return m_impl->OpenReadStream(name);
}

}  // namespace qv::net
