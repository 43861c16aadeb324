#include "host/check/Units.h"

#include <cerrno>
#include <map>

#include "common/Format.h"
#include "common/Text.h"
#include "host/ServiceManagers.h"

namespace tessard {

namespace {

constexpr const char* kSystemctl = "/usr/bin/systemctl";

Result<UnitFacts> askSystemd(CheckedSystem& system, const std::string& label) {
  const TaskResult told = system.tasks.launch_task(
      kSystemctl, {TaskArgument::text("show"),
                   TaskArgument::text("--property=LoadState,ActiveState,UnitFileState,DropInPaths"),
                   TaskArgument::text("--"), TaskArgument::text(fill("%@.service", {label}))});
  if (told.status != 0) {
    const std::string said = told.errorText.substr(0, told.errorText.find('\n'));
    return SystemError(0, said.empty() ? fill("systemctl ended with status %d", {told.status}) : said);
  }
  std::map<std::string, std::string> properties;
  for (const std::string& line : componentsOf(told.output, '\n')) {
    const auto equals = line.find('=');
    if (equals != std::string::npos) properties[line.substr(0, equals)] = line.substr(equals + 1);
  }
  UnitFacts facts;
  const std::string& active = properties["ActiveState"];
  facts.isMasked = properties["LoadState"] == "masked";
  facts.isKnown = facts.isMasked || properties["LoadState"] == "loaded";
  facts.isEnabled = properties["UnitFileState"].starts_with("enabled");
  facts.isRunning = active == "active" || active == "activating" || active == "reloading";
  facts.hasFailed = active == "failed";
  for (const std::string& path : componentsOf(properties["DropInPaths"], ' ')) {
    // What the distribution brings itself is no change.
    if (path.starts_with("/etc/") || path.starts_with("/run/")) facts.dropIns.push_back(path);
  }
  return facts;
}

Result<UnitFacts> askS6(CheckedSystem& system, const std::string& label) {
  const std::string scan = system.configuration.s6ScanDirectory;
  const std::string directory = fill("%@/%@", {scan, label});
  UnitFacts facts;
  if (!system.files.exists(scan)) return SystemError(0, fill("there is no scan directory \"%@\"", {scan}));
  facts.isKnown = system.files.exists(directory);
  if (!facts.isKnown) return facts;
  facts.isEnabled = !system.files.exists(directory + "/down");
  if (system.tasks.ZtRunTask("/usr/bin/s6-svok", {TaskArgument::path(directory)}) != 0) return facts;
  const TaskResult told = system.tasks.launch_task(
      "/usr/bin/s6-svstat",
      {TaskArgument::text("-o"), TaskArgument::text("up"), TaskArgument::path(directory)});
  if (told.status != 0) return SystemError(0, fill("s6-svstat ended with status %d", {told.status}));
  facts.isRunning = told.output == "true\n";
  return facts;
}

}  // namespace

Result<UnitFacts> unitFacts(CheckedSystem& system, const std::string& label) {
  return serviceManagerOf(system.configuration) == "systemd" ? askSystemd(system, label)
                                                             : askS6(system, label);
}

}  // namespace tessard
