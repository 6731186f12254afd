// The default transport: each IHttpApi operation is made of the WinINet calls that do its work
// (an open and a send; a query asked again with a larger buffer), with fixed flags. Its only
// state is the count of body bytes read on each request it sent; every handle it returns is a
// WinINet handle.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>

#include "net/export.h"
#include "net/http/http_api.h"

namespace qv::net {

/// The default transport: IHttpApi over WinINet (InternetOpenW, InternetConnectW,
/// HttpOpenRequestW, ...), installed by InitialiseHttp. Thread-safe as IHttpApi requires.
class TQNET_EXPORT WinInet : public IHttpApi {
 public:
  ~WinInet() override;

  void* OpenInternet(const wchar_t* user_agent) override;
  void* Connect(void* internet, const TqUURL& url) override;
  void* SendRequest(void* connection, const HttpRequest& request, const wchar_t** accept_types,
                    bool& sent) override;
  std::uint32_t QueryStatusCode(void* request) override;
  std::optional<std::wstring> QueryHeader(void* request, const HttpHeaderSelector& header,
                                          std::uint32_t* index) override;
  std::optional<std::uint32_t> QueryHeaderNumeric(void* request, const HttpHeaderSelector& header,
                                                  std::uint32_t* index) override;
  std::optional<std::int64_t> QueryHeaderDateTime(void* request, const HttpHeaderSelector& header,
                                                  std::uint32_t* index) override;
  bool Read(void* request, void* buffer, std::uint32_t size, std::uint32_t& bytes_read) override;
  bool CloseHandle(void* handle) override;

 private:
  // A request sent and not yet closed: whether its answer may have a body, and the bytes of it
  // read so far. A request missing here is not checked at the end of its body.
  struct Body {
    bool expected = true;
    std::uint64_t received = 0;
  };
  std::mutex m_bodies_mutex;
  std::unordered_map<void*, Body> m_bodies;
};

namespace detail {

/// The shared header query's result: text, number, or time value.
using QueryInfoResult = std::variant<std::wstring, std::uint32_t, std::int64_t>;

/// Queries `level` (with `name` as a custom header when given), growing the buffer as WinINet
/// asks. A text result ends where WinINet's reported length does: no terminator at its end.
bool QueryInfo(void* request, std::uint32_t level, const std::wstring* name,
               QueryInfoResult& result, std::uint32_t* index);

/// The WinINet level of a header selector without modifiers (0 for a name or an unknown value).
std::uint32_t HeaderLevel(const HttpHeaderSelector& header);

}  // namespace detail
}  // namespace qv::net
