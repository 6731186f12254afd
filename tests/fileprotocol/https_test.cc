// Every service over HTTPS, against nginx: the read stream, the disk cache and the file protocol
// through the system's TLS (WinINet's on Windows), which trusts the server only once its
// certificate is trusted.
#include <gtest/gtest.h>

#if defined(_WIN32)
#include <windows.h>
#include <wincrypt.h>
#endif

#include <filesystem>
#include <memory>
#include <string>

#include "net/cache/disk_cache.h"
#include "net/http/connection_pool.h"
#include "net/http/wininet_api.h"
#include "net/stream/open_file_or_url.h"
#include "net/stream/read_stream.h"
#include "tests/cache/cache_test_support.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/read_all.h"
#include "tests/support/servers/nginx_harness.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/wine.h"
#include "tests/tqutil/test_files.h"

namespace tq::test {
namespace {

namespace fs = std::filesystem;

// The certificate trusted while this lives. On Windows WinINet trusts what the system's stores
// hold: the certificate goes into this user's roots (the test prefix's, under Wine; Windows
// itself would ask the user first), and leaves them again. On Linux the layer is pointed at it.
class TrustedCertificate {
 public:
#if defined(_WIN32)
  explicit TrustedCertificate(const fs::path& pem) {
    const std::string text = ReadFileBytes(pem);
    DWORD size = 0;
    if (!CryptStringToBinaryA(text.c_str(), 0, CRYPT_STRING_BASE64HEADER, nullptr, &size, nullptr,
                              nullptr)) {
      return;
    }
    std::string der(size, '\0');
    store_ = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_CURRENT_USER, L"Root");
    if (store_ != nullptr &&
        CryptStringToBinaryA(text.c_str(), 0, CRYPT_STRING_BASE64HEADER,
                             reinterpret_cast<BYTE*>(der.data()), &size, nullptr, nullptr)) {
      CertAddEncodedCertificateToStore(store_, X509_ASN_ENCODING,
                                       reinterpret_cast<const BYTE*>(der.data()), size,
                                       CERT_STORE_ADD_REPLACE_EXISTING, &added_);
      // Under Wine the check reads the roots from the registry: the store is written out now.
      if (added_ != nullptr) CertControlStore(store_, 0, CERT_STORE_CTRL_COMMIT, nullptr);
    }
  }
  ~TrustedCertificate() {
    if (added_ != nullptr) CertDeleteCertificateFromStore(added_);  // frees the context too
    if (store_ != nullptr) CertCloseStore(store_, 0);
  }
  bool ok() const { return added_ != nullptr; }

 private:
  HCERTSTORE store_ = nullptr;
  PCCERT_CONTEXT added_ = nullptr;
#else
  explicit TrustedCertificate(const fs::path& pem) : ok_(TqPlatformSetCaFile(pem.c_str())) {}
  ~TrustedCertificate() { TqPlatformSetCaFile(nullptr); }
  bool ok() const { return ok_; }

 private:
  bool ok_;
#endif
  TrustedCertificate(const TrustedCertificate&) = delete;
  TrustedCertificate& operator=(const TrustedCertificate&) = delete;
};

class HttpsTest : public ProtocolTest {
 protected:
  void SetUp() override {
    ProtocolTest::SetUp();
    m_previous_api = qv::net::SetHttpApi(new qv::net::WinInet());
  }
  void TearDown() override {
    qv::net::HttpConnectionPool::Terminate();
    delete qv::net::SetHttpApi(m_previous_api);
    ProtocolTest::TearDown();
  }

