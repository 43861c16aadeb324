#include <fcntl.h>
#include <sys/stat.h>

#include <set>
#include <vector>

#include "platform/InParallel.h"
#include "platform/PosixFileSystem.h"
#include "platform/SystemCalls.h"

// How files and directories come into being, and get their owners.

namespace tessard {

namespace {

constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPrivateDirectory = 0700;
// What directories get where nobody says otherwise.
constexpr mode_t kUsualDirectory = 0755;

// The name under which the kernel shows an open file, for the calls that cannot take a descriptor of every
// kind.
std::string shownNameOf(int descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor);
}

// -1 leaves an id as it is.
Result<void> changeOwner(int descriptor, const FileOwnership& ownership) {
  if (!ownership.owner && !ownership.group) return {};
  const uid_t owner = ownership.owner.value_or(static_cast<uid_t>(-1));
  const gid_t group = ownership.group.value_or(static_cast<gid_t>(-1));
  return resultOf(uninterrupted([&] { return ::fchownat(descriptor, "", owner, group, AT_EMPTY_PATH); }));
}

// The owner comes first, because a change of owner takes permission bits away.
Result<void> apply(int descriptor, const FileOwnership& ownership, mode_t permissions) {
  const auto owned = changeOwner(descriptor, ownership);
  // To look costs a fraction of what a change does, where file systems keep journals.
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && (status.st_mode & 07777U) == permissions) return owned;
  const auto permitted = resultOf(uninterrupted([&] { return ::fchmod(descriptor, permissions); }));
  return owned ? permitted : owned;
}

Result<void> flushed(int descriptor) {
  return resultOf(uninterrupted([&] { return ::fsync(descriptor); }));
}

// A new file for us alone, in place of any other of that name.
FileDescriptor makeFile(int directory, const std::string& name) {
  const auto make = [&] {
    return FileDescriptor(uninterrupted([&] {
      return ::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      kPrivateFile);
    }));
  };
  FileDescriptor file = make();
  if (file || errno != EEXIST) return file;
  if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) return {};
  return make();
}

// close(2) can be the first to tell that content did not reach the disk.
Result<void> closed(FileDescriptor& file) {
  if (file.close() != 0 && errno != EINTR) return SystemError::last();
  return {};
}

// Gives a name to a file that has none.
Result<void> nameFile(int file, int directory, const std::string& name) {
  // Only some may do so by the descriptor alone.
  if (::linkat(file, "", directory, name.c_str(), AT_EMPTY_PATH) == 0) return {};
  if (errno != ENOENT) return SystemError::last();
  return resultOf(::linkat(AT_FDCWD, shownNameOf(file).c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW));
}

void removeQuietly(int directory, const std::string& name, int flags) {
  // The failure that made the removal necessary is the one to report.
  static_cast<void>(::unlinkat(directory, name.c_str(), flags));
}

