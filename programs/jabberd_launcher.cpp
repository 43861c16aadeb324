// jabberd_launcher: the one process that a service manager sees of the private jabberd instance.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "platform/SystemSyslog.h"
#include "programs/launcher/Launcher.h"
#include "programs/launcher/LauncherOptions.h"

namespace {

using namespace tessard;

// Enough for every client that c2s may be told to take.
constexpr rlim_t kOpenFiles = 65536;

void say(const std::string& sentence) {
  if (!standardErrorIsJournal()) std::fprintf(stderr, "jabberd_launcher: %s\n", sentence.c_str());
  ::syslog(LOG_NOTICE, "%s", sentence.c_str());
}

int wrongUse(const std::string& problem) {
  std::fprintf(stderr, "jabberd_launcher: %s (see --help)\n", problem.c_str());
  return EX_USAGE;
}

// The signals are taken one by one where the launcher waits, so that none is lost in between.
void holdSignals() {
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_DFL);
  sigset_t held;
  ::sigemptyset(&held);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) ::sigaddset(&held, number);
  ::sigprocmask(SIG_SETMASK, &held, nullptr);
}

void raiseOpenFiles() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = std::max(limit.rlim_cur, std::min(limit.rlim_max, kOpenFiles));
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

int launch(const LauncherOptions& options) {
  const int descriptor = options.notifyDescriptor;
  if (descriptor >= 0 && ::fcntl(descriptor, F_SETFD, FD_CLOEXEC) != 0) {
    return wrongUse("--notify-fd " + std::to_string(descriptor) + " is not an open descriptor");
  }
  if (::geteuid() != 0) {
    std::fputs("jabberd_launcher: only root can start the components as their account\n", stderr);
    return EX_NOPERM;
  }
  ::openlog("jabberd_notification/launcher", LOG_PID, LOG_LOCAL3);
  ::umask(S_IWGRP | S_IWOTH);
  holdSignals();
  raiseOpenFiles();
  return Launcher(options, say).run();
}

}  // namespace

int main(int count, char** arguments) {
  try {
    const auto options = readLauncherOptions({arguments + 1, arguments + count});
    if (!options) return wrongUse(options.error().description());
    switch (options.value().wish) {
      case LauncherOptions::Wish::help:
        std::fputs(launcherHelp().c_str(), stdout);
        return EX_OK;
      case LauncherOptions::Wish::version:
        std::printf("jabberd_launcher %s\n", TESSARD_VERSION);
        return EX_OK;
      case LauncherOptions::Wish::run:
        return launch(options.value());
    }
  } catch (const std::exception& problem) {
    say(problem.what());
  }
  return EX_SOFTWARE;
}
