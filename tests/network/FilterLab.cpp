#include "tests/network/FilterLab.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "common/Format.h"
#include "platform/PosixTasks.h"
#include "platform/network/PortRestrictions.h"
#include "tests/support/RecordingLog.h"

namespace tessard {

namespace {

constexpr const char* kStranger = "198.51.100.77";
constexpr const char* kStranger6 = "2001:db8:ffff::77";

// Neighbours are known for good, so that filters which forbid asking for them decide about connections alone.
constexpr const char* kMachineSetUp = R"(
ip link set up0 address 02:00:00:00:00:01
ip address add 192.0.2.1/24 dev up0
ip address add 2001:db8:1::1/64 dev up0 nodad
ip neighbour add 192.0.2.2 lladdr 02:00:00:00:00:02 dev up0 nud permanent
ip neighbour add 2001:db8:1::2 lladdr 02:00:00:00:00:02 dev up0 nud permanent
ip route add default via 192.0.2.2
ip route add default via 2001:db8:1::2
)";
constexpr const char* kStrangerSetUp = R"(
ip link set far0 address 02:00:00:00:00:02
ip address add 192.0.2.2/24 dev far0
ip address add 2001:db8:1::2/64 dev far0 nodad
ip address add 198.51.100.77/32 dev lo
ip address add 2001:db8:ffff::77/128 dev lo nodad
ip neighbour add 192.0.2.1 lladdr 02:00:00:00:00:01 dev far0 nud permanent
ip neighbour add 2001:db8:1::1 lladdr 02:00:00:00:00:01 dev far0 nud permanent
)";

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  SocketAddress(const char* address, std::uint16_t port) {
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, address, &ipv4->sin_addr) == 1) {
      ipv4->sin_family = AF_INET;
      ipv4->sin_port = htons(port);
      size = sizeof *ipv4;
    } else if (inet_pton(AF_INET6, address, &ipv6->sin6_addr) == 1) {
      ipv6->sin6_family = AF_INET6;
      ipv6->sin6_port = htons(port);
      size = sizeof *ipv6;
    } else {
      throw std::runtime_error(fill("no address: %@", {address}));
    }
  }

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

FileDescriptor boundSocket(const SocketAddress& address) {
  FileDescriptor made(socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int one = 1;
  setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (!made || bind(made.get(), address.get(), address.size) != 0) {
    throw std::runtime_error(fill("no socket: %@", {SystemError::last().description()}));
  }
  return made;
}

}  // namespace

const std::set<std::uint16_t>& labPorts() {
  static const std::set<std::uint16_t> ports = {5218, 5268, 16384, 16403};
  return ports;
}

FilterLab::FilterLab(std::string_view ruleset) {
  machine_.connect("up0", stranger_, "far0");
  machine_.shell(kMachineSetUp);
  stranger_.shell(kStrangerSetUp);
  machine_.shell(fill("nft -f - <<'RULES'\n%@\nRULES\n", {ruleset}));
  listen();
}

void FilterLab::listen() {
  const NetworkNamespace::Stay inside(machine_);
  for (const std::uint16_t port : labPorts()) {
    for (const char* address : {kLabAddress, kLabAddress6}) {
      servers_.push_back(boundSocket({address, port}));
      if (::listen(servers_.back().get(), 8) != 0) throw std::runtime_error("listen");
    }
  }
}

void FilterLab::beginConnections() {
  const NetworkNamespace::Stay inside(stranger_);
  for (const std::uint16_t port : labPorts()) {
    for (const char* address : {kLabAddress, kLabAddress6}) {
      const bool ipv6 = address == kLabAddress6;
      Attempt attempt{port, address, boundSocket({ipv6 ? kStranger6 : kStranger, 0})};
      const SocketAddress target(address, port);
      if (connect(attempt.socket.get(), target.get(), target.size) == 0) {
        attempt.state = Attempt::made;
      } else if (errno != EINPROGRESS) {
        attempt.state = Attempt::refused;
      }
      attempts_.push_back(std::move(attempt));
    }
  }
}

bool FilterLab::allAreDecided() {
  bool all = true;
  for (Attempt& attempt : attempts_) {
    if (attempt.state != Attempt::pending) continue;
    pollfd ready{attempt.socket.get(), POLLOUT, 0};
    if (poll(&ready, 1, 0) == 1) {
      int problem = 0;
      socklen_t size = sizeof problem;
      getsockopt(attempt.socket.get(), SOL_SOCKET, SO_ERROR, &problem, &size);
      attempt.state = problem == 0 ? Attempt::made : Attempt::refused;
      continue;
    }
    tcp_info info{};
    socklen_t size = sizeof info;
    if (getsockopt(attempt.socket.get(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0) {
      throw std::runtime_error("TCP_INFO");
    }
    if (info.tcpi_retransmits > 0) {
      attempt.state = Attempt::refused;
    } else {
      all = false;
    }
  }
  return all;
}

std::set<std::string> FilterLab::refusedAddresses(std::uint16_t port) const {
  std::set<std::string> refused;
  for (const Attempt& attempt : attempts_) {
    if (attempt.port == port && attempt.state == Attempt::refused) refused.insert(attempt.address);
  }
  return refused;
}

bool FilterLab::check(Array& restrictions) const {
  const NetworkNamespace::Stay inside(machine_);
  PosixTasks tasks("/");
  RecordingLog log;
  PortRestrictions checker(tasks, log);
  const bool restricted = checker.check(
      {std::uint16_t{5218}, std::uint16_t{5268}, std::set<std::uint16_t>{16384, 16403}}, restrictions);
  if (!log.messages().empty()) throw std::runtime_error(log.messages().front().text);
  return restricted;
}

}  // namespace tessard
