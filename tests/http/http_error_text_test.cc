#include "net/http/http_error_text.h"

#include <gtest/gtest.h>

#include <string>
#include <system_error>

#include "net/http/http_status.h"
#include "platform/urlmon.h"
#include "platform/wininet.h"

namespace qv::net {
namespace {

// The codes by their SDK names: the library's table is written in numbers.
TEST(HttpErrorTextTest, WordsForErrorCodesAndStatuses) {
  const struct {
    std::uint32_t error;
    int status;
    std::uint32_t timeout;
    const char* text;
  } cases[] = {
      {ERROR_INTERNET_CANNOT_CONNECT, 0, 60, "connection refused"},
      {ERROR_INTERNET_NAME_NOT_RESOLVED, 0, 60, "host not found"},
      {ERROR_INTERNET_TIMEOUT, 0, 60, "timed out after 60 s"},
      {ERROR_INTERNET_INVALID_CA, 0, 60, "certificate not trusted"},
      {ERROR_INTERNET_SEC_INVALID_CERT, 0, 60, "certificate not trusted"},
      {ERROR_INTERNET_SEC_CERT_ERRORS, 0, 60, "certificate not trusted"},
      {ERROR_INTERNET_SEC_CERT_CN_INVALID, 0, 60, "certificate does not match the host name"},
      {ERROR_INTERNET_SEC_CERT_DATE_INVALID, 0, 60, "certificate expired or not yet valid"},
      {ERROR_INTERNET_CONNECTION_RESET, 0, 60, "connection reset by the server"},
      {ERROR_HTTP_INVALID_SERVER_RESPONSE, 0, 60, "invalid response from the server"},
      {ERROR_INTERNET_INVALID_URL, 0, 60, "not a valid URL"},
      {ERROR_INTERNET_SECURITY_CHANNEL_ERROR, 0, 60, "secure connection failed"},
      // URL Moniker results, as a whole-file download returns them.
      {static_cast<std::uint32_t>(INET_E_CANNOT_CONNECT), 0, 60, "connection refused"},
      {static_cast<std::uint32_t>(INET_E_RESOURCE_NOT_FOUND), 0, 60, "host not found"},
      {static_cast<std::uint32_t>(INET_E_CONNECTION_TIMEOUT), 0, 30, "timed out after 30 s"},
      {static_cast<std::uint32_t>(INET_E_INVALID_CERTIFICATE), 0, 60, "certificate not trusted"},
      {static_cast<std::uint32_t>(MK_E_SYNTAX), 0, 60, "not a valid URL"},
      // An error wins over a status; an unknown code is shown, not hidden.
      {ERROR_INTERNET_CANNOT_CONNECT, 404, 60, "connection refused"},
      {12345, 0, 60, "network error 12345"},
      {0x800C0099u, 0, 60, "network error 0x800c0099"},
      // Statuses, when the exchange took place.
      {0, 404, 60, "HTTP 404 Not Found"},
      {0, 418, 60, "HTTP 418 I'm a teapot"},
      {0, 599, 60, "HTTP 599"},
      {0, 200, 60, "no error"},
      {0, 304, 60, "no error"},
      {0, 0, 60, "no response from the server"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(HttpErrorText(c.error, c.status, c.timeout), c.text)
        << "error " << c.error << ", status " << c.status;
  }
  EXPECT_EQ(HttpErrorText(ERROR_INTERNET_TIMEOUT), "timed out after 60 s");
}

// The http category's words: an enumerator's name and code, the teapot's own, "Unknown" else.
TEST(HttpCategoryTest, MessagesNameListedCodesAndNothingElse) {
  EXPECT_STREQ(HttpCategory().name(), "http");
  EXPECT_EQ(std::error_code(404, HttpCategory()).message(), "NotFound (404)");
  EXPECT_EQ(HttpCategory().message(418), "I'm A Teapot (418)");
  for (int code : {0, 306, -1, 1000}) EXPECT_EQ(HttpCategory().message(code), "Unknown") << code;
}

}  // namespace
}  // namespace qv::net
