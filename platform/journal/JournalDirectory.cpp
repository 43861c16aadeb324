#include "platform/journal/JournalDirectory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

#include <cerrno>

#include "common/Format.h"
#include "platform/RootDirectory.h"
#include "platform/SystemCalls.h"
#include "platform/journal/JournalNames.h"

namespace tessard {

JournalDirectory::JournalDirectory(FileSystem& files, const std::string& root) : files_(files) {
  root_ = FileDescriptor(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root_) {
    rootError_ = errno;
    return;
  }
  const auto path = realPathOf(root_);
  if (!path) rootError_ = path.error().code();
  if (path && path.value() != "/") rootPath_ = path.value();
}

Result<JournalDirectory::OpenedDirectory> JournalDirectory::open(std::string_view directory) const {
  if (rootError_ != 0) return SystemError(rootError_);
  auto opened = openResolving(root_.get(), std::string(directory), O_PATH | O_DIRECTORY,
                              RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS);
  if (!opened) return opened.error();
  FileDescriptor descriptor = std::move(opened).value();
  auto path = realPathOf(descriptor);
  if (!path) return path.error();
  if (!path.value().starts_with(rootPath_ + "/") && path.value() != rootPath_) return SystemError(ENOENT);
  return OpenedDirectory{std::move(descriptor), path.value().substr(rootPath_.size())};
}

Result<void> JournalDirectory::openHome() {
  if (home_) return {};
  auto home = openOrMakeHome();
  if (!home) return home.error();
  struct stat status {};
  if (::fstat(home.value().get(), &status) != 0) return SystemError::last();
  constexpr mode_t kWritableByOthers = 022;
  if (status.st_uid == ::geteuid() && (status.st_mode & kWritableByOthers) == 0) {
    home_ = std::move(home).value();
    return resultOf(::fchmod(home_.get(), 0700));
  }
  // Nothing that somebody else may have written is ever put back. Another user's daemon leaves such a home,
  // too.
  const auto parent = open(directoryOf(kJournalHome));
  if (!parent) return parent.error();
  const int directory = parent.value().descriptor.get();
  const std::string name = lastPathComponent(kJournalHome);
  if (auto removed = removeTree({directory, name + kForeignSuffix}); !removed) return removed;
  auto moved = resultOf(::renameat(directory, name.c_str(), directory, (name + kForeignSuffix).c_str()));
  return moved ? openHome() : moved;
}

Result<FileDescriptor> JournalDirectory::openOrMakeHome() {
  if (!files_.exists(kJournalHome)) {
    auto made = files_.createDirectory(kJournalHome, {std::nullopt, std::nullopt, 0700}, true);
    if (!made && made.error().code() != EEXIST) return made.error();
  }
  const auto parent = open(directoryOf(kJournalHome));
  if (!parent) return parent.error();
  return openDirectory({parent.value().descriptor.get(), lastPathComponent(kJournalHome)});
}

Result<void> JournalDirectory::makeJournal() {
  const auto make = [&] { return resultOf(::mkdirat(home_.get(), kOpenJournal.c_str(), 0700)); };
  auto made = make();
  if (made || made.error().code() != EEXIST) return made;
  // It was made before and could not be opened: there are no notes in it.
  static_cast<void>(::unlinkat(home_.get(), (kOpenJournal + '/' + kMarker).c_str(), 0));
  auto removed = resultOf(::unlinkat(home_.get(), kOpenJournal.c_str(), AT_REMOVEDIR));
  return removed ? make() : removed;
}

Result<void> JournalDirectory::openJournal() {
  if (open_) return {};
  if (auto opened = openHome(); !opened) return opened;
  if (auto made = makeJournal(); !made) return made;
  auto journal = openDirectory({home_.get(), kOpenJournal});
  if (!journal) return journal.error();
  const FileDescriptor marker(uninterrupted([&] {
    return ::openat(journal.value().get(), kMarker.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  }));
  if (!marker) return SystemError::last();
  open_ = std::move(journal).value();
  count_ = 0;
  return {};
}

Result<int> JournalDirectory::mirrorOf(const char* kind, const std::string& path) {
  if (auto opened = openJournal(); !opened) return opened.error();
  const auto key = std::pair(std::string(kind), path);
  if (const auto known = mirrors_.find(key); known != mirrors_.end()) return known->second.get();
  auto at = makeAndOpenDirectory({open_.get(), kind});
  if (!at) return at.error();
  for (const std::string& name : mirrorNamesOf(path)) {
    auto next = makeAndOpenDirectory({at.value().get(), name});
    if (!next) return next.error();
    at = std::move(next);
  }
  return mirrors_.emplace(key, std::move(at).value()).first->second.get();
}

// A hard link, else a copy. ENOENT when there is nothing, EISDIR for a directory.
Result<void> JournalDirectory::linkInto(int mirror, const Place& place) {
  const auto link = [&] {
    return ::linkat(place.directory, place.name.c_str(), mirror, place.name.c_str(), 0);
  };
  if (link() == 0) return {};
  const SystemError reason = SystemError::last();
  if (reason.code() == ENOENT) return reason;
  const NameIn file{place.directory, place.name};
  const auto status = statusOf(file);
  if (!status) return status.error().code() == ENOENT ? reason : status.error();
  if (S_ISDIR(status.value().st_mode)) return SystemError(EISDIR);
  if (!S_ISREG(status.value().st_mode) && !S_ISLNK(status.value().st_mode)) return reason;
  switch (reason.code()) {
    case EXDEV:
    case EMLINK:
    case EPERM:
    case EOPNOTSUPP:
      return copyAcross(file, {mirror, place.name});
    default:
      return reason;
  }
}

Result<bool> JournalDirectory::remember(const Place& place) {
  auto linked = rememberPresent(place);
  if (!linked && linked.error().code() == EISDIR) return false;
  if (!linked || linked.value()) return linked;
  const auto absent = rememberAbsent(place.path, place.name);
  return absent ? Result<bool>(true) : absent.error();
}

Result<bool> JournalDirectory::rememberPresent(const Place& place) {
  const auto mirror = mirrorOf(kPresent, place.path);
  if (!mirror) return mirror.error();
  const auto linked = linkInto(mirror.value(), place);
  if (!linked && linked.error().code() == ENOENT) return false;
  return linked ? Result<bool>(true) : linked.error();
}

Result<void> JournalDirectory::rememberAbsent(const std::string& path, const std::string& name) {
  const auto mirror = mirrorOf(kAbsent, path);
  if (!mirror) return mirror.error();
  // One file with many names is cheaper than many files.
  if (::linkat(open_.get(), kMarker.c_str(), mirror.value(), name.c_str(), 0) == 0) return {};
  if (errno != EMLINK) return SystemError::last();
  const FileDescriptor made(
      ::openat(mirror.value(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  return made ? Result<void>() : Result<void>(SystemError::last());
}

Result<void> JournalDirectory::take(const Place& place) {
  const auto status = statusOf({place.directory, place.name});
  if (!status) return status.error();
  if (S_ISDIR(status.value().st_mode)) return SystemError(EISDIR);
  const auto mirror = mirrorOf(kPresent, place.path);
  if (!mirror) return mirror.error();
  const char* name = place.name.c_str();
  if (::renameat(place.directory, name, mirror.value(), name) == 0) return {};
  if (errno != EXDEV) return SystemError::last();
  if (auto linked = linkInto(mirror.value(), place); !linked) return linked;
  return resultOf(::unlinkat(place.directory, name, 0));
}

Result<void> JournalDirectory::rememberAttributes(const Place& place, const struct stat& status) {
  return noteByPath(kAttributes, place, status, true);
}

Result<void> JournalDirectory::rememberDirectory(const Place& place, const struct stat& status) {
  return noteByPath(kRemoved, place, status, false);
}

Result<void> JournalDirectory::noteByPath(const char* kind, const Place& place, const struct stat& status,
                                          bool canBeLink) {
  if (auto opened = openJournal(); !opened) return opened;
  const auto all = makeAndOpenDirectory({open_.get(), kind});
  if (!all) return all.error();
  const std::string attributes = attributesNameOf(status.st_uid, status.st_gid, status.st_mode & 07777U);
  const auto mirror = makeAndOpenDirectory({all.value().get(), attributes});
  if (!mirror) return mirror.error();
  const std::string number = std::to_string(count_++);
  if (canBeLink &&
      ::linkat(place.directory, place.name.c_str(), mirror.value().get(), number.c_str(), 0) == 0)
    return {};
  // A directory, or a file of another file system: by its path.
  const std::string path = fill("%@/%@", {place.path, place.name});
  return resultOf(::symlinkat(path.c_str(), mirror.value().get(), number.c_str()));
}

Result<void> JournalDirectory::forget(const std::string& path, const std::string& name) {
  const auto present = mirrorOf(kPresent, path);
  if (!present) return present.error();
  const auto absent = mirrorOf(kAbsent, path);
  if (!absent) return absent.error();
  if (!statusOf({present.value(), name}) && !statusOf({absent.value(), name})) return {};
  for (const std::string& beside : namesBeside(name)) {
    if (statusOf({present.value(), beside}) || statusOf({absent.value(), beside})) continue;
    if (auto noted = rememberAbsent(path, beside); !noted) return noted;
  }
  for (const int mirror : {present.value(), absent.value()}) {
    if (::unlinkat(mirror, name.c_str(), 0) != 0 && errno != ENOENT) return SystemError::last();
  }
  return {};
}

Result<void> JournalDirectory::rename(const std::string& to) {
  auto renamed = resultOf(::renameat(home_.get(), name_.c_str(), home_.get(), to.c_str()));
  if (renamed) name_ = to;
  return renamed;
}

// Gives the journal the name of one that has ended, for good, in place of an older one of that name.
Result<void> JournalDirectory::retire(const std::string& to,
                                      const std::function<Result<void>()>& makeNamesLast) {
  if (auto removed = removeTree({home_.get(), to}); !removed) return removed;
  if (auto renamed = rename(to); !renamed) return renamed;
  auto flushed = makeNamesLast();
  if (flushed) flushed = resultOf(uninterrupted([&] { return ::fsync(home_.get()); }));
  if (!flushed) {
    static_cast<void>(rename(kOpenJournal).ok());
    return flushed;
  }
  mirrors_.clear();
  open_ = FileDescriptor();
  name_ = kOpenJournal;
  return {};
}

Result<void> JournalDirectory::keep(const std::function<Result<void>()>& makeNamesLast, bool undoable) {
  return isEmpty() ? makeNamesLast() : retire(undoable ? kUndoableJournal : kKeptJournal, makeNamesLast);
}

// What cannot be removed is tried again before the next one is kept, and at the next start.
void JournalDirectory::tidyUp() {
  // One that could not be taken back is still needed.
  if (!home_ || name_ != kOpenJournal) return;
  promote();
  static_cast<void>(removeTree({home_.get(), kKeptJournal}).ok());
}

}  // namespace tessard
