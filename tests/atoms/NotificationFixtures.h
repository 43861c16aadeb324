#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/PropertyList.h"
#include "tests/atoms/ProjectPaths.h"
#include "tests/support/RecordingOwner.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

using NotificationAtom = NOTIFICATION_PLUGIN_NotificationServiceAtom;
using Lines = std::vector<std::string>;

inline void PrintTo(const Dictionary& dictionary, std::ostream* out) {
  *out << Value(dictionary).description();
}

/// A notification atom on a scratch system root with the shipped defaults, whose owner serves
/// "served.example.com" and whose router has the secret "router-secret".
class NotificationTest : public testing::Test {
 protected:
  TestPlatform platform;
  RecordingOwner owner{platform};
  std::unique_ptr<NotificationAtom> atom = NotificationAtom::notificationServiceAtom(platform, &owner);

  NotificationTest() {
    std::ifstream file(defaultConfigFile());
    std::ostringstream text;
    text << file.rdbuf();
    platform.root.write(kNotificationDefaultConfigFilePath, text.str());
    owner.domains = Lines{"served.example.com", "second.example.com"};
    writeRouter("<secret>router-secret</secret>");
  }

  void writeRouter(const std::string& local) {
    const std::string directory = "/private/etc/jabberd_notification/";
    platform.root.write(directory + "jabberd.cfg", "router " + directory + "router.xml\n");
    platform.root.write(directory + "router.xml", "<router><local>" + local + "</local></router>");
    // Before the test's clock, so that nothing counts as changed meanwhile.
    for (const char* name : {"jabberd.cfg", "router.xml"})
      platform.root.setModified(directory + name, {1000, 0});
    owner.master = NOTIFICATION_PLUGIN_MasterConfiguration::masterConfiguration(platform);
  }

  Dictionary listAt(const char* path) {
    auto list = readPropertyListFile(platform.posixFiles, path);
    return list ? std::move(list).value() : Dictionary{{"unreadable", list.error().description()}};
  }
  Dictionary defaults() { return listAt(kNotificationDefaultConfigFilePath); }
  Dictionary stored() { return listAt(kNotificationConfigFilePath); }

  void store(const Dictionary& settings) {
    platform.root.write(kNotificationConfigFilePath, serializePropertyList(Value(settings)).value());
    platform.files.clearCalls();
  }

  /// Every key that a file needs so that reading it leaves it alone.
  Dictionary complete() {
    Dictionary settings = defaults();
    settings.set("secret", "own-secret");
    settings.set("domain", "own.example.com");
    return settings;
  }

  static Dictionary with(Dictionary dictionary, std::initializer_list<DictionaryEntry> entries) {
    for (const DictionaryEntry& entry : entries) dictionary.set(entry.key, entry.value);
    return dictionary;
  }

  bool write(const SettingsDictionary& settings) {
    errorCode = 4711;
    return atom->writeServiceConfiguration_error(&settings, errorCode);
  }
  int errorCode = 4711;

  /// The attributes that calls which make or change a file of the name asked for.
  std::vector<FileOwnership> ownershipsAsked(std::string_view operation, const std::string& path) {
    std::vector<FileOwnership> asked;
    for (const auto& call : platform.files.calls(operation)) {
      if (call.path == path) asked.push_back(call.ownership);
    }
    return asked;
  }

  bool debugged(std::string_view message) const { return platform.log.has(kLogDebug, message); }
  /// Every line that a person sees.
  Lines shown() const {
    Lines lines = platform.log.messages(kLogWarning);
    for (auto& line : platform.log.messages(kLogError)) lines.push_back(line);
    return lines;
  }
};

}  // namespace tessard
