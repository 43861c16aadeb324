#include "atoms/JabberServiceAtom.h"
#include "atoms/NotificationServiceAtom.h"
#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Coordinator, IsMadeForTheDefaultConfigurationAndReadsNothing) {
  TestPlatform platform;
  const auto wrangler = Wrangler::chatServiceWrangler(platform);
  EXPECT_EQ(wrangler->masterConfig()->configPath(), "/private/etc/jabberd_notification/jabberd.cfg");
  EXPECT_THAT(platform.files.calls(), IsEmpty());
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST(Coordinator, CanBeMadeForAnotherConfiguration) {
  TestPlatform platform;
  const auto wrangler = Wrangler::chatServiceWranglerWithConfigPath(platform, "/etc/other/jabberd.cfg");
  EXPECT_EQ(wrangler->masterConfig()->configPath(), "/etc/other/jabberd.cfg");
  EXPECT_EQ(wrangler->serviceAtoms().size(), 2U);
}

TEST(Coordinator, IsANewOneOnEveryCall) {
  TestPlatform platform;
  const auto first = Wrangler::chatServiceWrangler(platform);
  const auto second = Wrangler::chatServiceWrangler(platform);
  EXPECT_NE(first.get(), second.get());
  EXPECT_NE(first->masterConfig(), second->masterConfig());
}

TEST(Coordinator, OwnsTheJabberServiceAndThenTheNotificationService) {
  TestPlatform platform;
  const auto wrangler = Wrangler::chatServiceWrangler(platform);
  ASSERT_EQ(wrangler->serviceAtoms().size(), 2U);
  auto* first = wrangler->serviceAtoms()[0].get();
  auto* second = wrangler->serviceAtoms()[1].get();
  EXPECT_EQ(first->serviceName(), "jabberd");
  EXPECT_NE(dynamic_cast<NOTIFICATION_PLUGIN_JabberServiceAtom*>(first), nullptr);
  EXPECT_EQ(second->serviceName(), "Notification");
  EXPECT_NE(dynamic_cast<NOTIFICATION_PLUGIN_NotificationServiceAtom*>(second), nullptr);
  EXPECT_EQ(first->serviceOwner(), wrangler.get());
  EXPECT_EQ(second->serviceOwner(), wrangler.get());
}

struct FanOut : Coordinated {};

TEST_F(FanOut, AServiceIsFoundByItsExactName) {
  EXPECT_EQ(wrangler->serviceAtomForName("jabberd"), jabber);
  EXPECT_EQ(wrangler->serviceAtomForName("Notification"), notification);
  EXPECT_EQ(wrangler->serviceAtomForName("notification"), nullptr);
  EXPECT_EQ(wrangler->serviceAtomForName(""), nullptr);
}

TEST_F(FanOut, OfSeveralServicesOfANameTheFirstIsFoundOrAllInOrder) {
  setAtoms({"a", "b", "a"});
  EXPECT_EQ(wrangler->serviceAtomForName("a"), atom(0));
  EXPECT_THAT(wrangler->serviceAtomsForName("a"), ElementsAre(atom(0), atom(2)));
  EXPECT_THAT(wrangler->serviceAtomsForName("c"), IsEmpty());
}

TEST_F(FanOut, ServiceDataIsNotMadeWithoutAHostName) {
  platform.hostNames.configured.reset();
  platform.hostNames.stored.reset();
  EXPECT_FALSE(wrangler->initAllServiceData());
  EXPECT_FALSE(wrangler->serviceDataIsInitialized());
  EXPECT_THAT(journal, IsEmpty());
}

TEST_F(FanOut, OnlyServicesThatLackTheirDataMakeIt) {
  notification->ready = false;
  EXPECT_TRUE(wrangler->initAllServiceData());
  EXPECT_THAT(journal, ElementsAre("jabberd serviceDataReady", "Notification serviceDataReady",
                                   "Notification initServiceData"));
  EXPECT_TRUE(debugged("All service atoms initialized successfully"));
  EXPECT_NE(master().defaultComponentForName("sm"), nullptr);
}

