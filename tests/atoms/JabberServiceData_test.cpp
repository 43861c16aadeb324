#include <unistd.h>

#include <cerrno>

#include "tests/atoms/AtomFixtures.h"
#include "tests/atoms/ProjectPaths.h"
#include "tests/atoms/RealTools.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kDatabase = "/private/var/jabberd/sqlite/jabberd2_notification.db";
const std::string kDatabaseTool = "/usr/bin/sqlite3";

class JabberServiceData : public JabberTest {
 protected:
  void SetUp() override {
    platform.root.makeDirectory("/private/var/run");
    platform.root.write("/private/var/jabberd/db-setup.sqlite", "CREATE TABLE one (x TEXT);\n");
    for (const char* name : {"router.xml", "router-users.xml", "sm.xml", "c2s.xml", "s2s.xml"}) {
      platform.root.write(inConfig(name), "<a>@HOSTNAME@ @ROUTERPASSWORD@</a>");
    }
    owner.preferences = Dictionary{{"savedChatsLocation", "/var/chats"}};
    grantAccess();
    // The tool makes its file and finds one table in it.
    platform.tasks.on(kDatabaseTool, [this](const ScriptedTasks::Call& call) {
      if (call.operation == "launch_task") return TaskResult{0, "1\n", ""};
      platform.root.write(call.arguments.back().content, "a database");
      return TaskResult{};
    });
  }

  /// What has been made, in the order of the steps.
  Lines made() const {
    Lines all;
    if (platform.root.exists(kDatabase)) all.emplace_back("database");
    if (platform.root.exists(kRunDirectory)) all.emplace_back("run directory");
    if (platform.root.read(inConfig("s2s.xml")).find("@HOSTNAME@") == std::string::npos) {
      all.emplace_back("templates");
    }
    if (platform.root.exists("/var/chats")) all.emplace_back("saved chats");
    return all;
  }
};

TEST_F(JabberServiceData, AreReadyWhenDatabaseAndRunDirectoryAreThere) {
  EXPECT_FALSE(atom->serviceDataReady());
  platform.root.write(kDatabase, "");
  EXPECT_FALSE(atom->serviceDataReady());
  platform.root.makeDirectory(kRunDirectory);
  EXPECT_TRUE(atom->serviceDataReady());
  platform.root.remove(kDatabase);
  EXPECT_FALSE(atom->serviceDataReady());
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(JabberServiceData, AreNotReadyWhereTheyCannotBeLookedAtWhichIsTold) {
  platform.root.write(kDatabase, "");
  platform.root.makeDirectory(kRunDirectory);
  for (const std::string& path : {kDatabase, kRunDirectory}) {
    platform.files.heal();
    platform.log.clear();
    platform.files.failPath("attributes", path, EIO);
    EXPECT_FALSE(atom->serviceDataReady());
    EXPECT_THAT(platform.log.lines(),
                ElementsAre(whole("W", "\"" + path + "\" cannot be looked at: Input/output error")));
  }
}

TEST_F(JabberServiceData, AreNotReadyWhenAFileIsInThePlaceOfTheRunDirectory) {
  platform.root.write(kDatabase, "");
  platform.root.write(kRunDirectory, "");
  EXPECT_FALSE(atom->serviceDataReady());
}

TEST_F(JabberServiceData, AreLookedForWhereThePreferencesSay) {
  owner.preferences->set("jabberdDatabasePath", "/other.db");
  platform.root.write("/other.db", "");
  platform.root.makeDirectory(kRunDirectory);
  EXPECT_TRUE(atom->serviceDataReady());
  EXPECT_THAT(platform.log.messages(kLogDebug), ElementsAre("Using /other.db as the database path"));
}

TEST_F(JabberServiceData, AreMadeInFourStepsInTheirOrder) {
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(made(), ElementsAre("database", "run directory", "templates", "saved chats"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
  EXPECT_EQ(platform.log.messages(kLogDebug)[0], "Using " + kDatabase + " as the database path");
  EXPECT_EQ(platform.log.messages(kLogDebug)[1], "Using " + kDatabase + " as the database path");
  std::vector<std::string> directories;
  for (const auto& call : platform.files.calls("createDirectory")) directories.push_back(call.path);
  EXPECT_THAT(directories, ElementsAre("/private/var/jabberd/sqlite", kRunDirectory, "/var/chats"));
  EXPECT_EQ(platform.tasks.calls.front().program, kDatabaseTool);
  EXPECT_EQ(platform.tasks.calls.back().program, kAccessTool);
  EXPECT_THAT(platform.tasks.calls.back().arguments,
              ElementsAre(TaskArgument::text("84"), TaskArgument::path("/var/chats")));
  EXPECT_TRUE(atom->serviceDataReady());
}

TEST_F(JabberServiceData, AreLeftAloneWhenTheyAreReady) {
  platform.root.write(kDatabase, "");
  platform.root.makeDirectory(kRunDirectory);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(made(), ElementsAre("database", "run directory"));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(JabberServiceData, StopWithAFailingDatabase) {
  platform.tasks.on(kDatabaseTool, {1, "", "broken"});
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(made(), IsEmpty());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "Creating jabberd database failed: ''; 'broken'")));
}

TEST_F(JabberServiceData, StopWithAFailingRunDirectory) {
  platform.files.failPath("createDirectory", "jabberd_notification", EACCES);
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(made(), ElementsAre("database"));
  EXPECT_THAT(
      platform.log.lines(),
      ElementsAre(whole("E", "unable to create the pid directory for the service: 'Permission denied'")));
}

TEST_F(JabberServiceData, StopWithARunDirectoryThatCannotBeLookedAt) {
  platform.files.failPath("attributes", "run/jabberd_notification", EIO);
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(
      platform.log.lines(),
      ElementsAre(whole("E", "unable to create the pid directory for the service: 'Input/output error'")));
}

TEST_F(JabberServiceData, StopWithAFailingTemplate) {
  platform.root.remove(inConfig("sm.xml"));
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(made(), ElementsAre("database", "run directory"));
  EXPECT_THAT(platform.log.lines(), SizeIs(1));
}

TEST_F(JabberServiceData, StopWithAnUnusableDirectoryOfSavedChats) {
  grantAccess(1);
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(made(), ElementsAre("database", "run directory", "templates", "saved chats"));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "inaccessible directory: /var/chats")));
}

