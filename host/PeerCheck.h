#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// Who is at the other end of a connection, as the kernel recorded it when the client connected.
struct Peer {
  uid_t user = 0;
  gid_t group = 0;
  std::vector<gid_t> supplementaryGroups{};
  pid_t process = 0;
};

/// Reads the identity of a connected Unix socket's peer.
Result<Peer> peerOf(int connection);

/// The id of a group of this machine; absent when there is none of that name.
std::optional<gid_t> groupNamed(const std::string& name);

/// Decides who may send requests: root, the account that the daemon itself runs as, and members of the
/// administrators' group.
class PeerCheck {
 public:
  /// `adminGroup` is absent when the machine has no such group; then nobody is a member.
  explicit PeerCheck(std::optional<gid_t> adminGroup) : adminGroup_(adminGroup) {}

  bool mayConnect(const Peer& peer) const;

  /// Root, or the account that the daemon itself runs as.
  static bool isRoot(const Peer& peer);

 private:
  std::optional<gid_t> adminGroup_;
};

}  // namespace tessard
