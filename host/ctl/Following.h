#pragma once

#include <signal.h>

#include <cerrno>
#include <cstdio>

namespace tessard {

/// Output that goes on until the person or the reader has enough, and then ends the process in good order:
/// SIGINT and SIGTERM end it with exit code 0 from here on. Signals wait while something is written, so that
/// no line is left half.
class Following {
 public:
  Following();

  /// False when it could not be written, mostly because nobody reads any more.
  template <class Write>
  bool write(Write write) {
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
    write();
    errno = 0;
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    hasReader_ = written || errno == EPIPE ? written : true;
    sigprocmask(SIG_UNBLOCK, &signals_, nullptr);
    return written;
  }

  /// Waits about a second; false when nobody reads any more.
  bool pause();

  /// Without one nothing more is written, not even at the end of the process.
  bool hasReader() const { return hasReader_; }

 private:
  sigset_t signals_{};
  bool hasReader_ = true;
};

}  // namespace tessard
