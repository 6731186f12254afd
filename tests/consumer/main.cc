// A host program that uses only the exported API of an installed tqnetwork; exits 0 when
// everything answers as expected.
//
//   consumer CHECK_FILE
//       offline checks and a local file through OpenFileOrUrl;
//   consumer CHECK_FILE BASE_URL CACHE_DIR DOWNLOAD_FILE
//       also the network walk-through against a server at BASE_URL serving
//       /hello.txt ("hello from nginx\n"), /cached.txt (any body, fresh for a while) and
//       /big.bin (1 MiB, byte i being "0123456789abcdef"[i % 16]). The caller checks that
//       /cached.txt was requested once, though it is opened twice.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include "net/cache/cache_init.h"
#include "net/cache/disk_cache.h"
#include "net/cache/in_memory_cache.h"
#include "net/cache/url_cache.h"
#include "net/fileprotocol/file_handles.h"
#include "net/fileprotocol/http_file_protocol.h"
#include "net/http/connection_pool.h"
#include "net/http/http_api.h"
#include "net/http/http_init.h"
#include "net/http/http_request.h"
#include "net/http/http_status.h"
#include "net/http/request_handler.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "tqutil/sys_file.h"

namespace {

constexpr std::uint64_t kBigSize = 1 << 20;

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void Check(bool condition, const std::string& what) {
  if (!condition) throw Failure(what);
}

std::filesystem::path PathOf(const std::string& utf8) {
  return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

char BigByte(std::uint64_t offset) { return "0123456789abcdef"[offset % 16]; }

bool IsBig(const std::string& bytes, std::uint64_t offset) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != BigByte(offset + i)) return false;
  }
  return true;
}

std::string ReadAll(qv::io::IDataReadStream& stream) {
  std::string body;
  char buffer[65536];
  while (std::uint64_t n = stream.Read(buffer, sizeof buffer)) body.append(buffer, n);
  return body;
}

void OfflineChecks(const std::string& path) {
  qv::net::HttpRequest request(L"http://example.com/a?b=c", qv::net::HttpMethod::Get);
  request.AddHeader(L"Range", L"bytes=0-1");
  Check(request.FormatHeaders() == L"Range: bytes=0-1", "request headers");
  Check(std::error_code(404, qv::net::HttpCategory()).message() == "NotFound (404)",
        "status message");

  std::ofstream(PathOf(path)) << "hello";
  auto stream = qv::net::OpenFileOrUrl(qv::Utf8ToWide(path), 0, {});
  Check(stream != nullptr, "local file opened");
  Check(ReadAll(*stream) == "hello", "local file read");
}

// A transport of the host's own: every request answers 200 with the body "hello".
class HostTransport : public qv::net::IHttpApi {
 public:
  void* OpenInternet(const wchar_t*) override { return this; }
  void* Connect(void*, const TqUURL&) override { return this; }
  void* SendRequest(void*, const qv::net::HttpRequest& request, const wchar_t**,
                    bool& sent) override {
    m_headers = request.FormatHeaders();
    m_left = 5;
    sent = true;
    return this;
  }
  std::uint32_t QueryStatusCode(void*) override { return 200; }
  std::optional<std::wstring> QueryHeader(void*, const qv::net::HttpHeaderSelector&,
                                          std::uint32_t*) override { return {}; }
  std::optional<std::uint32_t> QueryHeaderNumeric(void*, const qv::net::HttpHeaderSelector&,
                                                  std::uint32_t*) override { return {}; }
  std::optional<std::int64_t> QueryHeaderDateTime(void*, const qv::net::HttpHeaderSelector&,
                                                  std::uint32_t*) override { return {}; }
  bool Read(void*, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) override {
    bytes_read = std::min<std::uint32_t>(size, m_left);
    std::memcpy(buffer, &"hello"[5 - m_left], bytes_read);
    m_left -= bytes_read;
    return true;
  }
  bool CloseHandle(void*) override { return true; }
  std::wstring m_headers;
  std::uint32_t m_left = 0;
};