TEST_F(JabberServiceData, AreMadeAnewWithADirectoryOfSavedChatsThatCouldNotBeMade) {
  platform.files.failPath("createDirectory", "/var/chats", ENOSPC);
  grantAccess(1);
  platform.journal.startRequest();
  EXPECT_FALSE(atom->initServiceData());
  platform.journal.finishRequest(false);
  EXPECT_THAT(made(), IsEmpty());
  platform.files.heal();
  grantAccess();
  platform.journal.startRequest();
  EXPECT_TRUE(atom->initServiceData());
  platform.journal.finishRequest(false);
  EXPECT_THAT(made(), ElementsAre("database", "run directory", "templates", "saved chats"));
}

TEST_F(JabberServiceData, FailWithoutAPreferenceForTheSavedChats) {
  for (const Dictionary& preferences : {Dictionary{}, Dictionary{{"savedChatsLocation", Array{}}}}) {
    owner.preferences = preferences;
    platform.root.remove(kDatabase);
    EXPECT_FALSE(atom->initServiceData());
    EXPECT_THAT(made(), ElementsAre("database", "run directory", "templates"));
    platform.root.write(kDatabase, "");
  }
}

TEST_F(JabberServiceData, AreMadeWithTheRealTools) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can ask about another user";
  if (::access(kDatabaseTool.c_str(), X_OK) != 0) GTEST_SKIP() << kDatabaseTool << " is not installed";
  RealTools tools(platform);
  const std::string program = checkUserAccessProgram();
  platform.bundles.add("com.velto.tessard_notification").resources["check_user_access"] = program;
  tools.run(program);
  tools.run(kDatabaseTool);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(made(), ElementsAre("database", "run directory", "templates", "saved chats"));
  EXPECT_EQ(platform.root.owner(kRunDirectory), 84U);
  EXPECT_EQ(platform.root.group(kRunDirectory), 1U);
  EXPECT_EQ(platform.root.mode(kRunDirectory), 0755U);
  EXPECT_EQ(platform.root.owner("/var/chats"), 84U);
  EXPECT_EQ(platform.root.group("/var/chats"), 80U);
  EXPECT_EQ(platform.root.mode("/var/chats"), 0750U);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
  EXPECT_TRUE(atom->initServiceData()) << "and a second time";
}

}  // namespace
}  // namespace tessard
