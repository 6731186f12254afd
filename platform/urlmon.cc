// URLDownloadToFileW and URLDownloadToCacheFileW over libcurl.
//
// A download runs on the calling thread through a multi handle, so that the loop wakes at least
// every 100 ms: that is what lets IBinding::Abort (from any thread) and the stall limit act
// promptly without relying on libcurl's one-second progress cadence.
#ifndef _WIN32

#include "platform/urlmon.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <system_error>

#include "platform/urlmon_internal.h"
#include "platform/wide_text.h"
#include "tqutil/user_agent.h"

namespace tqplatform {
namespace {

constexpr DWORD kErrorDiskFull = 112;
constexpr DWORD kErrorFilenameExcedRange = 206;
constexpr const char* kUserAgent = qv::kUserAgent;
constexpr long kMaxRedirects = 10;
constexpr long kPollMs = 100;

std::atomic<long> g_connect_ms{UrlDownloadLimits{}.connect_ms};
std::atomic<long> g_stall_ms{UrlDownloadLimits{}.stall_ms};

void GlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// Win32 error of a failed file operation, as the Windows file functions would report it.
HRESULT HResultFromErrno(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
      return HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED);
    case ENOSPC:
    case EDQUOT:
      return HRESULT_FROM_WIN32(kErrorDiskFull);
    case ENAMETOOLONG:
      return HRESULT_FROM_WIN32(kErrorFilenameExcedRange);
    case ENOMEM:
      return E_OUTOFMEMORY;
    default:
      return E_FAIL;
  }
}

HRESULT HResultFromStatus(long status) {
  switch (status) {
    case 401:
    case 403:
    case 407:
      return E_ACCESSDENIED;
    case 404:
    case 410:
      return INET_E_OBJECT_NOT_FOUND;
    default:
      return INET_E_DOWNLOAD_FAILURE;
  }
}

HRESULT HResultFromCurl(CURLcode code) {
  switch (code) {
    case CURLE_OK:
      return S_OK;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return INET_E_UNKNOWN_PROTOCOL;
    case CURLE_URL_MALFORMAT:
      return MK_E_SYNTAX;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return INET_E_RESOURCE_NOT_FOUND;
    case CURLE_COULDNT_CONNECT:
      return INET_E_CANNOT_CONNECT;
    case CURLE_OPERATION_TIMEDOUT:
      return INET_E_CONNECTION_TIMEOUT;
    case CURLE_TOO_MANY_REDIRECTS:
      return INET_E_REDIRECT_FAILED;
    case CURLE_OUT_OF_MEMORY:
      return E_OUTOFMEMORY;
    case CURLE_PEER_FAILED_VERIFICATION:
      return INET_E_INVALID_CERTIFICATE;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      return INET_E_SECURITY_PROBLEM;
    default:
      return INET_E_DOWNLOAD_FAILURE;
  }
}

// libcurl's counts are 64-bit, the callback's are 32-bit: both are halved together until they
// fit, so that the fraction stays right for files of 4 GiB and more.
void ScaleProgress(std::uint64_t done, std::uint64_t total, ULONG* out_done, ULONG* out_total) {
  while (done > 0xFFFFFFFFu || total > 0xFFFFFFFFu) {
    done >>= 1;
    total >>= 1;
  }
  *out_done = static_cast<ULONG>(done);
  *out_total = static_cast<ULONG>(total);
}

