// A name lookup that never answers (a name server gone quiet) must not hold a send that was
// stopped or timed out: the caller gets its error at once, and the lookup ends on its own.
#include <dlfcn.h>
#include <netdb.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>

#include "tests/platform/wininet_test_util.h"
#include "tests/support/servers/gate.h"

namespace {

using namespace std::chrono_literals;
using namespace tq::test;

constexpr char kStalledName[] = "stalled-lookup.invalid";

// Lookups of kStalledName wait here until the test opens it. Never destroyed: a lookup left
// to finish on its own may still be waiting when the test ends.
Gate& StalledLookups() {
  static Gate* const gate = new Gate();
  return *gate;
}

}  // namespace

// Stands in for the system's lookup for the whole test program (libcurl's resolver thread
// calls it); names other than kStalledName go to the system's own.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  using Lookup = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
  static const auto system_lookup = reinterpret_cast<Lookup>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node != nullptr && std::strcmp(node, kStalledName) == 0) {
    StalledLookups().Wait();
    return EAI_NONAME;
  }
  return system_lookup(node, service, hints, result);
}

namespace {

TEST(NameLookupTest, AStopOrATimeOutDuringALookupEndsTheSendWithoutWaitingForIt) {
  Handle session = OpenSession();
  Handle connection(InternetConnectW(session.get(), L"stalled-lookup.invalid", 80, nullptr,
                                     nullptr, INTERNET_SERVICE_HTTP, 0, 0));
  ASSERT_TRUE(connection);
  // Long enough for any send that does not wait for the lookup. However the test ends, the
  // lookups are let go before the sends are waited for.
  constexpr auto kBound = 10s;
  std::future<DWORD> timed_send, stopped_send;
  struct LetLookupsGo {
    ~LetLookupsGo() { StalledLookups().Open(); }
  } let_lookups_go;

  Handle timed = OpenRequest(connection, L"/");
  ASSERT_TRUE(SetDword(timed.get(), INTERNET_OPTION_CONNECT_TIMEOUT, 200));
  timed_send = std::async(std::launch::async, [&] { return ErrorOf([&] { return Send(timed); }); });
  ASSERT_EQ(timed_send.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(timed_send.get(), ERROR_INTERNET_TIMEOUT);

  Handle stopped = OpenRequest(connection, L"/");
  stopped_send =
      std::async(std::launch::async, [&] { return ErrorOf([&] { return Send(stopped); }); });
  // The first lookup still waits, left to itself; this send's is the second.
  ASSERT_TRUE(StalledLookups().WaitForWaiters(2, kBound));
  ASSERT_TRUE(InternetCloseHandle(stopped.release()));
  ASSERT_EQ(stopped_send.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(stopped_send.get(), ERROR_INTERNET_OPERATION_CANCELLED);
}

}  // namespace
