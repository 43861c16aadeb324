#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "platform/keychain/SqliteKeychain.h"
#include "tests/atoms/NotificationFixtures.h"
#include "tests/atoms/ProjectPaths.h"
#include "tests/atoms/RealTools.h"

namespace tessard {

inline const std::string kServiceUser = "com.velto.notificationuser";
inline const std::string kDataDirectory = "/var/db/idavoll";
inline const std::string kNodes = "/var/db/idavoll/pubsub.db";
inline const std::string kItems = "/var/db/idavoll/items.db";
inline const std::string kLogDirectory = "/var/log/idavoll";
inline const std::string kBridgeDirectory = "/var/db/korvbridge";
inline const std::string kSqlite = "/usr/bin/sqlite3";

/// A notification atom on a scratch root that has what an installation has: account files, the schema scripts
/// and the machine's own database tool.
class NotificationDataTest : public NotificationTest {
 protected:
  RealTools tools{platform};

  NotificationDataTest() {
    for (const char* name : {"pubsub.sql", "items.sql"}) {
      platform.root.write(std::string("/usr/share/Beaconry/") + name,
                          machineFile(schemasDirectory() + "/" + name));
    }
    for (const char* directory : {"/var/db", "/var/log"}) platform.root.makeDirectory(directory);
    platform.root.write("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n");
    platform.root.write("/etc/shadow", "root:!:20000:0:99999:7:::\n");
    platform.root.setMode("/etc/shadow", 0640);
    platform.root.write("/etc/group", "root:x:0:\nstaff:x:20:\n");
    tools.run(kSqlite);
  }

  void addGroup(const std::string& line) {
    platform.root.write("/etc/group", platform.root.read("/etc/group") + line + "\n");
  }
  void addUser(const std::string& line) {
    platform.root.write("/etc/passwd", platform.root.read("/etc/passwd") + line + "\n");
  }
  /// The line of an account file that begins with the name.
  std::string lineOf(const std::string& name, const std::string& file) const {
    const std::string content = "\n" + platform.root.read(file);
    const auto start = content.find("\n" + name + ":");
    if (start == std::string::npos) return "";
    return content.substr(start + 1, content.find('\n', start + 1) - start - 1);
  }
  std::string hashOf(const std::string& name) const {
    const std::string line = lineOf(name, "/etc/shadow");
    const auto start = line.find(':') + 1;
    return line.substr(start, line.find(':', start) - start);
  }

  /// What a database answers; the question runs in the machine's own tool.
  std::string ask(const std::string& database, const std::string& question) {
    const auto answer = tools.tasks().launch_task(
        kSqlite, {TaskArgument::text("-batch"), TaskArgument::path(database), TaskArgument::text(question)});
    EXPECT_EQ(answer.status, 0) << answer.errorText;
    return answer.output;
  }

  Lines errors() const { return platform.log.messages(kLogError); }
  Lines warnings() const { return platform.log.messages(kLogWarning); }

  /// Settings like the shipped ones with other values.
  void storeWith(std::initializer_list<DictionaryEntry> entries) { store(with(complete(), entries)); }
};

}  // namespace tessard
