#include "net/cache/stale_serving.h"

#include <string>
#include <utility>

namespace qv::net::detail {

bool ForbidsStaleServing(std::wstring_view cache_control) {
  TqUWideStringTokeniser tokens(cache_control, L",");
  TqUWideStringBuffer token;
  while (tokens.GetNextToken(&token)) {
    token.Trim();
    if (token.View() == L"must-revalidate" || token.View() == L"no-cache") return true;
  }
  return false;
}

bool IsServerFailure(int status) {
  return status == 0 || status == 500 || status == 502 || status == 503 || status == 504;
}

void LogServingStale(const std::wstring& url, std::string_view reason) {
  TqUSysError::LogUTF8String("Serving stale entry for ");
  TqUError::LogWideString(url.c_str());
  TqUSysError::LogUTF8String(": ");
  const std::string text(reason);
  TqUSysError::LogUTF8String(text.c_str());
  TqUSysError::LogUTF8String("\n");
}

std::uint64_t ClosingAtEndStream::Read(void* buffer, std::uint64_t size) {
  if (!m_source) return 0;
  const std::uint64_t n = m_source->Read(buffer, size);
  if (n == 0) m_source.reset();
  return n;
}

qv::io::StreamMetaData ClosingAtEndStream::MetaData() {
  return m_source ? m_source->MetaData() : qv::io::StreamMetaData{};
}

}  // namespace qv::net::detail
