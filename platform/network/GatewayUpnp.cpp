#include <miniupnpc/miniupnpc.h>
#include <miniupnpc/upnpcommands.h>
#include <miniupnpc/upnperrors.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>

#include "common/Format.h"
#include "platform/network/Gateway.h"

namespace tessard {

namespace {

constexpr int kDiscoveryMilliseconds = 1000;  // for each of four kinds of gateways
constexpr unsigned char kHops = 2;
constexpr int kConnectedGateway = 1;

// Errors of the protocol.
constexpr int kNoSuchEntry = 714;
constexpr int kOnlyPermanentLeases = 725;

GatewayAnswer failure(int code) {
  const char* reason = strupnperror(code);
  return {code, fill("UPnP: %@ (%d)", {reason ? reason : "the exchange failed", code})};
}

class Gateway {
 public:
  Gateway() {
    int problem = 0;
    const std::unique_ptr<UPNPDev, decltype(&freeUPNPDevlist)> devices(
        upnpDiscover(kDiscoveryMilliseconds, nullptr, nullptr, UPNP_LOCAL_PORT_ANY, 0, kHops, &problem),
        freeUPNPDevlist);
    if (!devices) return;
    found_ = UPNP_GetValidIGD(devices.get(), &urls_, &data_, ownAddress_.data(),
                              static_cast<int>(ownAddress_.size()));
  }
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;
  ~Gateway() {
    if (found_ != 0) FreeUPNPUrls(&urls_);
  }

  bool usable() const { return found_ == kConnectedGateway; }
  bool isThere() const { return found_ != 0; }

  int add(const std::string& port, std::uint32_t leaseSeconds) {
    return UPNP_AddPortMapping(urls_.controlURL, data_.first.servicetype, port.c_str(), port.c_str(),
                               ownAddress_.data(), "tessardd", "TCP", nullptr,
                               std::to_string(leaseSeconds).c_str());
  }

  // The machine that the port is mapped to; empty when it is not.
  int find(const std::string& port, std::string& client) {
    std::array<char, 64> address{};  // the library wants room for 16 characters
    std::array<char, 16> innerPort{};
    const int code = UPNP_GetSpecificPortMappingEntry(urls_.controlURL, data_.first.servicetype, port.c_str(),
                                                      "TCP", nullptr, address.data(), innerPort.data(),
                                                      nullptr, nullptr, nullptr);
    client = address.data();
    return code;
  }

  int remove(const std::string& port) {
    return UPNP_DeletePortMapping(urls_.controlURL, data_.first.servicetype, port.c_str(), "TCP", nullptr);
  }

  std::string ownAddress() const { return ownAddress_.data(); }

 private:
  UPNPUrls urls_{};
  IGDdatas data_{};
  std::array<char, 64> ownAddress_{};
  int found_ = 0;
};

GatewayAnswer takeAway(Gateway& gateway, const std::string& port) {
  std::string client;
  int code = gateway.find(port, client);
  if (code == kNoSuchEntry) return {0, "not mapped by UPnP"};
  if (code != UPNPCOMMAND_SUCCESS) return failure(code);
  if (client != gateway.ownAddress()) return {0, fill("mapped by UPnP to %@, not to this machine", {client})};
  code = gateway.remove(port);
  if (code != UPNPCOMMAND_SUCCESS && code != kNoSuchEntry) return failure(code);
  return {0, "taken away by UPnP"};
}

}  // namespace

GatewayAnswer askByUpnp(std::uint16_t port, std::uint32_t leaseSeconds) {
  Gateway gateway;
  if (!gateway.usable()) {
    return {ENODEV,
            gateway.isThere() ? "UPnP: the gateway has no connection outside" : "UPnP: no gateway answers"};
  }
  const std::string text = std::to_string(port);
  if (leaseSeconds == 0) return takeAway(gateway, text);
  int code = gateway.add(text, leaseSeconds);
  if (code == kOnlyPermanentLeases) {
    code = gateway.add(text, 0);
    if (code == UPNPCOMMAND_SUCCESS) return {0, "mapped by UPnP for good"};
  }
  if (code != UPNPCOMMAND_SUCCESS) return failure(code);
  return {0, fill("mapped by UPnP for %u s", {leaseSeconds})};
}

}  // namespace tessard