TEST_F(FanOut, MakingServiceDataStopsAtTheFirstServiceThatCannot) {
  jabber->ready = false;
  jabber->initialises = false;
  notification->ready = false;
  EXPECT_FALSE(wrangler->initAllServiceData());
  EXPECT_THAT(journal, ElementsAre("jabberd serviceDataReady", "jabberd initServiceData"));
  EXPECT_FALSE(debugged("All service atoms initialized successfully"));
}

TEST_F(FanOut, ServicesBeforeTheOneThatCannotKeepTheirData) {
  jabber->ready = false;
  notification->ready = false;
  notification->initialises = false;
  EXPECT_FALSE(wrangler->initAllServiceData());
  EXPECT_TRUE(jabber->ready);
}

TEST_F(FanOut, MakingServiceDataEndsWithLoadingTheConfiguration) {
  platform.root.remove(kMasterFile);
  EXPECT_FALSE(wrangler->initAllServiceData());
  EXPECT_TRUE(debugged("All service atoms initialized successfully"));
  EXPECT_THAT(platform.log.lines(), ElementsAre("tessard_notification[W]: configuration file not found: "
                                                "\"/private/etc/jabberd_notification/jabberd.cfg\""));
}

TEST_F(FanOut, ServiceDataIsInitializedWhenEveryServiceIsReady) {
  EXPECT_TRUE(wrangler->serviceDataIsInitialized());
  EXPECT_THAT(journal, ElementsAre("jabberd serviceDataReady", "Notification serviceDataReady"));
  setAtoms({});
  EXPECT_TRUE(wrangler->serviceDataIsInitialized());
}

TEST_F(FanOut, TheFirstServiceThatIsNotReadyIsNamed) {
  jabber->ready = false;
  notification->ready = false;
  EXPECT_FALSE(wrangler->serviceDataIsInitialized());
  EXPECT_THAT(debugLines(), ElementsAre("Scanning for valid hostname", "Using hostname: chat.example.com",
                                        "jabberd Atom reports that service data is not ready"));
  EXPECT_THAT(journal, ElementsAre("jabberd serviceDataReady"));
}

TEST_F(FanOut, ALaterServiceThatIsNotReadyIsNamedToo) {
  notification->ready = false;
  EXPECT_FALSE(wrangler->serviceDataIsInitialized());
  EXPECT_TRUE(debugged("Notification Atom reports that service data is not ready"));
}

TEST_F(FanOut, SettingsOfALaterServiceWin) {
  jabber->settings = SettingsDictionary{{"a", 1}, {"shared", "jabber"}};
  notification->settings = SettingsDictionary{{"shared", "notification"}, {"b", 2}};
  EXPECT_EQ(wrangler->readAllConfigurations(),
            (SettingsDictionary{{"a", 1}, {"shared", "notification"}, {"b", 2}}));
}

TEST_F(FanOut, AServiceWithoutSettingsIsSkipped) {
  notification->settings = SettingsDictionary{{"b", 2}};
  EXPECT_EQ(wrangler->readAllConfigurations(), (SettingsDictionary{{"b", 2}}));
}

TEST_F(FanOut, SettingsAreAbsentWhenNoServiceGivesAny) {
  EXPECT_EQ(wrangler->readAllConfigurations(), std::nullopt);
  notification->settings = SettingsDictionary{};
  EXPECT_EQ(wrangler->readAllConfigurations(), SettingsDictionary{});
}

