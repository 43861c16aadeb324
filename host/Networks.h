#pragma once

#include <memory>

#include "common/Platform.h"
#include "host/HostConfiguration.h"

namespace tessard {

/// The network of a configuration: the machine's own for the system root "/". A daemon on any other root
/// asks nothing of the machine's network and sends nothing; hosts are known from that root's table alone.
///
/// All is borrowed and outlives the network. `tasks` limit how long the machine's tools may take; `syslog` is
/// told what happens to mapped ports between requests, on another thread.
std::unique_ptr<Network> chooseNetwork(const HostConfiguration& configuration, FileSystem& files,
                                       Tasks& tasks, Log& log, Syslog& syslog);

}  // namespace tessard
