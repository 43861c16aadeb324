#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "atoms/JabberServiceAtom.h"
#include "config/MasterConfiguration.h"
#include "tests/support/RecordingOwner.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

using Atom = NOTIFICATION_PLUGIN_ChatServiceAtom;
using JabberAtom = NOTIFICATION_PLUGIN_JabberServiceAtom;
using Master = NOTIFICATION_PLUGIN_MasterConfiguration;
using Lines = std::vector<std::string>;

inline const std::string kConfigDirectory = "/private/etc/jabberd_notification";
inline const std::string kRunDirectory = "/private/var/run/jabberd_notification";
inline const std::string kAccessTool =
    "/usr/share/tessardd/bundles/tessard_notification.bundle/Contents/Resources/check_user_access";

/// What stands between the tags of the root elements of the four component files.
struct Components {
  std::string c2s{};
  std::string s2s{};
  std::string sm{};
  std::string router{};
};

inline std::string whole(const std::string& level, const std::string& message) {
  return "tessard_notification[" + level + "]: " + message;
}

/// A jabber atom on a scratch system root, whose owner has the real configuration store.
class JabberTest : public testing::Test {
 protected:
  TestPlatform platform;
  RecordingOwner owner{platform};
  std::unique_ptr<JabberAtom> atom = JabberAtom::jabberServiceAtom(platform, &owner);

  static std::string inConfig(const std::string& name) { return kConfigDirectory + "/" + name; }

  void writeComponent(const std::string& name, const std::string& inner) {
    platform.root.write(inConfig(name + ".xml"), "<" + name + ">" + inner + "</" + name + ">");
  }

  /// Writes the four files and a master file that lists them, and loads all.
  void load(const Components& components) {
    writeComponent("c2s", components.c2s);
    writeComponent("s2s", components.s2s);
    writeComponent("sm", components.sm);
    writeComponent("router", components.router);
    writeMasterFile();
    reload();
  }

  void writeMasterFile() {
    std::string lines;
    for (const char* name : {"router", "sm", "c2s", "s2s"}) {
      lines += std::string(name) + " " + inConfig(std::string(name) + ".xml") + "\n";
    }
    platform.root.write(inConfig("jabberd.cfg"), lines);
  }

  /// Forgets the documents in memory and reads the files.
  void reload() {
    owner.master = Master::masterConfiguration(platform);
    ASSERT_TRUE(owner.master->loadAllConfigurations());
    platform.log.clear();
    platform.files.clearCalls();
  }

  void saveAndReload() {
    ASSERT_TRUE(owner.master->saveAllConfigurations());
    reload();
  }

  /// The value that the atom reads under a key; absent when the key is not there.
  std::optional<Value> setting(std::string_view key) {
    const auto settings = atom->readServiceConfiguration();
    const Value* value = settings ? settings->find(key) : nullptr;
    return value ? std::optional(*value) : std::nullopt;
  }

  int stateAt(std::string_view path) const { return owner.master->getNodeStateForPath(path); }

  /// The live text at a path; absent when nothing live is there.
  std::optional<std::string> liveAt(std::string_view path) const {
    int state = kNodeNotFound;
    auto text = owner.master->getStringValueForPath_nodeState(path, state);
    return state == kNodeLive ? text : std::nullopt;
  }

  std::vector<std::string> allAt(std::string_view path) const {
    std::vector<std::string> texts;
    const auto matches = owner.master->getNodesForPath_withAttributes(path, std::nullopt);
    if (!matches) return texts;
    for (const MatchEntry& match : *matches) {
      texts.push_back((match.state == kNodeLive ? "" : "off:") + match.node.stringValue());
    }
    return texts;
  }

  std::vector<std::pair<std::string, std::string>> attributesAt(std::string_view path,
                                                                std::size_t index = 0) {
    const auto matches = owner.master->getNodesForPath_withAttributes(path, std::nullopt);
    if (!matches || matches->size() <= index) return {{"no", "such element"}};
    return (*matches)[index].node.attributes();
  }

  bool write(const SettingsDictionary& settings) {
    platform.log.clear();
    errorCode = 4711;
    return atom->writeServiceConfiguration_error(&settings, errorCode);
  }
  int errorCode = 4711;

  /// Lets the plug-in's bundle have its access tool, which answers with the status.
  void grantAccess(int status = 0) {
    platform.bundles.add("com.velto.tessard_notification").resources["check_user_access"] = kAccessTool;
    platform.tasks.on(kAccessTool, {status, "", ""});
  }

  bool debugged(std::string_view message) const { return platform.log.has(kLogDebug, message); }
};

}  // namespace tessard
