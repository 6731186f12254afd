// A disk that fills up, for one scope.
//
// Why a file-size limit: a tiny tmpfs or a loop device needs root and a mount that CI machines
// may not allow, and /dev/full only stands in for a single file, not for a directory in which a
// cache creates, writes and renames files. The process's file-size limit (RLIMIT_FSIZE) works
// anywhere without privileges: once a file would grow past the limit, write(2) writes what fits
// and then fails (EFBIG) exactly where a full disk fails (ENOSPC), with SIGXFSZ ignored so that
// the write fails instead of the signal ending the process. The limit is process-wide, so a test
// holds it only around one call while no other thread of its own writes files (the test servers
// only use sockets); it is put back when the scope ends.
#pragma once

#include <signal.h>
#include <sys/resource.h>

#include <cstdint>

namespace tq::test {

class FileSizeLimit {
 public:
  explicit FileSizeLimit(std::uint64_t bytes) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    have_action_ = sigaction(SIGXFSZ, &ignore, &previous_action_) == 0;
    have_limit_ = getrlimit(RLIMIT_FSIZE, &previous_limit_) == 0;
    if (!have_action_ || !have_limit_) return;
    rlimit limit = previous_limit_;
    limit.rlim_cur = static_cast<rlim_t>(bytes);
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_cur > limit.rlim_max) {
      limit.rlim_cur = limit.rlim_max;
    }
    ok_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~FileSizeLimit() {
    if (have_limit_) setrlimit(RLIMIT_FSIZE, &previous_limit_);
    if (have_action_) sigaction(SIGXFSZ, &previous_action_, nullptr);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
  bool have_action_ = false;
  bool have_limit_ = false;
  struct sigaction previous_action_ {};
  rlimit previous_limit_{};
};

}  // namespace tq::test
