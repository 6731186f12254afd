#include "net/stream/stream_copy.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <typeinfo>
#include <utility>
#include <vector>

#include "net/stream/chunk_writer.h"
#include "net/stream/read_stream.h"
#include "net/stream/thread_pool.h"

namespace qv::net {
namespace {

// The log takes NUL-terminated pieces; an exception without text is named as such.
const char* ExceptionText(const std::exception& e) {
  const char* text = e.what();
  return (text == nullptr || *text == '\0') ? "Unknown exception" : text;
}

// Cleared buffers of finished copies, kept for the next ones: the worker pool copies one small
// body after another, and a fresh mapping each time costs its page faults and its unmapping,
// several times the copy itself. The library keeps them, not each thread: a thread's own slot
// would be released by code of the library as the thread ends, and a host thread may end after
// the library has been unloaded. As many as the worker pool has threads; a copy finding none
// kept maps its own.
class KeptBuffers {
 public:
  qv::ZeroedMemory Take() noexcept {
    std::lock_guard lock(m_mutex);
    if (m_count == 0) return {};
    return std::move(m_buffers[--m_count]);
  }
  // Keeps `memory` (cleared) when there is room; it is released otherwise.
  void Give(qv::ZeroedMemory& memory) noexcept {
    std::lock_guard lock(m_mutex);
    if (m_count < m_buffers.size()) m_buffers[m_count++] = std::move(memory);
  }

 private:
  std::mutex m_mutex;
  std::array<qv::ZeroedMemory, kWorkerThreads> m_buffers;
  std::size_t m_count = 0;
};

// Made at load: the worker pool, made later and ended first at exit, never copies into a
// buffer list that is gone.
KeptBuffers g_kept_buffers;

// The 8 MiB buffer of one copy, zero when the copy starts. A buffer that may hold bytes the copy
// did not account for (a read or write threw) is released instead of kept.
class CopyBuffer {
 public:
  CopyBuffer() : m_memory(g_kept_buffers.Take()) {
    if (!m_memory) m_memory = qv::AllocateZeroed(kCopyChunkSize);
  }
  CopyBuffer(const CopyBuffer&) = delete;
  CopyBuffer& operator=(const CopyBuffer&) = delete;

  std::uint8_t* get() const { return m_memory.get(); }
  // A read placed `n` bytes at the start of the buffer.
  void Used(std::uint64_t n) { m_used = std::max(m_used, static_cast<std::size_t>(n)); }
  // The copy ended without an exception: the buffer is cleared and kept for a later copy.
  void GiveBack() noexcept {
    if (!qv::RezeroMemory(m_memory, m_used)) return;  // lost pages: freed, not kept
    g_kept_buffers.Give(m_memory);
  }

 private:
  qv::ZeroedMemory m_memory;
  std::size_t m_used = 0;
};

// A read counting more bytes than it was asked for has not placed them all in the buffer given
// (past it would be past the copy's memory): a broken source, not a body.
void CheckReadCount(std::uint64_t n, std::uint64_t asked) {
  if (n > asked) throw std::runtime_error("a read returned more bytes than were asked for");
}

// What a copy into a file reads at a time: small enough to stay in the processor's cache
// between the read and the write, large enough that system calls do not dominate.
constexpr std::uint64_t kFileCopyPiece = 256 * 1024;
static_assert(2 * kFileCopyPiece <= kCopyChunkSize, "both pieces fit in the copy buffer");

// The first stretch of reserved room a copy into memory zeroes and reads into; each further
// stretch is as large as what was filled before it, up to the room left. So a body shorter
// than its reservation (a size claimed but not sent) costs little more than its own bytes.
constexpr std::size_t kFirstStretch = 256 * 1024;

// A copy into a memory stream that has room reserved (a body of known size) reads straight
// into that room rather than into the copy buffer, sparing a copy of every byte; what does not
// fit goes the usual way. The sink holds zeroed room past the bytes copied while the reads run,
// and only the bytes copied once this ends, however it ends.
class ReservedRoom {
 public:
  explicit ReservedRoom(std::vector<std::uint8_t>& bytes)
      : m_bytes(bytes), m_filled(bytes.size()) {}
  ReservedRoom(const ReservedRoom&) = delete;
  ReservedRoom& operator=(const ReservedRoom&) = delete;
  ~ReservedRoom() { m_bytes.resize(m_filled); }  // shrinks: never allocates

  // Room for the next read, zeroed, within the reservation; 0 when the reservation is used up.
  std::uint64_t Free() {
    if (m_bytes.size() == m_filled) {
      const std::size_t room = m_bytes.capacity() - m_filled;
      const std::size_t stretch =
          std::min(room, std::max(kFirstStretch, m_filled - m_start));
      if (stretch == 0) return 0;
      // No hint to make the pages present first: the heap mostly hands back pages that are
      // present already, and walking those costs more than the faults on the few that are not.
      m_bytes.resize(m_filled + stretch);
    }
    return std::min<std::uint64_t>(m_bytes.size() - m_filled, kCopyChunkSize);
  }
  std::uint8_t* Next() { return m_bytes.data() + m_filled; }
  // A read of `n` bytes into Next(), asked for at most `asked`.
  void Filled(std::uint64_t n, std::uint64_t asked) {
    CheckReadCount(n, asked);
    m_filled += static_cast<std::size_t>(n);
  }

