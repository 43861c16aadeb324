#include <cerrno>

#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kNotAvailable =
    "tessard_notification[W]: detailed service status not available until network configuration completed";
const Dictionary kDetails{{"variant", "withDetails"}};

struct State : Handled {
  void runEverything() {
    jabber->state = 2;
    platform.services.running.insert("com.velto.Beaconry");
  }
  std::string detail(const char* key) {
    const Dictionary answer = handler->getStateWithRequest(kDetails);
    const Value* value = answer.find(key);
    return value ? value->description() : "missing";
  }
};

TEST_F(State, WithoutAVariantIsTheStateAlone) {
  initialise();
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
  runEverything();
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "RUNNING"}}));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(State, IsRunningOnlyWhenBothPartsRun) {
  initialise();
  jabber->state = 2;
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_EQ(detail("jabberdState"), "RUNNING");
  EXPECT_EQ(detail("idavollState"), "STOPPED");
  EXPECT_EQ(detail("state"), "STOPPED");
  jabber->state = 0;
  platform.services.running.insert("com.velto.Beaconry");
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_EQ(detail("jabberdState"), "STOPPED");
  EXPECT_EQ(detail("idavollState"), "RUNNING");
  jabber->state = 2;
  EXPECT_EQ(detail("state"), "RUNNING");
}

TEST_F(State, EveryNumberButTwoMeansStopped) {
  initialise();
  platform.services.running.insert("com.velto.Beaconry");
  for (const int state : {0, 1, 3, -1}) {
    jabber->state = state;
    EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}})) << state;
  }
}

TEST_F(State, IsAskedOfTheServiceManagerByLabel) {
  initialise();
  handler->getStateWithRequest({});
  EXPECT_THAT(platform.services.asked, ElementsAre("com.velto.Beaconry"));
}