// The IBinding handed to OnStartBinding. Reference-counted, since a callback may keep it past
// the download; Abort is safe from any thread and wakes the download loop at once.
class Binding final : public IBinding {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IBinding)) {
      *object = static_cast<IBinding*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE Abort() override {
    // The download may end, and drop its references, as soon as it sees the flag: hold one of
    // our own until Abort is done with the object.
    AddRef();
    m_aborted.store(true);
    {
      std::lock_guard lock(m_mutex);
      if (m_multi != nullptr) curl_multi_wakeup(m_multi);
    }
    Release();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Suspend() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Resume() override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetPriority(LONG) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetPriority(LONG*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetBindResult(CLSID*, DWORD*, LPOLESTR*, DWORD*) override {
    return E_NOTIMPL;
  }

  bool Aborted() const { return m_aborted.load(); }
  // The multi handle that Abort wakes; null once the download no longer runs.
  void SetMulti(CURLM* multi) {
    std::lock_guard lock(m_mutex);
    m_multi = multi;
  }

 private:
  ~Binding() = default;
  std::atomic<ULONG> m_refs{1};
  std::atomic<bool> m_aborted{false};
  std::mutex m_mutex;
  CURLM* m_multi = nullptr;
};

struct BindingRef {
  Binding* binding = new Binding();
  BindingRef() = default;
  BindingRef(const BindingRef&) = delete;
  BindingRef& operator=(const BindingRef&) = delete;
  ~BindingRef() { binding->Release(); }
};

// libcurl objects owned for one scope, released with their own clean-up call.
template <auto Cleanup>
struct CurlFree {
  template <typename T>
  void operator()(T* object) const {
    Cleanup(object);
  }
};
using CurlEasy = std::unique_ptr<CURL, CurlFree<curl_easy_cleanup>>;
using CurlUrl = std::unique_ptr<CURLU, CurlFree<curl_url_cleanup>>;

// The temporary file beside the destination: removed unless Commit renamed it into place.
class TempFile {
 public:
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    if (m_fd >= 0) ::close(m_fd);
    if (!m_path.empty()) ::unlink(m_path.c_str());
  }

  HRESULT Create(const std::string& destination) {
    std::random_device seed;
    std::mt19937_64 random(seed());
    for (int attempt = 0; attempt < 16; ++attempt) {
      char suffix[24];
      std::snprintf(suffix, sizeof suffix, ".%016llx.part",
                    static_cast<unsigned long long>(random()));
      std::string path = destination + suffix;
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd >= 0) {
        m_fd = fd;
        m_path = std::move(path);
        return S_OK;
      }
      if (errno != EEXIST) return HResultFromErrno(errno);
    }
    return E_FAIL;
  }

  // False with `*error` set when the bytes could not all be written.
  bool Write(const char* data, std::size_t size, HRESULT* error) {
    while (size > 0) {
      const ssize_t n = ::write(m_fd, data, size);
      if (n < 0) {
        if (errno == EINTR) continue;
        *error = HResultFromErrno(errno);
        return false;
      }
      data += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }

  HRESULT Commit(const std::string& destination) {
    // Flushed before the rename, so that a crash never leaves a short file under the name.
    if (::fsync(m_fd) != 0 || ::close(m_fd) != 0) {
      const int error = errno;
      m_fd = -1;
      return HResultFromErrno(error);
    }
    m_fd = -1;
    if (::rename(m_path.c_str(), destination.c_str()) != 0) return HResultFromErrno(errno);
    m_path.clear();
    return S_OK;
  }

 private:
  int m_fd = -1;
  std::string m_path;
};

using Clock = std::chrono::steady_clock;

// State shared with libcurl's callbacks during one download.
struct Transfer {
  IBindStatusCallback* callback = nullptr;
  Binding* binding = nullptr;
  TempFile* file = nullptr;
  CURL* easy = nullptr;
  std::uint64_t received = 0;
  bool began = false;
  bool callback_aborted = false;
  long refused_status = 0;        // a 4xx/5xx whose body was refused
  HRESULT write_error = S_OK;     // the file could not be written
  Clock::time_point last_activity = Clock::now();

  bool Stop() const { return binding->Aborted() || callback_aborted; }

  void Report(ULONG status_code, std::uint64_t total) {
    if (callback == nullptr) return;
    ULONG done = 0;
    ULONG max = 0;
    ScaleProgress(received, total, &done, &max);
    if (FAILED(callback->OnProgress(done, max, status_code, nullptr))) callback_aborted = true;
  }

  std::uint64_t ExpectedSize() const {
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    return length > 0 ? static_cast<std::uint64_t>(length) : 0;
  }
};

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t bytes = size * count;
  // Only a header block's end is progress: a server dripping one line at a time must not keep
  // the transfer alive, so the whole block has one deadline.
  if (bytes == 0 || data[0] == '\r' || data[0] == '\n') transfer->last_activity = Clock::now();
  return transfer->Stop() ? 0 : bytes;
}

size_t OnBody(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const size_t bytes = size * count;
  transfer->last_activity = Clock::now();
  if (transfer->Stop()) return CURL_WRITEFUNC_ERROR;
  long status = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
  if (status >= 400) {
    // An error page is never saved: the transfer stops at its first byte.
    transfer->refused_status = status;
    return CURL_WRITEFUNC_ERROR;
  }
  if (!transfer->file->Write(data, bytes, &transfer->write_error)) return CURL_WRITEFUNC_ERROR;
  const std::uint64_t expected = transfer->ExpectedSize();
  if (!transfer->began) {
    transfer->began = true;
    transfer->Report(BINDSTATUS_BEGINDOWNLOADDATA, expected);
  }
  transfer->received += bytes;
  transfer->Report(BINDSTATUS_DOWNLOADINGDATA, expected);
  return transfer->Stop() ? CURL_WRITEFUNC_ERROR : bytes;
}

