#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct WriteSettings : Coordinated {
  int error = 99;

  bool write(const SettingsDictionary& settings) {
    return wrangler->writeAllConfigurations_error(&settings, error);
  }
  /// Changes the configuration in memory, as a service does while settings are written.
  void changesPort(RecordingAtom* atom) {
    atom->whileWriting = [this] { master().setStringValue_forPath("7777", "c2s.local.port"); };
  }
};

TEST_F(WriteSettings, GoToEveryServiceInOrderAndAreSaved) {
  changesPort(jabber);
  EXPECT_TRUE(write({{"logLevel", "ALL"}}));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(journal,
              ElementsAre("jabberd writeServiceConfiguration", "Notification writeServiceConfiguration"));
  EXPECT_THAT(jabber->written, ElementsAre(SettingsDictionary{{"logLevel", "ALL"}}));
  EXPECT_THAT(notification->written, ElementsAre(SettingsDictionary{{"logLevel", "ALL"}}));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>7777</port>"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(WriteSettings, ReachTheServicesFiltered) {
  EXPECT_TRUE(write({{"s2sAllowedDomains", Array{"Friend .Example!"}}}));
  const SettingsDictionary filtered{{"s2sAllowedDomains", Array{"friend.example"}}};
  EXPECT_THAT(jabber->written, ElementsAre(filtered));
  EXPECT_THAT(notification->written, ElementsAre(filtered));
}

TEST_F(WriteSettings, AreAppliedToTheConfigurationAsItIsOnDisk) {
  wrangler->readAllConfigurations();
  platform.root.write(kConfigDirectory + "c2s.xml",
                      "<c2s><local><port>1</port><note>new</note></local></c2s>");
  platform.root.setModified(kConfigDirectory + "c2s.xml", {4102444800, 0});
  changesPort(jabber);
  EXPECT_TRUE(write({}));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>7777</port>"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<note>new</note>"));
}

TEST_F(WriteSettings, WithoutSettingsEveryServiceIsAskedToWriteNone) {
  EXPECT_TRUE(wrangler->writeAllConfigurations_error(nullptr, error));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(jabber->written, ElementsAre(std::nullopt));
  EXPECT_THAT(notification->written, ElementsAre(std::nullopt));
}

TEST_F(WriteSettings, AServiceThatRefusesRevertsTheConfigurationAndEndsTheWrite) {
  changesPort(jabber);
  jabber->writes = false;
  jabber->writeError = 13;
  EXPECT_FALSE(write({{"hosts", Array{"new.example.com"}}}));
  EXPECT_EQ(error, 13);
  EXPECT_THAT(journal, ElementsAre("jabberd writeServiceConfiguration"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>5218</port>"));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>chat.example.com</id>"));
  int state = 0;
  EXPECT_EQ(master().getStringValueForPath_nodeState("c2s.local.port", state), "5218");
  EXPECT_EQ(master().getStringValueForPath_nodeState("sm.local.id", state), "chat.example.com");
}

TEST_F(WriteSettings, ALaterServiceThatRefusesLeavesEarlierOnesWritten) {
  changesPort(jabber);
  notification->writes = false;
  notification->writeError = 77;
  EXPECT_FALSE(write({}));
  EXPECT_EQ(error, 77);
  EXPECT_EQ(jabber->written.size(), 1U);
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>5218</port>"));
}

TEST_F(WriteSettings, TheCodeOfAServiceThatGoesOnIsTheLastOne) {
  jabber->writeError = 13;
  EXPECT_TRUE(write({}));
  EXPECT_EQ(error, 0);
  notification->writeError = 5;
  EXPECT_TRUE(write({}));
  EXPECT_EQ(error, 5);
}

TEST_F(WriteSettings, TheListOfHostsLaysOutTheSessionManagers) {
  EXPECT_TRUE(write({{"hosts", Array{"A.example.com", "b.example.com"}}}));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>a.example.com</id>"));
  EXPECT_THAT(file("sm_b.example.com.xml"), HasSubstr("<id>b.example.com</id>"));
  EXPECT_THAT(file("jabberd.cfg"), HasSubstr("/sm_b.example.com.xml"));
}

TEST_F(WriteSettings, TheCommaSeparatedHostsLayOutTheSessionManagersToo) {
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", "a.example.com, b.example.com"}}));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>a.example.com</id>"));
  EXPECT_TRUE(hasFile("sm_b.example.com.xml"));
}

TEST_F(WriteSettings, TheCommaSeparatedHostsWinOverTheList) {
  EXPECT_TRUE(write({{"hosts", Array{"c.example.com", "d.example.com"}},
                     {"hostsCommaDelimitedString", "a.example.com,b.example.com"}}));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>a.example.com</id>"));
  EXPECT_TRUE(hasFile("sm_b.example.com.xml"));
  EXPECT_FALSE(hasFile("sm_d.example.com.xml"));
}

TEST_F(WriteSettings, CommaSeparatedHostsThatTheFilterEmptiesLeaveTheFieldToTheList) {
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", " !! "}, {"hosts", Array{"c.example.com"}}}));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>c.example.com</id>"));
  EXPECT_THAT(jabber->written, ElementsAre(SettingsDictionary{{"hosts", Array{"c.example.com"}}}));
}

TEST_F(WriteSettings, WithoutHostsTheSessionManagersStay) {
  const std::string before = file("sm.xml");
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", " "}, {"logLevel", "ALL"}}));
  EXPECT_EQ(file("sm.xml"), before);
  EXPECT_FALSE(debugged("--generating sm.xml for PRIMARY domain: chat.example.com"));
}

TEST_F(WriteSettings, AListThatNamesNoHostIsRefusedBeforeAnythingChanges) {
  platform.root.write(kConfigDirectory + "sm_old.example.com.xml", "<sm/>");
  EXPECT_FALSE(write({{"hosts", Array{"!!!"}}, {"logLevel", "ALL"}}));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: settings refused: \"hosts\" names no host"));
}

TEST_F(WriteSettings, AnEmptyEntryBetweenCommasIsRefusedBeforeAnythingChanges) {
  EXPECT_FALSE(write({{"hostsCommaDelimitedString", "a.example.com,,b.example.com"}}));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(
      platform.log.lines(),
      ElementsAre(
          "tessard_notification[E]: settings refused: \"hostsCommaDelimitedString\" has an empty entry"));
}

TEST_F(WriteSettings, AFileThatCannotBeSavedIsLoggedAndTheWriteStillCounts) {
  changesPort(jabber);
  platform.files.failPath("createFile", "c2s.xml.tmp", ENOSPC);
  EXPECT_TRUE(write({}));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>5218</port>"));
  EXPECT_THAT(platform.log.lines(),
              testing::Contains("tessard_notification[E]: error saving configuration file: "
                                "\"/private/etc/jabberd_notification/c2s.xml\""));
}

TEST_F(WriteSettings, WithTheServicesOfTheirOwnTheHostsReachAllFiles) {
  wrangler = Wrangler::chatServiceWrangler(platform);
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", "A.example.com,b.example.com"}}));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>a.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>b.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), Not(HasSubstr("chat.example.com")));
  EXPECT_THAT(file("sm_b.example.com.xml"), HasSubstr("<id>sm_b.example.com</id>"));
  const auto settings = wrangler->readAllConfigurations();
  ASSERT_TRUE(settings);
  EXPECT_EQ(*settings->find("hosts"), Value(Array{"a.example.com", "b.example.com"}));
  EXPECT_EQ(*settings->find("hostsCommaDelimitedString"), Value("a.example.com,b.example.com"));
}

}  // namespace
}  // namespace tessard
