#include <cerrno>

#include "tests/atoms/NotificationDataFixtures.h"

// The directories and databases of the notification service.

namespace tessard {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class NotificationData : public NotificationDataTest {
 protected:
  void makeAll() {
    ASSERT_TRUE(atom->initServiceData());
    ASSERT_TRUE(atom->serviceDataReady());
    forget();
  }
  void forget() {
    platform.log.clear();
    platform.files.clearCalls();
    platform.tasks.calls.clear();
    platform.directory.calls.clear();
  }
};

TEST_F(NotificationData, IsMadeWithItsOwnersAndModes) {
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_TRUE(atom->serviceDataReady());
  for (const auto& path : {kDataDirectory, kNodes, kItems, kBridgeDirectory}) {
    EXPECT_EQ(platform.root.mode(path), 0750U) << path;
    EXPECT_EQ(platform.posixFiles.attributes(path).value().owner, 84U) << path;
  }
  EXPECT_EQ(platform.root.mode(kLogDirectory), 0755U);
  EXPECT_EQ(platform.posixFiles.attributes(kLogDirectory).value().owner, 84U);
  EXPECT_THAT(platform.root.list(kDataDirectory), ElementsAre("items.db", "pubsub.db"));
}

TEST_F(NotificationData, ChangesNothingWhenAllIsThere) {
  makeAll();
  const std::string settings = platform.root.read(kNotificationConfigFilePath);
  const std::string passwd = platform.root.read("/etc/passwd");
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
  EXPECT_THAT(platform.directory.calls, IsEmpty());
  EXPECT_THAT(platform.log.lines(), IsEmpty());
  EXPECT_EQ(platform.root.read(kNotificationConfigFilePath), settings);
  EXPECT_EQ(platform.root.read("/etc/passwd"), passwd);
}

TEST_F(NotificationData, IsReadyOnlyWithEveryPieceInTheOrderOfTheTests) {
  makeAll();
  const auto asked = [&] {
    platform.files.clearCalls();
    EXPECT_FALSE(atom->serviceDataReady());
    Lines paths;
    for (const auto& call : platform.files.calls("attributes")) {
      const bool isPiece = call.path.starts_with("/var") || call.path == kNotificationConfigFilePath;
      if (isPiece && (paths.empty() || paths.back() != call.path)) paths.push_back(call.path);
    }
    // The settings are read first.
    paths.erase(paths.begin());
    return paths;
  };
  const Lines order = {kDataDirectory,  kNodes, kItems, kLogDirectory, kNotificationConfigFilePath,
                       kBridgeDirectory};
  for (std::size_t missing = 0; missing < order.size(); ++missing) {
    platform.files.failPath("attributes", order[missing], ENOENT);
    EXPECT_EQ(asked(), Lines(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(missing) + 1));
    platform.files.heal();
  }
  EXPECT_TRUE(atom->serviceDataReady());
}

TEST_F(NotificationData, IsNotReadyWhereAPieceCannotBeLookedAtWhichIsTold) {
  makeAll();
  platform.files.failPath("attributes", kBridgeDirectory, EIO);
  EXPECT_FALSE(atom->serviceDataReady());
  EXPECT_THAT(platform.log.messages(kLogWarning), ElementsAre("\"" + std::string(kBridgeDirectory) +
                                                              "\" cannot be looked at: Input/output error"));
}

TEST_F(NotificationData, IsNotReadyWithoutSettings) {
  makeAll();
  platform.root.remove(kNotificationConfigFilePath);
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_FALSE(atom->serviceDataReady());
}

TEST_F(NotificationData, IsNotReadyWithoutANameForTheComponent) {
  makeAll();
  Dictionary defaults = this->defaults();
  defaults.remove("jid");
  platform.root.write(kNotificationDefaultConfigFilePath, serializePropertyList(Value(defaults)).value());
  Dictionary settings = stored();
  settings.remove("jid");
  store(settings);
  EXPECT_FALSE(atom->serviceDataReady());
  forget();
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("Beaconry data init failed: could not find \"jid\" in settings file."));
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(NotificationData, IsNotMadeForANameThatIsNoText) {
  storeWith({{"jid", Array{"pubsub"}}});
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("Beaconry data init failed: could not find \"jid\" in settings file."));
  EXPECT_FALSE(platform.root.exists(kDataDirectory));
}

TEST_F(NotificationData, IsNotMadeWithoutADomain) {
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("Beaconry data init failed: could not find \"jid\" in settings file."));
  EXPECT_THAT(warnings(), Contains("Unable to determine jabber domain for dictionaryFromSettingsFile"));
}

