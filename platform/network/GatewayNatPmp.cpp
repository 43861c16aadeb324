#include <natpmp.h>
#include <poll.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string_view>

#include "common/Format.h"
#include "common/Result.h"
#include "platform/network/Gateway.h"

namespace tessard {

namespace {

using Clock = std::chrono::steady_clock;

std::string_view reasonOf(int code) {
  switch (code) {
    case ETIMEDOUT:
    case NATPMP_ERR_NOGATEWAYSUPPORT:
      return "the gateway does not answer";
    case NATPMP_ERR_CANNOTGETGATEWAY:
      return "there is no default route";
    case NATPMP_ERR_UNSUPPORTEDVERSION:
    case NATPMP_ERR_UNSUPPORTEDOPCODE:
      return "the gateway knows no such request";
    case NATPMP_ERR_NOTAUTHORIZED:
      return "the gateway does not allow it";
    case NATPMP_ERR_NETWORKFAILURE:
      return "the gateway has no network outside";
    case NATPMP_ERR_OUTOFRESOURCES:
      return "the gateway can map no more ports";
    case NATPMP_ERR_SOCKETERROR:
    case NATPMP_ERR_CONNECTERR:
    case NATPMP_ERR_SENDERR:
    case NATPMP_ERR_RECVFROM:
      return "the gateway cannot be reached";
    default:
      return "the exchange failed";
  }
}

GatewayAnswer failure(int code) {
  return {code, fill("NAT-PMP: %@ (%d)", {reasonOf(code), code})};
}

class Session {
 public:
  Session() {
    library_.s = -1;
    opened_ = initnatpmp(&library_, 0, 0);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    // The library leaves its socket open also where it finds no gateway.
    if (library_.s >= 0) closenatpmp(&library_);
  }

  int opened() const { return opened_; }

  // Asks, and repeats the question as the protocol says, until the answer is there or the time is over.
  int exchange(std::uint16_t port, std::uint16_t outsidePort, std::uint32_t lease, natpmpresp_t& response) {
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(kNatPmpSeconds));
    const int sent = sendnewportmappingrequest(&library_, NATPMP_PROTOCOL_TCP, port, outsidePort, lease);
    if (sent < 0) return sent;
    while (true) {
      const int code = readnatpmpresponseorretry(&library_, &response);
      if (code != NATPMP_TRYAGAIN) return code;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
      if (left <= 0) return ETIMEDOUT;
      timeval next{};
      if (const int problem = getnatpmprequesttimeout(&library_, &next); problem != 0) return problem;
      const auto wait = std::int64_t{next.tv_sec} * 1000 + next.tv_usec / 1000 + 1;
      pollfd readable{library_.s, POLLIN, 0};
      poll(&readable, 1, static_cast<int>(std::clamp<std::int64_t>(wait, 1, left)));
    }
  }

 private:
  natpmp_t library_{};
  int opened_ = 0;
};

}  // namespace

GatewayAnswer askByNatPmp(std::uint16_t port, std::uint32_t leaseSeconds) {
  Session session;
  if (session.opened() != 0) return failure(session.opened());
  natpmpresp_t response{};
  // Whatever the outside port is: without one the gateway takes away what it has for the inner port.
  const std::uint16_t outsidePort = leaseSeconds == 0 ? 0 : port;
  if (const int code = session.exchange(port, outsidePort, leaseSeconds, response); code != 0) {
    return failure(code);
  }
  if (leaseSeconds == 0) return {0, "taken away by NAT-PMP"};
  const auto& mapped = response.pnu.newportmapping;
  if (mapped.mappedpublicport != port) {
    session.exchange(port, 0, 0, response);
    return {EADDRINUSE, "NAT-PMP: the gateway uses the port for something else"};
  }
  return {0, fill("mapped by NAT-PMP for %u s", {mapped.lifetime})};
}

}  // namespace tessard
