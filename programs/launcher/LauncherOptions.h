#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/Result.h"

namespace tessard {

struct LauncherOptions {
  enum class Wish { run, help, version };

  Wish wish = Wish::run;
  std::string masterFile = "/private/etc/jabberd_notification/jabberd.cfg";
  int notifyDescriptor = -1;        ///< -1: none
  std::uint32_t startSeconds = 30;  ///< for the components to come up
};

/// The options of a command line without the program's name. Fails with a sentence for an unknown or doubled
/// argument and for a value that is missing or unusable. Whether the descriptor is open is not looked at.
Result<LauncherOptions> readLauncherOptions(const std::vector<std::string>& arguments);

/// The text of --help.
std::string launcherHelp();

}  // namespace tessard
