// jabberd_authenticator: tells the private jabberd's c2s who may log in. c2s starts it once and asks it
// through pipes; passwords are the machine's own, which saslauthd checks, so that neither of the two reads
// them.

#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "programs/authenticator/Authenticator.h"
#include "programs/authenticator/SaslauthdClient.h"

namespace {

using namespace tessard;

constexpr const char* kSocket = "/run/tessard-saslauthd/mux";

// Every client of c2s waits as long; checking one password takes about a tenth of a second.
constexpr std::chrono::seconds kPatience{5};

constexpr const char* kHelp =
    "usage: jabberd_authenticator [--socket PATH]\n"
    "Answers the questions of jabberd2's c2s, module \"pipe\", on standard input and output: whether an "
    "account\n"
    "of this machine may log in, and whether a password is the account's. Root never may; where there is a "
    "group\n"
    "\"com.velto.access_all_services\", or else \"com.velto.access_chat\", its members may and nobody else;\n"
    "otherwise people and \"com.velto.notificationuser\" may.\n"
    "\n"
    "  --socket PATH  where saslauthd listens (default /run/tessard-saslauthd/mux)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 when c2s has gone; 64 wrong use; 70 something that should not happen; 74 when c2s "
    "cannot\n"
    "be heard or answered.\n";

void say(const std::string& sentence) {
  ::syslog(LOG_NOTICE, "%s", sentence.c_str());
}

// Passwords pass through this process: no image of it on disk, and no other process of the account may look
// into it. What c2s had open is its own.
bool closeOff() {
  const rlimit none{.rlim_cur = 0, .rlim_max = 0};
  return ::setrlimit(RLIMIT_CORE, &none) == 0 && ::prctl(PR_SET_DUMPABLE, 0) == 0 &&
         ::close_range(STDERR_FILENO + 1, ~0U, 0) == 0;
}

int serve(const std::string& socket) {
  if (!closeOff()) {
    std::perror("jabberd_authenticator");
    return EX_SOFTWARE;
  }
  ::openlog("jabberd_notification/authenticator", LOG_PID, LOG_LOCAL3);
  ::signal(SIGPIPE, SIG_IGN);
  const SaslauthdClient saslauthd(socket, kPatience);
  const auto served = Authenticator(saslauthd, say).serve(STDIN_FILENO, STDOUT_FILENO);
  if (served) return EX_OK;
  say("The connection to c2s is lost: " + served.error().description());
  return EX_IOERR;
}

}  // namespace

int main(int count, char** arguments) {
  try {
    const std::string_view wish = count > 1 ? arguments[1] : "";
    if (count == 1) return serve(kSocket);
    if (count == 3 && wish == "--socket" && arguments[2][0] == '/') return serve(arguments[2]);
    if (count == 2 && wish == "--help") {
      std::fputs(kHelp, stdout);
      return EX_OK;
    }
    if (count == 2 && wish == "--version") {
      std::printf("jabberd_authenticator %s\n", TESSARD_VERSION);
      return EX_OK;
    }
    std::fputs("jabberd_authenticator: these arguments are not understood (see --help)\n", stderr);
    return EX_USAGE;
  } catch (const std::exception& problem) {
    say(problem.what());
  }
  return EX_SOFTWARE;
}
