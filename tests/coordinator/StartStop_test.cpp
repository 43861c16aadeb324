#include <stdexcept>

#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kStartJabber = "jabberd setServiceState 2";
const std::string kStartNotification = "Notification setServiceState 2";
const std::string kStopJabber = "jabberd setServiceState 0";
const std::string kStopNotification = "Notification setServiceState 0";

struct StartStop : Coordinated {
  static void alwaysFails(RecordingAtom* atom) { atom->stateChanges.assign(100, false); }
};

TEST_F(StartStop, JabberdIsStartedFirstAndStoppedLast) {
  EXPECT_EQ(wrangler->startAllServices(), 0);
  EXPECT_THAT(journal, ElementsAre(kStartJabber, kStartNotification));
  journal.clear();
  EXPECT_EQ(wrangler->stopAllServices(), 0);
  EXPECT_THAT(journal, ElementsAre(kStopNotification, kStopJabber));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(StartStop, TheNamedServicesAreActedOnInTheGivenOrder) {
  EXPECT_EQ(wrangler->startStopServices_serviceAction({"Notification"}, 1), 0);
  EXPECT_EQ(wrangler->startStopServices_serviceAction({}, 1), 0);
  EXPECT_THAT(journal, ElementsAre(kStartNotification));
}

TEST_F(StartStop, EveryActionButOneMeansStop) {
  for (const int action : {0, 2, -1})
    EXPECT_EQ(wrangler->startStopServices_serviceAction({"jabberd"}, action), 0);
  EXPECT_THAT(journal, ElementsAre(kStopJabber, kStopJabber, kStopJabber));
}

TEST_F(StartStop, AFailedStartStopsAllServices) {
  notification->stateChanges = {false};
  EXPECT_EQ(wrangler->startAllServices(), 100005);
  EXPECT_THAT(journal, ElementsAre(kStartJabber, kStartNotification, kStopNotification, kStopJabber));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: Error -- failed to start service: Notification"));
}

TEST_F(StartStop, ServicesBehindTheOneThatFailedAreNotStarted) {
  jabber->stateChanges = {false};
  EXPECT_EQ(wrangler->startAllServices(), 100005);
  EXPECT_THAT(journal, ElementsAre(kStartJabber, kStopNotification, kStopJabber));
}

TEST_F(StartStop, AnUnknownNameIsAFailure) {
  EXPECT_EQ(wrangler->startStopServices_serviceAction({"unknown"}, 1), 100005);
  EXPECT_EQ(wrangler->startStopServices_serviceAction({"unknown"}, 0), 100004);
  EXPECT_THAT(journal, ElementsAre(kStopNotification, kStopJabber, kStopNotification, kStopJabber));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: Error -- failed to start service: unknown",
                          "tessard_notification[E]: Error -- failed to stop service: unknown"));
}

TEST_F(StartStop, AStopThatFailsOnceIsRepeated) {
  notification->stateChanges = {false};
  EXPECT_EQ(wrangler->stopAllServices(), 100004);
  EXPECT_THAT(journal, ElementsAre(kStopNotification, kStopNotification, kStopJabber));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: Error -- failed to stop service: Notification"));
}

TEST_F(StartStop, AStopThatKeepsFailingIsGivenUpAfterThreeRepetitions) {
  alwaysFails(jabber);
  EXPECT_EQ(wrangler->stopAllServices(), 100004);
  EXPECT_THAT(journal, ElementsAre(kStopNotification, kStopJabber, kStopNotification, kStopJabber,
                                   kStopNotification, kStopJabber, kStopNotification, kStopJabber));
  EXPECT_THAT(platform.log.lines(),
              testing::AllOf(testing::SizeIs(4), testing::Each("tessard_notification[E]: Error -- failed to "
                                                               "stop service: jabberd")));
}

TEST_F(StartStop, WithoutServicesAStopEndsToo) {
  setAtoms({});
  EXPECT_EQ(wrangler->stopAllServices(), 100004);
  EXPECT_EQ(platform.log.lines().size(), 4U);
}

TEST_F(StartStop, AFailedStartWhoseStopKeepsFailingEndsAndIsAFailedStart) {
  alwaysFails(jabber);
  EXPECT_EQ(wrangler->startAllServices(), 100005);
  EXPECT_THAT(platform.log.lines(), testing::SizeIs(4));
  EXPECT_EQ(platform.log.lines().front(),
            "tessard_notification[E]: Error -- failed to start service: jabberd");
}

TEST_F(StartStop, RepetitionsAreCountedAfreshForEveryRequest) {
  alwaysFails(jabber);
  for (int request = 0; request < 3; ++request) {
    platform.log.clear();
    wrangler->stopAllServices();
    EXPECT_EQ(platform.log.lines().size(), 4U);
  }
}

TEST_F(StartStop, RepetitionsAreCountedAfreshAlsoAfterAServiceThrew) {
  alwaysFails(jabber);
  int calls = 0;
  jabber->whileChangingState = [&](int) {
    if (++calls == 3) throw std::runtime_error("broken");
  };
  EXPECT_THROW(wrangler->stopAllServices(), std::runtime_error);
  platform.log.clear();
  wrangler->stopAllServices();
  EXPECT_EQ(platform.log.lines().size(), 4U);
}

}  // namespace
}  // namespace tessard
