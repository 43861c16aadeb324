#include "host/Networks.h"

#include "host/HostLog.h"
#include "platform/OfflineNetwork.h"
#include "platform/network/LinuxNetwork.h"

namespace tessard {

namespace {

std::unique_ptr<PortMapper> chooseMapper(const std::string& name, Syslog& syslog) {
  if (name == "off") return nullptr;
  const MappingMethod method = name == "natpmp" ? MappingMethod::natPmp
                               : name == "upnp" ? MappingMethod::upnp
                                                : MappingMethod::automatic;
  return std::make_unique<PortMapper>(
      [method](std::uint16_t port, std::uint32_t leaseSeconds) {
        return askGateway(method, port, leaseSeconds);
      },
      [hostLog = HostLog(syslog)](const std::string& sentence) mutable { hostLog.notice(sentence); });
}

}  // namespace

std::unique_ptr<Network> chooseNetwork(const HostConfiguration& configuration, FileSystem& files,
                                       Tasks& tasks, Log& log, Syslog& syslog) {
  if (configuration.root != "/") return std::make_unique<OfflineNetwork>(files);
  return std::make_unique<LinuxNetwork>(files, tasks, log, chooseMapper(configuration.portMapping, syslog));
}

}  // namespace tessard
