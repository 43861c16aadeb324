#include "platform/keychain/KeychainDirectory.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/Format.h"
#include "platform/PosixFileSystem.h"
#include "platform/RootDirectory.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr const char* kKeyName = "keychain.key";
constexpr const char* kKeyDraftName = "keychain.key.new";

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kStoreMode = 0600;
constexpr mode_t kKeyMode = 0400;
constexpr mode_t kForOthers = 0077;

KeychainError problemOf(std::string_view path, const SystemError& reason) {
  const std::string text = fill("%@: %@", {path, reason.description()});
  switch (reason.code()) {
    case EACCES:
    case EPERM:
      return {KeychainProblem::notPermitted, text};
    case EROFS:
      return {KeychainProblem::readOnly, text};
    case ENOSPC:
    case EDQUOT:
      return {KeychainProblem::full, text};
    case ELOOP:
    case ENOTDIR:
      return {KeychainProblem::unsafe, fill("%@ is reached through a link, or is of the wrong kind", {path})};
    default:
      return {KeychainProblem::io, text};
  }
}

// Success when only this process's user can have read and changed it.
KeychainResult<void> checkOwnership(const struct stat& status, std::string_view path) {
  if (status.st_uid != ::geteuid()) {
    const auto problem = ::geteuid() == 0 ? KeychainProblem::unsafe : KeychainProblem::notPermitted;
    return KeychainError{problem, fill("%@ belongs to user %u and not to user %u",
                                       {path, status.st_uid, static_cast<std::int64_t>(::geteuid())})};
  }
  if ((status.st_mode & kForOthers) != 0) {
    return KeychainError{KeychainProblem::unsafe,
                         fill("%@ has mode %o: others than its owner may have read or changed it",
                              {path, status.st_mode & 07777U})};
  }
  return {};
}

KeychainResult<void> checkFile(const struct stat& status, std::string_view path) {
  if (!S_ISREG(status.st_mode)) {
    return KeychainError{KeychainProblem::unsafe, fill("%@ is not a regular file", {path})};
  }
  return checkOwnership(status, path);
}

}  // namespace

