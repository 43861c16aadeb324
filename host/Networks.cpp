#include "host/Networks.h"

#include "platform/OfflineNetwork.h"
#include "platform/network/LinuxNetwork.h"

namespace tessard {

std::unique_ptr<Network> chooseNetwork(const HostConfiguration& configuration, FileSystem& files, Log& log) {
  if (configuration.root == "/") return std::make_unique<LinuxNetwork>(log);
  return std::make_unique<OfflineNetwork>(files);
}

}  // namespace tessard
