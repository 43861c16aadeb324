#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/PropertyList.h"
#include "handler/ChatHandler.h"
#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {

using Handler = NOTIFICATION_PLUGIN_ChatHandler;

inline const std::string kHostMarker = "/var/db/.VeltoSetupDone";
inline const std::string kMigrationMarker = "/Library/Logs/Migration/beaconry_migration.log";
inline const std::string kJabberMigrationMarker = "/Library/Logs/Migration/jabbermigrator.log";

/// A handler on a machine whose first-time setup is not finished, with two recording services in place of its
/// own and a configuration that serves "chat.example.com".
template <class HandlerClass>
struct HandledBy : testing::Test {
  TestPlatform platform;
  Journal journal;
  std::unique_ptr<HandlerClass> handler = std::make_unique<HandlerClass>(platform);
  RecordingAtom* jabber = nullptr;
  RecordingAtom* notification = nullptr;

  HandledBy() {
    platform.files.beforeCall = [this](const FaultyFileSystem::Call&) { platform.clock.setToMachine(); };
    writeJabberConfiguration(platform.root, "chat.example.com");
    handler->setPluginVersion("1.2.3");
    handler->setServiceWrangler(Wrangler::chatServiceWrangler(platform));
    Wrangler::Atoms atoms;
    for (const char* name : {"jabberd", "Notification"}) {
      atoms.push_back(std::make_unique<RecordingAtom>(platform, name, handler->serviceWrangler(), journal));
    }
    jabber = static_cast<RecordingAtom*>(atoms[0].get());
    notification = static_cast<RecordingAtom*>(atoms[1].get());
    handler->serviceWrangler()->setServiceAtoms(std::move(atoms));
  }

  /// Finishes the host's first-time setup.
  void finishSetup() { platform.root.write(kHostMarker, ""); }

  /// Makes the service data count as initialised, and forgets what that logged and did.
  void initialise() {
    handler->serviceWrangler()->setPreferenceValue_forKey(true, "initialized");
    forget();
  }
  void forget() {
    platform.log.clear();
    platform.files.clearCalls();
    journal.clear();
  }

  void loseTheHostName() {
    platform.hostNames.configured.reset();
    platform.hostNames.stored.reset();
  }

  Value storedPreference(const char* key) {
    const auto stored = readPropertyListFile(platform.posixFiles, kPreferencesFile);
    const Value* value = stored ? stored.value().find(key) : nullptr;
    return value ? *value : Value("missing");
  }

  std::vector<std::string> debugLines() const { return platform.log.messages(kLogDebug); }
  bool debugged(std::string_view message) const { return platform.log.has(kLogDebug, message); }
  bool did(const std::string& operation) const {
    return std::ranges::find(journal, operation) != journal.end();
  }
};

using Handled = HandledBy<Handler>;

inline std::vector<std::string> keysOf(const Dictionary& dictionary) {
  std::vector<std::string> keys;
  for (const DictionaryEntry& entry : dictionary) keys.push_back(entry.key);
  return keys;
}

inline void PrintTo(const Dictionary& dictionary, std::ostream* out) {
  *out << Value(dictionary).description();
}

}  // namespace tessard
