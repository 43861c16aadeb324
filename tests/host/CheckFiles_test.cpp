#include <sys/stat.h>
#include <unistd.h>

#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using FilesCheck = CheckTest;

#define SKIP_UNLESS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away"

TEST_F(FilesCheck, FindsNothingInWhatSetupHasMade) {
  EXPECT_THAT(found(kFilesArea), IsEmpty());
}

TEST_F(FilesCheck, NamesTheProgramThatMakesAMissingFileFromItsTemplate) {
  root.remove(inConfig("jabberd.cfg"));
  const auto findings = found(kFilesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "file-missing");
  EXPECT_EQ(findings[0].subject, inConfig("jabberd.cfg"));
  EXPECT_THAT(findings[0].remedy, HasSubstr("/usr/libexec/tessardd/prepare-instance"));
}

TEST_F(FilesCheck, NamesTheBackupOfAMissingSessionManager) {
  changeConfig("jabberd.cfg", "sm.xml\n", "sm.xml\nsm " + inConfig("sm_b.example.xml") + "\n");
  EXPECT_THAT(found(kFilesArea)[0].remedy, HasSubstr("take its line out"));
  root.write(inConfig("sm_b.example.xml.bak"), "<sm/>");
  EXPECT_THAT(found(kFilesArea)[0].remedy, HasSubstr("sm_b.example.xml.bak"));
}

TEST_F(FilesCheck, FindsAPipeInTheFilesPlaceWithoutOpeningIt) {
  root.remove(inConfig("router.xml"));
  ASSERT_EQ(mkfifo(root.hostPath("/etc/jabberd_notification/router.xml").c_str(), 0600), 0);
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("not-a-file"));
}

TEST_F(FilesCheck, FindsALinkInTheFilesPlace) {
  writeAs("/elsewhere/c2s.xml", root.read(inConfig("c2s.xml")), 84, 0, 0600);
  root.remove(inConfig("c2s.xml"));
  root.makeLink(inConfig("c2s.xml"), "/elsewhere/c2s.xml");
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("unexpected-link"));
}

TEST_F(FilesCheck, FindsAnOwnerWhoIsNotTheServices) {
  SKIP_UNLESS_ROOT();
  own(inConfig("sm.xml"), 0, 0);
  const auto findings = found(kFilesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "file-owner");
  EXPECT_EQ(findings[0].remedy, "chown 84 " + inConfig("sm.xml"));
}

TEST_F(FilesCheck, LetsRootHaveTheListOfComponents) {
  SKIP_UNLESS_ROOT();
  own(inConfig("jabberd.cfg"), 0, 0);
  EXPECT_THAT(found(kFilesArea), IsEmpty());
}

TEST_F(FilesCheck, FindsASecretThatEverybodyMayRead) {
  root.setMode(inConfig("router-users.xml"), 0644);
  root.setMode("/Library/Preferences/com.velto.Beaconry.plist", 0664);
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("readable-by-others", "readable-by-others"));
}

TEST_F(FilesCheck, FindsOtherModesThanThoseThatAreWritten) {
  root.setMode(inConfig("sm.xml"), 0640);
  root.setMode(inConfig("jabberd.cfg"), 0644);
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("file-mode", "file-mode"));
}

TEST_F(FilesCheck, FindsWhatEverybodyMayChange) {
  writeAs("/etc/tessardd/tessardd.conf", "", 0, 0, 0666);
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("changeable-by-others"));
}

TEST_F(FilesCheck, FindsWhatWritesThatFailedHaveLeft) {
  root.write(inConfig("c2s.xml.tmp"), "<c2s/>");
  root.write(inConfig("router.xml.new.aBcDeFgH"), "");
  root.write("/Library/Preferences/com.velto.Beaconry.plist.tmp", "");
  root.write("/Library/Preferences/com.another.plist.tmp", "");
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("leftover-file", "leftover-file", "leftover-file"));
}

TEST_F(FilesCheck, FindsASessionManagerThatIsNotListed) {
  root.write(inConfig("sm_old.example.xml"), "<sm/>");
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("unlisted-session-manager"));
}

TEST_F(FilesCheck, FindsAKeychainThatOthersCouldHaveRead) {
  root.write("/var/lib/tessardd/keychain/keychain.db", "");
  root.setMode("/var/lib/tessardd/keychain", 0755);
  EXPECT_THAT(foundIds(kFilesArea), ElementsAre("keychain-refused"));
}

TEST_F(FilesCheck, FindsThatTheNamesOfADirectoryLeadToTwo) {
  root.remove("/private/var");
  root.makeDirectory("/var");
  root.makeDirectory("/private/var");
  const auto findings = found(kFilesArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "private-link");
  EXPECT_EQ(findings[0].subject, "/private/var");
}

TEST_F(FilesCheck, WantsNoSettingsBeforeSetup) {
  root.remove("/Library/Preferences/com.velto.Beaconry.plist");
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(found(kFilesArea), IsEmpty());
}

}  // namespace
}  // namespace tessard
