#include "atoms/AuthenticationLevel.h"

namespace tessard {

namespace {

// GSSAPI alone.
constexpr unsigned kKerberos = 4;
// GSSAPI, both challenge mechanisms, and plain passwords on encrypted connections only.
constexpr unsigned kStandard = 118;
// Every mechanism of unencrypted connections.
constexpr unsigned kAnyMethod = 31;

}  // namespace

unsigned mechanismsForAuthLevel(std::string_view level) {
  if (level == "KERBEROS") return kKerberos;
  if (level == "STANDARD") return kStandard;
  return kAnyMethod;
}

std::string authLevelForMechanisms(unsigned mechanisms) {
  if (mechanisms == kStandard) return "STANDARD";
  if (mechanisms == kKerberos) return "KERBEROS";
  return "ANYMETHOD";
}

}  // namespace tessard