KeychainResult<std::optional<KeychainDirectory>> KeychainDirectory::open(const std::string& root) {
  auto opened = openBelowRoot(root, kKeychainDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (!opened) {
    if (opened.error().code() == ENOENT) return std::optional<KeychainDirectory>();
    return problemOf(kKeychainDirectory, opened.error());
  }
  struct stat status {};
  if (::fstat(opened.value().get(), &status) != 0) return problemOf(kKeychainDirectory, SystemError::last());
  if (auto safe = checkOwnership(status, kKeychainDirectory); !safe) return safe.error();
  return std::optional(KeychainDirectory(std::move(opened).value()));
}

KeychainResult<KeychainDirectory> KeychainDirectory::make(const std::string& root) {
  PosixFileSystem files(root);
  const FileOwnership ownership{std::nullopt, std::nullopt, kDirectoryMode};
  const auto made = files.createDirectory(kKeychainDirectory, ownership, true);
  if (!made && made.error().code() != EEXIST) return problemOf(kKeychainDirectory, made.error());
  if (made) {
    if (auto named = files.syncDirectory(directoryOf(kKeychainDirectory)); !named) {
      return problemOf(kKeychainDirectory, named.error());
    }
  }
  auto opened = open(root);
  if (!opened) return opened.error();
  if (!opened.value()) return problemOf(kKeychainDirectory, SystemError(ENOENT));
  return std::move(*std::move(opened).value());
}

KeychainResult<void> KeychainDirectory::lock() const {
  if (uninterrupted([&] { return ::flock(directory_.get(), LOCK_EX); }) != 0) {
    return problemOf(kKeychainDirectory, SystemError::last());
  }
  return {};
}

KeychainResult<bool> KeychainDirectory::hasStore() const {
  // The file is not opened here: to close it again would drop the locks that SQLite holds on it.
  struct stat status {};
  if (::fstatat(directory_.get(), kStoreName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return false;
    return problemOf(kKeychainStore, SystemError::last());
  }
  if (auto safe = checkFile(status, kKeychainStore); !safe) return safe.error();
  return true;
}

KeychainResult<std::optional<SealingKey>> KeychainDirectory::key() const {
  const FileDescriptor file(
      ::openat(directory_.get(), kKeyName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) return std::optional<SealingKey>();
    return problemOf(kKeychainKey, SystemError::last());
  }
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return problemOf(kKeychainKey, SystemError::last());
  if (auto safe = checkFile(status, kKeychainKey); !safe) return safe.error();
  if (status.st_size != static_cast<off_t>(SealingKey::kSize)) {
    return KeychainError{KeychainProblem::wrongKey,
                         fill("%@ does not hold %u bytes as it should", {kKeychainKey, SealingKey::kSize})};
  }
  Secret bytes(SealingKey::kSize);
  const auto got = readUpTo(file.get(), bytes.data(), SealingKey::kSize);
  if (!got) return problemOf(kKeychainKey, got.error());
  if (got.value() != SealingKey::kSize) return problemOf(kKeychainKey, SystemError(EIO));
  return std::optional(SealingKey(std::move(bytes)));
}

KeychainResult<SealingKey> KeychainDirectory::makeKey() const {
  Secret bytes(SealingKey::kSize);
  if (RAND_priv_bytes(reinterpret_cast<unsigned char*>(bytes.data()), SealingKey::kSize) != 1) {
    return KeychainError{KeychainProblem::io, "There are no random numbers for the key of the keychain"};
  }
  if (::unlinkat(directory_.get(), kKeyDraftName, 0) != 0 && errno != ENOENT) {
    return problemOf(kKeychainKey, SystemError::last());
  }
  FileDescriptor file(::openat(directory_.get(), kKeyDraftName,
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kKeyMode));
  if (!file) return problemOf(kKeychainKey, SystemError::last());
  auto written = writeAll(file.get(), bytes.view());
  if (written) written = resultOf(::fchmod(file.get(), kKeyMode));
  if (written) written = resultOf(uninterrupted([&] { return ::fsync(file.get()); }));
  if (written) written = resultOf(file.close());
  if (!written) {
    static_cast<void>(::unlinkat(directory_.get(), kKeyDraftName, 0));
    return problemOf(kKeychainKey, written.error());
  }
  if (auto named = rename(kKeyDraftName, kKeyName); !named) return named.error();
  return SealingKey(std::move(bytes));
}

KeychainResult<std::string> KeychainDirectory::pathOf(std::string_view name) const {
  const auto path = realPathOf(directory_);
  if (!path) return problemOf(kKeychainDirectory, path.error());
  return path.value() + "/" + std::string(name);
}

KeychainResult<void> KeychainDirectory::makeDraft() const {
  for (const char* suffix : {"-journal", ""}) {
    const std::string name = std::string(kDraftName) + suffix;
    if (::unlinkat(directory_.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
      return problemOf(kKeychainStore, SystemError::last());
    }
  }
  const FileDescriptor draft(::openat(directory_.get(), kDraftName,
                                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kStoreMode));
  if (!draft) return problemOf(kKeychainStore, SystemError::last());
  if (::fchmod(draft.get(), kStoreMode) != 0) return problemOf(kKeychainStore, SystemError::last());
  return {};
}

KeychainResult<void> KeychainDirectory::publishDraft() const {
  return rename(kDraftName, kStoreName);
}

KeychainResult<void> KeychainDirectory::rename(const char* from, const char* to) const {
  // Nothing is ever replaced: what has come into its place meanwhile stays.
  if (::renameat2(directory_.get(), from, directory_.get(), to, RENAME_NOREPLACE) != 0) {
    return problemOf(kKeychainDirectory, SystemError::last());
  }
  if (uninterrupted([&] { return ::fsync(directory_.get()); }) != 0) {
    return problemOf(kKeychainDirectory, SystemError::last());
  }
  return {};
}

}  // namespace tessard