 private:
  std::vector<std::uint8_t>& m_bytes;
  std::size_t m_filled;
  const std::size_t m_start = m_filled;
};

// What a copy may read when the source and the target are memory streams over the same bytes:
// what the source had left to read when the copy began. Read on, it would meet its own writes and
// grow until memory ran out; the bytes held at the start are what a caller means by copying a
// stream (as a string appended to itself is doubled, not grown without end). Empty when the two
// do not share their bytes.
std::optional<std::uint64_t> SharedBytesLeft(qv::io::IDataReadStream& source,
                                             qv::io::IDataWriteStream& target) {
  auto* from = dynamic_cast<qv::io::MemoryStream*>(&source);
  auto* to = dynamic_cast<qv::io::MemoryStream*>(&target);
  if (from == nullptr || to == nullptr || from->Sink() != to->Sink()) return std::nullopt;
  const std::uint64_t size = from->Size();
  const std::uint64_t position = from->RTell();
  return position < size ? size - position : 0;
}

// The target's bytes when the copy may read straight into their reserved room: the target is a
// plain memory stream (a class derived from it may want its Write called) with room to spare.
std::vector<std::uint8_t>* RoomToReadInto(qv::io::IDataWriteStream& target) {
  if (typeid(target) != typeid(qv::io::MemoryStream)) return nullptr;
  std::vector<std::uint8_t>& bytes = static_cast<qv::io::MemoryStream&>(target).Sink()->bytes;
  return bytes.capacity() == bytes.size() ? nullptr : &bytes;
}

// Starts the writer of an overlapped copy; leaves it empty (the copy goes on writing on its own
// thread) when no thread can be had.
void StartWriter(qv::io::IDataWriteStream& target, std::optional<detail::ChunkWriter>& writer) {
  try {
    writer.emplace(target);
  } catch (const std::system_error&) {
  }
}

// Reads straight into the target's reserved room (see ReservedRoom). True when the copy ended
// there (`result` says how); false when the room is full and the rest goes through the buffer.
bool CopyIntoRoom(qv::io::IDataReadStream& source, std::vector<std::uint8_t>& bytes,
                  const qv::stop_token& stop, CopyStreamResult& result) {
  ReservedRoom room(bytes);
  // Reads as large as the room (up to a chunk), so that the transport copies what it holds
  // straight into place; the stop is looked at after each, as between chunks.
  for (std::uint64_t free = room.Free(); free != 0; free = room.Free()) {
    const std::uint64_t n = source.Read(room.Next(), free);
    room.Filled(n, free);
    result.bytes_copied += n;
    const bool stopped = stop.stop_requested();
    if (stopped || n == 0) {
      result.completed = !stopped;
      return true;
    }
  }
  return false;
}

// Copies the rest of `source`, or its first `left` bytes, through the copy buffer, counting
// into `result`.
void CopyThroughBuffer(qv::io::IDataReadStream& source, qv::io::IDataWriteStream& target,
                       const qv::stop_token& stop, std::uint64_t left,
                       CopyStreamResult& result) {
  CopyBuffer buffer;
  // Into a file, reads of a quarter MiB: the bytes are still in the processor's cache when they
  // are written. Once a body has passed one whole chunk, each read also overlaps the write of
  // the one before (a writer thread; the two pieces alternate in the buffer), so a long copy
  // takes as long as the slower of reading and writing rather than their sum. Shorter bodies
  // (most stores, which hold their temporary file's lock while they copy) are not slowed by a
  // thread's start and hand-overs. Copies into memory take whole chunks on this thread.
  const bool into_file = dynamic_cast<qv::io::FileWriteStream*>(&target) != nullptr;
  const std::uint64_t piece = into_file ? kFileCopyPiece : kCopyChunkSize;
  std::optional<detail::ChunkWriter> writer;  // after the buffer: ends before it goes
  std::uint64_t region = 0;                   // where in the buffer the next read goes
  for (;;) {
    std::uint8_t* const next = buffer.get() + region;
    const std::uint64_t asked = std::min(piece, left);
    const std::uint64_t n = asked == 0 ? 0 : source.Read(next, asked);
    CheckReadCount(n, asked);
    left -= n;
    if (n != 0) {
      buffer.Used(region + n);
      if (!writer && into_file && result.bytes_copied + n > kCopyChunkSize) {
        StartWriter(target, writer);
      }
      if (writer) {
        // A failed write of the piece before surfaces here: this piece is never handed over,
        // so it is counted only once the writer has taken it.
        writer->Write(next, n);
        result.bytes_copied += n;
        region = piece - region;
      } else {
        result.bytes_copied += n;  // counted even if the write throws: it was handed over
        target.Write(next, n);
      }
    }
    // Looked at only between reads, so a stop never cuts what was read in half.
    const bool stopped = stop.stop_requested();
    if (stopped || n == 0) {
      if (writer) writer->Finish();
      buffer.GiveBack();
      result.completed = !stopped;
      return;
    }
  }
}

}  // namespace

CopyStreamResult CopyStream(qv::io::IDataReadStream& source, qv::io::IDataWriteStream& target,
                            qv::stop_token stop) {
  CopyStreamResult result;
  try {
    const std::optional<std::uint64_t> shared = SharedBytesLeft(source, target);
    std::vector<std::uint8_t>* room = shared ? nullptr : RoomToReadInto(target);
    if (room == nullptr || !CopyIntoRoom(source, *room, stop, result)) {
      CopyThroughBuffer(source, target, stop,
                        shared.value_or(std::numeric_limits<std::uint64_t>::max()), result);
    }
  } catch (const std::runtime_error& e) {
    TqUSysError::LogUTF8String("Failed to read or write stream in CopyStream: ");
    TqUSysError::LogUTF8String(ExceptionText(e));
    TqUSysError::LogUTF8String("\n");
    result.completed = false;
  }
  return result;
}

}  // namespace qv::net
