#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "common/FileSystem.h"
#include "common/Result.h"
#include "host/HostConfiguration.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Keeps a second daemon from serving the same root: a lock on "/run/tessardd/tessardd.lock" below it, held
/// until the object ends or the process dies.
class RootLock {
 public:
  /// Makes "/run/tessardd" (0755) when it is missing. Fails with a sentence when another daemon holds the
  /// lock.
  static Result<RootLock> take(FileSystem& files, const std::string& root);

 private:
  explicit RootLock(FileDescriptor file) : file_(std::move(file)) {}

  FileDescriptor file_;
};

/// The Unix socket that clients connect to: the one that systemd hands over, or one of our own.
class ListeningSocket {
 public:
  /// Our own socket is made 0660 with the group, or 0600 without one, in a directory that is made 0755 when
  /// missing; a socket that nobody listens on is replaced. Fails with a sentence when somebody does, or when
  /// something else has the name.
  static Result<ListeningSocket> open(const HostConfiguration& configuration, FileSystem& files,
                                      std::optional<gid_t> adminGroup);

  ListeningSocket(ListeningSocket&&) noexcept = default;
  ListeningSocket& operator=(ListeningSocket&&) = delete;
  /// Closes the socket, and removes its name if it is still ours.
  ~ListeningSocket() { close(); }
  void close();

  /// Non-blocking.
  int descriptor() const { return socket_.get(); }
  bool fromServiceManager() const { return !directory_; }

 private:
  ListeningSocket() = default;
  static Result<ListeningSocket> handedOver();
  static Result<ListeningSocket> makeOwn(FileDescriptor directory, const std::string& path,
                                         std::optional<gid_t> adminGroup);

  FileDescriptor socket_;
  FileDescriptor directory_;  ///< of our own socket
  std::string name_;          ///< in that directory
  ino_t inode_ = 0;           ///< of the socket's name
};

}  // namespace tessard