class HostHandler : public qv::net::HttpRequestHandler {
 public:
  void HandlePreRequest(qv::net::HttpRequest& request) override {
    if (request.GetMethod() == qv::net::HttpMethod::Put) throw Failure("host's own");
    request.AddHeader(L"X-Host", L"1");
  }
};

// Replaces an operation that the protocol's own OpenFile calls through its table.
class HostProtocol : public qv::net::HttpFileProtocol {
 public:
  bool SetupOpenFile(const wchar_t* url, TqUWideStringBuffer* resolved, OpenMode mode) override {
    ++m_setups;
    return HttpFileProtocol::SetupOpenFile(url, resolved, mode);
  }
  int m_setups = 0;
};

class HostCache : public qv::net::IUrlCache {
 public:
  bool QueryFlag() override { return true; }
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenUrl(std::wstring_view, int,
                                                           qv::stop_token) override { return {}; }
  void Clear() override {}
  bool CleanUp() override { return true; }
  std::unique_ptr<qv::io::IDataSeekableWriteStream> OpenWriteStream(std::wstring_view) override {
    return {};
  }
  std::unique_ptr<qv::io::IDataSeekableReadStream> OpenReadStream(std::wstring_view) override {
    return {};
  }
};

qv::net::HttpFileProtocol::PreHTTPAuthenticationResult HostAuth(const wchar_t*,
                                                                 qv::net::HttpCredentials* c) {
  c->SetUsername(L"host");
  return qv::net::HttpFileProtocol::CredentialsSupplied;
}

void HostResolution(const TqUURL&, const TqUURL&, TqUURL& resolved) {
  resolved = TqUURL(L"http://host.example/rewritten", false);
}

