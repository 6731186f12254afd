#include "tqutil/crypt_hash.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::string Hex(const unsigned char* d, std::size_t n) {
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += "0123456789abcdef"[d[i] >> 4];
    s += "0123456789abcdef"[d[i] & 15];
  }
  return s;
}

TEST(CryptHashTest, Sha256KnownVectors) {
  EXPECT_EQ(TqUSysCryptHash::Create(1), nullptr);
  auto h = TqUSysCryptHash::Create(0);
  ASSERT_TRUE(h);
  ASSERT_TRUE(h->AddData("a", 1));
  ASSERT_TRUE(h->AddData("bc", 2));
  ASSERT_TRUE(h->AddData(nullptr, 0));
  unsigned char digest[32];
  ASSERT_TRUE(h->GenerateAndDestroy(digest, sizeof digest));
  EXPECT_EQ(Hex(digest, 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_FALSE(h->AddData("x", 1)) << "used up";
  EXPECT_FALSE(h->GenerateAndDestroy(digest, sizeof digest));

  auto empty = TqUSysCryptHash::Create(0);
  unsigned char five[5];
  ASSERT_TRUE(empty->GenerateAndDestroy(five, sizeof five));
  EXPECT_EQ(Hex(five, 5), "e3b0c44298");
}

}  // namespace