int OnTransferInfo(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<Transfer*>(user)->Stop() ? 1 : 0;
}

// Runs the transfer to its end; the result says how it ended.
HRESULT RunTransfer(CURL* easy, Transfer* transfer) {
  CURLM* multi = curl_multi_init();
  if (multi == nullptr) return E_OUTOFMEMORY;
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
    curl_multi_cleanup(multi);
    return E_OUTOFMEMORY;
  }
  transfer->binding->SetMulti(multi);
  const auto stall = std::chrono::milliseconds(g_stall_ms.load());
  transfer->last_activity = Clock::now();

  HRESULT result = S_OK;
  CURLcode code = CURLE_OK;
  bool finished = false;
  while (!finished) {
    int running = 0;
    if (curl_multi_perform(multi, &running) != CURLM_OK) {
      result = E_FAIL;
      break;
    }
    int queued = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
      if (message->msg == CURLMSG_DONE) {
        code = message->data.result;
        finished = true;
      }
    }
    if (finished) break;
    if (transfer->Stop()) {
      result = E_ABORT;
      break;
    }
    const auto idle = Clock::now() - transfer->last_activity;
    if (idle >= stall) {
      result = INET_E_CONNECTION_TIMEOUT;
      break;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(stall - idle).count();
    curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::min<long long>(kPollMs, left + 1)),
                    nullptr);
  }
  transfer->binding->SetMulti(nullptr);
  curl_multi_remove_handle(multi, easy);
  curl_multi_cleanup(multi);

  if (result != S_OK) return result;
  if (transfer->Stop()) return E_ABORT;
  if (transfer->refused_status != 0) return HResultFromStatus(transfer->refused_status);
  if (FAILED(transfer->write_error)) return transfer->write_error;
  if (code != CURLE_OK) return HResultFromCurl(code);
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  if (status < 200 || status > 299) {
    // An answer without a body (a bodiless 4xx, or a 3xx that was not followed).
    return status >= 400 ? HResultFromStatus(status) : INET_E_DOWNLOAD_FAILURE;
  }
  return S_OK;
}

// Checks the URL before any callback: an absolute http or https URL that libcurl can parse.
HRESULT ParseUrl(LPCWSTR url, CURLU* parsed, std::string* utf8) {
  if (url == nullptr || *url == L'\0') return E_INVALIDARG;
  *utf8 = WideToUtf8(url);
  if (parsed == nullptr) return E_OUTOFMEMORY;
  if (curl_url_set(parsed, CURLUPART_URL, utf8->c_str(), 0) != CURLUE_OK) return MK_E_SYNTAX;
  char* scheme = nullptr;
  if (curl_url_get(parsed, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) return MK_E_SYNTAX;
  const std::string text = scheme;
  curl_free(scheme);
  if (text != "http" && text != "https") return INET_E_UNKNOWN_PROTOCOL;
  return S_OK;
}

// Downloads the parsed URL to `destination` (UTF-8 path) and tells `callback` about it.
HRESULT Download(CURLU* url, const std::string& destination, IBindStatusCallback* callback,
                 const std::wstring& cache_file) {
  GlobalInit();
  BindingRef binding;
  if (callback != nullptr && FAILED(callback->OnStartBinding(0, binding.binding))) {
    callback->OnStopBinding(E_ABORT, nullptr);
    return E_ABORT;
  }
  auto finish = [&](HRESULT result, const char* text) {
    if (callback != nullptr) {
      const std::wstring wide = text && *text ? Latin1ToWide(text) : std::wstring();
      callback->OnStopBinding(result, wide.empty() ? nullptr : wide.c_str());
    }
    return result;
  };

  TempFile file;
  if (HRESULT hr = file.Create(destination); FAILED(hr)) return finish(hr, nullptr);
  CurlEasy easy(curl_easy_init());
  if (easy == nullptr) return finish(E_OUTOFMEMORY, nullptr);

  Transfer transfer;
  transfer.callback = callback;
  transfer.binding = binding.binding;
  transfer.file = &file;
  transfer.easy = easy.get();
  char error_text[CURL_ERROR_SIZE] = {};

  CURL* h = easy.get();
  curl_easy_setopt(h, CURLOPT_CURLU, url);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error_text);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(h, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(h, CURLOPT_USERAGENT, kUserAgent);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, g_connect_ms.load());
  curl_easy_setopt(h, CURLOPT_BUFFERSIZE, 256L * 1024L);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, OnHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, OnBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, OnTransferInfo);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, &transfer);

  if (!cache_file.empty() && callback != nullptr) {
    callback->OnProgress(0, 0, BINDSTATUS_CACHEFILENAMEAVAILABLE, cache_file.c_str());
  }
  transfer.Report(BINDSTATUS_CONNECTING, 0);
  HRESULT result = transfer.Stop() ? E_ABORT : RunTransfer(h, &transfer);
  if (SUCCEEDED(result)) result = file.Commit(destination);
  if (SUCCEEDED(result)) transfer.Report(BINDSTATUS_ENDDOWNLOADDATA, transfer.ExpectedSize());
  return finish(result, FAILED(result) ? error_text : nullptr);
}

