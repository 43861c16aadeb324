#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kLabel = "org.jabber.jabberd_notification";

class JabberProcess : public JabberTest {
 protected:
  static std::string pidFile(const std::string& name) { return kRunDirectory + "/" + name + ".pid"; }

  void run(const std::string& name, pid_t pid = 100) {
    platform.processes.pidFiles[pidFile(name)] = pid;
    platform.processes.alive.insert(pid);
  }
  void endAll() { platform.processes.alive.clear(); }

  static RecordingServiceManager::Change enabled() { return {kLabel, true}; }
  static RecordingServiceManager::Change disabled() { return {kLabel, false}; }
};

TEST_F(JabberProcess, IsMadeWithItsFixedNameAndOwner) {
  EXPECT_EQ(atom->serviceName(), "jabberd");
  EXPECT_EQ(atom->serviceOwner(), &owner);
}

TEST_F(JabberProcess, RunsWhenAnyOneComponentRuns) {
  for (const char* name : {"s2s", "c2s", "sm", "router"}) {
    platform.processes.pidFiles.clear();
    run(name);
    EXPECT_EQ(atom->getServiceState(), 2) << name;
  }
}

TEST_F(JabberProcess, IsStoppedWhenNoComponentRuns) {
  EXPECT_EQ(atom->getServiceState(), 0);
  run("router");
  endAll();
  EXPECT_EQ(atom->getServiceState(), 0) << "a pid file that was left behind";
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberProcess, LooksAtThePidFilesInTheirOrderUpToTheFirstThatRuns) {
  run("sm");
  atom->getServiceState();
  EXPECT_THAT(platform.processes.pidFilesAsked, ElementsAre(pidFile("s2s"), pidFile("c2s"), pidFile("sm")));
  endAll();
  platform.processes.pidFilesAsked.clear();
  atom->getServiceState();
  EXPECT_THAT(platform.processes.pidFilesAsked,
              ElementsAre("/private/var/run/jabberd_notification/s2s.pid",
                          "/private/var/run/jabberd_notification/c2s.pid",
                          "/private/var/run/jabberd_notification/sm.pid",
                          "/private/var/run/jabberd_notification/router.pid"));
}

TEST_F(JabberProcess, AsksTheProcessesAndNotTheServiceManagerForItsState) {
  platform.services.running.insert(kLabel);
  EXPECT_EQ(atom->getServiceState(), 0);
  EXPECT_THAT(platform.services.asked, IsEmpty());
}

TEST_F(JabberProcess, StartsThroughTheServiceManagerAndWaits) {
  platform.clock.afterSleep = [this] {
    if (platform.clock.sleeps.size() == 3) run("router");
  };
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(enabled()));
  EXPECT_THAT(platform.clock.sleeps, ElementsAre(500000U, 500000U, 500000U));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("N", "waiting for jabberd to finish startup..."),
                                                whole("N", "jabberd service startup completed.")));
}

TEST_F(JabberProcess, StopsThroughTheServiceManagerAndWaits) {
  run("router");
  platform.clock.afterSleep = [this] { endAll(); };
  EXPECT_TRUE(atom->setServiceState(ServiceStateStopped));
  EXPECT_THAT(platform.services.changes, ElementsAre(disabled()));
  EXPECT_THAT(platform.clock.sleeps, ElementsAre(500000U));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("N", "waiting for jabberd to finish shutdown..."),
                                                whole("N", "jabberd service shutdown completed.")));
}

TEST_F(JabberProcess, CarriesOnWhenTheServiceManagerRefusesToStart) {
  platform.services.failing.insert(kLabel);
  run("router");
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning)) << "the wait decides";
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("W", "jabberd couldn't be started"),
                                                whole("N", "waiting for jabberd to finish startup..."),
                                                whole("N", "jabberd service startup completed.")));
}

TEST_F(JabberProcess, CarriesOnWhenTheServiceManagerRefusesToStop) {
  platform.services.failing.insert(kLabel);
  EXPECT_TRUE(atom->setServiceState(ServiceStateStopped));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("W", "jabberd couldn't be stopped"),
                                                whole("N", "waiting for jabberd to finish shutdown..."),
                                                whole("N", "jabberd service shutdown completed.")));
}

TEST_F(JabberProcess, GivesUpAStartAfterAMinuteAndShutsDownWhatHasStarted) {
  EXPECT_FALSE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(enabled(), disabled()));
  EXPECT_THAT(platform.clock.sleeps, SizeIs(121)) << "60 seconds in halves, and one more";
  EXPECT_THAT(platform.clock.sleeps, Each(500000U));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("N", "waiting for jabberd to finish startup..."),
                                                whole("E", "Error -- jabberd service failed to start"),
                                                whole("W", "some jabberd processes failed to start"),
                                                whole("N", "waiting for jabberd to finish shutdown..."),
                                                whole("N", "jabberd service shutdown completed.")));
}

TEST_F(JabberProcess, TakesAStartAtTheLastMoment) {
  platform.clock.afterSleep = [this] {
    if (platform.clock.sleeps.size() == 121) run("router");
  };
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(enabled()));
}

TEST_F(JabberProcess, AnswersNoForAFailedStartAlsoWhenTheShutdownFails) {
  // Components come up after the start was given up, and then do not go down.
  platform.services.afterChange = [this](const RecordingServiceManager::Change& change) {
    if (!change.enable) run("router");
  };
  EXPECT_FALSE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.clock.sleeps, SizeIs(121 + 21)) << "a minute, and ten seconds for the shutdown";
  EXPECT_EQ(platform.log.lines().back(), whole("E", "Error -- jabberd service failed to stop"));
}

TEST_F(JabberProcess, DoesNotWaitForAShutdownThatTheServiceManagerRefuses) {
  platform.services.failing.insert(kLabel);
  EXPECT_FALSE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(enabled(), disabled()));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("W", "jabberd couldn't be started"),
                                                whole("N", "waiting for jabberd to finish startup..."),
                                                whole("E", "Error -- jabberd service failed to start"),
                                                whole("W", "some jabberd processes failed to start")));
}

TEST_F(JabberProcess, GivesUpAStopAfterTenSeconds) {
  run("router");
  EXPECT_FALSE(atom->setServiceState(ServiceStateStopped));
  EXPECT_THAT(platform.services.changes, ElementsAre(disabled()));
  EXPECT_THAT(platform.clock.sleeps, SizeIs(21));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("N", "waiting for jabberd to finish shutdown..."),
                                                whole("E", "Error -- jabberd service failed to stop")));
}

TEST_F(JabberProcess, TakesEveryStateButRunningForAStop) {
  EXPECT_FALSE(atom->setServiceState(1)) << "a state that the service never has";
  EXPECT_THAT(platform.services.changes, ElementsAre(disabled()));
  EXPECT_EQ(platform.log.lines().back(), whole("E", "Error -- jabberd service failed to stop"));
}

}  // namespace
}  // namespace tessard
