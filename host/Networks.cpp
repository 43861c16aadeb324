#include "host/Networks.h"

#include "platform/OfflineNetwork.h"
#include "platform/network/LinuxNetwork.h"

namespace tessard {

std::unique_ptr<Network> chooseNetwork(const HostConfiguration& configuration, FileSystem& files,
                                       Tasks& tasks, Log& log) {
  if (configuration.root == "/") return std::make_unique<LinuxNetwork>(tasks, log);
  return std::make_unique<OfflineNetwork>(files);
}

}  // namespace tessard
