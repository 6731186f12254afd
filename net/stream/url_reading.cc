#include "net/stream/url_reading.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "net/stream/read_stream.h"
#include "net/stream/stream_copy.h"

namespace qv::net {
namespace {

// One line: prefix, URL, ": ", the exception's text ("Unknown exception" when it has none), "\n".
void LogUrlFailure(const char* prefix, const std::wstring& url, const std::exception& e) {
  const char* text = e.what();
  TqUSysError::LogUTF8String(prefix);
  TqUError::LogWideString(url.c_str());
  TqUSysError::LogUTF8String(": ");
  TqUSysError::LogUTF8String((text == nullptr || *text == '\0') ? "Unknown exception" : text);
  TqUSysError::LogUTF8String("\n");
}

}  // namespace

bool IsHttpUrl(std::wstring_view url) {
  if (url.size() >= 6 && url.substr(0, 6) == L"https:") return true;
  if (url.size() < 5) return false;
  return url.substr(0, 5) == L"http:";
}

std::unique_ptr<qv::io::IDataReadStream> OpenUrlReadStream(std::wstring_view url,
                                                           qv::stop_token stop) {
  const std::wstring text(url);
  try {
    if (IsHttpUrl(text)) return HttpReadStream::Open(text, 0, std::move(stop));
    // Handed on as a C string, the URL would end at a NUL inside it: another file's URL.
    if (text.find(L'\0') != std::wstring::npos) return nullptr;
    return TqUFileURL::OpenURLReadStream(text.c_str(), std::move(stop));
  } catch (const std::runtime_error& e) {
    LogUrlFailure("Failed to open stream for URL: ", text, e);
    return nullptr;
  }
}

std::unique_ptr<qv::io::MemoryStream> ReadUrlIntoMemory(std::wstring_view url,
                                                        qv::stop_token stop) {
  const std::wstring text(url);
  try {
    std::unique_ptr<qv::io::IDataReadStream> source = OpenUrlReadStream(text, stop);
    if (!source) return nullptr;
    // A hint only: an 8 GiB claim for a 10 KiB body must not take 8 GiB of address space.
    const std::uint64_t reserve =
        std::min(source->MetaData().size.value_or(0), kMostReservedUpFront);
    auto memory = std::make_unique<qv::io::MemoryStream>(static_cast<std::size_t>(reserve));
    const CopyStreamResult copied = CopyStream(*source, *memory, std::move(stop));
    source.reset();
    if (!copied.completed) return nullptr;
    memory->RSeek(0, qv::io::StreamPosition::Begin);
    return memory;
  } catch (const std::exception& e) {
    LogUrlFailure("Failed to read URL: ", text, e);
    return nullptr;
  }
}

}  // namespace qv::net
