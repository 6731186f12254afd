// A hostile server for the fault suite: a raw responder that answers every request with one
// chosen fault (a reset, a cut or stalled body, broken or oversized headers, a 429 or 502
// storm), and records the request heads it saw, so each layer can be driven through the same
// faults and the number of requests it made can be checked.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/servers/raw_responder.h"

namespace tq::test {

enum class Fault {
  kResetBeforeHead,   // the request is read, then the connection is reset (RST)
  kResetMidBody,      // head and half the announced body, then a reset
  kShortBody,         // head and half the announced body, then an orderly close
  kStallBeforeHead,   // the request is read and nothing ever comes back
  kStallMidBody,      // head and half the body, then silence
  kMalformedHeader,   // a header line without a colon
  kOversizedHeader,   // one header larger than any client should accept
  kTooManyRequests,   // 429 without Retry-After, to every request
  kBadGateway,        // 502, to every request
};

inline const char* FaultName(Fault fault) {
  // In the order of the enumeration.
  static const char* const kNames[] = {
      "reset before head", "reset mid-body", "body shorter than its Content-Length",
      "stall before head", "stall mid-body", "malformed header", "oversized header",
      "429 storm", "502 storm"};
  return kNames[static_cast<int>(fault)];
}

inline constexpr Fault kAllFaults[] = {
    Fault::kResetBeforeHead, Fault::kResetMidBody,    Fault::kShortBody,
    Fault::kStallBeforeHead, Fault::kStallMidBody,    Fault::kMalformedHeader,
    Fault::kOversizedHeader, Fault::kTooManyRequests, Fault::kBadGateway};

// Faults that leave no usable answer head, and faults that cut a 200 answer's body.
inline bool IsHeadFault(Fault fault) {
  return fault == Fault::kResetBeforeHead || fault == Fault::kStallBeforeHead ||
         fault == Fault::kMalformedHeader || fault == Fault::kOversizedHeader;
}
inline bool IsBodyFault(Fault fault) {
  return fault == Fault::kResetMidBody || fault == Fault::kShortBody ||
         fault == Fault::kStallMidBody;
}
inline constexpr Fault kBodyFaults[] = {Fault::kResetMidBody, Fault::kShortBody,
                                        Fault::kStallMidBody};

// Deterministic body bytes, so a torn or shifted copy never compares equal by accident.
inline std::string FaultBody(std::size_t size, unsigned seed = 0) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>((i * 131 + i / 257 + seed) & 0xFF);
  }
  return bytes;
}

// Answers a server gives whole before it turns bad (to put a good copy in a cache first).
struct HealthyAnswers {
  std::size_t count = 0;
  std::string body;
  std::string headers;  // "Name: value\r\n" lines
};

class FaultResponder {
 public:
  // `extra_headers` ("Name: value\r\n" lines) go into every faulty answer that has a head; the
  // body announced by faulty answers with a 200 status is `body`. The first `healthy.count`
  // requests get a complete 200 answer instead.
  FaultResponder(Fault fault, std::string body, std::string extra_headers = {},
                 HealthyAnswers healthy = {})
      : state_(std::make_shared<State>()),
        responder_(Script(fault, std::move(body), std::move(extra_headers), std::move(healthy),
                          state_)) {}

  bool ok() const { return responder_.ok(); }
  std::string Url(const std::string& path = "/") const { return responder_.Url(path); }
  std::size_t connection_count() const { return responder_.connection_count(); }

  std::vector<std::string> heads() const {
    std::lock_guard lock(state_->mutex);
    return state_->heads;
  }
  std::size_t request_count() const { return heads().size(); }

 private:
  struct State {
    mutable std::mutex mutex;
    std::vector<std::string> heads;
  };

  static RawResponder::Script Script(Fault fault, std::string body, std::string extra,
                                     HealthyAnswers healthy, std::shared_ptr<State> state) {
    return [=](RawConnection& c) {
      const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
      const std::string ok_head = "HTTP/1.1 200 OK\r\n" + length + extra + "\r\n";
      const std::string half = body.substr(0, body.size() / 2);
      for (;;) {
        std::string head = c.ReadRequestHead();
        if (head.empty()) return;
        std::size_t seen = 0;
        {
          std::lock_guard lock(state->mutex);
          state->heads.push_back(head);
          seen = state->heads.size();
        }
        if (seen <= healthy.count) {
          if (!c.Send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(healthy.body.size()) +
                      "\r\n" + healthy.headers + "\r\n" + healthy.body)) {
            return;
          }
          continue;
        }
        switch (fault) {
          case Fault::kResetBeforeHead:
            c.Reset();
            return;
          case Fault::kResetMidBody:
            c.Send(ok_head + half);
            c.Reset();
            return;
          case Fault::kShortBody:
            c.Send(ok_head + half);
            c.Close();
            return;
          case Fault::kStallBeforeHead:
            c.Stall();
            return;
          case Fault::kStallMidBody:
            c.Send(ok_head + half);
            c.Stall();
            return;
          case Fault::kMalformedHeader:
            c.Send("HTTP/1.1 200 OK\r\n" + length + extra + "this line has no colon\r\n\r\n" +
                   body);
            return;
          case Fault::kOversizedHeader:
            c.Send("HTTP/1.1 200 OK\r\n" + length + extra + "X-Padding: " +
                   std::string(300 * 1024, 'p') + "\r\n\r\n" + body);
            return;
          case Fault::kTooManyRequests:
            if (!c.Send("HTTP/1.1 429 Too Many Requests\r\nContent-Length: 4\r\n" + extra +
                        "\r\nbusy")) {
              return;
            }
            break;  // keep-alive: the next request on this connection gets the same
          case Fault::kBadGateway:
            if (!c.Send("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 11\r\n" + extra +
                        "\r\nbad gateway")) {
              return;
            }
            break;
        }
      }
    };
  }

  std::shared_ptr<State> state_;
  RawResponder responder_;  // last: its threads stop before the state goes
};

}  // namespace tq::test
