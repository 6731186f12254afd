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
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

#include "net/cache/url_cache.h"
#include "net/cache/cache_init.h"
#include "net/http/connection_pool.h"
#include "net/http/http_init.h"
#include "net/http/http_request.h"
#include "net/http/http_status.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"

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
    if (argc == 5) NetworkChecks(argv[2], argv[3], argv[4]);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "consumer: FAILED: %s\n", failure.what());
    return 1;
  }
  std::puts("consumer: ok");
  return 0;
}
