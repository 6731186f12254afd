#include "tqutil/crypt_hash.h"

#include <cstring>

#if defined(_WIN32)
#include <windows.h>
#include <bcrypt.h>
#else
#include <openssl/evp.h>
#endif

namespace {

constexpr std::size_t kSha256Size = 32;

#if defined(_WIN32)
// The CNG provider, opened once and kept for the life of the process: opening it costs more
// than hashing a short key, and one provider handle serves every thread. Null if CNG refused.
BCRYPT_ALG_HANDLE Sha256() {
  static const BCRYPT_ALG_HANDLE provider = [] {
    BCRYPT_ALG_HANDLE opened = nullptr;
    const NTSTATUS status =
        ::BCryptOpenAlgorithmProvider(&opened, BCRYPT_SHA256_ALGORITHM, nullptr, 0);
    return BCRYPT_SUCCESS(status) ? opened : nullptr;
  }();
  return provider;
}
#else
// SHA-256 fetched once: initialising with EVP_sha256() looks the algorithm up again on every
// hash, which costs about as much as hashing a short key. Kept for the life of the process.
const EVP_MD* Sha256() {
  static const EVP_MD* const md = [] {
    const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched != nullptr ? fetched : EVP_sha256();
  }();
  return md;
}
#endif

}  // namespace

#if defined(_WIN32)

// SHA-256 through CNG (BCrypt).
struct TqUSysCryptHash::Impl {
  BCRYPT_HASH_HANDLE hash = nullptr;
  ~Impl() {
    if (hash) ::BCryptDestroyHash(hash);
  }
  bool Start() {
    // No object buffer: CNG allocates and frees the hash state itself.
    return Sha256() != nullptr &&
           BCRYPT_SUCCESS(::BCryptCreateHash(Sha256(), &hash, nullptr, 0, nullptr, 0, 0));
  }
  bool Update(const void* data, std::size_t size) {
    // At most 4 GiB - 1 bytes per call.
    auto* bytes = static_cast<PUCHAR>(const_cast<void*>(data));
    while (size > 0) {
      const ULONG chunk = size > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<ULONG>(size);
      if (!BCRYPT_SUCCESS(::BCryptHashData(hash, bytes, chunk, 0))) return false;
      bytes += chunk;
      size -= chunk;
    }
    return true;
  }
  bool Finish(unsigned char (&digest)[kSha256Size]) {
    return BCRYPT_SUCCESS(::BCryptFinishHash(hash, digest, kSha256Size, 0));
  }
};

#else

// SHA-256 through OpenSSL's EVP interface.
struct TqUSysCryptHash::Impl {
  EVP_MD_CTX* ctx = nullptr;
  ~Impl() { EVP_MD_CTX_free(ctx); }
  bool Start() {
    ctx = EVP_MD_CTX_new();
    return ctx && EVP_DigestInit_ex(ctx, Sha256(), nullptr) == 1;
  }
  bool Update(const void* data, std::size_t size) {
    return EVP_DigestUpdate(ctx, data, size) == 1;
  }
  bool Finish(unsigned char (&digest)[kSha256Size]) {
    unsigned int length = 0;
    return EVP_DigestFinal_ex(ctx, digest, &length) == 1 && length == kSha256Size;
  }
};

#endif

TqUSysCryptHash::TqUSysCryptHash(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
TqUSysCryptHash::~TqUSysCryptHash() = default;

std::unique_ptr<TqUSysCryptHash> TqUSysCryptHash::Create(int type) {
  if (type != 0) return nullptr;
  auto impl = std::make_unique<Impl>();
  if (!impl->Start()) return nullptr;
  return std::unique_ptr<TqUSysCryptHash>(new TqUSysCryptHash(std::move(impl)));
}

bool TqUSysCryptHash::AddData(const void* data, std::size_t size) {
  if (!m_impl) return false;
  if (size == 0) return true;
  if (!data) return false;
  return m_impl->Update(data, size);
}

std::size_t TqUSysCryptHash::GetHashSizeInBytes() const { return kSha256Size; }

bool TqUSysCryptHash::GenerateAndDestroy(void* digest, std::size_t size) {
  if (!m_impl || (!digest && size > 0)) return false;
  unsigned char full[kSha256Size];
  const bool ok = m_impl->Finish(full);
  m_impl.reset();
  if (!ok) return false;
  if (size > 0) std::memcpy(digest, full, size < kSha256Size ? size : kSha256Size);
  return true;
}
