// Reading URLs: the scheme test, opening any URL as a read stream, and downloading a URL whole
// into memory.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "net/host/tqutil.h"

namespace qv::net {

// True for texts that begin with "https:" or "http:" (exact, case-sensitive).
bool IsHttpUrl(std::wstring_view url);

// An HTTP URL as an HttpReadStream (whatever its status), any other URL through
// TqUFileURL::OpenURLReadStream. Null when it cannot be opened; an exception on the way is
// logged, while a scheme or file that simply cannot be opened is not.
std::unique_ptr<qv::io::IDataReadStream> OpenUrlReadStream(std::wstring_view url,
                                                           qv::stop_token stop);

// Room reserved up front for a body read into memory, at most: the announced size is the
// server's word, so a larger body grows the stream as its bytes arrive.
inline constexpr std::uint64_t kMostReservedUpFront = 4 * 1024 * 1024;

// The whole body in a memory stream positioned at its start; null when the URL cannot be
// opened or read, or a stop ends the copy (exceptions on the way are logged). An HTTP answer
// other than 200 gives an empty stream. The stream starts with room for the announced
// size, up to kMostReservedUpFront.
std::unique_ptr<qv::io::MemoryStream> ReadUrlIntoMemory(std::wstring_view url,
                                                        qv::stop_token stop);

}  // namespace qv::net
