#include "programs/accounts/AccountChanges.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <utility>

#include "common/Format.h"
#include "platform/RootDirectory.h"
#include "platform/SystemCalls.h"
#include "platform/accounts/AccountFiles.h"
#include "programs/accounts/AccountLocks.h"

namespace tessard {

namespace {

constexpr std::array<const char*, 4> kFiles = {"passwd", "shadow", "group", "gshadow"};
// What libuser makes beside each of them: its new content, the former content, its lock.
constexpr std::array<const char*, 4> kSuffixes = {"", "+", "-", ".lock"};

SystemError about(const std::string& name, int code) {
  return SystemError(code, fill("/etc/%@: %@", {name, SystemError(code).description()}));
}

/// libuser would follow a link to a file that is none of the accounts'.
Result<void> checkKind(int directory, const std::string& name) {
  struct stat status {};
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Result<void>() : Result<void>(about(name, errno));
  }
  if (S_ISLNK(status.st_mode)) {
    return SystemError(ELOOP, fill("\"/etc/%@\" is a symbolic link, not an account file", {name}));
  }
  if (!S_ISREG(status.st_mode)) {
    return SystemError(EINVAL, fill("\"/etc/%@\" is not a regular file", {name}));
  }
  // A new file in its place could not be given to its owner.
  if (geteuid() != 0 && status.st_uid != geteuid()) return about(name, EPERM);
  return {};
}

std::string pathThrough(const FileDescriptor& descriptor) {
  return descriptor ? "/proc/self/fd/" + std::to_string(descriptor.get()) : std::string();
}

FileDescriptor openIfThere(const std::string& root, std::string_view path) {
  auto file = openBelowRoot(root, path, O_RDONLY | O_NONBLOCK);
  return file ? std::move(file).value() : FileDescriptor();
}

}  // namespace

AccountChanges::AccountChanges(std::string root, FileSystem& files, std::chrono::milliseconds patience)
    : root_(std::move(root)), files_(files), patience_(patience) {}

Result<void> AccountChanges::Workplace::flush() const {
  const FileDescriptor readable(openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!readable) return SystemError::last();
  return resultOf(fsync(readable.get()));
}

Result<AccountChanges::Workplace> AccountChanges::prepare() {
  auto directory = openBelowRoot(root_, "/etc", O_PATH | O_DIRECTORY);
  if (!directory) return SystemError(directory.error().code(), "/etc: " + directory.error().description());
  Workplace place;
  place.directory = std::move(directory).value();
  if (faccessat(place.directory.get(), ".", W_OK, AT_EACCESS) != 0) return about("", errno);
  if (const auto checked = checkFiles(place.directory.get()); !checked) return checked.error();
  if (const auto free = awaitAccountLocks(place.directory.get(), patience_); !free) return free.error();
  if (const auto there = ensureShadowFile(); !there) return there.error();
  place.loginDefinitions = openIfThere(root_, "/etc/login.defs");
  place.newUserDefaults = openIfThere(root_, "/etc/default/useradd");
  place.places = {pathThrough(place.directory), pathThrough(place.loginDefinitions),
                  pathThrough(place.newUserDefaults)};
  return place;
}

Result<void> AccountChanges::checkFiles(int directory) const {
  for (const std::string file : kFiles) {
    for (const char* suffix : kSuffixes) {
      if (auto checked = checkKind(directory, file + suffix); !checked) return checked;
    }
  }
  return {};
}

/// Without the file libuser would put the hash of a password where everybody can read it.
Result<void> AccountChanges::ensureShadowFile() {
  if (files_.exists(kShadowFile)) return {};
  const auto group = groupNamed(files_, "shadow");
  const bool canGive = geteuid() == 0 && group;
  const FileOwnership ownership{std::nullopt, canGive ? std::optional(group.value().gid) : std::nullopt,
                                canGive ? 0640 : 0600};
  return files_.createFile(kShadowFile, "", ownership, Flush::now);
}

/// The numbers that are taken, when the user's name and number are not.
Result<std::set<uid_t>> AccountChanges::numbersBesides(const NewUser& user) {
  const auto users = usersIn(files_);
  if (!users) return users.error();
  std::set<uid_t> taken;
  for (const UserEntry& other : users.value()) {
    taken.insert(other.uid);
    if (other.name == user.name) {
      return SystemError(EEXIST, fill("there is a user \"%@\" already", {user.name}));
    }
    if (user.uid == other.uid) {
      return SystemError(EEXIST, fill("the user ID %u belongs to \"%@\"", {other.uid, other.name}));
    }
  }
  return taken;
}

/// A shadow line without a user, as an interrupted change leaves it.
Result<void> AccountChanges::removeOrphan(const Workplace& place, const std::string& user) {
  const auto orphan = hasShadowLine(files_, user);
  if (!orphan) return orphan.error();
  if (!orphan.value()) return {};
  auto session = LibuserSession::start(place.places, LibuserSession::Files::shadowAlone);
  return session ? session.value().removeShadowLine(user) : Result<void>(session.error());
}

Result<void> AccountChanges::addUser(const NewUser& user) {
  const auto place = prepare();
  if (!place) return place.error();
  const auto taken = numbersBesides(user);
  if (!taken) return taken.error();
  if (auto removed = removeOrphan(place.value(), user.name); !removed) return removed;
  auto session = LibuserSession::start(place.value().places, LibuserSession::Files::all);
  if (!session) return session.error();
  if (auto added = session.value().addUser(user, taken.value()); !added) {
    // Half of it may be done; what cannot be taken back now the next attempt takes away.
    if (!userNamed(files_, user.name)) static_cast<void>(removeOrphan(place.value(), user.name).ok());
    return added;
  }
  return place.value().flush();
}

Result<void> AccountChanges::setPasswordHash(const std::string& user, const std::string& hash) {
  const auto place = prepare();
  if (!place) return place.error();
  const auto entry = userNamed(files_, user);
  if (!entry) return entry.error();
  const auto line = hasShadowLine(files_, user);
  if (!line) return line.error();
  auto shadow = LibuserSession::start(place.value().places, LibuserSession::Files::shadowAlone);
  if (!shadow) return shadow.error();
  if (!line.value()) {
    auto added = shadow.value().addUser({.name = user, .uid = entry.value().uid}, {});
    if (!added) return added;
  }
  if (auto set = shadow.value().setPasswordHash(user, entry.value().uid, hash); !set) return set;
  if (!entry.value().hasShadowPassword) {
    auto passwd = LibuserSession::start(place.value().places, LibuserSession::Files::passwdAlone);
    if (!passwd) return passwd.error();
    if (auto pointed = passwd.value().pointToShadow(user); !pointed) return pointed;
  }
  return place.value().flush();
}

Result<void> AccountChanges::addMember(const std::string& group, const std::string& user) {
  const auto place = prepare();
  if (!place) return place.error();
  if (const auto entry = userNamed(files_, user); !entry) return entry.error();
  const auto entry = groupNamed(files_, group);
  if (!entry) return entry.error();
  auto session = LibuserSession::start(place.value().places, LibuserSession::Files::all);
  if (!session) return session.error();
  if (auto added = session.value().addMember(group, user); !added) return added;
  return place.value().flush();
}

}  // namespace tessard
