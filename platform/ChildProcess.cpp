#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <utility>

#include "common/Format.h"
#include "common/Result.h"
#include "platform/FileDescriptor.h"

namespace tessard {

namespace {

constexpr int kNotStarted = 127;
constexpr int kTookTooLong = 124;
constexpr int kSignalBase = 128;
constexpr double kLongest = 1e8;  // seconds; what the clock can count is not passed

using Time = std::chrono::steady_clock::time_point;

Time after(double seconds) {
  return std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                std::chrono::duration<double>(std::min(seconds, kLongest)));
}

int millisecondsUntil(Time end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
}

// A write to a pipe that nobody reads raises SIGPIPE in the thread that writes. Held back here, and taken
// away if it came, it neither ends this process nor reaches anybody's handler.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    ::sigemptyset(&sigpipe_);
    ::sigaddset(&sigpipe_, SIGPIPE);
    sigset_t pending;
    ::sigpending(&pending);
    wasPending_ = ::sigismember(&pending, SIGPIPE) == 1;
    ::pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;
  ~SigpipeGuard() {
    const timespec noWait{};
    if (!wasPending_) {
      while (::sigtimedwait(&sigpipe_, nullptr, &noWait) < 0 && errno == EINTR) {
      }
    }
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  sigset_t sigpipe_{};
  sigset_t before_{};
  bool wasPending_ = false;
};

// The descriptor, or a copy of it, above the three that the child's own are laid on.
FileDescriptor aboveStandard(FileDescriptor descriptor) {
  if (!descriptor || descriptor.get() > STDERR_FILENO) return descriptor;
  return FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

Result<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return SystemError::last();
  Pipe pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  pipe.readEnd = aboveStandard(std::move(pipe.readEnd));
  pipe.writeEnd = aboveStandard(std::move(pipe.writeEnd));
  if (!pipe.readEnd || !pipe.writeEnd) return SystemError::last();
  return pipe;
}

bool makeNonBlocking(const FileDescriptor& descriptor) {
  return ::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK) == 0;
}

struct Streams {
  // The child's side.
  FileDescriptor childInput;
  FileDescriptor childOutput;
  FileDescriptor childError;
  // This process's side; none where the child has /dev/null.
  FileDescriptor input;
  FileDescriptor output;
  FileDescriptor error;
};

