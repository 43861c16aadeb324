// The input is a master file.

#include "common/Utf8.h"
#include "config/MasterConfiguration.h"
#include "fuzz/FuzzTargets.h"
#include "tests/support/TestPlatform.h"

namespace tessard::fuzz {

namespace {

using Master = NOTIFICATION_PLUGIN_MasterConfiguration;

constexpr std::string_view kPath = "/private/etc/jabberd_notification/jabberd.cfg";

struct Content {
  std::vector<std::string> comments;
  std::vector<std::pair<std::string, std::string>> components;
  bool operator==(const Content&) const = default;
};

Content contentOf(const Master& master) {
  Content content{master.loadedComments(), {}};
  for (const auto& [name, components] : master.loadedComponents()) {
    for (const auto& component : components) {
      // A line of a name alone is none, and nothing but tabs is no more than that: such a component is gone
      // with the next save.
      const std::string path = component->configPath().value_or("");
      if (path.find_first_not_of('\t') != std::string::npos) content.components.emplace_back(name, path);
    }
  }
  return content;
}

// The content of the file, and its bytes after a save.
std::pair<Content, std::string> savedAgain(TestPlatform& platform) {
  const auto master = Master::masterConfigurationWithPath(platform, kPath);
  promise(master->loadAllConfigurations(), "a saved master file can be loaded");
  const Content content = contentOf(*master);
  master->setConfigDirty(true);
  promise(master->saveMasterConfiguration(), "a loaded master file can be saved");
  return {content, platform.root.read(kPath)};
}

}  // namespace

void master_file(std::string_view input) {
  static TestPlatform platform;
  platform.root.write(kPath, input);
  const auto master = Master::masterConfigurationWithPath(platform, kPath);
  if (!master->loadAllConfigurations()) {
    promise(!isUtf8(input) || input.size() > Master::kMaximumFileSize,
            "a master file of UTF-8 can be loaded");
    return;
  }
  const Content content = contentOf(*master);
  master->setConfigDirty(true);
  promise(master->saveMasterConfiguration(), "a loaded master file can be saved");
  const auto [loaded, bytes] = savedAgain(platform);
  promise(loaded == content, "a saved master file lists what it listed before");
  promise(savedAgain(platform).second == bytes, "further saves change nothing");
  platform.log.clear();
  platform.files.clearCalls();
}

}  // namespace tessard::fuzz
