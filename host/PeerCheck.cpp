#include "host/PeerCheck.h"

#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace tessard {

Result<Peer> peerOf(int connection) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return SystemError::last();
  std::vector<gid_t> groups(32);
  length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  int answer = getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
  if (answer != 0 && errno == ERANGE) {
    // The kernel has told the length that is needed.
    groups.resize(length / sizeof(gid_t));
    answer = getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
  }
  if (answer != 0) return SystemError::last();
  groups.resize(length / sizeof(gid_t));
  return Peer{credentials.uid, credentials.gid, std::move(groups), credentials.pid};
}

std::optional<gid_t> groupNamed(const std::string& name) {
  std::vector<char> buffer(4096);
  group entry{};
  group* found = nullptr;
  int code = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  while (code == ERANGE && buffer.size() < (std::size_t{1} << 24)) {
    buffer.resize(buffer.size() * 2);
    code = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
  }
  if (!found) return std::nullopt;
  return entry.gr_gid;
}

bool PeerCheck::isRoot(const Peer& peer) {
  return peer.user == 0 || peer.user == geteuid();
}

bool PeerCheck::mayConnect(const Peer& peer) const {
  if (isRoot(peer)) return true;
  if (!adminGroup_) return false;
  return peer.group == *adminGroup_ ||
         std::find(peer.supplementaryGroups.begin(), peer.supplementaryGroups.end(), *adminGroup_) !=
             peer.supplementaryGroups.end();
}

}  // namespace tessard
