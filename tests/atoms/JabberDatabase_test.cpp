#include <unistd.h>

#include <cerrno>

#include "tests/atoms/AtomFixtures.h"
#include "tests/atoms/RealTools.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

const std::string kDatabase = "/private/var/jabberd/sqlite/jabberd2_notification.db";
const std::string kDatabaseDirectory = "/private/var/jabberd/sqlite";
const std::string kScript = "/private/var/jabberd/db-setup.sqlite";
const std::string kTool = "/usr/bin/sqlite3";
constexpr const char* kPackagedSchema = "/usr/share/doc/jabberd2/db-setup.sqlite.gz";

/// The database is made by the machine's own tool.
class JabberDatabase : public JabberTest {
 protected:
  RealTools tools{platform};

  void SetUp() override {
    if (::access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << kTool << " is not installed";
    tools.run(kTool);
    platform.root.write(kScript, "CREATE TABLE one (x TEXT);\nCREATE TABLE two (y TEXT);\n");
  }

  std::string ask(const std::string& question) {
    const auto answer = tools.tasks().launch_task(
        kTool, {TaskArgument::text("-batch"), TaskArgument::path(kDatabase), TaskArgument::text(question)});
    EXPECT_EQ(answer.status, 0) << answer.errorText;
    return answer.output;
  }
  std::string tables() { return ask("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name;"); }

  void expectNothingLeft() const {
    if (platform.root.exists(kDatabaseDirectory)) {
      EXPECT_THAT(platform.root.list(kDatabaseDirectory), IsEmpty());
    }
  }
};

TEST_F(JabberDatabase, IsWhereThePreferencesSay) {
  EXPECT_EQ(atom->determineDatabasePath(), kDatabase);
  owner.preferences = Dictionary{{"jabberdDatabasePath", "/other/place.db"}};
  EXPECT_EQ(atom->determineDatabasePath(), "/other/place.db");
  owner.preferences = Dictionary{{"jabberdDatabasePath", Array{}}};
  EXPECT_EQ(atom->determineDatabasePath(), kDatabase);
  owner.preferences.reset();
  EXPECT_EQ(atom->determineDatabasePath(), kDatabase);
}

TEST_F(JabberDatabase, IsMadeFromTheSchemaThatJabberdComesWith) {
  if (::access(kPackagedSchema, R_OK) != 0) GTEST_SKIP() << kPackagedSchema << " is not there";
  const auto schema = tools.tasks().launch_task(
      "/bin/gzip", {TaskArgument::text("-dc"), TaskArgument::text(kPackagedSchema)});
  ASSERT_EQ(schema.status, 0) << schema.errorText;
  platform.root.write(kScript, schema.output);
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
  EXPECT_THAT(platform.root.list(kDatabaseDirectory), ElementsAre("jabberd2_notification.db"))
      << "no journal that belongs to root stays behind";
  EXPECT_EQ(platform.root.mode(kDatabase), 0640U);
  for (const char* table :
       {"active", "authreg", "roster-items", "queue", "vcard", "privacy-items", "status"}) {
    EXPECT_THAT(tables(), HasSubstr(table));
  }
  EXPECT_EQ(ask("PRAGMA integrity_check;"), "ok\n");
}

TEST_F(JabberDatabase, AndItsDirectoryBelongToTheServiceAccount) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_EQ(platform.root.owner(kDatabase), 84U);
  EXPECT_EQ(platform.root.group(kDatabase), 84U);
  EXPECT_EQ(platform.root.mode(kDatabase), 0640U);
  EXPECT_EQ(platform.root.owner(kDatabaseDirectory), 84U);
  EXPECT_EQ(platform.root.group(kDatabaseDirectory), 84U);
  EXPECT_EQ(platform.root.mode(kDatabaseDirectory), 0750U);
}

TEST_F(JabberDatabase, IsMadeByTheToolWithTheseArgumentsAndThisInput) {
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  ASSERT_FALSE(platform.tasks.calls.empty());
  const ScriptedTasks::Call& call = platform.tasks.calls.front();
  EXPECT_EQ(call.operation, "launch_task_with_input");
  EXPECT_EQ(call.program, "/usr/bin/sqlite3");
  EXPECT_THAT(call.arguments, ElementsAre(TaskArgument::text("-init"), TaskArgument::path(kScript),
                                          TaskArgument::path(kDatabase)));
  EXPECT_EQ(call.input, ".exit\n");
  EXPECT_EQ(tables(), "one\ntwo\n");
}

