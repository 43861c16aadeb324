#include "platform/PosixFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "common/Digest.h"
#include "platform/InParallel.h"
#include "platform/RootDirectory.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

// What a first reading of a file asks for, and grows by.
constexpr std::size_t kReadingStep = 64UL * 1024;

bool isWellFormed(std::string_view path) {
  return path.starts_with('/') && path.find('\0') == std::string_view::npos;
}

// Whether a path ends in a name that stands for itself.
bool hasNameOfItsOwn(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  return !name.empty() && name != "." && name != "..";
}

FileAttributes::Kind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return FileAttributes::Kind::regular;
  if (S_ISDIR(mode)) return FileAttributes::Kind::directory;
  if (S_ISLNK(mode)) return FileAttributes::Kind::link;
  return FileAttributes::Kind::other;
}

template <class Id>
Id mapped(const std::map<Id, Id>& map, Id id) {
  const auto found = map.find(id);
  return found == map.end() ? id : found->second;
}

template <class Id>
Id mappedBack(const std::map<Id, Id>& map, Id onDisk) {
  std::optional<Id> found;
  for (const auto& [specified, used] : map) {
    if (used != onDisk) continue;
    if (found) return onDisk;
    found = specified;
  }
  return found.value_or(onDisk);
}

}  // namespace

