#include "net/http/wininet_api.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/scripted_server.h"

namespace qv::net {
namespace {

const wchar_t* kAcceptAll[] = {L"*/*", nullptr};

class WinInetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_internet = m_api.OpenInternet(L"Torvik-Quillstone/23.1");
    ASSERT_NE(m_internet, nullptr);
  }
  void TearDown() override {
    if (m_request) m_api.CloseHandle(m_request);
    if (m_connection) m_api.CloseHandle(m_connection);
    m_api.CloseHandle(m_internet);
    TqPlatformClearFaults();
  }
  bool Send(const std::string& url) {
    TqUURL parsed(qv::Utf8ToWide(url).c_str(), false);
    m_connection = m_api.Connect(m_internet, parsed);
    if (m_connection == nullptr) return false;
    HttpRequest request(parsed, HttpMethod::Get);
    request.AddHeader(L"X-Test", L"yes");
    bool sent = false;
    m_request = m_api.SendRequest(m_connection, request, kAcceptAll, sent);
    return m_request != nullptr && sent;
  }

  tq::test::ScriptedServer m_server;  // destroyed after TearDown has closed the handles
  WinInet m_api;
  void* m_internet = nullptr;
  void* m_connection = nullptr;
  void* m_request = nullptr;
};

TEST_F(WinInetTest, RoundTripSendsHeadersAndQueriesGrowTheirBuffer) {
  m_server.Route("/file", tq::test::ScriptedResponse(200, "hello world")
                              .Header("X-Short", "1234567")
                              .Header("ETag", "\"a-much-longer-tag-than-seven\"")
                              .Header("Date", "Sun, 06 Nov 1994 08:49:37 GMT"));
  ASSERT_TRUE(Send(m_server.Url("/file?x=1")));
  EXPECT_EQ(m_api.QueryStatusCode(m_request), 200u);
  // At most 7 characters fit the first 16-byte buffer; longer grows it. The text ends without
  // the terminator.
  EXPECT_EQ(m_api.QueryHeader(m_request, std::wstring(L"X-Short"), nullptr),
            std::wstring(L"1234567"));
  EXPECT_EQ(m_api.QueryHeader(m_request, HttpHeader::ETag, nullptr),
            std::wstring(L"\"a-much-longer-tag-than-seven\""));
  EXPECT_EQ(m_api.QueryHeaderNumeric(m_request, HttpHeader::ContentLength, nullptr), 11u);
  // A date by name: the first buffer holds only the name, WinINet asks for more.
  EXPECT_EQ(m_api.QueryHeaderDateTime(m_request, std::wstring(L"Date"), nullptr), 784111777);
  EXPECT_FALSE(m_api.QueryHeader(m_request, std::wstring(L"X-Absent"), nullptr).has_value());
  char body[64];
  std::uint32_t read = 0, total = 0;
  do {
    ASSERT_TRUE(m_api.Read(m_request, body + total, 64 - total, read));
    total += read;
  } while (read != 0);
  EXPECT_EQ(std::string(body, total), "hello world");

  const tq::test::RecordedRequest seen = m_server.requests().at(0);
  EXPECT_EQ(seen.query, "x=1");
  EXPECT_EQ(seen.Header("X-Test"), "yes");
  EXPECT_EQ(seen.Header("User-Agent"), "Torvik-Quillstone/23.1");
}

TEST_F(WinInetTest, FailedConnectLogsHostAndCode) {
  tq::test::LogCapture log;
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", 12029, 1, 0));
  EXPECT_FALSE(Send("http://unreachable.example:81/"));
  EXPECT_EQ(log.Text(), "WinInet: InternetConnect(unreachable.example) failed with code 12029\n");
}

}  // namespace
}  // namespace qv::net
