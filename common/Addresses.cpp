#include "common/Addresses.h"

#include <arpa/inet.h>

#include <array>

namespace tessard {

bool isAddress(const std::string& text) {
  // inet_pton reads up to a NUL byte, which a text may hold.
  if (text.find('\0') != std::string::npos) return false;
  std::array<unsigned char, sizeof(in6_addr)> buffer{};
  return inet_pton(AF_INET, text.c_str(), buffer.data()) == 1 ||
         inet_pton(AF_INET6, text.c_str(), buffer.data()) == 1;
}

bool isSelfAssignedAddress(const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  in_addr v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 16) == 0xa9fe;
  in6_addr v6{};
  return inet_pton(AF_INET6, text.c_str(), &v6) == 1 && v6.s6_addr[0] == 0xfe &&
         (v6.s6_addr[1] & 0xc0) == 0x80;
}

}  // namespace tessard
