#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using PluginCheck = CheckTest;

TEST_F(PluginCheck, FindsNothingWhereThePluginIsLoadedAndSetUp) {
  EXPECT_THAT(found(kPluginArea), IsEmpty());
}

TEST_F(PluginCheck, TellsWhyAPluginIsNotLoaded) {
  plugins = {{}, {{"notification", "its executable is missing"}}};
  const auto findings = found(kPluginArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "plugin-not-loaded");
  EXPECT_THAT(findings[0].sentence, HasSubstr("its executable is missing"));
}

TEST_F(PluginCheck, FindsThatThereIsNoPlugin) {
  plugins = {};
  EXPECT_THAT(foundIds(kPluginArea), ElementsAre("no-plugin"));
}

TEST_F(PluginCheck, FindsThatSetupIsNotDone) {
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(foundIds(kPluginArea), ElementsAre("not-set-up"));
}

TEST_F(PluginCheck, FindsListsThatCannotBeRead) {
  root.write("/Library/Preferences/com.velto.tessard_notification.plist", "{ broken");
  root.write("/Library/Preferences/com.velto.Beaconry.plist", "<plist>");
  EXPECT_THAT(foundIds(kPluginArea), ElementsAre("settings-unreadable", "settings-unreadable"));
}

TEST_F(PluginCheck, FindsAJournalThatWasPutAside) {
  root.makeDirectory("/Library/Server/tessardd/journal.foreign");
  EXPECT_THAT(foundIds(kPluginArea), ElementsAre("journal-foreign"));
}

TEST_F(PluginCheck, FindsWhatTheLastUndoHasReplaced) {
  root.makeDirectory("/Library/Server/tessardd/journal/undone/replaced");
  EXPECT_THAT(found(kPluginArea), IsEmpty());
  root.write("/Library/Server/tessardd/journal/undone/replaced/+etc/sm.xml", "<sm/>");
  EXPECT_THAT(foundIds(kPluginArea), ElementsAre("journal-undone"));
}

}  // namespace
}  // namespace tessard
