#include "net/http/wininet_api.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/fault_injection.h"
#include "tests/support/log_capture.h"
#include "tests/support/servers/raw_responder.h"
#include "tests/support/servers/scripted_server.h"
#include "tests/support/servers/temp_dir.h"
#include "tests/support/servers/tls_files.h"

namespace qv::net {
namespace {

const wchar_t* kAcceptAll[] = {L"*/*", nullptr};

// One request through the backend, with its handles closed at the end of the test.
class WinInetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_internet = m_api.OpenInternet(L"Torvik-Quillstone/23.1");
    ASSERT_NE(m_internet, nullptr);
  }
  void TearDown() override {
    CloseRequest();
    m_api.CloseHandle(m_internet);
    TqPlatformClearFaults();
  }
  // Closes the request and connection first, so that servers see the connection go at once.
  void CloseRequest() {
    if (m_request) m_api.CloseHandle(m_request);
    if (m_connection) m_api.CloseHandle(m_connection);
    m_request = m_connection = nullptr;
  }
  // Sends GET `url` with `headers`; the request handle stays in m_request.
  bool Send(const std::string& url, const wchar_t* header_name = nullptr,
            const wchar_t* header_value = nullptr) {
    const std::wstring wide = qv::Utf8ToWide(url);
    TqUURL parsed(wide.c_str(), false);
    m_connection = m_api.Connect(m_internet, parsed);
    if (m_connection == nullptr) return false;
    HttpRequest request(parsed, HttpMethod::Get);
    if (header_name) request.AddHeader(header_name, header_value);
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

TEST_F(WinInetTest, RoundTripSendsHeadersAndReadsStatusAndBody) {
  m_server.Route("/file", tq::test::ScriptedResponse(200, "hello world"));
  ASSERT_TRUE(Send(m_server.Url("/file?x=1"), L"X-Test", L"yes"));
  EXPECT_EQ(m_api.QueryStatusCode(m_request), 200u);
  EXPECT_FALSE(m_api.QueryHeader(m_request, HttpHeader::ETag, nullptr).has_value());
  std::string body(64, '\0');
  std::uint32_t read = 0, total = 0;
  do {
    ASSERT_TRUE(m_api.Read(m_request, body.data() + total, 64 - total, read));
    total += read;
  } while (read != 0);
  EXPECT_EQ(body.substr(0, total), "hello world");

  const auto requests = m_server.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, "/file");
  EXPECT_EQ(requests[0].query, "x=1");
  EXPECT_EQ(requests[0].Header("X-Test"), "yes");
  EXPECT_EQ(requests[0].Header("User-Agent"), "Torvik-Quillstone/23.1");
}

TEST_F(WinInetTest, HeaderQueriesKeepTheTerminatorAndGrowTheirBuffer) {
  m_server.Route("/h", tq::test::ScriptedResponse(200, std::string(1234, 'x'))
                           .Header("X-Short", "1234567")
                           .Header("ETag", "\"a-much-longer-tag-than-seven\"")
                           .Header("Retry-After", "30")
                           .Header("Date", "Sun, 06 Nov 1994 08:49:37 GMT"));
  ASSERT_TRUE(Send(m_server.Url("/h")));

  // At most 7 characters fit the first 16-byte buffer; the text keeps its NUL.
  EXPECT_EQ(m_api.QueryHeader(m_request, std::wstring(L"X-Short"), nullptr),
            std::wstring(L"1234567\0", 8));
  // Longer: the buffer grows to the reported size; the NUL is still the last code unit.
  const std::wstring tag(L"\"a-much-longer-tag-than-seven\"");
  EXPECT_EQ(m_api.QueryHeader(m_request, HttpHeader::ETag, nullptr), tag + L'\0');
  EXPECT_EQ(m_api.QueryHeaderNumeric(m_request, HttpHeader::ContentLength, nullptr), 1234u);
  EXPECT_EQ(m_api.QueryHeaderNumeric(m_request, HttpHeader::RetryAfter, nullptr), 30u);
  EXPECT_EQ(m_api.QueryHeaderNumeric(m_request, std::wstring(L"Retry-After"), nullptr), 30u);
  // A date by name: the first buffer holds only the name, WinINet asks for more.
  EXPECT_EQ(m_api.QueryHeaderDateTime(m_request, std::wstring(L"Date"), nullptr), 784111777);
  const auto raw = m_api.QueryHeader(m_request, HttpHeader::RawHeaders, nullptr);
  ASSERT_TRUE(raw.has_value());
  EXPECT_EQ(raw->rfind(L"HTTP/1.1 200", 0), 0u);
  EXPECT_NE(raw->find(L"X-Short: 1234567\r\n"), std::wstring::npos);

  EXPECT_FALSE(m_api.QueryHeader(m_request, std::wstring(L"X-Absent"), nullptr).has_value());
  EXPECT_FALSE(m_api.QueryHeaderNumeric(m_request, std::wstring(L"X-Absent"), nullptr));
  EXPECT_FALSE(m_api.QueryHeaderDateTime(m_request, std::wstring(L"X-Short"), nullptr));
}

TEST_F(WinInetTest, QueriesOnBadHandlesReportNothing) {
  EXPECT_EQ(m_api.QueryStatusCode(nullptr), 0u);
  EXPECT_FALSE(m_api.QueryHeader(nullptr, HttpHeader::ETag, nullptr).has_value());
  std::uint32_t read = 7;
  char byte;
  EXPECT_FALSE(m_api.Read(nullptr, &byte, 1, read));
  EXPECT_FALSE(m_api.CloseHandle(nullptr));
}

TEST_F(WinInetTest, FailedConnectLogsHostAndCode) {
  tq::test::LogCapture log;
  ASSERT_TRUE(TqPlatformInjectFault("InternetConnectW", 12029, 1, 0));
  TqUURL url(L"http://unreachable.example:81/", false);
  EXPECT_EQ(m_api.Connect(m_internet, url), nullptr);
  EXPECT_EQ(log.Text(), "WinInet: InternetConnect(unreachable.example) failed with code 12029\n");
}

TEST_F(WinInetTest, FailedMaxConnectionsOptionIsLoggedButTheConnectionKept) {
  tq::test::LogCapture log;
  ASSERT_TRUE(TqPlatformInjectFault("InternetSetOptionW", 12018, 1, 0));
  TqUURL url(L"http://127.0.0.1:1/", false);
  m_connection = m_api.Connect(m_internet, url);
  EXPECT_NE(m_connection, nullptr);
  EXPECT_EQ(log.Text(),
            "WinInet: InternetSetOption(INTERNET_OPTION_MAX_CONNS_PER_SERVER, 4) failed with code "
            "12018\n");
}

TEST_F(WinInetTest, FailedSendStillHandsBackTheRequest) {
  tq::test::RawResponder responder([](tq::test::RawConnection& c) { c.Reset(); });
  TqUURL url(qv::Utf8ToWide(responder.Url("/x")).c_str(), false);
  m_connection = m_api.Connect(m_internet, url);
  ASSERT_NE(m_connection, nullptr);
  HttpRequest request(url, HttpMethod::Get);
  bool sent = true;
  m_request = m_api.SendRequest(m_connection, request, kAcceptAll, sent);
  EXPECT_NE(m_request, nullptr);
  EXPECT_FALSE(sent);
  EXPECT_EQ(m_api.QueryStatusCode(m_request), 0u);
}

TEST_F(WinInetTest, HttpsIsVerifiedAndWorksWithATrustedCertificate) {
  tq::test::TempDir dir;
  tq::test::TlsFiles tls;
  ASSERT_TRUE(tq::test::MakeSelfSignedCert(dir.path(), "127.0.0.1", &tls));
  tq::test::ScriptedServer server({.cert_file = tls.cert.string(), .key_file = tls.key.string()});
  ASSERT_TRUE(server.ok());
  server.Route("/secure", tq::test::ScriptedResponse(200, "secret"));

  // Self-signed and not trusted: the send fails.
  EXPECT_FALSE(Send(server.Url("/secure")));
  CloseRequest();

  ASSERT_TRUE(TqPlatformSetCaFile(tls.cert.string().c_str()));
  const bool sent = Send(server.Url("/secure"));
  TqPlatformSetCaFile(nullptr);
  ASSERT_TRUE(sent);
  EXPECT_EQ(m_api.QueryStatusCode(m_request), 200u);
  CloseRequest();
}

}  // namespace
}  // namespace qv::net
