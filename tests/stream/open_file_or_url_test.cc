#include "net/stream/open_file_or_url.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "net/stream/thread_pool.h"
#include "tests/support/fake_transport_fixture.h"

namespace {

using qv::net::OpenFileOrUrlAsync;
using tq::test::FakeResponse;

std::string ReadAll(qv::io::IDataReadStream& stream) {
  std::string text;
  char buffer[32];
  while (const std::uint64_t n = stream.Read(buffer, sizeof buffer)) text.append(buffer, n);
  return text;
}

class OpenFileOrUrlAsyncTest : public tq::test::FakeTransportTest {
 protected:
  void TearDown() override {
    // The pool first: no task may outlive the transport it uses.
    qv::net::ExchangeWorkerThreadPool(nullptr).reset();
    FakeTransportTest::TearDown();
  }
  qv::net::thread_pool* InstallPool(std::uint32_t threads) {
    qv::net::ExchangeWorkerThreadPool(std::make_unique<qv::net::thread_pool>(threads));
    return qv::net::WorkerThreadPool();
  }
};

TEST_F(OpenFileOrUrlAsyncTest, LocalFilesAreReadyAtOnceAndUrlsWithoutAPoolAreABrokenPromise) {
  auto no_pool = OpenFileOrUrlAsync(L"http://example.test/x", 0, {});
  try {
    no_pool.get();
    ADD_FAILURE() << "a URL was opened without a pool";
  } catch (const std::future_error& e) {
    EXPECT_EQ(e.code(), std::make_error_code(std::future_errc::broken_promise));
  }
  EXPECT_TRUE(m_api.Calls().empty());

  // A local file never waits behind network work, even with the only worker busy.
  const auto file = std::filesystem::temp_directory_path() / "tq_open_file_or_url_async.txt";
  std::ofstream(file, std::ios::binary) << "local file body";
  std::promise<void> release;
  auto busy = InstallPool(1)->submit([gate = release.get_future().share()] { gate.wait(); });
  auto future = OpenFileOrUrlAsync(file.wstring(), 0, {});
  ASSERT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  auto stream = future.get();
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadAll(*stream), "local file body");
  release.set_value();
  busy.get();
  std::filesystem::remove(file);
}

TEST_F(OpenFileOrUrlAsyncTest, UrlsRunOnTheWorkersAndSeeAStopMadeWhileQueued) {
  qv::net::thread_pool* pool = InstallPool(4);
  m_api.SetResponder([](const tq::test::SentRequest& sent) {
    const std::string body = "body of " + qv::WideToUtf8(sent.resource);
    FakeResponse response;
    response.Header(L"Content-Length", std::to_wstring(body.size())).Body(body);
    return response;
  });
  std::vector<std::future<std::unique_ptr<qv::io::IDataSeekableReadStream>>> futures;
  for (int i = 0; i < 32; ++i) {
    futures.push_back(OpenFileOrUrlAsync(L"http://example.test/f" + std::to_wstring(i), 0, {}));
  }
  for (int i = 0; i < 32; ++i) {
    auto stream = futures[i].get();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(ReadAll(*stream), "body of /f" + std::to_string(i));
  }
  EXPECT_EQ(m_api.CountCalls("Connect"), 1) << "one pooled connection for the server";

  // Every worker is held; the stop comes before one picks the task up.
  std::promise<void> release;
  std::shared_future<void> gate = release.get_future().share();
  std::vector<std::future<void>> held;
  for (int i = 0; i < 4; ++i) held.push_back(pool->submit([gate] { gate.wait(); }));
  qv::stop_source stop;
  auto stopped = OpenFileOrUrlAsync(L"http://example.test/stopped", 0, stop.get_token());
  stop.request_stop();
  release.set_value();
  for (auto& task : held) task.get();
  EXPECT_EQ(stopped.get(), nullptr);
  EXPECT_EQ(m_api.CountCalls("Send"), 32) << "the stopped task sent nothing";
}

}  // namespace
