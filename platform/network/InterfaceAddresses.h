#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/Result.h"

struct mnl_socket;

namespace tessard {

struct RouteSocketClosing {
  void operator()(mnl_socket* socket) const;
};
using RouteSocket = std::unique_ptr<mnl_socket, RouteSocketClosing>;

/// One address of one of the network interfaces.
struct InterfaceAddress {
  std::string text;         ///< as inet_ntop(3) spells it, without a prefix length
  std::uint8_t family = 0;  ///< AF_INET or AF_INET6
  std::uint8_t scope = 0;   ///< RT_SCOPE_...
  std::uint32_t flags = 0;  ///< IFA_F_...
};

/// The addresses of all interfaces of this process's network, in the kernel's order. EINTR when they have
/// kept changing for half a second.
Result<std::vector<InterfaceAddress>> interfaceAddresses();

/// The kernel's notices that an address of this process's network came, went or changed its flags. What
/// changed is asked of `interfaceAddresses`.
class AddressNotices {
 public:
  static Result<AddressNotices> open();

  /// Becomes readable with a notice.
  int descriptor() const;

  /// Takes away all notices that are there and tells whether there were any; notices that were lost because
  /// they were not taken in time count as one. Never waits.
  Result<bool> take();

 private:
  explicit AddressNotices(RouteSocket socket) : socket_(std::move(socket)) {}

  RouteSocket socket_;
};

}  // namespace tessard