TEST_F(NotificationData, EndsWithTheHostNameInTheSettings) {
  storeWith({{"domain", "old.example.com"}, {"secret", "old"}});
  owner.hostDomain = "new.example.com";
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(stored(), with(complete(), {{"domain", "new.example.com"}, {"secret", "router-secret"}}));
}

TEST_F(NotificationData, FailsWithoutAHostName) {
  owner.hostDomain.reset();
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_TRUE(debugged("Unable to determine hostname"));
  EXPECT_TRUE(platform.root.exists(kNodes)) << "work that is done stays";
}

TEST_F(NotificationData, FailsWithoutTheRoutersSecret) {
  writeRouter("");
  EXPECT_FALSE(atom->initServiceData());
  EXPECT_THAT(errors(), Contains("Beaconry data init failed: could not get router config data"));
}

TEST_F(NotificationData, IsCompletedWhereAPieceIsMissing) {
  makeAll();
  ask(kNodes, "INSERT INTO nodes (node) VALUES ('kept');");
  platform.root.remove(kItems);
  platform.root.remove(kBridgeDirectory);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_EQ(ask(kNodes, "SELECT node FROM nodes;"), "kept\n");
  EXPECT_TRUE(platform.root.exists(kItems));
  EXPECT_TRUE(platform.root.exists(kBridgeDirectory));
}

TEST_F(NotificationData, KeepsDirectoriesThatAreThereAsTheyAre) {
  for (const auto& path : {kDataDirectory, kBridgeDirectory, kLogDirectory}) {
    platform.root.makeDirectory(path);
    platform.root.setMode(path, 0711);
  }
  EXPECT_TRUE(atom->initServiceData());
  for (const auto& path : {kDataDirectory, kBridgeDirectory, kLogDirectory}) {
    EXPECT_EQ(platform.root.mode(path), 0711U) << path;
  }
}

TEST_F(NotificationData, MakesNoDirectoriesAboveItsOwn) {
  platform.root.remove("/var/db");
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_FALSE(atom->serviceDataReady());
  EXPECT_FALSE(platform.root.exists("/var/db"));
  EXPECT_THAT(errors(),
              ElementsAre("the directory \"/var/db/idavoll\" of the notification service cannot be made: No "
                          "such file or directory",
                          "the directory \"/var/db/korvbridge\" of the notification service cannot be made: "
                          "No such file or directory"));
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(NotificationData, TellsWhatCannotBeMadeAndMakesTheRest) {
  platform.files.failPath("createDirectory", "/korvbridge", EPERM);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("the directory \"/var/db/korvbridge\" of the notification service cannot "
                                    "be made: Operation not permitted"));
  EXPECT_TRUE(platform.root.exists(kLogDirectory));
  EXPECT_FALSE(atom->serviceDataReady());
  platform.files.heal();
  forget();
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_TRUE(atom->serviceDataReady());
}

class NotificationDatabases : public NotificationData {
 protected:
  void expectNone(const std::string& reason) {
    EXPECT_TRUE(atom->initServiceData());
    ASSERT_THAT(errors(), Not(IsEmpty()));
    EXPECT_THAT(errors().front(), AllOf(StartsWith("the database \"" + kNodes +
                                                   "\" of the notification service cannot be made: "),
                                        HasSubstr(reason)));
    EXPECT_THAT(platform.root.list(kDataDirectory), Not(Contains(StartsWith("pubsub.db"))));
    EXPECT_FALSE(atom->serviceDataReady());
  }
};

TEST_F(NotificationDatabases, AreMadeByTheToolWithTheseArgumentsAndThisInput) {
  EXPECT_TRUE(atom->initServiceData());
  std::vector<ScriptedTasks::Call> made;
  for (const auto& call : platform.tasks.calls) {
    if (call.operation == "launch_task_with_input") made.push_back(call);
  }
  ASSERT_THAT(made, SizeIs(2));
  const std::string scripts = "/usr/share/Beaconry/";
  for (std::size_t index = 0; index < 2; ++index) {
    EXPECT_EQ(made[index].program, "/usr/bin/sqlite3");
    EXPECT_EQ(made[index].input, ".exit\n");
    EXPECT_THAT(made[index].arguments,
                ElementsAre(TaskArgument::text("-init"),
                            TaskArgument::path(scripts + (index == 0 ? "pubsub.sql" : "items.sql")),
                            TaskArgument::path(index == 0 ? kNodes : kItems)));
  }
}