TEST_F(State, OnlyAVariantThatBeginsWithWithDetailsGivesDetails) {
  initialise();
  for (const char* variant : {"withDetails", "withDetailsV2"}) {
    EXPECT_GT(handler->getStateWithRequest({{"variant", variant}}).size(), 1U) << variant;
  }
  for (const char* variant : {"", "withDetail", "WITHDETAILS", " withDetails", "state withDetails"}) {
    EXPECT_EQ(handler->getStateWithRequest({{"variant", variant}}).size(), 1U) << variant;
  }
  EXPECT_EQ(handler->getStateWithRequest({{"variant", 1}}).size(), 1U);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(State, WithDetailsHasAllKeysInOrder) {
  initialise();
  notification->configuredServices = Array{"mail"};
  EXPECT_THAT(keysOf(handler->getStateWithRequest(kDetails)),
              ElementsAre("state", "idavollState", "jabberdState", "startedTime", "hostsCommaDelimitedString",
                          "setStateVersion", "readWriteSettingsVersion", "currentConnections",
                          "servicePortsAreRestricted", "servicePortsRestrictionInfo", "configuredServices",
                          "pluginVersion"));
}

TEST_F(State, WithDetailsOfAStoppedServiceHasItsValues) {
  initialise();
  notification->configuredServices = Array{};
  EXPECT_EQ(handler->getStateWithRequest(kDetails), (Dictionary{{"state", "STOPPED"},
                                                                {"idavollState", "STOPPED"},
                                                                {"jabberdState", "STOPPED"},
                                                                {"startedTime", ""},
                                                                {"hostsCommaDelimitedString", ""},
                                                                {"setStateVersion", 1},
                                                                {"readWriteSettingsVersion", 1},
                                                                {"currentConnections", "0"},
                                                                {"servicePortsAreRestricted", "NO"},
                                                                {"servicePortsRestrictionInfo", Array{}},
                                                                {"configuredServices", Array{}},
                                                                {"pluginVersion", "1.2.3"}}));
}

TEST_F(State, WithDetailsOfARunningServiceHasItsValues) {
  initialise();
  runEverything();
  platform.processes.pidFiles["/var/run/Beaconry.pid"] = 4242;
  platform.processes.startTimes[4242] = 1795226427;
  platform.network.restrictions = Array{Dictionary{{"port", 5218}}};
  jabber->domains = std::vector<std::string>{"a.example.com", "b.example.com"};
  jabber->connectedUsers = Dictionary{{"connUsersTotal", 3}, {"connUsersPort1", 2}, {"connUsersPort2", 1}};
  notification->configuredServices = Array{"mail", "calendar"};
  const Value restrictions(Array{Dictionary{{"port", 5218}}});
  EXPECT_EQ(handler->getStateWithRequest(kDetails),
            (Dictionary{{"state", "RUNNING"},
                        {"idavollState", "RUNNING"},
                        {"jabberdState", "RUNNING"},
                        {"startedTime", "2026-11-21 02:00:27 +0000"},
                        {"hostsCommaDelimitedString", "a.example.com,b.example.com"},
                        {"setStateVersion", 1},
                        {"readWriteSettingsVersion", 1},
                        {"currentConnections", "3"},
                        {"servicePortsAreRestricted", "YES"},
                        {"servicePortsRestrictionInfo", restrictions},
                        {"configuredServices", Array{"mail", "calendar"}},
                        {"pluginVersion", "1.2.3"}}));
}

TEST_F(State, DetailsEndBeforeTheConfiguredServicesWhenThereAreNone) {
  initialise();
  EXPECT_THAT(keysOf(handler->getStateWithRequest(kDetails)),
              ElementsAre("state", "idavollState", "jabberdState", "startedTime", "hostsCommaDelimitedString",
                          "setStateVersion", "readWriteSettingsVersion", "currentConnections",
                          "servicePortsAreRestricted", "servicePortsRestrictionInfo"));
}

TEST_F(State, DetailsEndThereAlsoWithoutTheNotificationService) {
  initialise();
  handler->serviceWrangler()->setServiceAtoms({});
  const Dictionary answer = handler->getStateWithRequest(kDetails);
  EXPECT_EQ(answer.size(), 10U);
  EXPECT_EQ(*answer.find("jabberdState"), Value("STOPPED"));
}

TEST_F(State, TheStartIsToldOnlyForALivePublishSubscribeService) {
  initialise();
  EXPECT_EQ(detail("startedTime"), "");
  EXPECT_THAT(platform.processes.pidFilesAsked, IsEmpty());
  platform.services.running.insert("com.velto.Beaconry");
  EXPECT_EQ(detail("startedTime"), "");
  platform.processes.pidFiles["/var/run/Beaconry.pid"] = -1;
  EXPECT_EQ(detail("startedTime"), "");
  platform.processes.pidFiles["/var/run/Beaconry.pid"] = 1;
  platform.processes.startTimes[1] = 60;
  EXPECT_EQ(detail("startedTime"), "1970-01-01 00:01:00 +0000");
}

TEST_F(State, ConnectionsAreTheTotalsOfAllJabberServices) {
  initialise();
  Wrangler::Atoms atoms;
  const std::optional<Dictionary> counters[] = {Dictionary{{"connUsersTotal", 3}, {"connUsersPort1", 100}},
                                                Dictionary{{"connUsersTotal", "4"}},
                                                Dictionary{{"connUsersPort1", 50}}, std::nullopt};
  for (const auto& counter : counters) {
    auto atom = std::make_unique<RecordingAtom>(platform, "jabberd", handler->serviceWrangler(), journal);
    atom->state = 2;
    atom->connectedUsers = counter;
    atoms.push_back(std::move(atom));
  }
  handler->serviceWrangler()->setServiceAtoms(std::move(atoms));
  EXPECT_EQ(detail("currentConnections"), "7");
}

TEST_F(State, ConnectionsOfAStoppedServiceAreNotCounted) {
  initialise();
  jabber->connectedUsers = Dictionary{{"connUsersTotal", 3}};
  EXPECT_EQ(detail("currentConnections"), "0");
  EXPECT_FALSE(did("jabberd getServiceConnectedUsers"));
  jabber->state = 2;
  EXPECT_EQ(detail("currentConnections"), "3");
}

TEST_F(State, ThePortsOfTheServiceAreChecked) {
  initialise();
  handler->getStateWithRequest(kDetails);
  const std::vector<PortItem> ports{std::uint16_t{5218}, std::uint16_t{5268},
                                    std::set<std::uint16_t>{16384, 16403}};
  EXPECT_THAT(platform.network.checkedPorts, ElementsAre(ports));
}

TEST_F(State, ThePortsAreNotCheckedForTheStateAlone) {
  initialise();
  handler->getStateWithRequest({});
  EXPECT_THAT(platform.network.checkedPorts, IsEmpty());
}

TEST_F(State, IsStillToldWhenServiceDataIsNotInitialized) {
  runEverything();
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "RUNNING"}}));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(State, DetailsAreRefusedWithAWarningWhenServiceDataIsNotInitialized) {
  runEverything();
  EXPECT_EQ(handler->getStateWithRequest(kDetails), (Dictionary{{"state", "RUNNING"}}));
  EXPECT_THAT(platform.log.lines(), ElementsAre(kNotAvailable));
}

