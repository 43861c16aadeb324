#include <unistd.h>

#include "host/check/ReadOnlyDatabase.h"
#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class DatabasesCheck : public CheckTest {
 protected:
  Finding only() {
    const auto findings = found(kDatabasesArea);
    EXPECT_EQ(findings.size(), 1U);
    return findings.empty() ? Finding{"", {"nothing", Severity::notice}, "", "", ""} : findings[0];
  }
};

TEST_F(DatabasesCheck, FindsNothingInDatabasesAsTheyWereMade) {
  EXPECT_THAT(found(kDatabasesArea), IsEmpty());
}

TEST_F(DatabasesCheck, FindsMissingAndEmptyOnesAfterSetupAlone) {
  root.remove(kDatabase);
  root.write("/var/db/idavoll/items.db", "");
  EXPECT_THAT(foundIds(kDatabasesArea), ElementsAre("database-missing", "database-missing"));
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(found(kDatabasesArea), IsEmpty());
}

TEST_F(DatabasesCheck, FindsOneThatTheServiceCannotWrite) {
  root.setMode(kDatabase, 0440);
  EXPECT_EQ(only().kind.id, "database-owner");
}

TEST_F(DatabasesCheck, FindsMessagesThatEverybodyMayRead) {
  root.setMode(kDatabase, 0644);
  EXPECT_EQ(only().kind.id, "database-open-to-others");
}

TEST_F(DatabasesCheck, FindsWhatIsNoDatabase) {
  root.write(kDatabase, std::string(4096, 'x'));
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "database-damaged");
  EXPECT_THAT(finding.sentence, HasSubstr("not a database"));
}

TEST_F(DatabasesCheck, FindsPagesThatWereOverwritten) {
  std::string fill;
  for (int row = 0; row < 200; ++row) fill += "INSERT INTO active VALUES ('" + std::string(100, 'a') + "');";
  runSql(kDatabase, fill);
  std::string content = root.read(kDatabase);
  ASSERT_GT(content.size(), 12288U);
  content.replace(content.size() - 4096, 4096, std::string(4096, '\xff'));
  root.write(kDatabase, content);
  EXPECT_EQ(only().kind.id, "database-damaged");
}

TEST_F(DatabasesCheck, NamesTheTablesThatAreMissing) {
  runSql(kDatabase, "DROP TABLE `roster-items`;");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "database-tables-missing");
  EXPECT_THAT(finding.sentence, HasSubstr("roster-items"));
}

TEST_F(DatabasesCheck, DoesNotInsistOnADatabaseThatSomebodyHasLocked) {
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(root.hostPath(kDatabase).c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(only().kind.id, "database-not-examined");
  sqlite3_close(other);
}

TEST_F(DatabasesCheck, MakesNoFileBesideADatabaseWithAWriteAheadLog) {
  runSql(kDatabase, "PRAGMA journal_mode = WAL; CREATE TABLE more (a);");
  const auto before = root.list("/private/var/jabberd/sqlite");
  EXPECT_THAT(found(kDatabasesArea), IsEmpty());
  EXPECT_EQ(root.list("/private/var/jabberd/sqlite"), before);
  root.write(std::string(kDatabase) + "-wal", "left over");
  EXPECT_EQ(only().kind.id, "database-not-examined");
  EXPECT_FALSE(root.exists(std::string(kDatabase) + "-shm"));
}

TEST_F(DatabasesCheck, GivesUpWhatTakesTooLong) {
  runSql(kDatabase,
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
         "INSERT INTO active SELECT hex(zeroblob(200)) FROM n;");
  auto database = ReadOnlyDatabase::open(root.hostPath("/var/jabberd/sqlite/jabberd2_notification.db"),
                                         std::chrono::milliseconds(-1));
  ASSERT_TRUE(database.ok());
  const auto damage = database.value().damage();
  ASSERT_FALSE(damage.ok());
  EXPECT_EQ(damage.error().code(), EBUSY);
}

}  // namespace
}  // namespace tessard