TEST_F(NotificationDatabases, HaveTheTablesOfTheirScripts) {
  EXPECT_TRUE(atom->initServiceData());
  const std::string tables = "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name;";
  EXPECT_EQ(ask(kNodes, tables),
            "affiliations\nentities\nnode_configuration\nnodes\nsubscription_options\nsubscriptions\n");
  EXPECT_EQ(ask(kItems, tables), "items\npublishers\n");
  for (const auto& database : {kNodes, kItems}) {
    EXPECT_EQ(ask(database, "PRAGMA integrity_check;"), "ok\n");
    EXPECT_EQ(ask(database, "PRAGMA user_version;"), "1\n");
  }
}

TEST_F(NotificationDatabases, HoldWhatAPublishSubscribeComponentKeeps) {
  EXPECT_TRUE(atom->initServiceData());
  ask(kNodes,
      "PRAGMA foreign_keys = ON;"
      "INSERT INTO nodes (node, creator) VALUES ('/calendar', 'a@example.com');"
      "INSERT INTO node_configuration VALUES (1, 'pubsub#max_items', '10');"
      "INSERT INTO entities (jid) VALUES ('a@example.com');"
      "INSERT INTO affiliations VALUES (1, 1, 'owner');"
      "INSERT INTO subscriptions (node_id, entity_id, resource) VALUES (1, 1, 'phone');"
      "INSERT INTO subscription_options VALUES (1, 'pubsub#deliver', '1');");
  const std::string remains =
      "SELECT (SELECT count(*) FROM affiliations) + (SELECT count(*) FROM subscriptions) + "
      "(SELECT count(*) FROM subscription_options) + (SELECT count(*) FROM node_configuration);";
  EXPECT_EQ(ask(kNodes, remains), "4\n");
  EXPECT_EQ(ask(kNodes, "PRAGMA foreign_keys = ON; DELETE FROM nodes; " + remains), "0\n")
      << "what belongs to a node goes with it";
  ask(kItems,
      "INSERT INTO publishers (jid) VALUES ('a@example.com');"
      "INSERT INTO items (node, item, publisher_id, payload) VALUES ('/calendar', 'x', 1, '<entry/>');");
  EXPECT_THAT(ask(kItems, "SELECT node, item, payload, published FROM items;"),
              StartsWith("/calendar|x|<entry/>|20"));
}

TEST_F(NotificationDatabases, RefuseWhatMakesNoSense) {
  EXPECT_TRUE(atom->initServiceData());
  const auto refused = [&](const std::string& database, const std::string& statement) {
    return tools.tasks()
               .launch_task(kSqlite, {TaskArgument::text("-batch"), TaskArgument::path(database),
                                      TaskArgument::text("PRAGMA foreign_keys = ON; " + statement)})
               .status != 0;
  };
  ask(kNodes, "INSERT INTO nodes (node) VALUES ('a'); INSERT INTO entities (jid) VALUES ('x');");
  EXPECT_TRUE(refused(kNodes, "INSERT INTO nodes (node) VALUES ('a');"));
  EXPECT_TRUE(refused(kNodes, "INSERT INTO affiliations VALUES (1, 1, 'king');"));
  EXPECT_TRUE(refused(kNodes, "INSERT INTO affiliations VALUES (7, 1, 'owner');"));
  ask(kItems, "INSERT INTO items (node, item) VALUES ('a', 'i');");
  EXPECT_TRUE(refused(kItems, "INSERT INTO items (node, item) VALUES ('a', 'i');"));
}

TEST_F(NotificationDatabases, KeepTheirContentWhenTheirScriptRunsAgain) {
  EXPECT_TRUE(atom->initServiceData());
  ask(kNodes, "INSERT INTO nodes (node) VALUES ('kept');");
  const auto again = tools.tasks().launch_task_with_input(
      kSqlite,
      {TaskArgument::text("-init"), TaskArgument::path("/usr/share/Beaconry/pubsub.sql"),
       TaskArgument::path(kNodes)},
      ".exit\n");
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.errorText, "");
  EXPECT_EQ(ask(kNodes, "SELECT node FROM nodes;"), "kept\n");
}

TEST_F(NotificationDatabases, AreNeverTouchedWhenTheyAreThere) {
  platform.root.write(kNodes, "precious");
  platform.root.setMode(kNodes, 0604);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(platform.root.read(kNodes), "precious");
  EXPECT_EQ(platform.root.mode(kNodes), 0604U);
}

TEST_F(NotificationDatabases, AreNeverTouchedWhenTheyCannotBeLookedAt) {
  platform.root.write(kNodes, "precious");
  platform.files.failPath("attributes", kNodes, EIO);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("the database \"" + kNodes +
                                    "\" of the notification service cannot be made: Input/output error"));
  EXPECT_EQ(platform.root.read(kNodes), "precious");
}

