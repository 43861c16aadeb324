#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/keychain/Certificate.h"

namespace tessard {

/// The names that a server's certificate is for.
struct CertificateNames {
  std::vector<std::string> hosts;         ///< dNSName: "example.org", "*.example.org"
  std::vector<std::string> addresses;     ///< xmppAddr: "example.org"
  std::vector<std::string> services;      ///< SRVName: "_xmpp-client.example.org"
  std::optional<std::string> commonName;  ///< the last CN of the subject

  /// Whether there is any name but the common one.
  bool hasAlternatives() const { return !hosts.empty() || !addresses.empty() || !services.empty(); }
  /// For people, each once: hosts, addresses, services; the common name where there is nothing else.
  std::vector<std::string> all() const;
};

CertificateNames namesOf(const Certificate& certificate);

/// A domain as hosts are named in certificates and in TLS: "xn--mnchen-3ya.example" for "münchen.example".
/// The domain as it is where there is no such form.
std::string asciiFormOf(const std::string& domain);

enum class NameMatch {
  none,
  commonName,  ///< by the common name alone, which many clients ignore
  certain,
};

/// Whether an XMPP client that wants this domain takes the names: one of the hosts, of the addresses, or a
/// service "_xmpp-client"; upper and lower case of ASCII letters alike, hosts and services also in the form
/// of `asciiFormOf`. A wildcard is the whole first label of a host's name and stands for one label:
/// "*.example.org" is for "chat.example.org", and neither for "example.org" nor for "a.chat.example.org". The
/// common name counts where there are no hosts, addresses and services.
NameMatch matchOf(const CertificateNames& names, std::string_view domain);

}  // namespace tessard
