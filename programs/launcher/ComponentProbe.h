#pragma once

#include <cstdint>
#include <string>

namespace tessard {

/// Whether anything listens on a TCP port of a numeric address.
bool portIsOpen(const std::string& address, std::uint16_t port);

/// What c2s says of a domain to a client that opens a stream to it.
enum class DomainState {
  silent,   ///< nothing, or nothing yet that tells
  gone,     ///< it serves the domain, whose session manager has not come to the router yet
  unknown,  ///< it does not serve the domain
  ready,    ///< clients can log in
};

/// Opens a stream to the domain, as a client does, and hangs up. Takes at most about two seconds.
DomainState askForDomain(const std::string& address, std::uint16_t port, const std::string& domain);

}  // namespace tessard
