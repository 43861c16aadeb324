#include <cerrno>
#include <functional>

#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// A service whose state the test decides at every question.
class AskedAtom : public NOTIFICATION_PLUGIN_ChatServiceAtom {
 public:
  using NOTIFICATION_PLUGIN_ChatServiceAtom::NOTIFICATION_PLUGIN_ChatServiceAtom;
  std::function<int()> answer;
  int questions = 0;

  int getServiceState() override {
    ++questions;
    return answer();
  }
};

class Waiting : public testing::Test {
 protected:
  TestPlatform platform;
  AskedAtom atom{platform};

  void SetUp() override { atom.initWithName_owner("jabberd", nullptr); }

  void answerAlways(int state) {
    atom.answer = [state] { return state; };
  }
  void reachAfterQuestions(int state, int questions) {
    atom.answer = [this, state, questions] { return atom.questions > questions ? state : -1; };
  }
};

TEST_F(Waiting, ForAStateThatIsThereDoesNotSleep) {
  answerAlways(ServiceStateRunning);
  EXPECT_TRUE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 60.0, 500000));
  EXPECT_THAT(platform.clock.sleeps, IsEmpty());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[N]: waiting for jabberd to finish startup...",
                          "tessard_notification[N]: jabberd service startup completed."));
  EXPECT_EQ(atom.questions, 2) << "the sequence ends with one more question";
}

TEST_F(Waiting, SleepsTheGivenPauseBetweenTwoQuestions) {
  reachAfterQuestions(ServiceStateRunning, 3);
  EXPECT_TRUE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 60.0, 250000));
  EXPECT_THAT(platform.clock.sleeps, ElementsAre(250000U, 250000U, 250000U));
  EXPECT_EQ(atom.questions, 5);
}

TEST_F(Waiting, SpeaksOfShutdownForTheStoppedState) {
  reachAfterQuestions(ServiceStateStopped, 1);
  EXPECT_TRUE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateStopped, 10.0, 500000));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[N]: waiting for jabberd to finish shutdown...",
                          "tessard_notification[N]: jabberd service shutdown completed."));
}

TEST_F(Waiting, SpeaksOfShutdownForEveryStateButRunning) {
  answerAlways(ServiceStateUnknown);
  EXPECT_TRUE(atom.waitForServiceState_maxWait_waitSleep(-1, 10.0, 500000));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[N]: waiting for jabberd to finish shutdown...",
                          "tessard_notification[N]: jabberd service shutdown completed."));
}

TEST_F(Waiting, GivesUpAfterTheLongestWaitWithAnErrorLine) {
  answerAlways(ServiceStateStopped);
  EXPECT_FALSE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 2.0, 500000));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[N]: waiting for jabberd to finish startup...",
                          "tessard_notification[E]: Error -- jabberd service failed to start"));
  EXPECT_THAT(platform.clock.sleeps, SizeIs(5))
      << "exactly two seconds are not more than two: one more pause follows";
  EXPECT_THAT(platform.clock.sleeps, Each(500000U));
}

TEST_F(Waiting, SaysStopWhenAShutdownTakesTooLong) {
  answerAlways(ServiceStateRunning);
  EXPECT_FALSE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateStopped, 1.0, 500000));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[N]: waiting for jabberd to finish shutdown...",
                          "tessard_notification[E]: Error -- jabberd service failed to stop"));
}

TEST_F(Waiting, ForNoTimeAtAllPausesOnceAtMost) {
  answerAlways(ServiceStateStopped);
  EXPECT_FALSE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 0.0, 500000));
  EXPECT_THAT(platform.clock.sleeps, SizeIs(1));
  EXPECT_EQ(atom.questions, 2);
}

TEST_F(Waiting, ForNoTimeAtAllSeesAStateThatComesDuringThePause) {
  reachAfterQuestions(ServiceStateRunning, 1);
  EXPECT_TRUE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 0.0, 500000));
}

TEST_F(Waiting, TestsTheStateOnceMoreAfterTheTimeIsOver) {
  atom.answer = [this] { return platform.clock.sleptSeconds() > 10.0 ? 2 : 0; };
  EXPECT_TRUE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 10.0, 500000));
}