TEST_F(NotificationData, AreNotMadeInDirectoriesThatCannotBeLookedAt) {
  platform.files.failPath("attributes", "/korvbridge", EIO);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("the directory \"/var/db/korvbridge\" of the notification service cannot "
                                    "be made: Input/output error"));
}

TEST_F(NotificationDatabases, AreNotMadeWithoutTheirScript) {
  platform.root.remove("/usr/share/Beaconry/pubsub.sql");
  expectNone("/usr/share/Beaconry/pubsub.sql: No such file or directory");
  EXPECT_TRUE(platform.root.exists(kItems)) << "one does not need the other";
}

TEST_F(NotificationDatabases, AreNotMadeFromAnEmptyScript) {
  platform.root.write("/usr/share/Beaconry/pubsub.sql", "");
  expectNone("/usr/share/Beaconry/pubsub.sql: the file is empty");
}

TEST_F(NotificationDatabases, AreNotMadeFromABrokenScriptThoughTheToolReportsSuccess) {
  platform.root.write("/usr/share/Beaconry/pubsub.sql", "CREATE TABLE one (x);\nCREATE NONSENSE;\n");
  expectNone("syntax error");
}

TEST_F(NotificationDatabases, AreNotMadeFromAScriptThatMakesNoTables) {
  platform.root.write("/usr/share/Beaconry/pubsub.sql", "-- nothing\n");
  expectNone("the script made no tables");
}

TEST_F(NotificationDatabases, AreNotMadeWhenTheToolFails) {
  platform.tasks.on(kSqlite, [this](const ScriptedTasks::Call& call) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
      platform.root.write(call.arguments.back().content + suffix, "half");
    }
    return TaskResult{1, "", "out of luck"};
  });
  expectNone("out of luck");
}

TEST_F(NotificationDatabases, AreNotMadeWhenTheToolIsMissing) {
  platform.tasks.on(kSqlite, {127, "", "cannot start"});
  expectNone("cannot start");
}

TEST_F(NotificationDatabases, AreTakenAwayWhenTheyCannotBeGivenToTheServiceAccount) {
  platform.files.failPath("setOwnership", "/items.db", EPERM);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("the database \"/var/db/idavoll/items.db\" of the notification service "
                                    "cannot be made: Operation not permitted"));
  EXPECT_THAT(platform.root.list(kDataDirectory), ElementsAre("pubsub.db"));
}

TEST_F(NotificationDatabases, AreMadeAfterAFailedAttemptOnceTheReasonIsGone) {
  const std::string script = platform.root.read("/usr/share/Beaconry/pubsub.sql");
  platform.root.write("/usr/share/Beaconry/pubsub.sql", "CREATE NONSENSE;\n");
  expectNone("syntax error");
  platform.root.write("/usr/share/Beaconry/pubsub.sql", script);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_TRUE(atom->serviceDataReady());
}

TEST_F(NotificationDatabases, AreMadeAnewWhenTheirMakingWasInterrupted) {
  platform.root.write(kNodes, "");
  platform.root.write(kNodes + "-journal", "cut off");
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_EQ(ask(kNodes, "SELECT count(*) FROM nodes;"), "0\n");
  EXPECT_THAT(platform.root.list(kDataDirectory), ElementsAre("items.db", "pubsub.db"));
}

TEST_F(NotificationDatabases, AreMadeAnewWhenTheyAreTheOnlyPieceThatWasInterrupted) {
  for (const auto& database : {kNodes, kItems}) {
    makeAll();
    platform.root.write(database, "");
    EXPECT_FALSE(atom->serviceDataReady()) << database;
    EXPECT_TRUE(atom->initServiceData());
    EXPECT_TRUE(atom->serviceDataReady()) << database;
    EXPECT_EQ(ask(database, "PRAGMA user_version;"), "1\n");
  }
}

TEST_F(NotificationDatabases, BelongToTheServiceBeforeTheToolFillsThem) {
  Lines filled;
  platform.tasks.on(kSqlite, [&](const ScriptedTasks::Call& call) {
    const std::string path = call.arguments.back().content;
    filled.push_back(path);
    EXPECT_EQ(platform.root.mode(path), 0750U) << path;
    EXPECT_EQ(platform.posixFiles.attributes(path).value().owner, 84U) << path;
    return TaskResult{1, "", "cut off"};
  });
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(filled, ElementsAre(kNodes, kItems));
}

TEST_F(NotificationDatabases, AreNotMadeOnAFullDisk) {
  platform.files.failPath("createFile", "/pubsub.db", ENOSPC);
  expectNone("No space left on device");
}

