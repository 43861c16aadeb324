#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "common/Text.h"
#include "host/RealPlatform.h"
#include "host/check/CheckAreas.h"
#include "tests/atoms/ProjectPaths.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {

/// A scratch root as first-time setup leaves it, with nothing wrong in it, and what the check finds there.
class CheckTest : public testing::Test {
 protected:
  CheckTest() {
    configuration.root = root.path();
    writeTemplates();
    writeAs("/Library/Preferences/com.velto.Beaconry.plist", settings(kSecret), 84, 0, 0660);
    writeAs("/Library/Preferences/com.velto.tessard_notification.plist",
            list("<key>initialized</key><true/>"), 0, 0, 0600);
    writeMachine();
    writeData();
  }

  static constexpr const char* kSecret = "a long secret";
  static constexpr const char* kDomain = "push.example.com";

  ScratchRoot root;
  HostConfiguration configuration;
  PluginFacts plugins{{"notification"}, {}};

  static std::string inConfig(std::string_view name) {
    return "/private/etc/jabberd_notification/" + std::string(name);
  }
  static std::string list(const std::string& entries) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>" + entries +
           "</dict></plist>";
  }
  static std::string settings(const std::string& secret) {
    return list("<key>domain</key><string>" + std::string(kDomain) + "</string><key>secret</key><string>" +
                secret +
                "</string><key>jid</key><string>pubsub</string><key>backend</key><string>pgsql</string>");
  }

  void own(std::string_view path, uid_t user, gid_t group) {
    PosixFileSystem files(root.path(), ownersForThisUser());
    ASSERT_TRUE(files.setOwnership(path, {user, group, std::nullopt}));
  }

  void writeAs(std::string_view path, const std::string& text, uid_t user, gid_t group, mode_t mode) {
    root.write(path, text);
    own(path, user, group);
    root.setMode(path, mode);
  }

  /// Replaces a part of a file that must be there.
  void change(std::string_view path, std::string_view from, std::string_view to) {
    const std::string before = root.read(path);
    const std::string after = replacingAll(before, from, to);
    ASSERT_NE(before, after) << from;
    root.write(path, after);
  }
  void changeConfig(std::string_view name, std::string_view from, std::string_view to) {
    change(inConfig(name), from, to);
  }

  virtual void prepare(CheckedSystem& /*system*/) {}

  std::vector<Finding> found(const CheckArea& area) {
    Findings findings(area.name);
    CheckedSystem system(configuration, plugins, std::chrono::steady_clock::now() + std::chrono::seconds(60));
    prepare(system);
    area.examine(system, findings);
    for (const Finding& finding : findings.all()) {
      // Whatever is found is among what the area says that it can find, and is told in whole sentences.
      EXPECT_THAT(idsOf(area), testing::Contains(std::string(finding.kind.id)));
      EXPECT_TRUE(finding.sentence.ends_with(".")) << finding.sentence;
      EXPECT_FALSE(finding.remedy.empty());
      EXPECT_FALSE(finding.subject.empty());
      EXPECT_EQ(finding.sentence.find(kSecret), std::string::npos);
      EXPECT_EQ(finding.remedy.find(kSecret), std::string::npos);
    }
    return findings.all();
  }

  std::vector<std::string> foundIds(const CheckArea& area) {
    std::vector<std::string> ids;
    for (const Finding& finding : found(area)) ids.emplace_back(finding.kind.id);
    return ids;
  }

  void runSql(std::string_view path, const std::string& statements) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(root.hostPath(path).c_str(), &database), SQLITE_OK);
    const std::string all = "PRAGMA synchronous = OFF;" + statements;
    ASSERT_EQ(sqlite3_exec(database, all.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
  }

  void makeDirectory(std::string_view path) {
    root.makeDirectory(path);
    root.setMode(path, 0750);
    own(path, 84, 84);
  }

  static constexpr const char* kDatabase = "/private/var/jabberd/sqlite/jabberd2_notification.db";

 private:
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void writeMachine() {
    root.makeDirectory("/run");
    root.write("/etc/hostname", "push.example.com\n");
    root.write("/etc/hosts", "127.0.0.1 localhost\n127.0.1.1 push.example.com push\n");
    root.write("/etc/passwd",
               "root:x:0:0:root:/root:/bin/sh\njabberd:x:84:84::/var/jabberd:/usr/sbin/nologin\n");
    root.write("/etc/group", "root:x:0:\njabberd:x:84:\ntessard-admin:x:900:\n");
    root.write("/etc/shadow", "root:!:20000:0:99999:7:::\njabberd:!:20000::::::\n");
  }

  void writeDatabase(const std::string& path, const std::string& script, const std::string& text) {
    root.write(script, text);
    runSql(path, text);
    root.setMode(path, 0640);
    own(path, 84, 84);
  }

  void writeData() {
    for (const char* path :
         {"/private/var/jabberd/sqlite", "/var/db/idavoll", "/var/db/korvbridge", "/var/log/idavoll"}) {
      makeDirectory(path);
    }
    writeDatabase(
        kDatabase, "/private/var/jabberd/db-setup.sqlite",
        "CREATE TABLE 'active' ('collection-owner' TEXT);\nCREATE TABLE `roster-items` (jid TEXT);\n");
    for (const char* name : {"pubsub", "items"}) {
      const std::string script = std::string(name) + ".sql";
      writeDatabase(std::string("/var/db/idavoll/") + name + ".db", "/usr/share/Beaconry/" + script,
                    contentOf(schemasDirectory() + "/" + script));
    }
  }

  static std::vector<std::string> idsOf(const CheckArea& area) {
    std::vector<std::string> ids;
    for (const FindingKind& kind : area.kinds) ids.emplace_back(kind.id);
    return ids;
  }

  void writeTemplates() {
    for (const char* name :
         {"jabberd.cfg", "router-users.xml", "router.xml", "sm.xml", "c2s.xml", "s2s.xml"}) {
      const std::string text =
          replacingAll(contentOf(templatesDirectory() + "/" + name), "@HOSTNAME@", kDomain);
      writeAs(inConfig(name), replacingAll(text, "@ROUTERPASSWORD@", kSecret), 84, 0, 0600);
    }
  }
};

}  // namespace tessard
