#include "net/http/http_api.h"

#include <gtest/gtest.h>

#include "tests/support/fake_http_api.h"

namespace qv::net {
namespace {

TEST(HttpApiTest, SetHttpApiSwapsWithoutDestroying) {
  IHttpApi* before = SetHttpApi(nullptr);
  EXPECT_EQ(HttpApi(), nullptr);
  {
    tq::test::FakeHttpApi api;  // would fail under ASan if anything deleted it
    EXPECT_EQ(SetHttpApi(&api), nullptr);
    EXPECT_EQ(HttpApi(), &api);
    EXPECT_EQ(SetHttpApi(nullptr), &api);
    EXPECT_EQ(HttpApi(), nullptr);
  }
  SetHttpApi(before);
  EXPECT_EQ(MaxNumConnectionsPerServer(), 4u);
}

}  // namespace
}  // namespace qv::net