TEST_F(NotificationDatabases, AreKeptWhenOnlyALaterChangeOfThemWasInterrupted) {
  makeAll();
  ask(kNodes, "INSERT INTO nodes (node) VALUES ('kept');");
  platform.root.write(kNodes + "-journal", "");
  platform.root.remove(kItems);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(ask(kNodes, "SELECT node FROM nodes;"), "kept\n");
}

TEST_F(NotificationDatabases, AreKeptWhenTheToolCannotBeAskedAboutThem) {
  makeAll();
  platform.root.write(kNodes + "-journal", "");
  platform.root.remove(kItems);
  platform.tasks.on("/usr/bin/sqlite3", {127, "", "cannot be started"});
  const std::string before = platform.root.read(kNodes);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_EQ(platform.root.read(kNodes), before);
  EXPECT_THAT(errors(), ElementsAre("the database \"" + kItems +
                                    "\" of the notification service cannot be made: cannot be started"));
}

TEST_F(NotificationDatabases, AreNotMadeBesideLeftoversThatCannotBeRemoved) {
  platform.files.failPath("remove", "pubsub.db-journal", EIO);
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre("the database \"" + kNodes +
                                    "\" of the notification service cannot be made: Input/output error"));
  EXPECT_FALSE(platform.root.exists(kNodes));
}

class NotificationPlantedLinks : public NotificationData {
 protected:
  ScratchRoot outside;

  static std::string refusal(const std::string& path) {
    return "\"" + path +
           "\" is a symbolic link and is not used: put what it leads to in its place, or remove the link";
  }
  std::string listing() const {
    std::string all;
    for (const char* directory : {"/", "/target"}) {
      for (const std::string& name : outside.list(directory)) all += name + "\n";
    }
    return all;
  }
};

TEST_F(NotificationPlantedLinks, InPlaceOfDirectoriesAreNotFollowed) {
  outside.makeDirectory("/target");
  const std::string before = listing();
  for (const char* target : {"/target", "/nowhere"}) {
    for (const auto& path : {kDataDirectory, kBridgeDirectory, kLogDirectory}) {
      for (const auto& made : {kDataDirectory, kBridgeDirectory, kLogDirectory}) platform.root.remove(made);
      platform.root.makeLink(path, outside.hostPath(target));
      forget();
      EXPECT_TRUE(atom->initServiceData());
      EXPECT_THAT(errors(), ElementsAre(refusal(path))) << target;
      EXPECT_EQ(listing(), before) << path << target;
    }
  }
}

TEST_F(NotificationPlantedLinks, InPlaceOfADirectoryAreNotFollowedWithinTheRootEither) {
  platform.root.makeDirectory("/srv/elsewhere");
  platform.root.makeLink(kDataDirectory, "/srv/elsewhere");
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), Contains(refusal(kDataDirectory)));
  EXPECT_THAT(platform.root.list("/srv/elsewhere"), IsEmpty());
}

TEST_F(NotificationPlantedLinks, InPlaceOfDatabasesAreNotFollowed) {
  outside.write("/target/victim", "precious");
  const std::string before = listing();
  platform.root.makeDirectory(kDataDirectory);
  for (const char* target : {"/target/victim", "/target/new.db", "/target"}) {
    for (const auto& path : {kNodes, kItems}) {
      for (const auto& made : {kNodes, kItems, kBridgeDirectory}) platform.root.remove(made);
      platform.root.makeLink(path, outside.hostPath(target));
      forget();
      EXPECT_TRUE(atom->initServiceData());
      EXPECT_THAT(errors(), ElementsAre(refusal(path))) << target;
      EXPECT_EQ(listing(), before) << path << target;
      EXPECT_EQ(outside.read("/target/victim"), "precious");
    }
  }
}

TEST_F(NotificationPlantedLinks, InPlaceOfADatabaseAreNotFollowedToAFileOfTheRoot) {
  platform.root.makeDirectory(kDataDirectory);
  platform.root.makeLink(kNodes, "/etc/passwd");
  platform.root.makeLink(kItems, "../../../etc/cron.d/planted");
  const std::string passwd = platform.root.read("/etc/passwd");
  EXPECT_TRUE(atom->initServiceData());
  EXPECT_THAT(errors(), ElementsAre(refusal(kNodes), refusal(kItems)));
  EXPECT_EQ(platform.root.read("/etc/passwd"), passwd);
  EXPECT_FALSE(platform.root.exists("/etc/cron.d/planted"));
}

}  // namespace
}  // namespace tessard
