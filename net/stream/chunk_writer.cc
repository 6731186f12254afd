#include "net/stream/chunk_writer.h"

#include <utility>

namespace qv::net::detail {

ChunkWriter::ChunkWriter(qv::io::IDataWriteStream& target)
    : m_target(target), m_thread([this] { Run(); }) {}

ChunkWriter::~ChunkWriter() {
  {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_busy; });
    m_quit = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

void ChunkWriter::WaitIdle(std::unique_lock<std::mutex>& lock) {
  m_changed.wait(lock, [this] { return !m_busy; });
  if (m_error) std::rethrow_exception(std::exchange(m_error, nullptr));
}

void ChunkWriter::Write(const void* data, std::uint64_t size) {
  {
    std::unique_lock lock(m_mutex);
    WaitIdle(lock);
    m_data = data;
    m_size = size;
    m_busy = true;
  }
  m_changed.notify_all();
}

void ChunkWriter::Finish() {
  std::unique_lock lock(m_mutex);
  WaitIdle(lock);
}

void ChunkWriter::Run() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_changed.wait(lock, [this] { return m_busy || m_quit; });
    if (!m_busy) return;
    const void* data = m_data;
    const std::uint64_t size = m_size;
    lock.unlock();
    std::exception_ptr error;
    try {
      m_target.Write(data, size);
    } catch (...) {
      error = std::current_exception();
    }
    lock.lock();
    m_error = std::move(error);
    m_busy = false;
    m_changed.notify_all();
  }
}

}  // namespace qv::net::detail