std::string DestinationPath(LPCWSTR file_name) { return WideToUtf8(file_name); }

}  // namespace

UrlDownloadLimits SetUrlDownloadLimitsForTesting(UrlDownloadLimits limits) {
  UrlDownloadLimits previous;
  previous.connect_ms = g_connect_ms.exchange(limits.connect_ms);
  previous.stall_ms = g_stall_ms.exchange(limits.stall_ms);
  return previous;
}

std::string UrlDownloadCacheDirectory() {
  std::filesystem::path base;
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else if (home != nullptr && home[0] == '/') {
    base = std::filesystem::path(home) / ".cache";
  } else {
    return {};
  }
  return (base / "tqnetwork" / "downloads").string();
}

std::string UrlDownloadCacheFileName(const std::string& url) {
  // FNV-1a, 64 bits: stable across runs and systems, which a cache name must be.
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : url) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  std::string path = url;
  const std::size_t cut = path.find_first_of("?#");
  if (cut != std::string::npos) path.resize(cut);
  const std::size_t authority = path.find("://");
  const std::size_t path_start =
      authority == std::string::npos ? 0 : path.find('/', authority + 3);
  std::string segment;
  if (path_start != std::string::npos) {
    const std::size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash >= path_start) segment = path.substr(slash + 1);
  }
  if (segment.size() > 64) segment.resize(64);
  for (char& c : segment) {
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '_' || c == '-';
    if (!keep) c = '_';
  }
  if (segment.empty() || segment == "." || segment == "..") segment = "download";
  char hex[17];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(hash));
  return std::string(hex) + "-" + segment;
}

}  // namespace tqplatform

extern "C" {

HRESULT URLDownloadToFileW(LPUNKNOWN, LPCWSTR url, LPCWSTR file_name, DWORD,
                           LPBINDSTATUSCALLBACK callback) {
  tqplatform::CurlUrl parsed(curl_url());
  std::string utf8_url;
  if (HRESULT hr = tqplatform::ParseUrl(url, parsed.get(), &utf8_url); FAILED(hr)) return hr;
  if (file_name == nullptr || *file_name == L'\0') return E_INVALIDARG;
  return tqplatform::Download(parsed.get(), tqplatform::DestinationPath(file_name), callback, {});
}

HRESULT URLDownloadToCacheFileW(LPUNKNOWN, LPCWSTR url, LPWSTR file_name, DWORD file_name_length,
                                DWORD, LPBINDSTATUSCALLBACK callback) {
  tqplatform::CurlUrl parsed(curl_url());
  std::string utf8_url;
  if (HRESULT hr = tqplatform::ParseUrl(url, parsed.get(), &utf8_url); FAILED(hr)) return hr;
  if (file_name == nullptr || file_name_length == 0) return E_INVALIDARG;

  const std::string directory = tqplatform::UrlDownloadCacheDirectory();
  if (directory.empty()) return E_FAIL;
  const std::string path = directory + "/" + tqplatform::UrlDownloadCacheFileName(utf8_url);
  bool ok = false;
  const std::wstring wide_path = tqplatform::Utf8ToWideStrict(path, &ok);
  if (!ok) return E_FAIL;
  if (wide_path.size() + 1 > file_name_length) return E_OUTOFMEMORY;
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error) return tqplatform::HResultFromErrno(error.value());

  const HRESULT result = tqplatform::Download(parsed.get(), path, callback, wide_path);
  if (SUCCEEDED(result)) {
    std::copy(wide_path.begin(), wide_path.end(), file_name);
    file_name[wide_path.size()] = L'\0';
  }
  return result;
}

}  // extern "C"

#endif  // _WIN32
