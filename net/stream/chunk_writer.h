// Writes chunks to a stream on a thread of its own, one at a time, so that the caller reads the
// next chunk while the last one is being written: a copy then takes as long as the slower of its
// reading and its writing rather than their sum.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>

#include "net/host/tqutil.h"

namespace qv::net::detail {

class ChunkWriter {
 public:
  // Starts the thread; throws std::system_error when it cannot.
  explicit ChunkWriter(qv::io::IDataWriteStream& target);
  // Waits for the chunk in hand to be written (whatever it throws is dropped), then ends the
  // thread.
  ~ChunkWriter();
  ChunkWriter(const ChunkWriter&) = delete;
  ChunkWriter& operator=(const ChunkWriter&) = delete;

  // Waits until the chunk handed before is written, rethrowing what its write threw; then hands
  // over `size` bytes at `data`, which must stay as they are until the next Write or Finish.
  void Write(const void* data, std::uint64_t size);
  // Waits until the chunk in hand is written; rethrows what its write threw.
  void Finish();

 private:
  void Run();
  // With the lock held: waits for the thread to be idle and takes its error.
  void WaitIdle(std::unique_lock<std::mutex>& lock);

  qv::io::IDataWriteStream& m_target;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  const void* m_data = nullptr;
  std::uint64_t m_size = 0;
  bool m_busy = false;
  bool m_quit = false;
  std::exception_ptr m_error;
  std::thread m_thread;  // last: started once the rest is in place
};

}  // namespace qv::net::detail
