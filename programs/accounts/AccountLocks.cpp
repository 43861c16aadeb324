#include "programs/accounts/AccountLocks.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

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
// What a lock file's maker, who writes one number, needs at most.
constexpr std::chrono::seconds kLongestMaking{2};
constexpr std::size_t kRandomCharacters = 6;

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

bool hasEnded(pid_t process) {
  return kill(process, 0) != 0 && errno == ESRCH;
}

Result<std::vector<std::string>> entriesOf(int directory) {
  FileDescriptor opened(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opened ? fdopendir(opened.get()) : nullptr, closedir);
  if (!stream) return SystemError::last();
  opened.release();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = readdir(stream.get())) names.emplace_back(entry->d_name);
  return errno == 0 ? Result<std::vector<std::string>>(std::move(names)) : SystemError::last();
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
  const bool ended = holder && hasEnded(*holder);
  // Of this process and the daemon that started it none has made the file: a former process had its number.
  const bool isOurs = holder == getpid() || holder == getppid();
  if (ended || isOurs || isFromBeforeTheStart(status)) {
    if (unlinkat(directory, name, 0) != 0 && errno != ENOENT) return SystemError::last();
    return kNone;
  }
  if (!holder) return Obstacle(fill("\"/etc/%@\", which names no process", {name}));
  return Obstacle(fill("process %d, by \"/etc/%@\"", {*holder, name}));
}

/// A lock file gets its name when it is whole. Until then it has that name and six more characters, which it
/// keeps when its maker could neither go on nor remove it.
Result<Obstacle> obstacleInTheMaking(int directory, const std::string& name) {
  const FileDescriptor file(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) {
    if (errno == ENOENT) return kNone;
    return SystemError(errno, fill("/etc/%@: %@", {name, SystemError::last().description()}));
  }
  const auto maker = processIn(file);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const bool isYoung = status.st_mtim.tv_sec + kLongestMaking.count() >= now.tv_sec;
  if (!maker && isYoung) return Obstacle(fill("\"/etc/%@\", which is being made", {name}));
  if (maker && !hasEnded(*maker)) return kNone;
  if (unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) return SystemError::last();
  return kNone;
}

Result<Obstacle> firstObstacleInTheMaking(int directory) {
  const auto entries = entriesOf(directory);
  if (!entries) return entries.error();
  for (const std::string& name : entries.value()) {
    const bool isLock = std::ranges::any_of(kLockFiles, [&](const std::string& lock) {
      return name.starts_with(lock + ".") && name.size() == lock.size() + 1 + kRandomCharacters;
    });
    if (!isLock) continue;
    auto obstacle = obstacleInTheMaking(directory, name);
    if (!obstacle || obstacle.value()) return obstacle;
  }
  return kNone;
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
  auto obstacle = firstObstacleInTheMaking(directory);
  return obstacle && !obstacle.value() ? Result<Obstacle>(machineLockHolder()) : obstacle;
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