Result<Streams> makeStreams(const ChildProcess& child) {
  Streams streams;
  if (child.input) {
    Result<Pipe> pipe = makePipe();
    if (!pipe) return pipe.error();
    streams.childInput = std::move(pipe.value().readEnd);
    streams.input = std::move(pipe.value().writeEnd);
    if (!makeNonBlocking(streams.input)) return SystemError::last();
  } else {
    streams.childInput = aboveStandard(FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
    if (!streams.childInput) return SystemError::last();
  }
  for (const auto& [childSide, ownSide] :
       {std::pair(&streams.childOutput, &streams.output), std::pair(&streams.childError, &streams.error)}) {
    if (child.capture) {
      Result<Pipe> pipe = makePipe();
      if (!pipe) return pipe.error();
      *childSide = std::move(pipe.value().writeEnd);
      *ownSide = std::move(pipe.value().readEnd);
      if (!makeNonBlocking(*ownSide)) return SystemError::last();
    } else {
      *childSide = aboveStandard(FileDescriptor(::open("/dev/null", O_WRONLY | O_CLOEXEC)));
      if (!*childSide) return SystemError::last();
    }
  }
  return streams;
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  // The functions of the exec family take these without const and leave them as they are.
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// The settings of one start; released whatever happens.
class SpawnSettings {
 public:
  SpawnSettings() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;
  ~SpawnSettings() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }

  // 0 or an error number, like the functions that it calls.
  int fill(const Streams& streams) {
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setsigdefault(&attributes_, &all);
    ::posix_spawnattr_setpgroup(&attributes_, 0);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    int error = ::posix_spawn_file_actions_adddup2(&actions_, streams.childInput.get(), STDIN_FILENO);
    if (!error)
      error = ::posix_spawn_file_actions_adddup2(&actions_, streams.childOutput.get(), STDOUT_FILENO);
    if (!error)
      error = ::posix_spawn_file_actions_adddup2(&actions_, streams.childError.get(), STDERR_FILENO);
    if (!error) error = ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    if (!error) error = ::posix_spawn_file_actions_addchdir_np(&actions_, "/");
    return error;
  }

  int spawn(pid_t& pid, const ChildProcess& child) const {
    const std::vector<char*> arguments = pointersTo(child.arguments);
    const std::vector<char*> environment = pointersTo(child.environment);
    return ::posix_spawn(&pid, child.program.c_str(), &actions_, &attributes_, arguments.data(),
                         environment.data());
  }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

// One of the program's outputs while it runs.
struct Capture {
  FileDescriptor source;
  std::string& text;
  std::size_t limit;

  // Takes what is there, at most about `most` bytes; ends the capture at its end or an error.
  void drain(std::size_t most) {
    std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by read
    std::size_t taken = 0;
    while (source && taken < most) {
      const ssize_t got = ::read(source.get(), buffer.data(), buffer.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) return;
      if (got <= 0) {
        source.close();
        return;
      }
      const auto length = static_cast<std::size_t>(got);
      text.append(buffer.data(), std::min(length, limit - text.size()));
      taken += length;
    }
  }

  // All that was written before now: as much as the pipe holds. What others write on and on is left.
  void drainRest() {
    if (!source) return;
    const int capacity = ::fcntl(source.get(), F_GETPIPE_SZ);
    if (capacity > 0) drain(static_cast<std::size_t>(capacity));
  }
};

// A started program, until it has ended.
class Running {
 public:
  Running(pid_t pid, FileDescriptor pidDescriptor, Streams streams, const ChildProcess& child,
          TaskResult& result)
      : pid_(pid),
        pidDescriptor_(std::move(pidDescriptor)),
        input_(std::move(streams.input)),
        unwritten_(child.input.value_or("")),
        output_{std::move(streams.output), result.output, child.captureLimit},
        error_{std::move(streams.error), result.errorText, child.captureLimit},
        deadline_(after(child.timeLimitSeconds)),
        graceSeconds_(child.graceSeconds) {}

  // False when the program had to be ended.
  bool wait() {
    while (!turn()) {
      if (std::chrono::steady_clock::now() < deadline_ || killed_) continue;
      ::kill(-pid_, termed_ ? SIGKILL : SIGTERM);
      killed_ = termed_;
      termed_ = true;
      deadline_ = after(graceSeconds_);
    }
    // Not waited for yet, the program keeps its id, and so the group's, from being given to others.
    if (termed_) ::kill(-pid_, SIGKILL);
    output_.drainRest();
    error_.drainRest();
    return !termed_;
  }

  // The status of the program, which has ended.
  Result<int> status() const {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED) != 0) {
      if (errno != EINTR) return SystemError::last();
    }
    return info.si_code == CLD_EXITED ? info.si_status : kSignalBase + info.si_status;
  }

 private:
  // Waits until something can be done and does it. True when the program has ended.
  bool turn() {
    // poll passes over the entries of closed descriptors, which are -1.
    std::array<pollfd, 4> waiting{{{pidDescriptor_.get(), POLLIN, 0},
                                   {input_.get(), POLLOUT, 0},
                                   {output_.source.get(), POLLIN, 0},
                                   {error_.source.get(), POLLIN, 0}}};
    const int timeout = killed_ ? -1 : millisecondsUntil(deadline_);
    if (::poll(waiting.data(), waiting.size(), timeout) <= 0) return false;
    constexpr std::size_t kAtOnce = 1'048'576;
    if (waiting[1].revents) feed();
    if (waiting[2].revents) output_.drain(kAtOnce);
    if (waiting[3].revents) error_.drain(kAtOnce);
    return waiting[0].revents != 0;
  }

  void feed() {
    while (!unwritten_.empty()) {
      const ssize_t written = ::write(input_.get(), unwritten_.data(), unwritten_.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0 && errno == EAGAIN) return;
      if (written < 0) break;  // EPIPE: the program wants no more
      unwritten_.remove_prefix(static_cast<std::size_t>(written));
    }
    input_.close();
  }

  pid_t pid_;
  FileDescriptor pidDescriptor_;
  FileDescriptor input_;
  std::string_view unwritten_;
  Capture output_;
  Capture error_;
  Time deadline_;
  double graceSeconds_;
  bool termed_ = false;
  bool killed_ = false;
};

TaskResult notStarted(const ChildProcess& child, const SystemError& error) {
  return {kNotStarted, "", child.program + ": " + error.description()};
}

TaskResult statusUnknown(const ChildProcess& child, const SystemError& error) {
  return {kNotStarted, "", child.program + ": its status is not known: " + error.description()};
}

}  // namespace

TaskResult run(const ChildProcess& child) {
  Result<Streams> streams = makeStreams(child);
  if (!streams) return notStarted(child, streams.error());
  SpawnSettings settings;
  if (const int error = settings.fill(streams.value())) return notStarted(child, SystemError(error));

  const SigpipeGuard guard;
  pid_t pid = 0;
  if (const int error = settings.spawn(pid, child)) return notStarted(child, SystemError(error));
  streams.value().childInput.close();
  streams.value().childOutput.close();
  streams.value().childError.close();
  // By number: the C library of Debian 12 declares its own function for C alone.
  FileDescriptor pidDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!pidDescriptor) {
    const SystemError error = SystemError::last();
    // It has ended and was waited for by the system; its id may be another's by now.
    if (error.code() == ESRCH) return statusUnknown(child, SystemError(ECHILD));
    ::kill(-pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    return notStarted(child, error);
  }

  TaskResult result;
  Running running(pid, std::move(pidDescriptor), std::move(streams).value(), child, result);
  const bool inTime = running.wait();
  const Result<int> status = running.status();
  if (!inTime) {
    if (!result.errorText.empty() && !result.errorText.ends_with('\n')) result.errorText += '\n';
    result.errorText +=
        fill("%@: ended for taking longer than %@ seconds", {child.program, Value(child.timeLimitSeconds)});
    result.status = kTookTooLong;
  } else if (status) {
    result.status = status.value();
  } else {
    return statusUnknown(child, status.error());
  }
  return result;
}

}  // namespace tessard
