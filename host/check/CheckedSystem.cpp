#include "host/check/CheckedSystem.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "host/RealPlatform.h"
#include "platform/OfflineNetwork.h"
#include "platform/RootDirectory.h"
#include "platform/network/HostLookup.h"

namespace tessard {

namespace {

double secondsUntil(CheckedSystem::Moment deadline) {
  const std::chrono::duration<double> left = deadline - std::chrono::steady_clock::now();
  return std::max(left.count(), 0.1);
}

}  // namespace

CheckedSystem::CheckedSystem(const HostConfiguration& wanted, const PluginFacts& known, Moment end)
    : configuration(wanted),
      plugins(known),
      deadline(end),
      files(wanted.root, ownersForThisUser()),
      tasks(wanted.root, wanted.programsDirectory, secondsUntil(end)),
      hostNames(files),
      isMachine(wanted.root == "/"),
      lookUp([this](const std::string& host, double seconds) -> std::optional<std::vector<std::string>> {
        if (!isMachine) return OfflineNetwork(files).ZtGetAddressesForHostName(host, seconds);
        return HostLookup().addressesOf(host, seconds);
      }) {}

const Instance& CheckedSystem::instance() {
  if (!instance_) instance_ = readInstance(files);
  return *instance_;
}

double CheckedSystem::secondsLeft() const {
  return secondsUntil(deadline);
}

bool CheckedSystem::isLink(std::string_view path) const {
  const auto opened = openBelowRoot(configuration.root, path, O_PATH | O_NOFOLLOW);
  struct stat status {};
  return opened && ::fstat(opened.value().get(), &status) == 0 && S_ISLNK(status.st_mode);
}

Result<std::string> CheckedSystem::machinePathOf(std::string_view path) const {
  const auto opened = openBelowRoot(configuration.root, path, O_PATH);
  if (!opened) return opened.error();
  return realPathOf(opened.value());
}

}  // namespace tessard
