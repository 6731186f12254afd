// A loopback server that answers every request of a kept-alive connection with the same bytes,
// or with bytes chosen from the request's head, and records the request heads.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/servers/raw_responder.h"

namespace tq::test {

class SameAnswerServer {
 public:
  using Answer = std::function<std::string(const std::string& head)>;

  explicit SameAnswerServer(std::string response)
      : SameAnswerServer([response](const std::string&) { return response; }) {}
  // Sends each answer `piece` bytes at a time (0: at once), as RawConnection::Send does.
  explicit SameAnswerServer(Answer answer, std::size_t piece = 0)
      : raw_([this, answer, piece](RawConnection& c) {
          for (std::string head; !(head = c.ReadRequestHead()).empty();) {
            {
              std::lock_guard lock(mutex_);
              heads_.push_back(head);
            }
            if (!c.Send(answer(head), piece)) return;
          }
        }) {}
  std::vector<std::string> heads() const {
    std::lock_guard lock(mutex_);
    return heads_;
  }
  std::size_t requests() const { return heads().size(); }
  std::size_t connections() const { return raw_.connection_count(); }
  bool ok() const { return raw_.ok(); }
  int port() const { return raw_.port(); }
  std::string Url(const std::string& path) const { return raw_.Url(path); }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> heads_;
  RawResponder raw_;  // last: its threads end before the heads go
};

}  // namespace tq::test
