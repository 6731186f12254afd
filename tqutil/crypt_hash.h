// Message digests. Type 0 is SHA-256 (a 32-byte digest).
#pragma once

#include <cstddef>
#include <memory>

#include "tqutil/export.h"

/// A cryptographic digest through the system (OpenSSL, or CNG on Windows); type 0 is SHA-256.
/// One use: add data, then generate.
class TQUTIL_API TqUSysCryptHash {
 public:
  /// Null for an unknown type, or when the system cannot start a digest.
  static std::unique_ptr<TqUSysCryptHash> Create(int type);
  ~TqUSysCryptHash();
  TqUSysCryptHash(const TqUSysCryptHash&) = delete;
  TqUSysCryptHash& operator=(const TqUSysCryptHash&) = delete;

  /// Feeds `size` bytes into the digest; false once the object is used up.
  bool AddData(const void* data, std::size_t size);
  /// The digest's size (32 for SHA-256).
  std::size_t GetHashSizeInBytes() const;
  /// Writes the digest (at most `size` bytes of it) and ends the object's use: later calls fail.
  bool GenerateAndDestroy(void* digest, std::size_t size);

 private:
  struct Impl;
  explicit TqUSysCryptHash(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> m_impl;
};
