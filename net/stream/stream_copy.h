// Copying streams: chunked copy with cancellation. Reading URLs is in url_reading.h.
#pragma once

#include <cstdint>
#include <memory>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

struct CopyStreamResult {
  std::uint64_t bytes_copied = 0;  // read from the source and handed to the target
  bool completed = false;          // the source's end reached, no stop, no error
};

// Chunk size of CopyStream: 8 MiB.
inline constexpr std::uint64_t kCopyChunkSize = 8388608;

// Copies in chunks of up to 8 MiB (into a file, smaller reads, each overlapping the write of
// the one before; into a memory stream with room reserved, reads straight into that room); the
// stop is checked after each chunk is read and handed to the target, so a stop never cuts a
// read in half. Read and write errors (std::runtime_error) are logged and end
// the copy with completed false. A memory stream copied into one over the same bytes gives what
// it had left to read when the copy began, not its own writes read back.
CopyStreamResult CopyStream(qv::io::IDataReadStream& source,
                             qv::io::IDataWriteStream& target, qv::stop_token stop);

}  // namespace qv::net
