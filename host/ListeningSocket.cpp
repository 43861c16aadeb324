#include "host/ListeningSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "common/Format.h"
#include "platform/RootDirectory.h"

namespace tessard {

namespace {

constexpr const char* kLockDirectory = "/run/tessardd";
constexpr const char* kLockName = "tessardd.lock";
// As long as the machine allows: in a longer queue a burst of others' connections is taken and refused, while
// a full one keeps root's from entering it.
constexpr int kBacklog = SOMAXCONN;

SystemError failed(const char* format, std::string_view what, const SystemError& reason) {
  return {reason.code(), fill(format, {what, reason.description()})};
}

Result<FileDescriptor> openDirectory(FileSystem& files, const std::string& root, const std::string& path) {
  if (!files.exists(path)) {
    auto made = files.createDirectory(path, {std::nullopt, std::nullopt, 0755}, true);
    if (!made && made.error().code() != EEXIST) {
      return failed("cannot make the directory %@: %@", path, made.error());
    }
  }
  auto directory = openBelowRoot(root, path, O_PATH | O_DIRECTORY);
  if (!directory) return failed("cannot open the directory %@: %@", path, directory.error());
  return directory;
}

// An address that names a file in an open directory: it cannot be led astray, and it has room for the file's
// name however long the directory's own path is.
Result<sockaddr_un> addressIn(const FileDescriptor& directory, const std::string& name) {
  const std::string path = fill("/proc/self/fd/%d/%@", {directory.get(), name});
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return SystemError(ENAMETOOLONG);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

Result<FileDescriptor> newSocket() {
  FileDescriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made) return SystemError::last();
  return made;
}

bool isListenedOn(const sockaddr_un& address) {
  const auto client = newSocket();
  if (!client) return true;
  if (connect(client.value().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return true;
  }
  return errno == EAGAIN;  // a full backlog has a listener too
}

// Makes the name free for a new socket.
Result<void> clearName(const FileDescriptor& directory, const std::string& name, const sockaddr_un& address,
                       const std::string& path) {
  struct stat found {};
  if (fstatat(directory.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return {};
    return failed("cannot look at %@: %@", path, SystemError::last());
  }
  if (!S_ISSOCK(found.st_mode)) {
    return SystemError(EEXIST, fill("%@ exists and is no socket; it was left alone", {path}));
  }
  if (isListenedOn(address)) {
    return SystemError(EADDRINUSE, fill("another process is serving the socket %@", {path}));
  }
  if (unlinkat(directory.get(), name.c_str(), 0) != 0) {
    return failed("cannot replace the socket %@: %@", path, SystemError::last());
  }
  return {};
}

Result<void> bindPrivately(const FileDescriptor& socket, const sockaddr_un& address) {
  const mode_t previous = umask(0177);
  const int bound = bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const SystemError reason = SystemError::last();
  umask(previous);
  if (bound != 0) return reason;
  return {};
}

std::string describeHolder(int file) {
  std::array<char, 16> digits{};
  const ssize_t length = pread(file, digits.data(), digits.size() - 1, 0);
  const std::int64_t pid = length > 0 ? integerReading({digits.data(), static_cast<std::size_t>(length)}) : 0;
  return pid > 0 ? fill(" (process %d)", {pid}) : std::string();
}

}  // namespace

Result<RootLock> RootLock::take(FileSystem& files, const std::string& root) {
  auto directory = openDirectory(files, root, kLockDirectory);
  if (!directory) return directory.error();
  FileDescriptor file(
      openat(directory.value().get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file)
    return failed("cannot open the lock file %@/tessardd.lock: %@", kLockDirectory, SystemError::last());
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      return failed("cannot lock %@/tessardd.lock: %@", kLockDirectory, SystemError::last());
    }
    return SystemError(EBUSY,
                       fill("another tessardd%@ is serving the root %@", {describeHolder(file.get()), root}));
  }
  const std::string pid = fill("%d\n", {getpid()});
  // The number is for people and messages only; the lock holds without it.
  if (ftruncate(file.get(), 0) == 0) static_cast<void>(pwrite(file.get(), pid.data(), pid.size(), 0) > 0);
  return RootLock(std::move(file));
}

Result<ListeningSocket> ListeningSocket::open(const HostConfiguration& configuration, FileSystem& files,
                                              std::optional<gid_t> adminGroup) {
  const int handed = sd_listen_fds(1);
  if (handed > 1) return SystemError(EINVAL, "systemd handed over more than one socket");
  if (handed == 1) return handedOver();
  const std::string& path = configuration.socketPath;
  auto directory = openDirectory(files, configuration.root, directoryOf(path));
  if (!directory) return directory.error();
  return makeOwn(std::move(directory).value(), path, adminGroup);
}

Result<ListeningSocket> ListeningSocket::handedOver() {
  ListeningSocket result;
  result.socket_ = FileDescriptor(SD_LISTEN_FDS_START);
  if (sd_is_socket_unix(result.descriptor(), SOCK_STREAM, 1, nullptr, 0) <= 0) {
    return SystemError(EINVAL, "systemd handed over something else than a listening Unix stream socket");
  }
  const int flags = fcntl(result.descriptor(), F_GETFL);
  if (fcntl(result.descriptor(), F_SETFL, flags | O_NONBLOCK) != 0) return SystemError::last();
  return result;
}

Result<ListeningSocket> ListeningSocket::makeOwn(FileDescriptor directory, const std::string& path,
                                                 std::optional<gid_t> adminGroup) {
  ListeningSocket result;
  const std::string name = lastPathComponent(path);
  const auto address = addressIn(directory, name);
  if (!address) return failed("cannot use the socket name %@: %@", path, address.error());
  if (auto cleared = clearName(directory, name, address.value(), path); !cleared) return cleared.error();
  auto made = newSocket();
  if (!made) return failed("cannot make the socket %@: %@", path, made.error());
  if (auto bound = bindPrivately(made.value(), address.value()); !bound) {
    return failed("cannot make the socket %@: %@", path, bound.error());
  }
  result.socket_ = std::move(made).value();
  result.directory_ = std::move(directory);
  result.name_ = name;
  struct stat own {};
  const int at = result.directory_.get();
  if (fstatat(at, name.c_str(), &own, AT_SYMLINK_NOFOLLOW) == 0) result.inode_ = own.st_ino;
  constexpr auto kSameOwner = static_cast<uid_t>(-1);
  if (adminGroup && (fchownat(at, name.c_str(), kSameOwner, *adminGroup, AT_SYMLINK_NOFOLLOW) != 0 ||
                     fchmodat(at, name.c_str(), 0660, 0) != 0)) {
    return failed("cannot give the socket %@ to its group: %@", path, SystemError::last());
  }
  if (listen(result.descriptor(), kBacklog) != 0) {
    return failed("cannot listen on %@: %@", path, SystemError::last());
  }
  return result;
}

void ListeningSocket::close() {
  if (!socket_) return;
  struct stat found {};
  if (directory_ && fstatat(directory_.get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISSOCK(found.st_mode) && found.st_ino == inode_) {
    unlinkat(directory_.get(), name_.c_str(), 0);
  }
  socket_.close();
}

}  // namespace tessard