// Every name the library exports, used as a host uses it: called, constructed, copied, derived
// from, thrown and caught here, across the library's boundary.
void ExportedNames(const std::string& path) {
  using namespace qv::net;
  // Requests and credentials.
  Check(std::wstring(HttpMethodText(HttpMethod::Post)) == L"POST", "HttpMethodText");
  HttpRequest request(TqUURL(L"https://h.example/r", false), HttpMethod::Head);
  request.SetMethod(HttpMethod::Get);
  request.AddHeader(L"A", L"1");
  request.RemoveHeader(L"A");
  Check(request.IsSecure() && request.GetMethod() == HttpMethod::Get &&
            std::wstring(request.GetMethodStr()) == L"GET" && request.FormatHeaders().empty() &&
            std::wstring(request.GetRawUrl()) == request.GetUrl().GetString(),
        "HttpRequest");
  HttpCredentials credentials(L"u", nullptr), copied(credentials), moved(std::move(copied));
  moved.SetPassword(L"p");
  credentials = moved;
  Check(std::wstring(credentials.GetUsername()) + credentials.GetPassword() == L"up",
        "HttpCredentials");
  // Status, error category, exception and response.
  const std::error_code code(static_cast<int>(HttpStatus::NotFound), HttpCategory());
  Check(code.category() == HttpCategory() && std::string(HttpCategory().name()) == "http" &&
            HttpErrorCategory().message(418) == "I'm A Teapot (418)" &&
            code == std::error_condition(404, HttpCategory()) &&
            code != std::error_code(404, std::generic_category()),
        "HttpErrorCategory");
  HttpResponse response(HttpStatus::OK, L"OK"), response_copy(response);
  response = response_copy;
  // Transport and read stream: none installed, the library throws; the host catches.
  Check(HttpApi() == nullptr && MaxNumConnectionsPerServer() == 4, "HttpApi");
  bool caught = false;
  try {
    HttpReadStream stream(L"http://h.example/", 0, {});
  } catch (const http_exception& e) {
    caught = std::string(e.what()) == "Unable to create HTTP connection\n";
  }
  Check(caught, "http_exception caught");
  HostTransport transport;
  HostHandler handler;
  Check(SetHttpApi(&transport) == nullptr && HttpApi() == &transport, "SetHttpApi");
  HttpRequestHandlerManager::RegisterHandler(&handler);
  Check(HttpConnectionPool::CreateConnection(TqUURL(L"http://h.example/", false)) != nullptr,
        "HttpConnectionPool");
  {
    auto stream = HttpReadStream::Open(L"http://h.example/", HttpReadStream::FlagMakeHeadRequest,
                                       {});
    qv::io::IDataReadStream* base = stream.get();
    Check(dynamic_cast<HttpReadStream*>(base) == stream.get() && stream->IsOpen() &&
              stream->Succeeded() && ReadAll(*stream) == "hello" &&
              transport.m_headers == L"X-Host: 1" && !stream->ContentSize() && !stream->ETag() &&
              stream->QueryStatusCode() == HttpStatus::OK && !stream->QueryHeader(L"Date") &&
              !stream->QueryHeaderNumeric(HttpHeader::RetryAfter) &&
              !stream->QueryHeaderDateTime(L"Date") && !stream->MetaData().size,
          "HttpReadStream");
    stream->Close();
    HttpRequest post(L"http://h.example/p", HttpMethod::Post);
    HttpRequestHandlerManager::HandlePreRequest(post);
    Check(post.FormatHeaders() == L"X-Host: 1" &&
              HttpReadStream::Open(post, {})->Succeeded(), "HttpReadStream from a request");
    HttpRequest put(L"http://h.example/p", HttpMethod::Put);
    caught = false;
    try {
      HttpReadStream stream(put, {});
    } catch (const Failure&) {
      caught = true;
    }
    Check(caught, "a handler's exception through the read stream");
  }
  HttpRequestHandlerManager::UnregisterHandler(&handler);
  HttpConnectionPool::Terminate();
  Check(SetHttpApi(nullptr) == &transport, "SetHttpApi back");
  // Cache system.
  // The constants themselves, not only their values: bound to a reference (as std::max binds
  // them) a host needs the library's definitions.
  const int* const volatile flags[] = {&IUrlCache::NeverExpire, &IUrlCache::ServeStaleOnError,
                                       &HttpReadStream::FlagMakeHeadRequest};
  const std::uint32_t* const volatile file_flags[] = {&TqUSysFile::kShareRead,
                                                      &TqUSysFile::kOpenAlways};
  Check(*flags[0] == 1 && *flags[1] == 2 && *flags[2] == 1 && CachePrefix() == L"qvcache://" &&
            *file_flags[0] == 1 && *file_flags[1] == 4,
        "exported constants");
  std::unique_ptr<IUrlCache> host_cache = std::make_unique<HostCache>();
  Check(host_cache->QueryFlag(), "IUrlCache derived");
  InMemoryCache memory;
  Check(!memory.QueryFlag() && memory.CleanUp() && !memory.OpenWriteStream(L"n"), "InMemoryCache");
  InitialiseCache(qv::Utf8ToWide(path + "/below-a-file").c_str());
  Check(dynamic_cast<InMemoryCache*>(CacheSystem()) != nullptr, "InitialiseCache in memory");
  TerminateCache();
  Check(CacheSystem() == nullptr, "TerminateCache");
  Check(DiskCache::UrlToCache(L"qvcache://n") == "qvcache://n", "UrlToCache");
  const auto location = DiskCache::ComputeCacheLocation(L"http://h.example/", PathOf(path));
  Check(location.parent_path() == PathOf(path) && location.filename().string().size() == 10,
        "ComputeCacheLocation");
  Check(ReadAll(*OpenFileOrUrlAsync(qv::Utf8ToWide(path), 0, {}).get()) == "hello",
        "OpenFileOrUrlAsync");
  caught = false;
  try {
    OpenFileOrUrlAsync(L"http://h.example/", 0, {}).get();  // no worker pool yet
  } catch (const std::future_error& e) {
    caught = e.code() == std::future_errc::broken_promise;
  }
  Check(caught, "OpenFileOrUrlAsync without workers");
  // File protocol, its handles and hooks.
  HostProtocol protocol;
  protocol.SetUserAgentW(L"host");
  protocol.SetUserAgentU("host");
  TqUFileHandle* file = protocol.OpenFile(L"http://h.example/f", TqUFileProtocol::OpenRead);
  Check(HttpFileHandle::From(file) != nullptr && protocol.m_setups == 1 && protocol.CloseFile(file),
        "HttpFileHandle");
  HttpFileHandle handle(L"http://h.example/f", TqUURL(L"http://h.example/f", false)),
      handle_copy(handle), handle_moved(std::move(handle_copy));
  handle_copy = handle_moved;
  handle = std::move(handle_copy);
  auto record = std::make_unique<HttpFileHandle>(handle);
  Check(std::wstring(handle.UrlText().GetString()) == L"http://h.example/f" &&
            HttpFileHandle::Release(HttpFileHandle::Adopt(std::move(record))),
        "HttpFileHandle value");
  TqUThreadHandle* thread =
      HttpFileThreadHandle::Adopt(std::make_unique<HttpFileThreadHandle>(false, nullptr));
  Check(HttpFileThreadHandle::From(thread) != nullptr && HttpFileThreadHandle::Release(thread),
        "HttpFileThreadHandle");
  HttpFileRequestHandle resource(L"/f"), resource_copy(resource);
  resource = std::move(resource_copy);
  Check(std::wstring(resource.Resource().GetString()) == L"/f" &&
            HttpFileRequestHandle::Release(
                HttpFileRequestHandle::Adopt(std::make_unique<HttpFileRequestHandle>(resource))),
        "HttpFileRequestHandle");
  HttpCredentials asked;
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(&HostAuth);
  Check(HttpFileProtocol::PreHTTPAuthentication(L"http://h/", &asked) ==
                HttpFileProtocol::CredentialsSupplied &&
            std::wstring(asked.GetUsername()) == L"host" &&
            HttpFileProtocol::DefaultPreHTTPAuthentication(L"http://h/", &asked) ==
                HttpFileProtocol::NoCredentials,
        "authentication hook");
  HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
  TqUWideStringBuffer resolved;
  HttpFileProtocol::AddPostUrlResolutionCallback(&HostResolution);
  Check(protocol.ResolveRelative(L"http://h.example/a/", L"b", &resolved) &&
            std::wstring(resolved.GetString()) == L"http://host.example/rewritten",
        "URL resolution hook");
  HttpFileProtocol::RemovePostUrlResolutionCallback(&HostResolution);
  // Start-up and shut-down, the file protocol's and the library's.
  HttpFileProtocol::Initialise();
  Check(HttpFileProtocol::IsInitialised(), "HttpFileProtocol::Initialise");
  HttpFileProtocol::Terminate();
  InitialiseHttp();
  Check(dynamic_cast<WinInet*>(HttpApi()) != nullptr &&
            dynamic_cast<HttpFileProtocol*>(TqUFileProtocolRegistry::Get()->Lookup(L"https")),
        "InitialiseHttp");
  TerminateHttp();
  Check(HttpApi() == nullptr && !HttpFileProtocol::IsInitialised(), "TerminateHttp");
}

