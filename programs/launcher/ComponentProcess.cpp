#include "programs/launcher/ComponentProcess.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "common/Format.h"
#include "platform/FileDescriptor.h"

namespace tessard {

namespace {

void resetSignals() {
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE}) ::signal(number, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool becomeServiceAccount(pid_t launcher) {
  if (::setgroups(0, nullptr) != 0 || ::setresgid(kComponentGroup, kComponentGroup, kComponentGroup) != 0 ||
      ::setresuid(kComponentUser, kComponentUser, kComponentUser) != 0) {
    return false;
  }
  // After the change of the account, which takes this back; a launcher that ended meanwhile is noticed.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
  if (::getppid() != launcher) ::_exit(0);
  return true;
}

// In the child: never returns. Why it could not become the component goes through the pipe.
[[noreturn]] void becomeComponent(const std::string& program, const std::string& file, pid_t launcher,
                                  int report) {
  std::array<const char*, 4> arguments = {program.c_str(), "-c", file.c_str(), nullptr};
  std::array<const char*, 3> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8", nullptr};
  resetSignals();
  const int nothing = ::open("/dev/null", O_RDONLY);
  if (nothing >= 0 && ::dup2(nothing, STDIN_FILENO) >= 0 &&
      ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0 && ::chdir("/") == 0 &&
      becomeServiceAccount(launcher)) {
    ::execve(program.c_str(), const_cast<char* const*>(arguments.data()),
             const_cast<char* const*>(environment.data()));
  }
  const int reason = errno;
  const ssize_t written = ::write(report, &reason, sizeof reason);
  ::_exit(written == sizeof reason ? 127 : 126);
}

}  // namespace

Result<pid_t> startComponent(const Component& component) {
  const std::string program = fill("/usr/sbin/jabberd2-%@", {nameOf(component.kind)});
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return SystemError::last();
  const FileDescriptor readEnd(ends[0]);
  FileDescriptor writeEnd(ends[1]);
  const pid_t launcher = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) return SystemError::last();
  if (child == 0) becomeComponent(program, component.file, launcher, writeEnd.get());
  writeEnd.close();
  int reason = 0;
  ssize_t length = 0;
  while ((length = ::read(readEnd.get(), &reason, sizeof reason)) < 0 && errno == EINTR) {
  }
  if (length != sizeof reason) return child;
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return SystemError(reason, fill("%@: %@", {program, SystemError(reason).description()}));
}

}  // namespace tessard
