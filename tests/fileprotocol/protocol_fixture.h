// Shared set-up of the file protocol's tests: the registered protocol object, a capture of the
// error log, and clean-up of injected faults and hooks.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "net/fileprotocol/http_file_protocol.h"
#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/support/same_answer_server.h"

namespace tq::test {

inline std::wstring W(const std::string& text) { return qv::Utf8ToWide(text); }

// `n` bytes of a pattern that repeats only every 251 bytes.
inline std::string Bytes(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131) % 251);
  return s;
}

struct Posted {
  int severity;
  std::string text;
  bool operator==(const Posted&) const = default;
};

inline void PrintTo(const Posted& p, std::ostream* os) {
  *os << "{" << p.severity << ", \"" << p.text << "\"}";
}

// Downloads report on the calling thread.
struct RecordedProgress : TqUProgress {
  bool SetProgress(double fraction) override {
    values.push_back(fraction);
    return true;
  }
  std::vector<double> values;
};

// Every record posted so far, each from the protocol's component; then a fresh capture.
inline std::vector<Posted> TakeProtocolLog(LogCapture& log) {
  std::vector<Posted> out;
  for (const TqULogRecord& r : log.Records()) {
    EXPECT_EQ(r.component, "HttpFileProtocol") << r.text;
    out.push_back({r.severity, r.text});
  }
  log.Clear();
  return out;
}

class ProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qv::net::HttpFileProtocol::Initialise();
    protocol_ = static_cast<qv::net::HttpFileProtocol*>(
        TqUFileProtocolRegistry::Get()->Lookup(L"http"));
    ASSERT_NE(protocol_, nullptr);
  }
  void TearDown() override {
    TqPlatformClearFaults();
    qv::net::HttpFileProtocol::Terminate();
    qv::net::HttpFileProtocol::SetPreHTTPAuthenticationFunc(nullptr);
  }

  std::vector<Posted> TakeLog() { return TakeProtocolLog(log_); }

  LogCapture log_;
  qv::net::HttpFileProtocol* protocol_ = nullptr;
};

// A file opened for reading on one thread, released in reverse order.
class OpenedFile {
 public:
  OpenedFile(qv::net::HttpFileProtocol* protocol, const std::string& url)
      : protocol_(protocol), url_(W(url)) {
    file_ = protocol_->OpenFile(url_.c_str(), TqUFileProtocol::OpenRead);
    if (file_ != nullptr) thread_ = protocol_->CreateThreadHandle(file_);
  }
  ~OpenedFile() {
    protocol_->ReleaseThreadHandle(thread_);
    protocol_->CloseFile(file_);
  }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  bool ok() const { return file_ != nullptr && thread_ != nullptr; }
  std::string url_utf8() const { return qv::WideToUtf8(url_); }
  TqUFileHandle* file() const { return file_; }
  TqUThreadHandle* thread() const { return thread_; }

  // One ranged read with its own request handle.
  std::int64_t Read(std::uint64_t offset, std::uint64_t size, unsigned char* buffer,
                    std::uint64_t* total = nullptr) {
    Request request(protocol_, protocol_->SetupReadFile(file_, offset, size));
    return protocol_->ReadFileToSize(file_, thread_, request.handle, offset, size, buffer, total);
  }
  bool ReadExact(std::uint64_t offset, std::uint64_t size, unsigned char* buffer) {
    Request request(protocol_, protocol_->SetupReadFile(file_, offset, size));
    return protocol_->ReadFile(file_, thread_, request.handle, offset, size, buffer);
  }

 private:
  // Released even when a pre-request handler throws out of the read.
  struct Request {
    Request(qv::net::HttpFileProtocol* p, TqUFileRequestHandle* h) : protocol(p), handle(h) {}
    ~Request() { protocol->ReleaseRequestHandle(handle); }
    qv::net::HttpFileProtocol* protocol;
    TqUFileRequestHandle* handle;
  };

  qv::net::HttpFileProtocol* protocol_;
  std::wstring url_;
  TqUFileHandle* file_ = nullptr;
  TqUThreadHandle* thread_ = nullptr;
};

}  // namespace tq::test
