#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/FileSystem.h"
#include "common/Result.h"

namespace tessard {

/// One component of a private jabberd instance, and how it can be told from outside that it works.
struct Component {
  enum class Kind { router, sessionManager, serverToServer, clientToServer };

  Kind kind = Kind::router;
  std::string file;                   ///< its configuration
  std::string pidFile;                ///< empty when it writes none
  std::string address = "127.0.0.1";  ///< numeric, where the port is reached from this machine
  std::uint16_t port = 0;             ///< 0 when it listens on none
  std::vector<std::string> domains;   ///< that a session manager serves
};

/// The last part of the component's program name: "router", "sm", "s2s" or "c2s".
const char* nameOf(Component::Kind kind);

/// What a person would call the component: its name, and its file where several may have the name.
std::string describe(const Component& component);

/// The components that a master file lists, in the order in which they are to be started: the router, session
/// managers, s2s, c2s, each kind in the order of the file. A file that is listed twice under one name counts
/// once; lines that are no component lines are passed over. Fails with a sentence when a file cannot be read,
/// when a component's file is not well-formed XML, and when the list does not have one router.
Result<std::vector<Component>> readInstancePlan(FileSystem& files, const std::string& masterFile);

}  // namespace tessard
