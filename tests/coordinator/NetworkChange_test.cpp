#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct HostDomain : Coordinated {};

TEST_F(HostDomain, IsTheConfiguredName) {
  EXPECT_EQ(wrangler->currentHostDomain(), "chat.example.com");
  EXPECT_THAT(debugLines(), ElementsAre("Scanning for valid hostname", "Using hostname: chat.example.com"));
  EXPECT_EQ(platform.hostNames.storedAsked, 0);
}

TEST_F(HostDomain, IsTheStoredNameWhereNoneIsConfigured) {
  platform.hostNames.configured.reset();
  EXPECT_EQ(wrangler->currentHostDomain(), "stored.example.com");
  EXPECT_THAT(debugLines(),
              ElementsAre("Scanning for valid hostname", "SCPreferencesGetHostName returned nil hostname",
                          "NSHost gave us: stored.example.com", "Using hostname: stored.example.com"));
}

TEST_F(HostDomain, IsAbsentWhereNoNameIsKnown) {
  platform.hostNames.configured.reset();
  platform.hostNames.stored.reset();
  EXPECT_EQ(wrangler->currentHostDomain(), std::nullopt);
  EXPECT_THAT(debugLines(),
              ElementsAre("Scanning for valid hostname", "SCPreferencesGetHostName returned nil hostname",
                          "NSHost gave us nil, cannot determine hostname"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(HostDomain, IsAbsentWithAnErrorLineWhereTheConfigurationCannotBeRead) {
  platform.hostNames.failure = SystemError(EACCES);
  EXPECT_EQ(wrangler->currentHostDomain(), std::nullopt);
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: Couldn't get preferences for setting hostname"));
  EXPECT_EQ(platform.hostNames.storedAsked, 0);
}

TEST_F(HostDomain, IsAskedAnewEveryTime) {
  wrangler->currentHostDomain();
  platform.hostNames.configured = "renamed.example.com";
  EXPECT_EQ(wrangler->currentHostDomain(), "renamed.example.com");
  EXPECT_EQ(platform.hostNames.configuredAsked, 2);
}

const std::string kNoChanges = "No changes detected in configured domains, no action taken.";

struct NetworkChange : Coordinated {
  NetworkChange() { jabber->domains = std::vector<std::string>{"old.example.com", "other.example.com"}; }

  static NetworkChangeContext renamed() {
    return NetworkChangeContext::fromEvent({{"changeInfo", Dictionary{{"hostName", "changed"}}},
                                            {"hasValidNetworkConfiguration", true},
                                            {"hasHostChanged", true},
                                            {"oldHost", "old.example.com"},
                                            {"newHost", "new.example.com"}});
  }
  static NetworkChangeContext without(const char* field) {
    Dictionary fields{{"hasValidNetworkConfiguration", true},
                      {"hasHostChanged", true},
                      {"oldHost", "old.example.com"},
                      {"newHost", "new.example.com"}};
    fields.remove(field);
    return NetworkChangeContext::fromEvent(fields);
  }

  /// Loads the configuration, and forgets what that logged.
  void load() {
    master().loadAllConfigurations();
    platform.log.clear();
  }
  std::string primaryDomain() const {
    int state = 0;
    return master().getStringValueForPath_nodeState("sm.local.id", state).value_or("(null)");
  }
  std::string lastDebugLine() const { return debugLines().empty() ? "" : debugLines().back(); }
};

TEST_F(NetworkChange, WithoutAHostNameDoesNothing) {
  load();
  platform.hostNames.configured.reset();
  platform.hostNames.stored.reset();
  wrangler->updateMasterConfigurationForNetworkChange(renamed());
  EXPECT_EQ(lastDebugLine(), "Network change left us with no valid DNS hostname.  No action taken.");
  EXPECT_EQ(primaryDomain(), "chat.example.com");
}

TEST_F(NetworkChange, ToALocalNameDoesNothing) {
  load();
  platform.hostNames.configured = "machine.local";
  wrangler->updateMasterConfigurationForNetworkChange(renamed());
  EXPECT_EQ(lastDebugLine(), "Network change left us with a .local hostname.  No action taken.");
  EXPECT_EQ(primaryDomain(), "chat.example.com");
}

TEST_F(NetworkChange, ANameThatOnlyHoldsLocalIsNoObstacle) {
  load();
  platform.hostNames.configured = "machine.local.example.com";
  wrangler->updateMasterConfigurationForNetworkChange(renamed());
  EXPECT_EQ(primaryDomain(), "new.example.com");
}

TEST_F(NetworkChange, ToAnInvalidConfigurationDoesNothing) {
  load();
  wrangler->updateMasterConfigurationForNetworkChange(without("hasValidNetworkConfiguration"));
  EXPECT_EQ(lastDebugLine(), "Network change created invalid network configuration.  No action taken.");
  EXPECT_EQ(primaryDomain(), "chat.example.com");
}

TEST_F(NetworkChange, ThatLeavesTheHostDoesNothing) {
  load();
  wrangler->updateMasterConfigurationForNetworkChange(without("hasHostChanged"));
  EXPECT_EQ(lastDebugLine(), "Network change resulted in no domain changes.  No action taken.");
  EXPECT_EQ(primaryDomain(), "chat.example.com");
}

TEST_F(NetworkChange, ReplacesTheOldHostAmongTheDomainsAndKeepsTheirOrder) {
  load();
  jabber->domains = std::vector<std::string>{"first.example.com", "old.example.com", "sub.old.example.com",
                                             "OLD.example.com", "old.example.com"};
  wrangler->updateMasterConfigurationForNetworkChange(renamed());
  EXPECT_EQ(primaryDomain(), "first.example.com");
  EXPECT_TRUE(hasFile("sm_new.example.com.xml"));
  EXPECT_TRUE(hasFile("sm_sub.old.example.com.xml"));
  EXPECT_TRUE(hasFile("sm_OLD.example.com.xml"));
  EXPECT_FALSE(hasFile("sm_old.example.com.xml"));
  EXPECT_THAT(debugLines(), Contains("Generating new sm*.xml for 5 domain(s)."));
  EXPECT_THAT(debugLines(), Not(Contains(kNoChanges)));
}

TEST_F(NetworkChange, WithoutTheOldHostAmongTheDomainsChangesNone) {
  load();
  jabber->domains = std::vector<std::string>{"sub.old.example.com"};
  wrangler->updateMasterConfigurationForNetworkChange(renamed());
  EXPECT_EQ(lastDebugLine(), kNoChanges);
  EXPECT_EQ(primaryDomain(), "chat.example.com");
}

TEST_F(NetworkChange, WithoutDomainsChangesNone) {
  load();
  jabber->domains.reset();
  wrangler->updateMasterConfigurationForNetworkChange(renamed());
  EXPECT_EQ(lastDebugLine(), kNoChanges);
}

TEST_F(NetworkChange, WithoutBothNamesChangesNone) {
  load();
  for (const char* field : {"oldHost", "newHost"}) {
    platform.log.clear();
    wrangler->updateMasterConfigurationForNetworkChange(without(field));
    EXPECT_EQ(lastDebugLine(), kNoChanges);
  }
  EXPECT_EQ(primaryDomain(), "chat.example.com");
}

TEST_F(NetworkChange, AChangeOfAddressAsksForNoHostName) {
  load();
  platform.hostNames.configured = "machine.local";
  wrangler->updateMasterConfigurationForChangeIP(renamed());
  EXPECT_EQ(primaryDomain(), "new.example.com");
  EXPECT_EQ(platform.hostNames.configuredAsked, 0);
}

TEST_F(NetworkChange, AChangeOfAddressHasTheOtherObstaclesOfANetworkChange) {
  load();
  const auto lineFor = [&](const NetworkChangeContext& context) {
    platform.log.clear();
    wrangler->updateMasterConfigurationForChangeIP(context);
    return debugLines();
  };
  EXPECT_THAT(lineFor(without("hasValidNetworkConfiguration")),
              ElementsAre("Network change created invalid network configuration.  No action taken."));
  EXPECT_THAT(lineFor(without("hasHostChanged")),
              ElementsAre("Network change resulted in no domain changes.  No action taken."));
  jabber->domains->clear();
  EXPECT_THAT(lineFor(renamed()), ElementsAre(kNoChanges));
}

TEST_F(NetworkChange, IsHandledFromDiskToDiskWithEveryServiceTold) {
  wrangler->handleNetworkChanged(renamed());
  EXPECT_THAT(journal, ElementsAre("jabberd handleNetworkChanged", "Notification handleNetworkChanged"));
  ASSERT_EQ(notification->networkChanges.size(), 1U);
  EXPECT_EQ(notification->networkChanges[0].newHost(), "new.example.com");
  EXPECT_EQ(notification->networkChanges[0].changeInfo(), (Dictionary{{"hostName", "changed"}}));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_THAT(file("sm_other.example.com.xml"), HasSubstr("<id>other.example.com</id>"));
  EXPECT_THAT(file("jabberd.cfg"), HasSubstr("sm_other.example.com.xml"));
}

TEST_F(NetworkChange, AChangeOfAddressIsHandledFromDiskToDiskWithEveryServiceTold) {
  platform.hostNames.configured = "machine.local";
  wrangler->handleChangeIPRequest(renamed());
  EXPECT_THAT(journal, ElementsAre("jabberd handleChangeIPRequest", "Notification handleChangeIPRequest"));
  EXPECT_EQ(jabber->changeIPRequests.at(0).oldHost(), "old.example.com");
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>new.example.com</id>"));
}

TEST_F(NetworkChange, WithoutDomainsServicesAreToldAndTheConfigurationIsSavedAllTheSame) {
  jabber->domains.reset();
  load();
  master().setStringValue_forPath("7777", "c2s.local.port");
  wrangler->handleNetworkChanged(renamed());
  EXPECT_TRUE(debugged(kNoChanges));
  EXPECT_THAT(journal, ElementsAre("jabberd handleNetworkChanged", "Notification handleNetworkChanged"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>7777</port>"));
}

TEST_F(NetworkChange, WithoutDomainsAChangeOfAddressIsToldAndSavedAllTheSame) {
  jabber->domains.reset();
  load();
  master().setStringValue_forPath("7777", "c2s.local.port");
  wrangler->handleChangeIPRequest(renamed());
  EXPECT_TRUE(debugged(kNoChanges));
  EXPECT_THAT(journal, ElementsAre("jabberd handleChangeIPRequest", "Notification handleChangeIPRequest"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>7777</port>"));
}

TEST_F(NetworkChange, ThatIsRefusedStillReachesEveryService) {
  platform.hostNames.configured = "machine.local";
  wrangler->handleNetworkChanged(renamed());
  EXPECT_THAT(journal, ElementsAre("jabberd handleNetworkChanged", "Notification handleNetworkChanged"));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>chat.example.com</id>"));
}

TEST_F(NetworkChange, IsMadeOnTheConfigurationAsItIsOnDisk) {
  load();
  writeConfigurationFile(platform.root, "sm.xml",
                         "<sm>\n <note>new</note>\n <local>\n  <id>x</id>\n </local>\n</sm>\n");
  platform.root.setModified(kConfigDirectory + "sm.xml", {4102444800, 0});
  wrangler->handleNetworkChanged(renamed());
  EXPECT_THAT(file("sm.xml"), HasSubstr("<note>new</note>"));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>new.example.com</id>"));
}

TEST_F(NetworkChange, WithTheServicesOfTheirOwnRenamesTheDomainEverywhere) {
  writeJabberConfiguration(platform.root, "old.example.com");
  wrangler = Wrangler::chatServiceWrangler(platform);
  wrangler->handleNetworkChanged(renamed());
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), Not(HasSubstr("old.example.com")));
}

TEST_F(NetworkChange, AChangeOfAddressWithTheServicesOfTheirOwnRenamesTheDomainEverywhere) {
  writeJabberConfiguration(platform.root, "old.example.com");
  wrangler = Wrangler::chatServiceWrangler(platform);
  wrangler->handleChangeIPRequest(NetworkChangeContext::networkChangeContextWithChangeIPRequest(
      Dictionary{{"oldHost", "old.example.com"}, {"newHost", "new.example.com"}}));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>new.example.com</id>"));
}

}  // namespace
}  // namespace tessard
