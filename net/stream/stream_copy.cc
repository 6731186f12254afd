#include "net/stream/stream_copy.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace qv::net {
namespace {

// The log takes NUL-terminated pieces; an exception without text is named as such.
const char* ExceptionText(const std::exception& e) {
  const char* text = e.what();
  return (text == nullptr || *text == '\0') ? "Unknown exception" : text;
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

}  // namespace

CopyStreamResult CopyStream(qv::io::IDataReadStream& source, qv::io::IDataWriteStream& target,
                            qv::stop_token stop) {
  CopyBuffer buffer;
  CopyStreamResult result;
  try {
    for (;;) {
      const std::uint64_t n = source.Read(buffer.get(), kCopyChunkSize);
      if (n != 0) {
        buffer.Used(n);
        result.bytes_copied += n;
        target.Write(buffer.get(), n);
      }
      // Looked at only between chunks, so a stop never cuts a chunk in half.
      if (stop.stop_requested()) {
        buffer.GiveBack();
        return result;
      }
      if (n == 0) {
        buffer.GiveBack();
        result.completed = true;
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

}  // namespace qv::net