TEST_F(FanOut, EveryReadLoadsTheConfigurationFromDisk) {
  const auto domain = [this] {
    int state = 0;
    return master().getStringValueForPath_nodeState("sm.local.id", state);
  };
  wrangler->readAllConfigurations();
  EXPECT_EQ(domain(), "chat.example.com");
  platform.root.write(kConfigDirectory + "sm.xml", "<sm><local><id>edited.example.com</id></local></sm>");
  platform.root.setModified(kConfigDirectory + "sm.xml", {4102444800, 0});
  wrangler->readAllConfigurations();
  EXPECT_EQ(domain(), "edited.example.com");
}

TEST_F(FanOut, LogsAreArchivedUntilAServiceFails) {
  EXPECT_TRUE(wrangler->archiveAllServiceLogs());
  EXPECT_THAT(journal, ElementsAre("jabberd archiveServiceLogs", "Notification archiveServiceLogs"));
  journal.clear();
  jabber->archives = false;
  EXPECT_FALSE(wrangler->archiveAllServiceLogs());
  EXPECT_THAT(journal, ElementsAre("jabberd archiveServiceLogs"));
}

TEST_F(FanOut, IdleWorkArchivesLogs) {
  EXPECT_TRUE(wrangler->doIdleTasks());
  notification->archives = false;
  EXPECT_FALSE(wrangler->doIdleTasks());
  setAtoms({});
  EXPECT_TRUE(wrangler->doIdleTasks());
}

TEST_F(FanOut, LogPathsAreMergedAsSettingsAre) {
  EXPECT_EQ(wrangler->getAllServiceLogPaths(), std::nullopt);
  jabber->logPaths = Dictionary{{"A", "/a"}, {"B", "/b"}};
  EXPECT_EQ(wrangler->getAllServiceLogPaths(), (Dictionary{{"A", "/a"}, {"B", "/b"}}));
  notification->logPaths = Dictionary{{"B", "/other"}};
  EXPECT_EQ(wrangler->getAllServiceLogPaths(), (Dictionary{{"A", "/a"}, {"B", "/other"}}));
}

TEST_F(FanOut, EveryServiceOfANameGivesItsCounters) {
  setAtoms({"jabberd", "Notification", "jabberd", "jabberd"});
  atom(0)->connectedUsers = Dictionary{{"connUsersTotal", 1}};
  atom(1)->connectedUsers = Dictionary{{"connUsersTotal", 50}};
  atom(3)->connectedUsers = Dictionary{{"connUsersTotal", 3}};
  EXPECT_EQ(Value(wrangler->getConnectedUsersForService("jabberd")),
            Value(Array{Dictionary{{"connUsersTotal", 1}}, Dictionary{{"connUsersTotal", 3}}}));
}

TEST_F(FanOut, NamesAndDomainsOfAllServicesOfANameAreJoined) {
  setAtoms({"jabberd", "jabberd", "Notification", "jabberd"});
  atom(0)->connectedUserNames = std::vector<std::string>{"ann", "bob"};
  atom(3)->connectedUserNames = std::vector<std::string>{"ann"};
  atom(0)->domains = std::vector<std::string>{"b.example.com"};
  atom(2)->domains = std::vector<std::string>{"other.example.com"};
  atom(3)->domains = std::vector<std::string>{"a.example.com", "b.example.com"};
  EXPECT_THAT(wrangler->getConnectedUserNamesForService("jabberd"), ElementsAre("ann", "bob", "ann"));
  EXPECT_THAT(wrangler->getDomainsForService("jabberd").value(),
              ElementsAre("b.example.com", "a.example.com", "b.example.com"));
}

TEST_F(FanOut, AnUnknownServiceHasNoUsersAndNoDomains) {
  EXPECT_TRUE(wrangler->getConnectedUsersForService("other").empty());
  EXPECT_THAT(wrangler->getConnectedUserNamesForService("other"), IsEmpty());
  EXPECT_THAT(wrangler->getDomainsForService("other").value(), IsEmpty());
  EXPECT_THAT(wrangler->getDomainsForService("jabberd").value(), IsEmpty());
}

}  // namespace
}  // namespace tessard