TEST_F(JabberDatabase, KeepsADirectoryThatIsThereAsItIs) {
  platform.root.makeDirectory(kDatabaseDirectory);
  platform.root.setMode(kDatabaseDirectory, 0711);
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_EQ(platform.root.mode(kDatabaseDirectory), 0711U);
}

TEST_F(JabberDatabase, IsNeverTouchedWhenItIsThere) {
  platform.root.write(kDatabase, "precious");
  platform.root.setMode(kDatabase, 0604);
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_EQ(platform.root.read(kDatabase), "precious");
  EXPECT_EQ(platform.root.mode(kDatabase), 0604U);
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(JabberDatabase, IsNotMadeWithoutItsScript) {
  platform.root.remove(kScript);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(
      platform.log.lines(),
      ElementsAre(whole("E",
                        "Creating jabberd database failed: ''; '/private/var/jabberd/db-setup.sqlite: "
                        "No such file or directory'")));
  expectNothingLeft();
  EXPECT_TRUE(platform.root.exists(kDatabaseDirectory)) << "work that is done stays";
}

TEST_F(JabberDatabase, IsNotMadeFromAnEmptyScript) {
  platform.root.write(kScript, "");
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(
      platform.log.lines(),
      ElementsAre(whole("E",
                        "Creating jabberd database failed: ''; '/private/var/jabberd/db-setup.sqlite: the "
                        "file is empty'")));
  expectNothingLeft();
}

TEST_F(JabberDatabase, IsNotMadeFromABrokenScriptThoughTheToolReportsSuccess) {
  platform.root.write(kScript, "SELECT 'began';\nCREATE TABLE one (x TEXT);\nCREATE NONSENSE;\n");
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  ASSERT_THAT(platform.log.lines(), SizeIs(1));
  EXPECT_THAT(
      platform.log.lines().front(),
      StartsWith("tessard_notification[E]: Creating jabberd database failed: 'began\n'; 'Parse error near "
                 "line 3: near \"NONSENSE\": syntax error"));
  expectNothingLeft();
}

TEST_F(JabberDatabase, IsNotMadeFromAScriptThatMakesNoTables) {
  platform.root.write(kScript, "SELECT 'hello';\n-- nothing else\n");
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E",
                                "Creating jabberd database failed: 'hello\n'; "
                                "'/private/var/jabberd/db-setup.sqlite: the script made no tables'")));
  expectNothingLeft();
}

TEST_F(JabberDatabase, IsNotMadeInWhatIsNoDirectory) {
  platform.root.write(kDatabaseDirectory, "a file");
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "Creating jabberd database failed: ''; '" +
                                                               kDatabase + ": Not a directory'")));
  EXPECT_EQ(platform.root.read(kDatabaseDirectory), "a file");
}

// Nobody could take it away then, and the next attempt would take it for ready.
TEST_F(JabberDatabase, IsNotMadeByTheToolAloneWhereItsFileCannotBeMade) {
  platform.files.failAll("createFile", ENOSPC);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "Creating jabberd database failed: ''; '" +
                                                               kDatabase + ": No space left on device'")));
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
  expectNothingLeft();
}

TEST_F(JabberDatabase, IsNotTakenForMissingWhenItCannotBeLookedAt) {
  platform.root.write(kDatabase, "precious");
  platform.files.failPath("attributes", kDatabase, EIO);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "Creating jabberd database failed: ''; '" +
                                                               kDatabase + ": Input/output error'")));
  EXPECT_EQ(platform.root.read(kDatabase), "precious");
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(JabberDatabase, IsNotMadeWhenItsDirectoryCannotBeLookedAt) {
  platform.files.failPath("attributes", "/sqlite", EIO);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole(
                  "E", "unable to create the database directory for the service: 'Input/output error'")));
}