TEST_F(State, DetailsAreGivenWhenTheRequestItselfInitializesServiceData) {
  finishSetup();
  EXPECT_GT(handler->getStateWithRequest(kDetails).size(), 1U);
  EXPECT_EQ(storedPreference("initialized"), Value(true));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(State, ThatCannotBeToldIsAnErrorWithTheReason) {
  initialise();
  jabber->state = -1;
  jabber->stateError = EPERM;
  const Dictionary error{{"error", "CANNOT_STAT_ERR"}, {"serviceError", EPERM}};
  EXPECT_EQ(handler->getStateWithRequest({}), error);
  EXPECT_EQ(handler->getStateWithRequest(kDetails), error);
  EXPECT_THAT(platform.services.asked, IsEmpty());
}

TEST_F(State, ThatCannotBeToldIsAnErrorAlsoWhenServiceDataIsNotInitialized) {
  jabber->state = -1;
  jabber->stateError = ESRCH;
  EXPECT_EQ(handler->getStateWithRequest(kDetails),
            (Dictionary{{"error", "CANNOT_STAT_ERR"}, {"serviceError", ESRCH}}));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(State, OfTheReasonTheLowSixteenBitsAreTold) {
  initialise();
  jabber->state = -1;
  jabber->stateError = 0x12345;
  EXPECT_EQ(handler->getStateWithRequest({}),
            (Dictionary{{"error", "CANNOT_STAT_ERR"}, {"serviceError", 0x2345}}));
}

TEST_F(State, ThatCannotBeToldWithoutAReasonIsStopped) {
  initialise();
  jabber->state = -1;
  errno = EIO;
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
}

TEST_F(State, ThatIsToldIsNoErrorWhateverErrnoSays) {
  initialise();
  jabber->state = 0;
  jabber->stateError = EIO;
  EXPECT_EQ(handler->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
}

TEST_F(State, WithTheServicesOfTheirOwnIsToldFromTheMachine) {
  const auto real = Handler::init(platform);
  writeJabberConfiguration(platform.root, "chat.example.com");
  EXPECT_EQ(real->getStateWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
  platform.processes.pidFiles["/private/var/run/jabberd_notification/router.pid"] = 77;
  platform.processes.alive.insert(77);
  platform.services.running.insert("com.velto.Beaconry");
  EXPECT_EQ(real->getStateWithRequest({}), (Dictionary{{"state", "RUNNING"}}));
}

}  // namespace
}  // namespace tessard