PosixFileSystem::PosixFileSystem(std::string root, OwnerMap map) : map_(std::move(map)) {
  root_ =
      FileDescriptor(uninterrupted([&] { return ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
  if (!root_) rootError_ = errno;
}

Result<FileDescriptor> PosixFileSystem::open(std::string_view path, int flags) const {
  if (!isWellFormed(path)) return SystemError(EINVAL);
  if (!root_) return SystemError(rootError_);
  return openResolving(root_.get(), std::string(path), flags, RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS);
}

Result<PosixFileSystem::Place> PosixFileSystem::placeOf(std::string_view path) const {
  if (!isWellFormed(path)) return SystemError(EINVAL);
  std::string name = lastPathComponent(path);
  if (name == "." || name == "..") return SystemError(EINVAL);
  // A slash at the end: what is meant is a directory, and the kernel would follow a link of that name.
  if (name.empty()) return SystemError(EISDIR);
  const std::string_view above = path.substr(0, std::max(path.rfind('/'), std::size_t{1}));
  if (auto held = held_.find(above)) return Place{std::move(held), std::move(name)};
  auto directory = open(above, O_PATH | O_DIRECTORY);
  if (!directory) return directory.error();
  return Place{held_.keep(above, std::move(directory).value()), std::move(name)};
}

bool PosixFileSystem::exists(std::string_view path) {
  return statusOf(path).ok();
}

Result<struct stat> PosixFileSystem::statusOf(std::string_view path) const {
  struct stat status {};
  if (hasNameOfItsOwn(path)) {
    const auto found = inPlaceOf(path, [&](const Place& place) {
      return resultOf(::fstatat(place.directory(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW));
    });
    if (!found) return found.error();
    if (!S_ISLNK(status.st_mode)) return status;
  }
  const auto opened = open(path, O_PATH);
  if (!opened) return opened.error();
  if (::fstat(opened.value().get(), &status) != 0) return SystemError::last();
  return status;
}

Result<FileAttributes> PosixFileSystem::attributes(std::string_view path) {
  const auto found = statusOf(path);
  return found ? Result<FileAttributes>(attributesOf(found.value())) : found.error();
}

FileAttributes PosixFileSystem::attributesOf(const struct stat& status) const {
  FileAttributes attributes;
  attributes.kind = kindOf(status.st_mode);
  attributes.owner = mappedBack(map_.users, status.st_uid);
  attributes.group = mappedBack(map_.groups, status.st_gid);
  attributes.permissions = status.st_mode & 07777U;
  attributes.size = static_cast<std::uint64_t>(status.st_size);
  attributes.modified = {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
  attributes.changed = {status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
  attributes.device = status.st_dev;
  attributes.inode = status.st_ino;
  return attributes;
}

Result<PosixFileSystem::OpenedFile> PosixFileSystem::openForReading(std::string_view path) const {
  // Not blocking, so that a pipe without a writer holds nobody up before it is told from a file.
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  OpenedFile file;
  Result<void> done = SystemError(ELOOP);
  if (hasNameOfItsOwn(path)) {
    done = inPlaceOf(path, [&](const Place& place) -> Result<void> {
      file.descriptor = FileDescriptor(uninterrupted(
          [&] { return ::openat(place.directory(), place.name.c_str(), kFlags | O_NOFOLLOW); }));
      return file.descriptor ? Result<void>() : SystemError::last();
    });
  }
  // A link, which is followed within the root.
  if (!done && done.error().code() == ELOOP) {
    auto opened = open(path, kFlags);
    done = opened ? Result<void>() : opened.error();
    if (opened) file.descriptor = std::move(opened).value();
  }
  // A socket, or a device without a driver.
  if (!done && done.error().code() == ENXIO) return SystemError(EINVAL);
  if (!done) return done.error();
  if (::fstat(file.descriptor.get(), &file.status) != 0) return SystemError::last();
  if (!S_ISREG(file.status.st_mode)) return SystemError(EINVAL);
  return file;
}

Result<std::string> PosixFileSystem::readFile(std::string_view path, std::size_t limit) {
  const auto opened = openForReading(path);
  return opened ? contentOf(opened.value(), limit) : opened.error();
}

std::vector<Result<FileFingerprint>> PosixFileSystem::fingerprints(const std::vector<std::string>& paths,
                                                                   std::size_t limit) {
  std::vector<Result<FileFingerprint>> all(paths.size(), FileFingerprint());
  inParallel(paths.size(), [&](std::size_t i) {
    const auto opened = openForReading(paths[i]);
    const auto content = opened ? contentOf(opened.value(), limit) : Result<std::string>(opened.error());
    all[i] = content ? Result(FileFingerprint{attributesOf(opened.value().status), digestOf(content.value())})
                     : content.error();
  });
  return all;
}

Result<std::string> PosixFileSystem::contentOf(const OpenedFile& opened, std::size_t limit) {
  const int file = opened.descriptor.get();
  const auto size = static_cast<std::uint64_t>(opened.status.st_size);
  if (size > limit) return SystemError(EFBIG);
  // The size that the file claims is no more than a hint: it may grow, and files of /proc claim none. One
  // byte more is asked for, so that the end is seen with the first reading.
  std::string content(size + 1, '\0');
  const ssize_t first = uninterrupted([&] { return ::read(file, content.data(), content.size()); });
  if (first < 0) return SystemError::last();
  content.resize(static_cast<std::size_t>(first));
  if (size > 0 && content.size() == size) return content;
  while (content.size() <= limit) {
    const std::size_t before = content.size();
    const std::size_t step = std::min(kReadingStep, limit - before + 1);
    content.resize(before + step);
    const auto got = readUpTo(file, content.data() + before, step);
    if (!got) return got.error();
    content.resize(before + got.value());
    if (got.value() < step) break;
  }
  if (content.size() > limit) return SystemError(EFBIG);
  return content;
}

Result<void> PosixFileSystem::renameAt(std::string_view from, std::string_view to, unsigned flags) const {
  while (true) {
    const auto source = placeOf(from);
    if (!source) return source.error();
    const auto target = placeOf(to);
    if (!target) return target.error();
    auto renamed = resultOf(uninterrupted([&] {
      return ::renameat2(source.value().directory(), source.value().name.c_str(), target.value().directory(),
                         target.value().name.c_str(), flags);
    }));
    if (renamed) return renamed;
    const bool sourceRemoved = held_.forgetRemoved(directoryOf(from));
    if (!held_.forgetRemoved(directoryOf(to)) && !sourceRemoved) return renamed;
  }
}

Result<void> PosixFileSystem::rename(std::string_view from, std::string_view to) {
  return renameAt(from, to, 0);
}

Result<void> PosixFileSystem::exchange(std::string_view first, std::string_view second) {
  return renameAt(first, second, RENAME_EXCHANGE);
}

Result<void> PosixFileSystem::remove(std::string_view path) {
  return inPlaceOf(path, [&](const Place& place) {
    return resultOf(uninterrupted([&] { return ::unlinkat(place.directory(), place.name.c_str(), 0); }));
  });
}

Result<std::vector<std::string>> PosixFileSystem::listDirectory(std::string_view path) {
  auto opened = open(path, O_RDONLY | O_DIRECTORY);
  if (!opened) return opened.error();
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(opened.value().get()), ::closedir);
  if (!stream) return SystemError::last();
  opened.value().release();
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  if (errno != 0) return SystemError::last();
  std::ranges::sort(names);
  return names;
}

Result<void> PosixFileSystem::syncDirectory(std::string_view path) {
  const auto opened = open(path, O_RDONLY | O_DIRECTORY);
  if (!opened) return opened.error();
  return resultOf(uninterrupted([&] { return ::fsync(opened.value().get()); }));
}

FileOwnership PosixFileSystem::onDisk(const FileOwnership& ownership) const {
  FileOwnership used = ownership;
  if (used.owner) used.owner = mapped(map_.users, *used.owner);
  if (used.group) used.group = mapped(map_.groups, *used.group);
  return used;
}

}  // namespace tessard