TEST_F(JabberDatabase, IsNotMadeBesideLeftoversThatCannotBeRemoved) {
  platform.files.failPath("remove", "-journal", EIO);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "Creating jabberd database failed: ''; '" +
                                                               kDatabase + ": Input/output error'")));
  EXPECT_FALSE(platform.root.exists(kDatabase));
}

TEST_F(JabberDatabase, TellsWhyTheToolCouldNotBeAskedWhetherItIsMade) {
  int runs = 0;
  platform.tasks.on(kTool, [&](const ScriptedTasks::Call& /*call*/) {
    return ++runs == 1 ? TaskResult{0, "", ""} : TaskResult{127, "", "too many open files"};
  });
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "Creating jabberd database failed: ''; 'too many open files'")));
}

TEST_F(JabberDatabase, IsNotMadeWhenItsDirectoryCannotBeMade) {
  platform.files.failPath("createDirectory", "/sqlite", EACCES);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole(
                  "E", "unable to create the database directory for the service: 'Permission denied'")));
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(JabberDatabase, IsNotMadeWhenTheToolFails) {
  platform.tasks.on(kTool, [this](const ScriptedTasks::Call& /*call*/) {
    for (const char* suffix : {"", "-journal", "-wal", "-shm"})
      platform.root.write(kDatabase + suffix, "half");
    return TaskResult{1, "said this", "and that"};
  });
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "Creating jabberd database failed: 'said this'; 'and that'")));
  expectNothingLeft();
  EXPECT_TRUE(platform.root.exists(kDatabaseDirectory));
}

TEST_F(JabberDatabase, IsNotMadeWhenTheToolIsMissing) {
  platform.tasks.on(kTool, {127, "", "cannot start"});
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "Creating jabberd database failed: ''; 'cannot start'")));
}

TEST_F(JabberDatabase, IsTakenAwayWhenItCannotBeGivenToTheServiceAccount) {
  platform.files.failPath("setOwnership", ".db", EPERM);
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E",
                                                      "unable to set ownership/permissions for the database: "
                                                      "'Operation not permitted'")));
  expectNothingLeft();
}

TEST_F(JabberDatabase, IsMadeAfterAFailedAttemptOnceTheReasonIsGone) {
  platform.root.write(kScript, "CREATE NONSENSE;\n");
  EXPECT_FALSE(atom->createServiceDatabase(kDatabase));
  platform.root.write(kScript, "CREATE TABLE one (x TEXT);\n");
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_EQ(tables(), "one\n");
}

TEST_F(JabberDatabase, IsMadeAnewBesideTheJournalOfAnInterruptedAttempt) {
  platform.root.write(kDatabase + "-wal", "left over");
  platform.root.write(kDatabase + "-journal", "left over");
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_EQ(tables(), "one\ntwo\n");
  EXPECT_THAT(platform.root.list(kDatabaseDirectory), ElementsAre("jabberd2_notification.db"));
}

TEST_F(JabberDatabase, IsNotMadeThroughALinkThatLeadsNowhere) {
  platform.root.makeDirectory(kDatabaseDirectory);
  platform.root.makeLink(kDatabase, platform.root.hostPath("/elsewhere.db"));
  EXPECT_TRUE(atom->createServiceDatabase(kDatabase));
  EXPECT_FALSE(platform.root.exists("/elsewhere.db"));
  EXPECT_EQ(tables(), "one\ntwo\n");
}

TEST_F(JabberDatabase, IsMadeForANameWithBlanksQuotesAndHyphens) {
  const std::string odd = "/private/var/jabberd/sqlite/-it's \"odd\".db";
  EXPECT_TRUE(atom->createServiceDatabase(odd));
  EXPECT_THAT(platform.root.list(kDatabaseDirectory), ElementsAre("-it's \"odd\".db"));
}

TEST_F(JabberDatabase, IsNotMadeForAPathThatIsNoAbsolutePath) {
  EXPECT_FALSE(atom->createServiceDatabase("relative.db"));
  EXPECT_FALSE(atom->createServiceDatabase(""));
  EXPECT_THAT(platform.log.messages(kLogError), SizeIs(2));
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

}  // namespace
}  // namespace tessard
