// One HTTP request whose response body is read as a stream. All network work of opening happens
// in the constructor: pre-request handlers, a pooled connection, the send with bounded retries on
// 429 and 502, the status test, and the content size and entity tag.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "net/export.h"
#include "net/host/tqutil.h"
#include "net/http/http_request.h"
#include "net/http/http_status.h"

namespace qv::net {

/// Used by one thread at a time. The stop token is read only while the constructor runs; it is
/// heard within a fraction of a second even while a pause before a retry, or the send and the
/// wait for the response headers (with a transport that hands its request handle to the send's
/// stop watcher, as the WinINet backend does) block, and the stream then ends without a request.
/// Opened on a worker thread, such a send is cut the same way when the worker pool shuts down.
class TQNET_EXPORT HttpReadStream : public qv::io::IDataReadStream {
 public:
  /// Bit 0 of the URL constructor's flags: send a HEAD first to learn size and entity tag.
  static const int FlagMakeHeadRequest;

  /// GET `url` (after a HEAD with FlagMakeHeadRequest). Throws http_exception
  /// "Unable to create HTTP connection\n" when no transport is installed, the URL holds a NUL,
  /// no connection can be had, or a stop was requested by the time it was had; a later stop
  /// throws nothing.
  HttpReadStream(std::wstring_view url, int flags, qv::stop_token stop);
  /// Sends the caller's request as it is (the handlers may change it), with no HEAD first.
  /// Throws as the URL constructor does.
  HttpReadStream(HttpRequest& request, qv::stop_token stop);
  ~HttpReadStream() override;
  HttpReadStream(const HttpReadStream&) = delete;
  HttpReadStream& operator=(const HttpReadStream&) = delete;

  /// Never null: an unsuccessful request still yields a stream; only the constructor's
  /// exceptions escape.
  static std::unique_ptr<HttpReadStream> Open(std::wstring_view url, int flags,
                                              qv::stop_token stop);
  /// As the constructor of the same arguments, as a sole-owner pointer.
  static std::unique_ptr<HttpReadStream> Open(HttpRequest& request, qv::stop_token stop);

  /// Body bytes; 0 at the end or when the request did not succeed. Throws http_exception
  /// "Unable to read HTTP data\n" when the transport's read fails or counts more than asked.
  std::uint64_t Read(void* buffer, std::uint64_t size) override;
  /// ContentSize and ETag: of a 200 answer only, when it gave them.
  qv::io::StreamMetaData MetaData() override;

  /// The stream holds a request handle: false after Close, and when no request could be made or
  /// a stop ended the exchange before an answer was kept.
  bool IsOpen() const;
  /// The main request was answered with status 200 exactly, its Content-Length values (when
  /// repeated) agree, and no stop came: Read delivers the body. Any other answer (a 206 or a 304
  /// included) leaves it false.
  bool Succeeded() const;
  /// Releases the request handle now rather than with the stream. A later Read of a successful
  /// response asks the transport with no request, which fails: it throws as any failed read.
  void Close();
  /// The body size from the Content-Length of a usable 200 answer: the HEAD's when it gave one
  /// (kept whatever the GET answers after it), else the request's own. Empty when neither gave
  /// one as a number, or framed its body with a transfer coding (which overrides a
  /// Content-Length beside it); a 304's or 404's length is never taken.
  std::optional<std::uint64_t> ContentSize() const;
  /// The entity tag of a usable 200 answer in UTF-8, quotes included: the HEAD's when it gave
  /// one (kept whatever the GET answers after it), else the request's own; empty when none did
  /// (a 304's tag is never taken).
  std::optional<std::string> ETag() const;
  /// The response status (0 when none could be read).
  HttpStatus QueryStatusCode() const;
  /// A response header of the request, as IHttpApi reads it; empty when absent.
  /// @{
  std::optional<std::wstring> QueryHeader(const HttpHeaderSelector& header) const;
  std::optional<std::uint32_t> QueryHeaderNumeric(const HttpHeaderSelector& header) const;
  std::optional<std::int64_t> QueryHeaderDateTime(const HttpHeaderSelector& header) const;
  /// @}

  struct Impl;

 private:
  std::unique_ptr<Impl> m_impl;
};

namespace detail {
/// The wait between retries. Tests replace it so that no test waits through a real delay; an
/// empty function restores the real wait, which ends early when the stream's stop is requested
/// or the worker pool whose task waits shuts down. Both are looked at again once the replacement
/// returns. Not thread-safe: set while no stream is opened.
using RetrySleepFunction = std::function<void(std::chrono::milliseconds)>;
RetrySleepFunction SetRetrySleepForTesting(RetrySleepFunction sleep);
}  // namespace detail

}  // namespace qv::net
