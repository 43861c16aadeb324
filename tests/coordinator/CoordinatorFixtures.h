#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "coordinator/ChatServiceWrangler.h"
#include "tests/coordinator/RecordingAtom.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

using Wrangler = NOTIFICATION_PLUGIN_ChatServiceWrangler;

inline const std::string kConfigDirectory = "/private/etc/jabberd_notification/";
inline const std::string kMasterFile = kConfigDirectory + "jabberd.cfg";
inline const std::string kPreferencesFile = "/Library/Preferences/com.velto.tessard_notification.plist";

/// Puts a file of the configuration in place, last changed long before the test.
inline void writeConfigurationFile(const ScratchRoot& root, std::string_view name, std::string_view content) {
  const std::string path = kConfigDirectory + std::string(name);
  root.write(path, content);
  root.setModified(path, {1000, 0});
}

/// A whole small jabberd configuration that serves one domain.
inline void writeJabberConfiguration(const ScratchRoot& root, const std::string& domain) {
  std::string master;
  for (const char* component : {"router", "sm", "c2s", "s2s"}) {
    master += std::string(component) + " " + kConfigDirectory + component + ".xml\n";
  }
  const std::string id = "<id>" + domain + "</id>";
  writeConfigurationFile(root, "jabberd.cfg", master);
  writeConfigurationFile(root, "router.xml", "<router>\n <id>router</id>\n</router>\n");
  writeConfigurationFile(
      root, "sm.xml",
      "<sm>\n <id>sm</id>\n <pidfile>/var/run/sm.pid</pidfile>\n <local>\n  " + id + "\n </local>\n</sm>\n");
  writeConfigurationFile(root, "c2s.xml",
                         "<c2s>\n <local>\n  " + id + "\n  <port>5218</port>\n </local>\n</c2s>\n");
  writeConfigurationFile(root, "s2s.xml", "<s2s>\n <local>\n  <port>5268</port>\n </local>\n</s2s>\n");
}

/// A coordinator with two recording services in place of its own, on a configuration that serves
/// "chat.example.com".
struct Coordinated : testing::Test {
  TestPlatform platform;
  Journal journal;
  std::unique_ptr<Wrangler> wrangler = Wrangler::chatServiceWrangler(platform);
  RecordingAtom* jabber = nullptr;
  RecordingAtom* notification = nullptr;

  Coordinated() {
    platform.files.beforeCall = [this](const FaultyFileSystem::Call&) { platform.clock.setToMachine(); };
    writeJabberConfiguration(platform.root, "chat.example.com");
    setAtoms({"jabberd", "Notification"});
    jabber = atom(0);
    notification = atom(1);
    platform.log.clear();
  }

  void setAtoms(const std::vector<std::string>& names) {
    Wrangler::Atoms atoms;
    for (const std::string& name : names) {
      atoms.push_back(std::make_unique<RecordingAtom>(platform, name, wrangler.get(), journal));
    }
    wrangler->setServiceAtoms(std::move(atoms));
  }

  RecordingAtom* atom(std::size_t index) const {
    return static_cast<RecordingAtom*>(wrangler->serviceAtoms().at(index).get());
  }

  std::string file(std::string_view name) const {
    return platform.root.read(kConfigDirectory + std::string(name));
  }
  bool hasFile(std::string_view name) const {
    return platform.root.exists(kConfigDirectory + std::string(name));
  }
  NOTIFICATION_PLUGIN_MasterConfiguration& master() const { return *wrangler->masterConfig(); }

  std::vector<std::string> debugLines() const { return platform.log.messages(kLogDebug); }
  bool debugged(std::string_view message) const { return platform.log.has(kLogDebug, message); }
};

}  // namespace tessard
