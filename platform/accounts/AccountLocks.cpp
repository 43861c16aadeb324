#include "platform/accounts/AccountLocks.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <thread>

#include "common/Format.h"
#include "platform/FileDescriptor.h"
#include "platform/SystemCalls.h"
#include "platform/accounts/AccountNames.h"

namespace tessard {

namespace {

constexpr std::array<const char*, 4> kLockFiles = {"passwd.lock", "shadow.lock", "group.lock",
                                                   "gshadow.lock"};
constexpr const char* kMachineLock = "/etc/.pwd.lock";
constexpr std::chrono::milliseconds kPause{50};

using Obstacle = std::optional<std::string>;

// Nothing.
const Obstacle kNone;

bool isFromBeforeTheStart(const struct stat& file) {
  timespec now{};
  timespec running{};
  clock_gettime(CLOCK_REALTIME, &now);
  clock_gettime(CLOCK_BOOTTIME, &running);
  return file.st_mtim.tv_sec < now.tv_sec - running.tv_sec - 1;
}

/// The process that a lock file names; absent for one that names none.
std::optional<pid_t> processIn(const FileDescriptor& file) {
  std::array<char, 32> bytes{};
  const auto length = readUpTo(file.get(), bytes.data(), bytes.size());
  if (!length) return std::nullopt;
  std::string_view text(bytes.data(), length.value());
  const auto number = accountNumber(text.substr(0, text.find_first_of(std::string_view("\0\n", 2))));
  if (!number || *number == 0) return std::nullopt;
  return static_cast<pid_t>(*number);
}

/// What is in the way. A lock that is out of date is removed and is not.
Result<Obstacle> obstacleOf(int directory, const char* name) {
  const FileDescriptor file(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) return kNone;
    return SystemError(errno, fill("/etc/%@: %@", {name, SystemError::last().description()}));
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return SystemError::last();
  const auto holder = processIn(file);
  const bool ended = holder && kill(*holder, 0) != 0 && errno == ESRCH;
  if (ended || holder == getpid() || isFromBeforeTheStart(status)) {
    if (unlinkat(directory, name, 0) != 0 && errno != ENOENT) return SystemError::last();
    return kNone;
  }
  if (!holder) return Obstacle(fill("\"/etc/%@\", which names no process", {name}));
  return Obstacle(fill("process %d, by \"/etc/%@\"", {*holder, name}));
}

/// The lock that the C library gives to root's programs, whatever directory they work on.
Obstacle machineLockHolder() {
  if (geteuid() != 0) return std::nullopt;
  const FileDescriptor file(open(kMachineLock, O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file) return std::nullopt;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (fcntl(file.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return std::nullopt;
  return fill("process %d, by \"%@\"", {lock.l_pid, kMachineLock});
}

Result<Obstacle> firstObstacle(int directory) {
  for (const char* name : kLockFiles) {
    auto obstacle = obstacleOf(directory, name);
    if (!obstacle || obstacle.value()) return obstacle;
  }
  return machineLockHolder();
}

}  // namespace

Result<void> awaitAccountLocks(int directory, std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (true) {
    const auto obstacle = firstObstacle(directory);
    if (!obstacle) return obstacle.error();
    if (!obstacle.value()) return {};
    if (std::chrono::steady_clock::now() >= end) {
      return SystemError(EBUSY, fill("the account files are locked: %@", {*obstacle.value()}));
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace tessard
