// A resource that changes on its server between the opens of one URL: the entry never pairs one
// version's validator with another version's body.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "net/cache/disk_cache.h"
#include "tests/cache/cache_test_support.h"
#include "tests/support/fake_transport_fixture.h"
#include "tests/support/servers/temp_dir.h"

namespace tq::test {
namespace {

constexpr std::int64_t kDate = 1'700'000'000;
constexpr const wchar_t* kUrl = L"http://example.test/changing.bin";

FakeResponse Answer(const std::string& body, std::optional<std::wstring> etag,
                    std::uint32_t status = 200) {
  FakeResponse r;
  r.status = status;
  r.dates[L"Date"] = kDate;
  r.Header(L"cache-control", L"max-age=0");
  if (etag) r.Header(L"ETag", *etag);
  r.Header(L"Content-Length", std::to_wstring(body.size()));
  if (!body.empty()) r.Body(body);
  return r;
}

class ChangingResourceTest : public FakeTransportTest {
 protected:
  std::string Open() {
    m_clock.Advance(1);  // each open finds the entry stale
    auto stream = m_cache.OpenUrl(kUrl, 0, {});
    return stream ? ReadAll(*stream) : "<null>";
  }

  TempDir m_dir;
  ScopedClock m_clock{kDate};
  qv::net::DiskCache m_cache{m_dir.path().wstring().c_str()};
};

// Version B arrives without a tag: kept under version A's tag, it would be confirmed by the
// server's answers for A (a 304, or a 200 whose body is not read) and served as if it were A.
TEST_F(ChangingResourceTest, ABodyWithoutATagIsNotKeptUnderTheTagOfTheBodyItReplaced) {
  m_api.Queue(Answer("version A", L"\"a\""));
  EXPECT_EQ(Open(), "version A");
  m_api.Queue(Answer("version B", std::nullopt));
  EXPECT_EQ(Open(), "version B");
  m_api.Queue(Answer("version A", L"\"a\""));
  EXPECT_EQ(Open(), "version A");
  EXPECT_EQ(m_api.Sent().back().headers, L"") << "body B validated with A's tag";
}

// A server whose tag does not follow every change (one made of the modification time alone)
// sends another body under the stored tag: kept, the old body would be confirmed by every 304
// to come. A body of another length than the stored one is another body, and is stored.
TEST_F(ChangingResourceTest, ABodyOfAnotherLengthUnderTheStoredTagReplacesTheStoredOne) {
  m_api.Queue(Answer("old", L"\"t\""));
  EXPECT_EQ(Open(), "old");
  m_api.Queue(Answer("new, longer", L"\"t\""));
  EXPECT_EQ(Open(), "new, longer");
  m_api.Queue(Answer("", L"\"t\"", 304));
  EXPECT_EQ(Open(), "new, longer");
}

}  // namespace
}  // namespace tq::test
