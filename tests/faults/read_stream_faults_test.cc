// The read stream and the URL reading built on it, driven through every fault of a hostile
// server over the real transport: each fault ends in its documented state (an unsuccessful
// stream, a read that throws, a null or empty memory stream, one log line), retry storms wait
// only through the recorded sleep, and no call outlives the configured time-outs.
#include "net/stream/read_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "net/http/http_status.h"
#include "net/stream/stream_copy.h"
#include "tests/faults/fault_fixture.h"
#include "tests/faults/fault_responder.h"

namespace tq::test {
namespace {

using namespace std::chrono_literals;
using qv::net::HttpReadStream;
using qv::net::HttpStatus;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::wstring W(const std::string& text) { return qv::Utf8ToWide(text); }

// Reads until the end or the first failure; the failure's text goes to *error.
std::string ReadUntilFailure(qv::io::IDataReadStream& stream, std::string* error) {
  std::string bytes;
  std::vector<char> buffer(16 * 1024);
  try {
    while (const std::uint64_t n = stream.Read(buffer.data(), buffer.size())) {
      bytes.append(buffer.data(), n);
    }
  } catch (const qv::net::http_exception& e) {
    *error = e.what();
  }
  return bytes;
}

using ReadStreamFaultTest = FaultTest;

TEST_F(ReadStreamFaultTest, EveryFaultEndsInTheDocumentedStreamStateWithinTheTimeOut) {
  const std::string body = FaultBody(64 * 1024);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    const std::string url = server.Url("/stream");
    log_.Clear();

    std::unique_ptr<HttpReadStream> stream;
    std::string error;
    const std::string got = Bounded([&] {
      stream = HttpReadStream::Open(W(url), 0, {});
      return ReadUntilFailure(*stream, &error);
    });
    const auto sleeps = TakeSleeps();

    if (IsHeadFault(fault)) {
      // The request went out but no usable answer came: open, unsuccessful, status 0, empty.
      EXPECT_TRUE(stream->IsOpen());
      EXPECT_FALSE(stream->Succeeded());
      EXPECT_EQ(stream->QueryStatusCode(), HttpStatus::Unknown);
      EXPECT_EQ(got + error + log_.Text(), "");
      EXPECT_THAT(sleeps, IsEmpty());
      EXPECT_EQ(server.request_count(), 1u);
    } else if (IsBodyFault(fault)) {
      EXPECT_TRUE(stream->Succeeded());
      EXPECT_EQ(stream->ContentSize(), body.size());
      EXPECT_EQ(error, "Unable to read HTTP data\n");
      // What arrived before the failure is handed over unchanged; a reset may drop some of it.
      EXPECT_LE(got.size(), body.size() / 2);
      EXPECT_TRUE(body.compare(0, got.size(), got) == 0) << "the bytes handed over are not a prefix";
      if (fault != Fault::kResetMidBody) {
        EXPECT_EQ(got.size(), body.size() / 2);
      }
      // The failure sticks, and the stream's state does not change.
      std::string again;
      ReadUntilFailure(*stream, &again);
      EXPECT_EQ(again, "Unable to read HTTP data\n");
      EXPECT_TRUE(stream->Succeeded());
      EXPECT_EQ(log_.Text(), "");
      EXPECT_EQ(server.request_count(), 1u);
    } else {  // a storm: five recorded waits, six requests, the last answer logged
      const bool busy = fault == Fault::kTooManyRequests;
      EXPECT_TRUE(stream->IsOpen());
      EXPECT_FALSE(stream->Succeeded());
      EXPECT_EQ(stream->QueryStatusCode(),
                busy ? HttpStatus::TooManyRequests : HttpStatus::BadGateway);
      EXPECT_EQ(got, "");
      if (busy) {
        EXPECT_THAT(sleeps, ElementsAre(2s, 4s, 6s, 8s, 10s));
      } else {
        EXPECT_THAT(sleeps, ElementsAre(50ms, 100ms, 150ms, 200ms, 250ms));
      }
      EXPECT_EQ(server.request_count(), 6u);
      EXPECT_EQ(log_.Text(), std::string("Error: HTTP Response ") + (busy ? "429" : "502") +
                                 " for GET " + url + "\n");
    }
    stream.reset();
  }
}

// Replaces the stream layer's own end-to-end cases of a cut or stalled body and of a server
// that never answers.
TEST_F(ReadStreamFaultTest, ReadingAUrlIntoMemoryIsNullForACutBodyAndEmptyForNoAnswer) {
  const std::string body = FaultBody(64 * 1024, 7);
  for (const Fault fault : kAllFaults) {
    SCOPED_TRACE(FaultName(fault));
    FaultResponder server(fault, body);
    ASSERT_TRUE(server.ok());
    log_.Clear();
    auto memory = Bounded([&] { return qv::net::ReadUrlIntoMemory(W(server.Url("/m")), {}); });
    TakeSleeps();
    if (IsBodyFault(fault)) {
      // Never a partial body: the copy fails and says so.
      EXPECT_EQ(memory, nullptr);
      EXPECT_EQ(log_.Text(),
                "Failed to read or write stream in CopyStream: Unable to read HTTP data\n\n");
      continue;
    }
    // An answer other than 200 (or none) is an empty stream, not null.
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(memory->Size(), 0u);
    if (IsHeadFault(fault)) {
      EXPECT_EQ(log_.Text(), "");
    } else {
      EXPECT_THAT(log_.Text(), ::testing::StartsWith("Error: HTTP Response "));
    }
  }
}

}  // namespace
}  // namespace tq::test
