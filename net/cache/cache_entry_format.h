// The layout of a disk cache entry file. Entry files outlive the process and are shared with
// other builds of the library, so this layout is fixed byte for byte:
//
//   offset      size  field
//   0           2     header size H: bytes of header after this field, = 24 + T + K
//   2           2     start marker 01 01
//   4           8     last used: signed seconds of the last store or read
//   12          8     expiry: signed seconds; INT64_MAX never expires, 0 already stale
//   20          2     tag length T
//   22          T     entity tag, UTF-8 as received (may be empty)
//   22 + T      2     key length K
//   24 + T      K     cache key, UTF-8
//   24 + T + K  2     end marker 02 02
//   H + 2       ...   body, unchanged, to the end of the file
//
// An entry may carry one optional extension between the end marker and the body, counted in H:
// the marker 03 03 and one byte of entry flags (bit 0: the entry may be served stale when its
// server cannot answer; set only by an open that asked for that, ServeStaleOnError, from a
// response without "must-revalidate" or "no-cache"). It is written only when a flag is set, so
// entries stored without that open flag are byte for byte as above; a reader that does not know
// the extension finds the body at H + 2 all the same, and a file without it has no flags.
//
// All integers are little-endian whatever the host's byte order; strings carry no terminator.
// The first 20 bytes (the fixed part) never change length, so reading an entry can rewrite its
// last-used and expiry times in place without moving the body.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

namespace qv::net::entry_format {

inline constexpr std::size_t kHeaderSizeOffset = 0;
inline constexpr std::size_t kStartMarkerOffset = 2;
inline constexpr std::size_t kLastUsedOffset = 4;
inline constexpr std::size_t kExpiryOffset = 12;
inline constexpr std::size_t kTagLengthOffset = 20;
inline constexpr std::size_t kTagOffset = 22;

// The part rewritten in place: header size, start marker, last used, expiry.
inline constexpr std::size_t kFixedPartSize = 20;

inline constexpr std::uint16_t kStartMarker = 0x0101;
inline constexpr std::uint16_t kEndMarker = 0x0202;

// The header size field counts everything after itself: the start marker, two times, two
// length fields and the end marker (24 bytes) plus the tag and key bytes.
inline constexpr std::size_t kHeaderSizeFieldSize = 2;
inline constexpr std::size_t kHeaderOverhead = 24;
// The smallest complete header on disk (empty tag and key).
inline constexpr std::size_t kMinimumHeaderBytes = kHeaderSizeFieldSize + kHeaderOverhead;
// The header size field is 16 bits, so tag and key together are bounded by this.
inline constexpr std::size_t kMaxHeaderSize = std::numeric_limits<std::uint16_t>::max();

// The optional extension after the end marker.
inline constexpr std::uint16_t kExtensionMarker = 0x0303;
inline constexpr std::size_t kExtensionSize = 3;
inline constexpr std::uint8_t kFlagStaleAllowed = 1;

inline constexpr std::int64_t kNeverExpires = std::numeric_limits<std::int64_t>::max();

static_assert(kStartMarkerOffset == kHeaderSizeOffset + 2);
static_assert(kLastUsedOffset == kStartMarkerOffset + 2);
static_assert(kExpiryOffset == kLastUsedOffset + 8);
static_assert(kTagLengthOffset == kExpiryOffset + 8);
static_assert(kFixedPartSize == kTagLengthOffset, "the fixed part ends where the tag begins");
static_assert(kTagOffset == kTagLengthOffset + 2);
// 2 (start) + 8 + 8 (times) + 2 (T) + 2 (K) + 2 (end marker).
static_assert(kHeaderOverhead == 2 + 8 + 8 + 2 + 2 + 2);
static_assert(kMinimumHeaderBytes == 26);

// The body of an entry whose header size field holds `header_size`.
constexpr std::uint64_t BodyOffset(std::uint16_t header_size) {
  return static_cast<std::uint64_t>(header_size) + kHeaderSizeFieldSize;
}

// What the header size field must hold for a tag and a key of these lengths, with or without the
// extension; it may exceed kMaxHeaderSize, which such an entry cannot have.
constexpr std::size_t HeaderSize(std::size_t tag_length, std::size_t key_length, bool extension) {
  return kHeaderOverhead + tag_length + key_length + (extension ? kExtensionSize : 0);
}

// Little-endian fields, independent of the host's byte order.
inline void PutU16(unsigned char* out, std::uint16_t value) {
  out[0] = static_cast<unsigned char>(value & 0xFF);
  out[1] = static_cast<unsigned char>(value >> 8);
}

inline std::uint16_t GetU16(const unsigned char* in) {
  return static_cast<std::uint16_t>(in[0] | (in[1] << 8));
}

inline void PutI64(unsigned char* out, std::int64_t value) {
  const auto bits = static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(bits >> (8 * i));
}

inline std::int64_t GetI64(const unsigned char* in) {
  std::uint64_t bits = 0;
  for (int i = 7; i >= 0; --i) bits = (bits << 8) | in[i];
  return static_cast<std::int64_t>(bits);
}

// A header walked over the first `have` bytes of an entry file, as far as they reach: `end` is
// how many bytes the walk has needed so far (the end marker's last byte once the lengths are
// read), and `complete` says that all of them were there and both markers are right. A caller
// that read fewer bytes than `end` may read more and walk again.
struct HeaderWalk {
  bool complete = false;
  std::size_t end = kTagOffset;
  std::size_t key_offset = 0;  // the key's first byte, once the tag length is known
  std::size_t key_length = 0;
};

inline HeaderWalk WalkHeader(const unsigned char* bytes, std::size_t have) {
  HeaderWalk walk;
  if (have < walk.end || GetU16(bytes + kStartMarkerOffset) != kStartMarker) return walk;
  walk.end += GetU16(bytes + kTagLengthOffset) + std::size_t{2};
  if (have < walk.end) return walk;
  walk.key_offset = walk.end;
  walk.key_length = GetU16(bytes + walk.end - 2);
  walk.end += walk.key_length + 2;
  if (have < walk.end) return walk;
  walk.complete = GetU16(bytes + walk.end - 2) == kEndMarker;
  return walk;
}

}  // namespace qv::net::entry_format
