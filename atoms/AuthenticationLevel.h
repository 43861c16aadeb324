#pragma once

#include <array>
#include <string>
#include <string_view>

namespace tessard {

/// One way to log in: the element that offers it when live, and its bit in a set of mechanisms.
struct Mechanism {
  const char* path;
  unsigned bit;
};

/// In the order in which a write sets them.
inline constexpr std::array<Mechanism, 7> kMechanisms = {{
    {"c2s.authreg.mechanisms.sasl.gssapi", 4},
    {"c2s.authreg.mechanisms.traditional.cram-md5", 2},
    {"c2s.authreg.mechanisms.traditional.plain", 1},
    {"c2s.authreg.mechanisms.sasl.plain", 8},
    {"c2s.authreg.mechanisms.sasl.digest-md5", 16},
    {"c2s.authreg.ssl-mechanisms.traditional.plain", 64},
    {"c2s.authreg.ssl-mechanisms.sasl.plain", 32},
}};

/// GSSAPI is offered at every level.
inline constexpr unsigned kAlwaysOffered = 4;

/// The mechanisms of a level: "KERBEROS" and "STANDARD"; every other word stands for any method.
unsigned mechanismsForAuthLevel(std::string_view level);

/// The level of a set of mechanisms: only the exact sets of the two named levels have their names, all others
/// are "ANYMETHOD".
std::string authLevelForMechanisms(unsigned mechanisms);

}  // namespace tessard
