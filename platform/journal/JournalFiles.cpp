#include "platform/journal/JournalFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr mode_t kPrivateDirectory = 0700;
constexpr mode_t kPrivateFile = 0600;

// Not every file system says it with the name.
bool isDirectory(int directory, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  const auto status = statusOf({directory, std::string(entry.d_name)});
  return status && S_ISDIR(status.value().st_mode);
}

Result<void> copyLink(NameIn from, NameIn to, const struct stat& status) {
  std::string target(PATH_MAX, '\0');
  const ssize_t length = ::readlinkat(from.directory, from.name.c_str(), target.data(), target.size());
  if (length < 0) return SystemError::last();
  target.resize(static_cast<std::size_t>(length));
  if (::symlinkat(target.c_str(), to.directory, to.name.c_str()) != 0) return SystemError::last();
  return resultOf(
      ::fchownat(to.directory, to.name.c_str(), status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW));
}

Result<void> copyRegular(NameIn from, NameIn to, const struct stat& status) {
  const FileDescriptor source(uninterrupted([&] {
    return ::openat(from.directory, from.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  }));
  if (!source) return SystemError::last();
  FileDescriptor copy(uninterrupted([&] {
    return ::openat(to.directory, to.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    kPrivateFile);
  }));
  if (!copy) return SystemError::last();
  auto done = copyContent(source.get(), copy.get());
  // The owner comes first, because a change of owner takes permission bits away.
  if (done) done = resultOf(::fchown(copy.get(), status.st_uid, status.st_gid));
  if (done) done = resultOf(::fchmod(copy.get(), status.st_mode & 07777U));
  const timespec times[] = {status.st_atim, status.st_mtim};
  if (done) done = resultOf(::futimens(copy.get(), times));
  if (done) done = resultOf(uninterrupted([&] { return ::fsync(copy.get()); }));
  return done;
}

}  // namespace

Result<struct stat> statusOf(NameIn file) {
  struct stat status {};
  if (::fstatat(file.directory, file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return SystemError::last();
  }
  return status;
}

Result<FileDescriptor> openDirectory(NameIn directory) {
  FileDescriptor opened(uninterrupted([&] {
    return ::openat(directory.directory, directory.name.c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
  if (!opened) return SystemError::last();
  return opened;
}

Result<FileDescriptor> makeAndOpenDirectory(NameIn directory) {
  if (::mkdirat(directory.directory, directory.name.c_str(), kPrivateDirectory) != 0 && errno != EEXIST) {
    return SystemError::last();
  }
  return openDirectory(directory);
}

Result<std::vector<DirectoryEntry>> entriesOf(int directory) {
  auto opened = openDirectory({directory, "."});
  if (!opened) return opened.error();
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(opened.value().get()), ::closedir);
  if (!stream) return SystemError::last();
  opened.value().release();
  std::vector<DirectoryEntry> entries;
  errno = 0;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") entries.push_back({std::string(name), isDirectory(directory, *entry)});
    errno = 0;
  }
  if (errno != 0) return SystemError::last();
  std::ranges::sort(entries, {}, &DirectoryEntry::name);
  return entries;
}

Result<void> removeTree(NameIn directory) {
  const int parent = directory.directory;
  const char* name = directory.name.c_str();
  if (::unlinkat(parent, name, 0) == 0 || errno == ENOENT) return {};
  if (errno != EISDIR) return SystemError::last();
  const auto opened = openDirectory(directory);
  if (!opened) return opened.error();
  const auto entries = entriesOf(opened.value().get());
  if (!entries) return entries.error();
  for (const DirectoryEntry& entry : entries.value()) {
    const NameIn inside{opened.value().get(), entry.name};
    auto removed = entry.isDirectory ? removeTree(inside)
                                     : resultOf(::unlinkat(inside.directory, entry.name.c_str(), 0));
    if (!removed) return removed;
  }
  return resultOf(::unlinkat(parent, name, AT_REMOVEDIR));
}

// The change of owner first, because it takes permission bits away. Links have no permissions.
Result<void> giveBack(NameIn file, const NotedAttributes& attributes) {
  const char* name = file.name.c_str();
  auto owned =
      resultOf(::fchownat(file.directory, name, attributes.owner, attributes.group, AT_SYMLINK_NOFOLLOW));
  if (!owned) return owned;
  const auto status = statusOf(file);
  if (!status) return status.error();
  if (S_ISLNK(status.value().st_mode)) return {};
  return resultOf(::fchmodat(file.directory, name, attributes.permissions, 0));
}

Result<void> copyAcross(NameIn from, NameIn to) {
  const auto status = statusOf(from);
  if (!status) return status.error();
  auto copied = S_ISLNK(status.value().st_mode)   ? copyLink(from, to, status.value())
                : S_ISREG(status.value().st_mode) ? copyRegular(from, to, status.value())
                                                  : Result<void>(SystemError(EINVAL));
  if (!copied && copied.error().code() != EEXIST) {
    static_cast<void>(::unlinkat(to.directory, to.name.c_str(), 0));
  }
  return copied;
}

}  // namespace tessard