TEST_F(Waiting, CountsTimeThatTheQuestionsThemselvesTake) {
  atom.answer = [this] {
    platform.clock.advance(4.0);
    return 0;
  };
  EXPECT_FALSE(atom.waitForServiceState_maxWait_waitSleep(ServiceStateRunning, 10.0, 500000));
  EXPECT_THAT(platform.clock.sleeps, SizeIs(2));
}

class ProcessState : public testing::Test {
 protected:
  TestPlatform platform;
  Atom atom{platform};

  void SetUp() override { atom.initWithName_owner("jabberd", nullptr); }
};

TEST_F(ProcessState, ByPidFileIsOneForALiveProcessOnly) {
  platform.processes.pidFiles = {{"/run/live.pid", 10}, {"/run/dead.pid", 11}};
  platform.processes.alive = {10};
  EXPECT_EQ(atom.getProcessStateForPidFile("/run/live.pid"), 1);
  EXPECT_EQ(atom.getProcessStateForPidFile("/run/dead.pid"), 0);
  EXPECT_EQ(atom.getProcessStateForPidFile("/run/missing.pid"), 0);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(ProcessState, ByPidFileLooksAtTheLowByteOfTheAnswerAlone) {
  struct Answering : FakeProcesses {
    int answer = 0;
    int get_service_state_from_pid_file(std::string_view /*path*/) override { return answer; }
  } processes;
  Platform other{platform.journal,  platform.journal,   platform.tasks,   platform.services,
                 processes,         platform.hostNames, platform.network, platform.clock,
                 platform.random,   platform.unicode,   platform.bundles, platform.directory,
                 platform.keychain, platform.logs,      platform.log};
  Atom asking{other};
  for (const auto& [answer, expected] :
       {std::pair{0, 0}, {1, 1}, {-1, 1}, {255, 1}, {0x100, 0}, {0x101, 1}}) {
    processes.answer = answer;
    EXPECT_EQ(asking.getProcessStateForPidFile("/run/x.pid"), expected) << answer;
  }
}

TEST_F(ProcessState, ByNameIsOneWhenAtLeastOneProcessRuns) {
  platform.processes.counts = {{"router", 1}, {"c2s", 7}, {"none", 0}};
  EXPECT_EQ(atom.getProcessStateForName("router"), 1);
  EXPECT_EQ(atom.getProcessStateForName("c2s"), 1);
  EXPECT_EQ(atom.getProcessStateForName("none"), 0);
  EXPECT_EQ(atom.getProcessStateForName("unknown"), 0);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(ProcessState, ByNameTellsWhenItCannotBeTold) {
  platform.processes.countErrors["router"] = EACCES;
  EXPECT_EQ(atom.getProcessStateForName("router"), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: Unable to determine state of jabberd "
                          "process \"router\" (error 13)"));
}

TEST_F(ProcessState, FlagsGainTheMaskOfARunningProcess) {
  platform.processes.counts = {{"router", 1}, {"sm", 2}};
  unsigned flags = 0x80;
  EXPECT_EQ(atom.getProcessStateFlagsForName_stateMask_outState("router", 0x3, flags), 1);
  EXPECT_EQ(flags, 0x83U);
  EXPECT_EQ(atom.getProcessStateFlagsForName_stateMask_outState("sm", 0x4, flags), 1);
  EXPECT_EQ(flags, 0x87U);
}

TEST_F(ProcessState, FlagsStayWhenNoProcessRunsOrThatCannotBeTold) {
  platform.processes.countErrors["sm"] = EIO;
  unsigned flags = 0x80;
  EXPECT_EQ(atom.getProcessStateFlagsForName_stateMask_outState("router", 0x3, flags), 0);
  EXPECT_EQ(atom.getProcessStateFlagsForName_stateMask_outState("sm", 0x3, flags), -1);
  EXPECT_EQ(flags, 0x80U);
}

}  // namespace
}  // namespace tessard
