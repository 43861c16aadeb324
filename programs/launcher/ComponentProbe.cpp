#include "programs/launcher/ComponentProbe.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <memory>

#include "common/Format.h"
#include "platform/FileDescriptor.h"
#include "platform/XmlText.h"

namespace tessard {

namespace {

// A component on the same machine that does not answer within this is asked again later.
constexpr timeval kPatience = {.tv_sec = 0, .tv_usec = 500'000};
constexpr int kMostReads = 4;
constexpr std::size_t kLongestAnswer = 65536;

FileDescriptor connectTo(const std::string& address, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return {};
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> place(found, ::freeaddrinfo);
  FileDescriptor link(::socket(place->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!link) return {};
  ::setsockopt(link.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  ::setsockopt(link.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  if (::connect(link.get(), place->ai_addr, place->ai_addrlen) != 0) return {};
  return link;
}

DomainState meaningOf(const std::string& answer) {
  if (answer.find("host-unknown") != std::string::npos) return DomainState::unknown;
  if (answer.find("host-gone") != std::string::npos) return DomainState::gone;
  if (answer.find("<stream:features") != std::string::npos) return DomainState::ready;
  return DomainState::silent;
}

}  // namespace

bool portIsOpen(const std::string& address, std::uint16_t port) {
  return static_cast<bool>(connectTo(address, port));
}

DomainState askForDomain(const std::string& address, std::uint16_t port, const std::string& domain) {
  const FileDescriptor link = connectTo(address, port);
  if (!link) return DomainState::silent;
  const std::string greeting = fill(
      "<stream:stream xmlns='jabber:client' xmlns:stream='http://etherx.jabber.org/streams' "
      "version='1.0' to='%@'>",
      {escapeXmlAttribute(domain, '\'')});
  if (::send(link.get(), greeting.data(), greeting.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(greeting.size())) {
    return DomainState::silent;
  }
  std::string answer;
  std::array<char, 4096> piece{};
  for (int reads = 0; reads < kMostReads && answer.size() < kLongestAnswer; ++reads) {
    const ssize_t length = ::recv(link.get(), piece.data(), piece.size(), 0);
    if (length <= 0) break;
    answer.append(piece.data(), static_cast<std::size_t>(length));
    if (const DomainState state = meaningOf(answer); state != DomainState::silent) return state;
  }
  return DomainState::silent;
}

}  // namespace tessard
