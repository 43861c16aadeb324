#include "host/ctl/Following.h"

#include <poll.h>
#include <sysexits.h>
#include <unistd.h>

namespace tessard {

namespace {

constexpr int kPollMilliseconds = 1000;

void endAtOnce(int /*signal*/) {
  _exit(EX_OK);
}

}  // namespace

Following::Following() {
  struct sigaction end {};
  end.sa_handler = endAtOnce;
  sigaction(SIGINT, &end, nullptr);
  sigaction(SIGTERM, &end, nullptr);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, nullptr);
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
}

bool Following::pause() {
  pollfd watched{STDOUT_FILENO, 0, 0};
  hasReader_ = poll(&watched, 1, kPollMilliseconds) <= 0 || (watched.revents & POLLERR) == 0;
  return hasReader_;
}

}  // namespace tessard
