#include "platform/FileNotices.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "common/FileSystem.h"
#include "platform/RootDirectory.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr std::uint32_t kGone = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t kInDirectory =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | kGone;
// A file that is mounted over another one shows in no directory.
constexpr std::uint32_t kOfFile = IN_CLOSE_WRITE | IN_ATTRIB | kGone;

bool isAbsence(const SystemError& error) {
  return error.code() == ENOENT || error.code() == ENOTDIR || error.code() == ELOOP;
}

}  // namespace

FileNotices::FileNotices(FileDescriptor inotify, std::string root, std::vector<std::string> paths)
    : inotify_(std::move(inotify)), root_(std::move(root)), paths_(std::move(paths)) {}

Result<FileNotices> FileNotices::open(std::string root, std::vector<std::string> paths) {
  FileDescriptor inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!inotify) return SystemError::last();
  return FileNotices(std::move(inotify), std::move(root), std::move(paths));
}

Result<void> FileNotices::arm() {
  Watches watches;
  Result<void> outcome;
  for (const std::string& path : paths_) {
    if (auto watched = watchPath(path, watches); !watched) outcome = watched;
  }
  for (const auto& [number, names] : watches_) {
    if (!watches.contains(number)) inotify_rm_watch(inotify_.get(), number);
  }
  watches_ = std::move(watches);
  return outcome;
}

Result<void> FileNotices::watchPath(const std::string& path, Watches& watches) const {
  // From the root down: what is made below a directory after it is watched is noticed.
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    if (auto watched = watchDirectoryOf(path.substr(0, slash), watches); !watched) return watched;
  }
  if (auto watched = watchDirectoryOf(path, watches); !watched) return watched;
  return watchTarget(path, watches);
}

Result<void> FileNotices::watchDirectoryOf(const std::string& path, Watches& watches) const {
  const auto directory = openBelowRoot(root_, directoryOf(path), O_PATH | O_DIRECTORY);
  if (!directory) return isAbsence(directory.error()) ? Result<void>() : directory.error();
  return watch(directory.value(), kInDirectory | IN_ONLYDIR, lastPathComponent(path), watches);
}

// The file itself and, where links lead to it, the directory that it is in.
Result<void> FileNotices::watchTarget(const std::string& path, Watches& watches) const {
  const auto file = openBelowRoot(root_, path, O_PATH);
  if (!file) return isAbsence(file.error()) ? Result<void>() : file.error();
  const auto realPath = realPathOf(file.value());
  if (!realPath) return realPath.error();
  const FileDescriptor directory(
      ::open(directoryOf(realPath.value()).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (directory) {
    auto watched = watch(directory, kInDirectory | IN_ONLYDIR, lastPathComponent(realPath.value()), watches);
    if (!watched) return watched;
  }
  return watch(file.value(), kOfFile, {}, watches);
}

Result<void> FileNotices::watch(const FileDescriptor& place, std::uint32_t mask, const std::string& name,
                                Watches& watches) const {
  const std::string link = "/proc/self/fd/" + std::to_string(place.get());
  const int number = inotify_add_watch(inotify_.get(), link.c_str(), mask);
  if (number < 0) return SystemError::last();
  auto& names = watches[number];
  if (!name.empty()) names.insert(name);
  return {};
}

Result<bool> FileNotices::take() {
  bool any = false;
  alignas(inotify_event) std::array<char, 16 * (sizeof(inotify_event) + NAME_MAX + 1)> buffer{};
  while (true) {
    const ssize_t size = uninterrupted([&] { return read(inotify_.get(), buffer.data(), buffer.size()); });
    if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return any;
    if (size <= 0) return SystemError::last();
    for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      if (matters(event, event.len > 0 ? buffer.data() + at + sizeof event : "")) any = true;
      at += sizeof event + event.len;
    }
  }
}

bool FileNotices::matters(const inotify_event& event, const char* name) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) return true;
  const auto watch = watches_.find(event.wd);
  if (watch == watches_.end()) return false;
  // The kernel watches it no more.
  if ((event.mask & IN_IGNORED) != 0) {
    watches_.erase(watch);
    return true;
  }
  return *name == '\0' || watch->second.contains(name);
}

}  // namespace tessard
