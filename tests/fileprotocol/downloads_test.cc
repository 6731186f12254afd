#include "net/fileprotocol/downloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "platform/urlmon_internal.h"
#include "tests/fileprotocol/protocol_fixture.h"
#include "tests/support/servers/gate.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using qv::net::MyBindStatusCallback;

class RecordingProgress : public TqUProgress {
 public:
  bool SetProgress(double fraction) override {
    std::lock_guard lock(mutex_);
    fractions_.push_back(fraction);
    return true;
  }
  std::vector<double> Fractions() const {
    std::lock_guard lock(mutex_);
    return fractions_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<double> fractions_;
};

class CountingBinding : public IBinding {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs); }
  ULONG STDMETHODCALLTYPE Release() override { return static_cast<ULONG>(--refs); }
  HRESULT STDMETHODCALLTYPE Abort() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Suspend() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Resume() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE SetPriority(LONG) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetPriority(LONG*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetBindResult(CLSID*, DWORD*, LPOLESTR*, DWORD*) override {
    return S_OK;
  }
  int refs = 1;
};

std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string Bytes(std::size_t n) {
  std::string s(n, '\0');
  for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
  return s;
}

TEST(MyBindStatusCallbackTest, ReportsStartProgressAndStopAndCountsNothing) {
  RecordingProgress progress;
  MyBindStatusCallback callback(&progress);
  CountingBinding binding;

  void* object = &binding;
  EXPECT_EQ(callback.QueryInterface(IID_IBinding, &object), E_NOINTERFACE);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(callback.QueryInterface(IID_IBindStatusCallback, &object), S_OK);
  EXPECT_EQ(object, static_cast<IBindStatusCallback*>(&callback));
  EXPECT_EQ(callback.QueryInterface(IID_IUnknown, &object), S_OK);
  EXPECT_EQ(callback.AddRef(), 0u);
  EXPECT_EQ(callback.Release(), 0u);
  LONG priority = 5;
  EXPECT_EQ(callback.GetPriority(&priority), E_NOTIMPL);
  EXPECT_EQ(callback.OnLowResource(0), S_OK);
  EXPECT_EQ(callback.GetBindInfo(nullptr, nullptr), S_OK);
  EXPECT_EQ(callback.OnDataAvailable(0, 0, nullptr, nullptr), S_OK);
  EXPECT_EQ(callback.OnObjectAvailable(IID_IUnknown, nullptr), S_OK);

  EXPECT_EQ(callback.OnStartBinding(0, &binding), S_OK);
  EXPECT_EQ(binding.refs, 2);
  EXPECT_EQ(callback.Binding(), &binding);
  EXPECT_EQ(callback.OnProgress(50, 200, BINDSTATUS_DOWNLOADINGDATA, nullptr), S_OK);
  EXPECT_EQ(callback.OnProgress(7, 0, BINDSTATUS_DOWNLOADINGDATA, nullptr), S_OK);
  EXPECT_EQ(callback.OnProgress(0xFFFFFFFFu, 0xFFFFFFFFu, BINDSTATUS_DOWNLOADINGDATA, nullptr),
            S_OK);
  EXPECT_EQ(callback.OnStopBinding(E_FAIL, L"failed"), S_OK);
  EXPECT_EQ(binding.refs, 1);
  EXPECT_EQ(callback.Binding(), nullptr);
  EXPECT_THAT(progress.Fractions(), ElementsAre(0.0, 0.25, 0.0, 1.0, 1.0));

  // Without a progress object nothing is reported, and nothing breaks.
  MyBindStatusCallback silent(nullptr);
  EXPECT_EQ(silent.OnStartBinding(0, &binding), S_OK);
  EXPECT_EQ(silent.OnProgress(1, 2, BINDSTATUS_DOWNLOADINGDATA, nullptr), S_OK);
  EXPECT_EQ(silent.OnStopBinding(S_OK, nullptr), S_OK);
  EXPECT_EQ(binding.refs, 1);
}

class DownloadTest : public ProtocolTest {
 protected:
  void SetUp() override {
    ProtocolTest::SetUp();
    ASSERT_TRUE(server_.ok());
    const char* old = std::getenv("XDG_CACHE_HOME");
    old_cache_home_ = old ? old : "";
    had_cache_home_ = old != nullptr;
    setenv("XDG_CACHE_HOME", (dir_.path() / "cache").c_str(), 1);
  }
  void TearDown() override {
    if (had_cache_home_) {
      setenv("XDG_CACHE_HOME", old_cache_home_.c_str(), 1);
    } else {
      unsetenv("XDG_CACHE_HOME");
    }
    ProtocolTest::TearDown();
  }
  std::vector<std::string> DirEntries(const std::filesystem::path& dir) const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
      names.push_back(e.path().filename().string());
    }
    return names;
  }

  ScriptedServer server_;
  TempDir dir_;
  std::string old_cache_home_;
  bool had_cache_home_ = false;
};