  qv::net::IHttpApi* m_previous_api = nullptr;
};

std::string Read(std::unique_ptr<qv::io::IDataSeekableReadStream> stream) {
  return stream ? ReadAll(*stream) : "<null>";
}

// Bodies compared by size and bytes, without printing 300 kB when they differ.
::testing::AssertionResult Same(const std::string& got, const std::string& want) {
  if (got == want) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << got.size() << " bytes (" << got.substr(0, 20)
                                       << "...), not the " << want.size() << " expected";
}

// A body of many TLS records, read whole, from a position, in a range and into a file; an entity
// tag and a revalidation that keeps the stored copy. The certificate is trusted before the first
// request: Wine's certificate checks do not see roots added after one (tests/WINDOWS.md).
TEST_F(HttpsTest, EveryServiceReadsAServerWhoseCertificateMatchesAndNothingFromOneThatDoesNot) {
  if (!NginxHarness::Installed()) GTEST_SKIP() << "nginx is not installed";
  NginxHarness nginx({}, NginxHarness::Schemes::kHttpAndHttps);
  ASSERT_TRUE(nginx.ok()) << nginx.error();
  TrustedCertificate trusted(nginx.cert());
  ASSERT_TRUE(trusted.ok());
  const std::string body = Bytes(300007);
  nginx.WriteFile("data.bin", body);
  const std::string https_url = nginx.HttpsUrl("/data.bin");
  const std::wstring url = W(https_url);
  TempDir dir;
  ScopedClock clock(std::time(nullptr));
  qv::net::DiskCache cache((dir.path() / "cache").wstring().c_str());
  const fs::path copy = dir.path() / "copy.bin";

  // The same server named by its address, which its certificate (for localhost) does not name:
  // nothing is read, cached or written. Without a cache a failed send gives an empty stream, as
  // any answer other than 200 does.
  ASSERT_EQ(https_url.substr(0, 17), "https://localhost");
  const std::string by_address = "https://127.0.0.1" + https_url.substr(17);
  const std::wstring mismatched = W(by_address);
  EXPECT_EQ(Read(qv::net::OpenFileOrUrl(mismatched, 0, {})), "");
  EXPECT_EQ(Read(cache.OpenUrl(mismatched, 0, {})), "<null>");
  EXPECT_FALSE(cache.Contains(mismatched));
  EXPECT_FALSE(protocol_->GetFile(mismatched.c_str(), copy.wstring().c_str(), nullptr));
  EXPECT_FALSE(fs::exists(copy));
  TqUFileInfo no_info;
  EXPECT_FALSE(protocol_->GetFileInfo(mismatched.c_str(), &no_info));
  {
    OpenedFile refused(protocol_, by_address);
    unsigned char byte = 0;
    EXPECT_FALSE(refused.ok() && refused.ReadExact(0, 1, &byte));
  }
  log_.Clear();

  EXPECT_TRUE(Same(Read(qv::net::OpenFileOrUrl(url, 0, {})), body));
  // Stored, then served from the entry; a year later, stale, the server confirms its tag.
  EXPECT_TRUE(Same(Read(cache.OpenUrl(url, 0, {})), body));
  EXPECT_TRUE(cache.Contains(url));
  const auto hit = cache.OpenUrl(url, 0, {});
  ASSERT_NE(hit, nullptr);
  hit->RSeek(300000, qv::io::StreamPosition::Begin);
  EXPECT_EQ(ReadAll(*hit), body.substr(300000));
  clock.Advance(3600 * 24 * 365);
  EXPECT_TRUE(Same(Read(cache.OpenUrl(url, 0, {})), body));

  TqUFileInfo info;
  ASSERT_TRUE(protocol_->GetFileInfo(url.c_str(), &info));
  EXPECT_EQ(info.GetFileSize(), body.size());
  const std::optional<std::string> tag = qv::net::HttpReadStream::Open(url, 0, {})->ETag();
  ASSERT_TRUE(tag.has_value());
  EXPECT_EQ(info.GetFileRevisionId(), W(*tag));
  OpenedFile file(protocol_, https_url);
  ASSERT_TRUE(file.ok());
  std::string range(70000, '\0');
  std::uint64_t total = 0;
  EXPECT_EQ(file.Read(200000, range.size(), reinterpret_cast<unsigned char*>(range.data()), &total),
            static_cast<std::int64_t>(range.size()));
  EXPECT_TRUE(Same(range, body.substr(200000, range.size())));
  EXPECT_EQ(total, body.size());
  RecordedProgress progress;
  EXPECT_TRUE(protocol_->GetFile(url.c_str(), copy.wstring().c_str(), &progress));
  EXPECT_TRUE(Same(ReadFileBytes(copy), body));
  EXPECT_FALSE(progress.values.empty());
  EXPECT_TRUE(LinesBeyondWine(log_).empty());
}

}  // namespace
}  // namespace tq::test
