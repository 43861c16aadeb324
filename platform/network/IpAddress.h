#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace tessard {

/// An address of IPv4 or IPv6. Addresses of one family are ordered as numbers.
struct IpAddress {
  bool ipv6 = false;
  std::array<std::uint8_t, 16> bytes{};  ///< most significant first; IPv4 has the first four

  static std::optional<IpAddress> parse(const std::string& text);
  std::string text() const;
  bool operator==(const IpAddress&) const = default;
  bool operator<(const IpAddress& other) const {
    return std::tie(ipv6, bytes) < std::tie(other.ipv6, other.bytes);
  }
};

/// All addresses from the first to the last one, both included.
struct IpRange {
  IpAddress first;
  IpAddress last;

  /// The addresses that share the first `length` bits; absent when there are not so many bits.
  static std::optional<IpRange> prefix(const IpAddress& address, int length);
  bool contains(const IpAddress& address) const { return !(address < first) && !(last < address); }
};

/// Whether the ranges, which do not overlap, take in more than half of the addresses that hosts of that
/// family have: of all for IPv4, of 2000::/3 for IPv6. Ranges of the other family count for nothing.
bool coverMost(const std::vector<IpRange>& ranges, bool ipv6);

}  // namespace tessard
