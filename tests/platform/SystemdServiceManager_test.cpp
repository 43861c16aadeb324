#include "platform/SystemdServiceManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/PosixTasks.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kLabel = "org.jabber.jabberd_notification";

// In the place of systemctl, below the scratch root: notes its arguments and does what a systemd would that
// has one unit. systemd itself only runs as a machine's first process.
constexpr const char* kSystemctl = R"(#!/bin/sh
cd "${0%/*}" || exit 1
echo "$*" >>calls
for unit; do :; done
verb=$1
[ "$unit" = org.jabber.jabberd_notification.service ] || {
  [ "$verb" = cat ] && echo "No files found for $unit." >&2
  exit 1
}
[ "$verb" = cat ] && { echo '[Service]'; exit 0; }
if [ -e broken ] && [ "$verb" != is-active ]; then cat broken >&2; exit 1; fi
case $verb in
  enable) : >active ;;
  disable) rm -f active ;;
  is-active) [ -e active ] ;;
esac
)";

class SystemdServiceManagerTest : public testing::Test {
 protected:
  TestPlatform test;
  PosixTasks tasks{test.root.path(), "/nowhere", 20};
  SystemdServiceManager services{tasks, test.log};

  void SetUp() override {
    test.root.write("/usr/bin/systemctl", kSystemctl);
    test.root.setMode("/usr/bin/systemctl", 0755);
  }
};

TEST_F(SystemdServiceManagerTest, AStartEnablesAndStartsTheUnitAndAStopUndoesBoth) {
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_TRUE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, false));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_EQ(test.root.read("/usr/bin/calls"),
            "is-active --quiet -- org.jabber.jabberd_notification.service\n"
            "cat -- org.jabber.jabberd_notification.service\n"
            "enable --now -- org.jabber.jabberd_notification.service\n"
            "is-active --quiet -- org.jabber.jabberd_notification.service\n"
            "cat -- org.jabber.jabberd_notification.service\n"
            "disable --now -- org.jabber.jabberd_notification.service\n"
            "is-active --quiet -- org.jabber.jabberd_notification.service\n");
  EXPECT_THAT(test.log.messages(), IsEmpty());
}

TEST_F(SystemdServiceManagerTest, ALabelWithoutAUnitIsAPlainFailure) {
  EXPECT_FALSE(services.GetLaunchDaemonServiceState("com.velto.KorvBridge"));
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("com.velto.KorvBridge", true));
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("com.velto.KorvBridge", false));
  const char* line =
      "systemd has no unit \"com.velto.KorvBridge.service\": No files found for "
      "com.velto.KorvBridge.service.";
  EXPECT_THAT(test.log.messages(kLogError), ElementsAre(line));
  EXPECT_THAT(test.log.messages(kLogInfo), ElementsAre(line));
}

TEST_F(SystemdServiceManagerTest, ALabelThatIsNoUnitNameNeverReachesSystemctl) {
  for (const std::string_view label : {"", "--now", ".hidden", "a*", "a b", "../a", "a/b", "a@b"}) {
    test.log.clear();
    EXPECT_FALSE(services.GetLaunchDaemonServiceState(label)) << label;
    EXPECT_FALSE(services.SetLaunchDaemonServiceState(label, true)) << label;
    EXPECT_THAT(test.log.messages(kLogError), ElementsAre("systemd has no unit \"" + std::string(label) +
                                                          ".service\": a unit cannot be named so"));
  }
  EXPECT_FALSE(test.root.exists("/usr/bin/calls"));
}

TEST_F(SystemdServiceManagerTest, TheLastCauseThatSystemctlComplainsOfIsLogged) {
  test.root.write("/usr/bin/broken",
                  "Created symlink.\nJob failed.\nSee \"systemctl status x\" for details.\n\n");
  EXPECT_FALSE(services.SetLaunchDaemonServiceState(kLabel, true));
  test.root.write("/usr/bin/broken", "");
  EXPECT_FALSE(services.SetLaunchDaemonServiceState(kLabel, false));
  EXPECT_THAT(
      test.log.messages(kLogError),
      ElementsAre("the unit \"org.jabber.jabberd_notification.service\" could not be started: Job failed.",
                  "the unit \"org.jabber.jabberd_notification.service\" could not be stopped: systemctl "
                  "ended with status 1"));
}

TEST_F(SystemdServiceManagerTest, AUnitThatTakesLongerThanTheTasksAllowHasNotStarted) {
  TestPlatform played;
  played.tasks.on("/usr/bin/systemctl", [](const ScriptedTasks::Call& call) {
    return call.arguments.front().content == "cat" ? TaskResult{0, "", ""} : TaskResult{124, "", "took long"};
  });
  SystemdServiceManager slow{played.tasks, played.log};
  EXPECT_FALSE(slow.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_THAT(
      played.log.messages(kLogError),
      ElementsAre("the unit \"org.jabber.jabberd_notification.service\" could not be started: systemctl "
                  "still waits for it"));
}

TEST_F(SystemdServiceManagerTest, AMachineWithoutSystemctlStartsNothing) {
  TestPlatform played;
  played.tasks.on("/usr/bin/systemctl", {127, "", "/usr/bin/systemctl: No such file or directory"});
  SystemdServiceManager none{played.tasks, played.log};
  EXPECT_FALSE(none.GetLaunchDaemonServiceState(kLabel));
  EXPECT_FALSE(none.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_THAT(played.log.messages(kLogError),
              ElementsAre("systemd cannot be asked: /usr/bin/systemctl: No such file or directory"));
}

}  // namespace
}  // namespace tessard