// The attributes are set through the opened directory, so that nothing put in its place gets them.
Result<void> makeDirectory(int parent, const std::string& name, const FileOwnership& ownership) {
  // Nobody enters a directory before it has its owner. One that keeps the caller's is complete at once as far
  // as the umask lets it: a death in between must not leave it closed.
  const mode_t wanted = ownership.permissions.value_or(kUsualDirectory);
  const bool isGivenAway = ownership.owner || ownership.group;
  if (::mkdirat(parent, name.c_str(), isGivenAway ? kPrivateDirectory : wanted) != 0) {
    return SystemError::last();
  }
  const FileDescriptor made(uninterrupted(
      [&] { return ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  auto given = made ? apply(made.get(), ownership, wanted) : Result<void>(SystemError::last());
  if (!given) removeQuietly(parent, name, AT_REMOVEDIR);
  return given;
}

std::string_view withoutSlashesAtEnd(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path;
}

}  // namespace

Result<void> PosixFileSystem::createFile(std::string_view path, std::string_view content,
                                         const FileOwnership& ownership, Flush flush) {
  return make(path, content, ownership, flush, nullptr);
}

std::vector<Result<FileAttributes>> PosixFileSystem::createFiles(const std::vector<NewFile>& files) {
  std::vector<Result<FileAttributes>> all(files.size(), FileAttributes());
  inParallel(files.size(), [&](std::size_t i) {
    const NewFile& file = files[i];
    const auto done = make(file.path, file.content, file.ownership, Flush::later, &all[i].value());
    if (!done) all[i] = done.error();
  });
  return all;
}

Result<void> PosixFileSystem::make(std::string_view path, std::string_view content,
                                   const FileOwnership& ownership, Flush flush, FileAttributes* attributes) {
  return inPlaceOf(path, [&](const Place& place) -> Result<void> {
    FileDescriptor file = makeFile(place.directory(), place.name);
    if (!file) return SystemError::last();
    // A file that cannot be given away is still a file with the content; the caller sees its attributes.
    const mode_t permissions = ownership.permissions.value_or(kPrivateFile);
    static_cast<void>(apply(file.get(), onDisk(ownership), permissions).ok());
    auto made = writeAll(file.get(), content);
    if (made && flush == Flush::now) made = flushed(file.get());
    if (made && flush == Flush::later) early_.add(file.get());
    if (made && attributes) made = lookAt(file.get(), *attributes);
    if (made) made = closed(file);
    if (!made) removeQuietly(place.directory(), place.name, 0);
    return made;
  });
}

Result<void> PosixFileSystem::flush(const std::vector<std::string>& paths) {
  early_.end();
  if (paths.size() == 1) {
    const auto file = open(paths.front(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    return file ? flushed(file.value().get()) : Result<void>(file.error());
  }
  std::set<std::string> directories;
  for (const std::string& path : paths) directories.insert(directoryOf(path));
  std::set<dev_t> done;
  for (const std::string& path : directories) {
    const auto directory = open(path, O_RDONLY | O_DIRECTORY);
    if (!directory) return directory.error();
    struct stat status {};
    if (::fstat(directory.value().get(), &status) != 0) return SystemError::last();
    if (!done.insert(status.st_dev).second) continue;
    auto all = resultOf(uninterrupted([&] { return ::syncfs(directory.value().get()); }));
    if (!all) return all;
  }
  return {};
}

FileCopies PosixFileSystem::copyFiles(std::string_view from, const std::vector<std::string>& to,
                                      std::size_t limit) {
  FileCopies copies{"", std::vector<Result<FileAttributes>>(to.size(), FileAttributes())};
  const auto source = openForReading(from);
  auto content = source ? contentOf(source.value(), limit) : Result<std::string>(source.error());
  if (!content) {
    copies.made.assign(to.size(), content.error());
    return copies;
  }
  copies.content = std::move(content).value();
  inParallel(to.size(), [&](std::size_t i) {
    const auto done = makeCopy(to[i], copies.content, source.value().status, copies.made[i].value());
    if (!done) copies.made[i] = done.error();
  });
  return copies;
}

Result<void> PosixFileSystem::makeCopy(std::string_view path, std::string_view content,
                                       const struct stat& source, FileAttributes& attributes) {
  return inPlaceOf(path, [&](const Place& place) -> Result<void> {
    // The copy gets its name when it is complete, so nothing is left over whatever happens before.
    FileDescriptor copy(uninterrupted(
        [&] { return ::openat(place.directory(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, kPrivateFile); }));
    if (!copy) return SystemError::last();
    const FileOwnership same{source.st_uid, source.st_gid, std::nullopt};
    if (auto given = apply(copy.get(), same, source.st_mode & 07777U); !given) return given;
    if (auto written = writeAll(copy.get(), content); !written) return written;
    if (auto looked = lookAt(copy.get(), attributes); !looked) return looked;
    early_.add(copy.get());
    if (auto named = nameFile(copy.get(), place.directory(), place.name); !named) return named;
    auto made = closed(copy);
    if (!made) removeQuietly(place.directory(), place.name, 0);
    return made;
  });
}

Result<void> PosixFileSystem::lookAt(int file, FileAttributes& attributes) const {
  struct stat status {};
  if (::fstat(file, &status) != 0) return SystemError::last();
  attributes = attributesOf(status);
  return {};
}

Result<void> PosixFileSystem::createDirectory(std::string_view path, const FileOwnership& ownership,
                                              bool withParents) {
  path = withoutSlashesAtEnd(path);
  if (path == "/") return SystemError(EEXIST);
  if (withParents) {
    if (auto made = ensureDirectory(directoryOf(path)); !made) return made;
  }
  return inPlaceOf(path, [&](const Place& place) {
    return makeDirectory(place.directory(), place.name, onDisk(ownership));
  });
}

Result<void> PosixFileSystem::ensureDirectory(std::string_view path) const {
  path = withoutSlashesAtEnd(path);
  const auto opened = open(path, O_PATH | O_DIRECTORY);
  if (opened) return {};
  if (opened.error().code() != ENOENT || path == "/") return opened.error();
  if (auto made = ensureDirectory(directoryOf(path)); !made) return made;
  auto made =
      inPlaceOf(path, [](const Place& place) { return makeDirectory(place.directory(), place.name, {}); });
  if (made || made.error().code() != EEXIST) return made;
  // Somebody else was faster, or the name is a link that leads nowhere.
  const auto found = open(path, O_PATH | O_DIRECTORY);
  if (!found) return found.error();
  return {};
}

Result<void> PosixFileSystem::setOwnership(std::string_view path, const FileOwnership& ownership) {
  const auto opened = open(withoutSlashesAtEnd(path), O_PATH | O_NOFOLLOW);
  if (!opened) return opened.error();
  const int descriptor = opened.value().get();
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return SystemError::last();
  if (S_ISLNK(status.st_mode)) return SystemError(ELOOP);
  if (auto owned = changeOwner(descriptor, onDisk(ownership)); !owned) return owned;
  if (!ownership.permissions) return {};
  // fchmod(2) refuses a descriptor that was opened for its path only, and no other kind can be had of a file
  // that may not be read.
  return resultOf(
      uninterrupted([&] { return ::chmod(shownNameOf(descriptor).c_str(), *ownership.permissions); }));
}

}  // namespace tessard
