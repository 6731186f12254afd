#include "tqutil/crypt_hash.h"

#include <cstring>

#include <openssl/evp.h>

struct TqUSysCryptHash::Impl {
  EVP_MD_CTX* ctx = nullptr;
  ~Impl() { EVP_MD_CTX_free(ctx); }
};

namespace {

// SHA-256 fetched once: initialising with EVP_sha256() looks the algorithm up again on every
// hash, which costs about as much as hashing a short key. Kept for the life of the process.
const EVP_MD* Sha256() {
  static const EVP_MD* const md = [] {
    const EVP_MD* fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return fetched != nullptr ? fetched : EVP_sha256();
  }();
  return md;
}

}  // namespace

TqUSysCryptHash::TqUSysCryptHash(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
TqUSysCryptHash::~TqUSysCryptHash() = default;

std::unique_ptr<TqUSysCryptHash> TqUSysCryptHash::Create(int type) {
  if (type != 0) return nullptr;
  auto impl = std::make_unique<Impl>();
  impl->ctx = EVP_MD_CTX_new();
  if (!impl->ctx || EVP_DigestInit_ex(impl->ctx, Sha256(), nullptr) != 1) return nullptr;
  return std::unique_ptr<TqUSysCryptHash>(new TqUSysCryptHash(std::move(impl)));
}

bool TqUSysCryptHash::AddData(const void* data, std::size_t size) {
  if (!m_impl) return false;
  if (size == 0) return true;
  if (!data) return false;
  return EVP_DigestUpdate(m_impl->ctx, data, size) == 1;
}

std::size_t TqUSysCryptHash::GetHashSizeInBytes() const { return 32; }

bool TqUSysCryptHash::GenerateAndDestroy(void* digest, std::size_t size) {
  if (!m_impl || (!digest && size > 0)) return false;
  unsigned char full[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  const bool ok = EVP_DigestFinal_ex(m_impl->ctx, full, &length) == 1;
  m_impl.reset();
  if (!ok) return false;
  if (size > 0) std::memcpy(digest, full, size < length ? size : length);
  return true;
}
