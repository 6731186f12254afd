// A loopback server that answers every request of a kept-alive connection with the same bytes
// and records the request heads.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "tests/support/servers/raw_responder.h"

namespace tq::test {

class SameAnswerServer {
 public:
  explicit SameAnswerServer(std::string response)
      : raw_([this, response](RawConnection& c) {
          for (std::string head; !(head = c.ReadRequestHead()).empty();) {
            {
              std::lock_guard lock(mutex_);
              heads_.push_back(head);
            }
            if (!c.Send(response)) return;
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
