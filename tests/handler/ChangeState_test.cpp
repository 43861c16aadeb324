#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kStartJabber = "jabberd setServiceState 2";
const std::string kStartNotification = "Notification setServiceState 2";
const std::string kStopJabber = "jabberd setServiceState 0";
const std::string kStopNotification = "Notification setServiceState 0";

struct ChangeState : Handled {
  Dictionary change(const char* state) { return handler->setStateWithRequest({{"state", state}}); }

  std::vector<std::string> changes() const {
    std::vector<std::string> found;
    for (const std::string& line : journal) {
      if (line.find("setServiceState") != std::string::npos) found.push_back(line);
    }
    return found;
  }
  /// The port mappings that were applied: true for on.
  std::vector<bool> mappings() const {
    std::vector<bool> flags;
    for (const PortMappingSet& set : platform.network.appliedMappings) flags.push_back(set.enable);
    return flags;
  }
};

TEST_F(ChangeState, StartStartsAndOpensThePort) {
  initialise();
  platform.services.running.insert("com.velto.Beaconry");
  EXPECT_EQ(change("START"), (Dictionary{{"state", "RUNNING"}}));
  EXPECT_THAT(changes(), ElementsAre(kStartJabber, kStartNotification));
  EXPECT_THAT(mappings(), ElementsAre(true));
}

TEST_F(ChangeState, StopStopsAndClosesThePort) {
  initialise();
  jabber->state = 2;
  EXPECT_EQ(change("STOP"), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_THAT(changes(), ElementsAre(kStopNotification, kStopJabber));
  EXPECT_THAT(mappings(), ElementsAre(false));
}

TEST_F(ChangeState, RestartStopsAndStartsAgain) {
  initialise();
  jabber->state = 2;
  EXPECT_EQ(change("RESTART"), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_THAT(changes(), ElementsAre(kStopNotification, kStopJabber, kStartJabber, kStartNotification));
  EXPECT_THAT(mappings(), ElementsAre(false, true));
}

TEST_F(ChangeState, AFailedStartLeavesThePortAndIsAnsweredWithTheState) {
  initialise();
  notification->stateChanges = {false};
  EXPECT_EQ(change("START"), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_THAT(mappings(), IsEmpty());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: Error -- failed to start service: Notification"));
}

TEST_F(ChangeState, AFailedStopLeavesThePortAndIsAnsweredWithTheState) {
  initialise();
  jabber->state = 2;
  platform.services.running.insert("com.velto.Beaconry");
  jabber->stateChanges.assign(10, false);
  EXPECT_EQ(change("STOP"), (Dictionary{{"state", "RUNNING"}}));
  EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ChangeState, ARestartWhoseStopFailsStartsNothing) {
  initialise();
  notification->stateChanges = {false};
  change("RESTART");
  EXPECT_THAT(changes(), ElementsAre(kStopNotification, kStopNotification, kStopJabber));
  EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ChangeState, ARestartWhoseStartFailsLeavesThePortClosed) {
  initialise();
  jabber->stateChanges = {true, false};
  EXPECT_EQ(change("RESTART"), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_THAT(changes(),
              ElementsAre(kStopNotification, kStopJabber, kStartJabber, kStopNotification, kStopJabber));
  EXPECT_THAT(mappings(), ElementsAre(false));
}

TEST_F(ChangeState, AnUnknownStateIsRefused) {
  initialise();
  for (const char* state : {"start", "Stop", "", "START ", "RELOAD"}) {
    EXPECT_EQ(change(state), (Dictionary{{"error", "INVALID_ARG_ERR"}})) << state;
  }
  EXPECT_EQ(handler->setStateWithRequest({}), (Dictionary{{"error", "INVALID_ARG_ERR"}}));
  EXPECT_EQ(handler->setStateWithRequest({{"state", 1}}), (Dictionary{{"error", "INVALID_ARG_ERR"}}));
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ChangeState, NothingIsChangedWhenServiceDataIsNotInitialized) {
  for (const char* state : {"START", "STOP", "RESTART", "start"}) {
    EXPECT_EQ(change(state), (Dictionary{{"state", "STOPPED"}})) << state;
  }
  EXPECT_THAT(changes(), IsEmpty());
  EXPECT_THAT(mappings(), IsEmpty());
}

TEST_F(ChangeState, TheRequestItselfMayInitializeServiceData) {
  finishSetup();
  change("START");
  EXPECT_THAT(changes(), ElementsAre(kStartJabber, kStartNotification));
}

TEST_F(ChangeState, TheVariantChoosesTheAnswer) {
  initialise();
  const Dictionary answer = handler->setStateWithRequest({{"state", "START"}, {"variant", "withDetails"}});
  EXPECT_EQ(*answer.find("jabberdState"), Value("RUNNING"));
}

TEST_F(ChangeState, AStateThatCannotBeToldAfterwardsIsAnError) {
  initialise();
  jabber->whileChangingState = [this](int) { jabber->stateError = EIO; };
  notification->whileChangingState = [this](int) { jabber->state = -1; };
  EXPECT_EQ(change("START"), (Dictionary{{"error", "CANNOT_STAT_ERR"}, {"serviceError", EIO}}));
}

TEST_F(ChangeState, ThePortOfOtherServersIsMappedOverTCP) {
  initialise();
  jabber->state = 2;
  handler->enablePortForwarding(true);
  ASSERT_EQ(platform.network.appliedMappings.size(), 1U);
  EXPECT_THAT(platform.network.appliedMappings[0].ports, ElementsAre(5268));
  EXPECT_EQ(platform.network.appliedMappings[0].protocol, 1);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(ChangeState, ThePortIsOpenedOnlyForAServiceThatIsNotStopped) {
  const std::pair<int, bool> expected[] = {{2, true}, {0, false}, {-1, true}};
  for (const auto& [state, open] : expected) {
    jabber->state = state;
    platform.network.appliedMappings.clear();
    handler->enablePortForwarding(true);
    handler->enablePortForwarding(false);
    EXPECT_THAT(mappings(), ElementsAre(open, false)) << state;
  }
}

TEST_F(ChangeState, AFailureToMapThePortIsAWarningAndTheChangeGoesOn) {
  initialise();
  platform.network.mappingResult = -65537;
  platform.services.running.insert("com.velto.Beaconry");
  EXPECT_EQ(change("RESTART"), (Dictionary{{"state", "RUNNING"}}));
  const std::string warning =
      "tessard_notification[W]: Unable to modify NAT port mapping: ZtChangePortMappings() returned -65537";
  EXPECT_THAT(platform.log.lines(), ElementsAre(warning, warning));
}

TEST_F(ChangeState, AMappingThatCannotBeMadeIsAWarningToo) {
  platform.network.noMappingSets = true;
  handler->enablePortForwarding(true);
  EXPECT_THAT(platform.log.lines(), ElementsAre("tessard_notification[W]: Unable to modify NAT port mapping: "
                                                "ZtChangePortMappings() returned 12"));
}

}  // namespace
}  // namespace tessard