class Progress : public TqUProgress {
 public:
  bool SetProgress(double fraction) override {
    if (fraction < m_last) m_backwards = true;
    m_last = fraction;
    ++m_calls;
    return true;
  }
  double m_last = -1;
  int m_calls = 0;
  bool m_backwards = false;
};

void NetworkChecks(const std::string& base, const std::string& cache_dir,
                   const std::string& download) {
  const std::wstring hello = qv::Utf8ToWide(base + "/hello.txt");
  const std::wstring cached = qv::Utf8ToWide(base + "/cached.txt");
  const std::wstring big = qv::Utf8ToWide(base + "/big.bin");

  // The host's start-up order.
  qv::net::InitialiseHttp();
  qv::net::InitialiseCache(qv::Utf8ToWide(cache_dir).c_str());

  {
    auto stream = qv::net::HttpReadStream::Open(hello, 0, {});
    Check(stream->Succeeded(), "read stream: status");
    Check(ReadAll(*stream) == "hello from nginx\n", "read stream: body");
    std::puts("consumer: read stream");
  }
  {
    auto first = qv::net::OpenFileOrUrl(cached, 0, {});
    Check(first != nullptr, "cache: first open");
    const std::string body = ReadAll(*first);
    auto second = qv::net::OpenFileOrUrl(cached, 0, {});
    Check(second != nullptr && ReadAll(*second) == body, "cache: second open");
    std::puts("consumer: OpenFileOrUrl through the disk cache, twice");
  }
  {
    auto stream = qv::net::OpenFileOrUrlAsync(big, 0, {}).get();
    Check(stream != nullptr, "async: opened");
    const std::string body = ReadAll(*stream);
    Check(body.size() == kBigSize && IsBig(body, 0), "async: body");
    std::puts("consumer: OpenFileOrUrlAsync");
  }
  TqUFileProtocol* protocol = TqUFileProtocolRegistry::Get()->Lookup(L"http");
  Check(protocol != nullptr, "http file protocol registered");
  {
    TqUFileInfo info;
    Check(protocol->GetFileInfo(big.c_str(), &info), "file information");
    Check(info.GetFileSize() == kBigSize, "file information: size");
    Check(info.GetFileModificationTime().has_value(), "file information: time");
    Check(info.GetFileRevisionId().has_value(), "file information: revision");
    std::puts("consumer: file information");
  }
  {
    constexpr std::uint64_t kOffset = 100003, kSize = 37;
    TqUFileHandle* file = protocol->OpenFile(big.c_str(), TqUFileProtocol::OpenRead);
    Check(file != nullptr, "ranged read: open");
    TqUThreadHandle* thread = protocol->CreateThreadHandle(file);
    TqUFileRequestHandle* request = protocol->SetupReadFile(file, kOffset, kSize);
    std::string bytes(kSize, '\0');
    std::uint64_t total = 0;
    const std::int64_t got = protocol->ReadFileToSize(
        file, thread, request, kOffset, kSize, reinterpret_cast<unsigned char*>(bytes.data()),
        &total);
    protocol->ReleaseRequestHandle(request);
    protocol->ReleaseThreadHandle(thread);
    protocol->CloseFile(file);
    Check(got == static_cast<std::int64_t>(kSize) && IsBig(bytes, kOffset), "ranged read: bytes");
    Check(total == kBigSize, "ranged read: total size");
    std::puts("consumer: ranged read");
  }
  {
    Progress progress;
    Check(protocol->GetFile(big.c_str(), qv::Utf8ToWide(download).c_str(), &progress),
          "download");
    std::ifstream in(PathOf(download), std::ios::binary);
    const std::string body((std::istreambuf_iterator<char>(in)), {});
    Check(body.size() == kBigSize && IsBig(body, 0), "download: file");
    Check(progress.m_calls > 0 && progress.m_last == 1.0 && !progress.m_backwards,
          "download: progress");
    std::puts("consumer: download with progress");
  }

  // The host's shut-down order.
  qv::net::HttpConnectionPool::Terminate();
  qv::net::TerminateHttp();
  qv::net::TerminateCache();
  std::puts("consumer: shut down");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    OfflineChecks(argc > 1 ? argv[1] : "consumer-check.txt");
    ExportedNames(argc > 1 ? argv[1] : "consumer-check.txt");
    if (argc == 5) NetworkChecks(argv[2], argv[3], argv[4]);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "consumer: FAILED: %s\n", failure.what());
    return 1;
  }
  std::puts("consumer: ok");
  return 0;
}
