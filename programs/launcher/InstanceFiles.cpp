#include "programs/launcher/InstanceFiles.h"

#include <cerrno>
#include <fstream>
#include <set>

#include "common/Format.h"

namespace tessard {

namespace {

// Of whoever looks at the pid files; the components come as the owner.
constexpr gid_t kRunDirectoryGroup = 1;
constexpr uid_t kRunDirectoryOwner = 84;
constexpr mode_t kRunDirectoryPermissions = 0755;

}  // namespace

Result<void> makeRunDirectory(FileSystem& files) {
  const auto made = files.createDirectory(
      kRunDirectory,
      {.owner = kRunDirectoryOwner, .group = kRunDirectoryGroup, .permissions = kRunDirectoryPermissions},
      false);
  if (!made && made.error().code() != EEXIST) {
    return SystemError(made.error().code(),
                       fill("\"%@\" cannot be made: %@", {kRunDirectory, made.error().description()}));
  }
  return {};
}

std::vector<std::string> pidFilesOf(FileSystem& files, const std::vector<Component>& components) {
  std::set<std::string> paths;
  for (const Component& component : components) {
    if (!component.pidFile.empty() && files.exists(component.pidFile)) paths.insert(component.pidFile);
  }
  if (const auto names = files.listDirectory(kRunDirectory)) {
    for (const std::string& name : names.value()) {
      if (name.ends_with(".pid")) paths.insert(fill("%@/%@", {kRunDirectory, name}));
    }
  }
  return {paths.begin(), paths.end()};
}

bool namesLiveComponent(Processes& processes, const std::string& pidFile) {
  if (processes.get_service_state_from_pid_file(pidFile) == 0) return false;
  std::ifstream name(fill("/proc/%d/comm", {processes.pid_from_file(pidFile)}));
  std::string text;
  std::getline(name, text);
  return text.starts_with("jabberd2-");
}

}  // namespace tessard
