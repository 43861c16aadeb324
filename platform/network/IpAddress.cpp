#include "platform/network/IpAddress.h"

#include <arpa/inet.h>

#include <algorithm>

namespace tessard {

namespace {

// Exact enough to tell a half: a double keeps 53 bits.
double asNumber(const IpAddress& address) {
  double number = 0;
  for (std::size_t i = 0; i < (address.ipv6 ? 16U : 4U); ++i) number = number * 256 + address.bytes.at(i);
  return number;
}

IpRange everyHost(bool ipv6) {
  IpRange all;
  all.first.ipv6 = all.last.ipv6 = ipv6;
  std::fill_n(all.last.bytes.begin(), ipv6 ? 16 : 4, std::uint8_t{0xff});
  if (ipv6) {
    all.first.bytes[0] = 0x20;
    all.last.bytes[0] = 0x3f;
  }
  return all;
}

double sizeOf(const IpRange& range) {
  return asNumber(range.last) - asNumber(range.first) + 1;
}

}  // namespace

std::optional<IpAddress> IpAddress::parse(const std::string& text) {
  // An embedded NUL would hide the rest of the text from the C functions.
  if (text.find('\0') != std::string::npos) return std::nullopt;
  IpAddress address;
  if (::inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) return address;
  address.ipv6 = true;
  if (::inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1) return address;
  return std::nullopt;
}

std::string IpAddress::text() const {
  std::array<char, INET6_ADDRSTRLEN> spelling{};
  ::inet_ntop(ipv6 ? AF_INET6 : AF_INET, bytes.data(), spelling.data(), spelling.size());
  return spelling.data();
}

std::optional<IpRange> IpRange::prefix(const IpAddress& address, int length) {
  const int bits = address.ipv6 ? 128 : 32;
  if (length < 0 || length > bits) return std::nullopt;
  IpRange range{address, address};
  for (int bit = length; bit < bits; ++bit) {
    const auto mask = static_cast<std::uint8_t>(0x80U >> static_cast<unsigned>(bit % 8));
    const auto index = static_cast<std::size_t>(bit / 8);
    range.first.bytes.at(index) &= static_cast<std::uint8_t>(~mask);
    range.last.bytes.at(index) |= mask;
  }
  return range;
}

bool coverMost(const std::vector<IpRange>& ranges, bool ipv6) {
  const IpRange all = everyHost(ipv6);
  double covered = 0;
  for (const IpRange& range : ranges) {
    if (range.first.ipv6 != ipv6 || range.last.ipv6 != ipv6) continue;
    const IpRange shared{std::max(range.first, all.first), std::min(range.last, all.last)};
    if (!(shared.last < shared.first)) covered += sizeOf(shared);
  }
  return covered > sizeOf(all) / 2;
}

}  // namespace tessard
