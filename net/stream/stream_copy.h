// Copying streams and reading URLs: the scheme test, chunked copy with cancellation, opening
// any URL as a read stream, and downloading a URL whole into memory.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "net/export.h"
#include "net/host/tqutil.h"

namespace qv::net {

struct CopyStreamResult {
  std::uint64_t bytes_copied = 0;  // read from the source and handed to the target
  bool completed = false;          // the source's end reached, no stop, no error
};

// Chunk size of CopyStream: 8 MiB.
inline constexpr std::uint64_t kCopyChunkSize = 8388608;

// True for texts that begin with "https:" or "http:" (exact, case-sensitive).
bool IsHttpUrl(std::wstring_view url);

// Copies in chunks of up to 8 MiB (into a file, smaller reads, each overlapping the write of
// the one before); the stop is checked after each written chunk. Read and write errors
// (std::runtime_error) are logged and end the copy with completed false.
CopyStreamResult CopyStream(qv::io::IDataReadStream& source,
                             qv::io::IDataWriteStream& target, qv::stop_token stop);

// An HTTP URL as an HttpReadStream (whatever its status), any other URL through
// TqUFileURL::OpenURLReadStream. Null, with a log line, when it cannot be opened.
std::unique_ptr<qv::io::IDataReadStream> OpenUrlReadStream(std::wstring_view url,
                                                                       qv::stop_token stop);

// Room reserved up front for a body read into memory, at most: the announced size is the
// server's word, so a larger body grows the stream as its bytes arrive.
inline constexpr std::uint64_t kMostReservedUpFront = 4 * 1024 * 1024;

// The whole body in a memory stream positioned at its start; null on failure (logged). An HTTP
// answer other than 200 gives an empty stream. The stream starts with room for the announced
// size, up to kMostReservedUpFront.
std::unique_ptr<qv::io::MemoryStream> ReadUrlIntoMemory(std::wstring_view url,
                                                                    qv::stop_token stop);

}  // namespace qv::net
