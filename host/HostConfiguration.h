#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// How the daemon is to run. Paths but `root` and `configurationFile` are system paths, below the root.
struct HostConfiguration {
  std::string root = "/";
  std::string configurationFile = "/etc/tessardd/tessardd.conf";
  std::string socketPath = "/run/tessardd/tessardd.sock";
  std::string adminGroup = "tessard-admin";
  std::string bundlesDirectory = "/usr/share/tessardd/bundles";
  /// A path of the machine: programs are run where they are installed.
  std::string programsDirectory = "/usr/libexec/tessardd";
  /// "systemd", "s6" or "none"; empty for what the machine has (see `chooseServiceManager`).
  std::string serviceManager;
  std::string s6ScanDirectory = "/run/service";
  /// How the gateway is asked to map ports to this machine: "off" (it is not), "natpmp", "upnp", or "auto"
  /// for the first of them that it knows.
  std::string portMapping = "off";
  std::uint32_t idleSeconds = 60;             ///< without a request until the plug-ins' idle work; 0: never
  std::uint32_t requestSeconds = 30;          ///< for a client to send one request, or to take one answer
  std::uint32_t queueSeconds = 120;           ///< that a request may wait for the work slot
  std::uint32_t maximumConnections = 64;      ///< at a time
  std::uint32_t maximumUserConnections = 16;  ///< of them, those of one user other than root
  std::uint32_t rootConnections = 8;          ///< of them, those that are kept for root
  std::uint32_t userMebibytes = 4;            ///< for the requests and answers of one user other than root
  /// Without further changes of the host's name or addresses until they are handed on; 0: not watched.
  std::uint32_t networkQuietSeconds = 2;
};

/// What the command line asks for besides running the daemon.
enum class CommandLineWish { run, help, version };

struct CommandLine {
  HostConfiguration configuration;
  CommandLineWish wish = CommandLineWish::run;
};

/// Applies the lines "key = value" of a configuration text; "#" begins a comment line. Keys are named like
/// the options, without the dashes. Fails with a sentence that begins with the source's name and the number
/// of the first line that is wrong: an unknown or doubled key, a missing or unusable value.
Result<void> applyConfigurationText(HostConfiguration& configuration, std::string_view text,
                                    const std::string& sourceName);

/// Defaults, overlaid with the configuration file, overlaid with the options. `arguments` come without the
/// program's name. The default configuration file (below the root) may be missing, one that is asked for may
/// not. Fails with a sentence for the person who started the daemon.
Result<CommandLine> readCommandLine(const std::vector<std::string>& arguments);

/// The text of --help.
std::string daemonHelp();

}  // namespace tessard
