#pragma once

#include <string>

namespace tessard {

/// Whether a text is an IPv4 or IPv6 address as inet_pton(3) reads it.
bool isAddress(const std::string& text);

/// Whether a text is an address of 169.254/16 or fe80::/10: those that a machine gives itself when nobody
/// else gave it one.
bool isSelfAssignedAddress(const std::string& text);

}  // namespace tessard
