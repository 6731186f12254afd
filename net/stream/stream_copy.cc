#include "net/stream/stream_copy.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "net/stream/chunk_writer.h"
#include "net/stream/read_stream.h"

namespace qv::net {
namespace {

// The log takes NUL-terminated pieces; an exception without text is named as such.
const char* ExceptionText(const std::exception& e) {
  const char* text = e.what();
  return (text == nullptr || *text == '\0') ? "Unknown exception" : text;
}

// One line: prefix, URL, ": ", the exception's text, "\n".
void LogUrlFailure(const char* prefix, const std::wstring& url, const std::exception& e) {
  TqUSysError::LogUTF8String(prefix);
  TqUError::LogWideString(url.c_str());
  TqUSysError::LogUTF8String(": ");
  TqUSysError::LogUTF8String(ExceptionText(e));
  TqUSysError::LogUTF8String("\n");
}

// The 8 MiB buffer of one copy, zero when the copy starts. A thread keeps the buffer of its last
// copy for the next one, cleared: the worker pool copies one small body after another, and a
// fresh mapping each time costs its page faults and its unmapping, several times the copy
// itself. A buffer that may hold bytes the copy did not account for (a read or write threw) is
// released instead of kept.
class CopyBuffer {
 public:
  CopyBuffer() : m_memory(std::move(Kept())) {
    if (!m_memory) m_memory = qv::AllocateZeroed(kCopyChunkSize);
  }
  CopyBuffer(const CopyBuffer&) = delete;
  CopyBuffer& operator=(const CopyBuffer&) = delete;

  std::uint8_t* get() const { return m_memory.get(); }
  // A read placed `n` bytes at the start of the buffer.
  void Used(std::uint64_t n) { m_used = std::max(m_used, static_cast<std::size_t>(n)); }
  // The copy ended without an exception: the buffer is cleared and kept for the thread's next
  // copy (a copy nested in this one may have kept its own meanwhile; one is enough).
  void GiveBack() noexcept {
    qv::ZeroedMemory& kept = Kept();
    if (kept) return;
    qv::RezeroMemory(m_memory, m_used);
    kept = std::move(m_memory);
  }

 private:
  // The thread's kept buffer. Not a thread_local member: MinGW frees emulated thread-local
  // storage before such destructors run, so the buffer would be freed through freed memory.
  struct KeptBuffer {
    qv::ZeroedMemory memory;
  };
  static qv::ZeroedMemory& Kept() { return qv::PerThread<KeptBuffer>().memory; }

  qv::ZeroedMemory m_memory;
  std::size_t m_used = 0;
};

// Starts the writer of an overlapped copy and its second buffer; leaves both empty (the copy
// goes on writing on its own thread) when either cannot be had.
void StartWriter(qv::io::IDataWriteStream& target, qv::ZeroedMemory& second,
                 std::optional<detail::ChunkWriter>& writer) {
  second = qv::AllocateZeroed(kCopyChunkSize);
  if (!second) return;
  try {
    writer.emplace(target);
  } catch (const std::system_error&) {
    second = {};
  }
}

}  // namespace

bool IsHttpUrl(std::wstring_view url) {
  if (url.size() >= 6 && url.substr(0, 6) == L"https:") return true;
  if (url.size() < 5) return false;
  return url.substr(0, 5) == L"http:";
}

CopyStreamResult CopyStream(qv::io::IDataReadStream& source, qv::io::IDataWriteStream& target,
                            qv::stop_token stop) {
  CopyBuffer buffer;
  CopyStreamResult result;
  // Into a file, once a second chunk shows that the body takes more than one read, each read
  // overlaps the write of the chunk before it (a writer thread and a second buffer; the memory
  // stays two chunks). Smaller copies, and copies into memory, stay on this thread.
  const bool overlap = dynamic_cast<qv::io::FileWriteStream*>(&target) != nullptr;
  qv::ZeroedMemory second;
  std::optional<detail::ChunkWriter> writer;  // after the buffers: ends before they go
  std::uint8_t* next = buffer.get();
  try {
    for (;;) {
      const std::uint64_t n = source.Read(next, kCopyChunkSize);
      if (n != 0) {
        if (next == buffer.get()) buffer.Used(n);
        result.bytes_copied += n;
        if (!writer && overlap && result.bytes_copied != n) StartWriter(target, second, writer);
        if (writer) {
          writer->Write(next, n);
          next = next == buffer.get() ? second.get() : buffer.get();
        } else {
          target.Write(next, n);
        }
      }
      // Looked at only between chunks, so a stop never cuts a chunk in half.
      const bool stopped = stop.stop_requested();
      if (stopped || n == 0) {
        if (writer) writer->Finish();
        buffer.GiveBack();
        result.completed = !stopped;
        return result;
      }
    }
  } catch (const std::runtime_error& e) {
    TqUSysError::LogUTF8String("Failed to read or write stream in CopyStream: ");
    TqUSysError::LogUTF8String(ExceptionText(e));
    TqUSysError::LogUTF8String("\n");
    result.completed = false;
    return result;
  }
}

std::unique_ptr<qv::io::IDataReadStream> OpenUrlReadStream(std::wstring_view url,
                                                           qv::stop_token stop) {
  const std::wstring text(url);
  try {
    if (IsHttpUrl(text)) return HttpReadStream::Open(text, 0, std::move(stop));
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