TEST_F(DownloadTest, GetFileWritesTheBodyAndReportsRisingProgress) {
  const std::string body = Bytes(3 << 20);
  server_.Route("/file.bin", ScriptedResponse(200, body));
  const auto target = dir_.path() / "out.bin";
  RecordingProgress progress;
  ASSERT_TRUE(protocol_->GetFile(W(server_.Url("/file.bin")).c_str(),
                                 W(target.string()).c_str(), &progress));
  EXPECT_EQ(ReadAll(target), body);
  EXPECT_THAT(DirEntries(dir_.path()), ElementsAre("out.bin"));  // no temporary left
  const auto fractions = progress.Fractions();
  ASSERT_GE(fractions.size(), 3u);
  EXPECT_EQ(fractions.front(), 0.0);
  EXPECT_EQ(fractions.back(), 1.0);
  for (std::size_t i = 1; i < fractions.size(); ++i) EXPECT_GE(fractions[i], fractions[i - 1]);

  // A null progress object is allowed.
  ASSERT_TRUE(protocol_->GetFile(W(server_.Url("/file.bin")).c_str(),
                                 W(target.string()).c_str(), nullptr));
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(DownloadTest, BodyWithoutLengthReportsZeroUntilTheEnd) {
  server_.Route("/chunked", ScriptedResponse(200, Bytes(10000)).Chunked(1000));
  RecordingProgress progress;
  const auto target = dir_.path() / "c.bin";
  ASSERT_TRUE(protocol_->GetFile(W(server_.Url("/chunked")).c_str(), W(target.string()).c_str(),
                                 &progress));
  const auto fractions = progress.Fractions();
  ASSERT_GE(fractions.size(), 2u);
  for (std::size_t i = 0; i + 1 < fractions.size(); ++i) EXPECT_EQ(fractions[i], 0.0);
  EXPECT_EQ(fractions.back(), 1.0);
  EXPECT_EQ(ReadAll(target), Bytes(10000));
}

TEST_F(DownloadTest, FailuresLeaveNothingBehindAndKeepAnExistingFile) {
  const auto target = dir_.path() / "keep.txt";
  dir_.WriteFile("keep.txt", "old contents");
  RecordingProgress progress;
  // An error page is a failure and is not saved over the existing file.
  server_.Route("/gone", ScriptedResponse(404, "not here"));
  EXPECT_FALSE(protocol_->GetFile(W(server_.Url("/gone")).c_str(), W(target.string()).c_str(),
                                  &progress));
  EXPECT_EQ(ReadAll(target), "old contents");
  // No byte was taken: nothing above 0.0 until the 1.0 that ends every download, failed or not.
  const auto fractions = progress.Fractions();
  ASSERT_GE(fractions.size(), 2u);
  EXPECT_EQ(fractions.back(), 1.0);
  for (std::size_t i = 0; i + 1 < fractions.size(); ++i) EXPECT_EQ(fractions[i], 0.0);

  // A server that closes half-way through the body.
  RawResponder cut([](RawConnection& c) {
    c.ReadRequestHead();
    c.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(100, 'x'));
    c.Close();
  });
  EXPECT_FALSE(protocol_->GetFile(W(cut.Url("/f")).c_str(), W(target.string()).c_str(), nullptr));
  EXPECT_EQ(ReadAll(target), "old contents");
  EXPECT_THAT(DirEntries(dir_.path()), ElementsAre("keep.txt"));

  // A directory that does not exist, an invalid URL, a scheme that is not HTTP.
  server_.Route("/ok", ScriptedResponse(200, "fine"));
  const auto missing = dir_.path() / "no" / "such" / "dir" / "f.txt";
  EXPECT_FALSE(protocol_->GetFile(W(server_.Url("/ok")).c_str(), W(missing.string()).c_str(),
                                  nullptr));
  EXPECT_FALSE(protocol_->GetFile(L"not a url", W(target.string()).c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(L"ftp://127.0.0.1/f", W(target.string()).c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(nullptr, W(target.string()).c_str(), nullptr));
  EXPECT_FALSE(protocol_->GetFile(W(server_.Url("/ok")).c_str(), nullptr, nullptr));
  EXPECT_EQ(ReadAll(target), "old contents");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(DownloadTest, GetFileToCacheGivesThePathOfTheCopy) {
  server_.Route("/dir/report.pdf", ScriptedResponse(200, "pdf bytes"));
  TqUWideStringBuffer path(L"unchanged");
  RecordingProgress progress;
  ASSERT_TRUE(protocol_->GetFileToCache(W(server_.Url("/dir/report.pdf?v=1")).c_str(), &progress,
                                        &path));
  const std::filesystem::path cached(qv::WideToUtf8(path.View()));
  EXPECT_EQ(cached.parent_path(), dir_.path() / "cache" / "tqnetwork" / "downloads");
  EXPECT_EQ(cached.filename().string().substr(16), "-report.pdf");
  EXPECT_EQ(ReadAll(cached), "pdf bytes");
  EXPECT_EQ(progress.Fractions().back(), 1.0);

  // The same URL lands on the same file again.
  server_.Route("/dir/report.pdf", ScriptedResponse(200, "new bytes"));
  TqUWideStringBuffer again;
  ASSERT_TRUE(protocol_->GetFileToCache(W(server_.Url("/dir/report.pdf?v=1")).c_str(), nullptr,
                                        &again));
  EXPECT_EQ(again.View(), path.View());
  EXPECT_EQ(ReadAll(cached), "new bytes");

  // A failed download leaves the caller's path as it was.
  server_.Route("/broken", ScriptedResponse(500, "oops"));
  TqUWideStringBuffer untouched(L"unchanged");
  EXPECT_FALSE(protocol_->GetFileToCache(W(server_.Url("/broken")).c_str(), nullptr, &untouched));
  EXPECT_EQ(untouched.View(), L"unchanged");
}

}  // namespace
}  // namespace tq::test
