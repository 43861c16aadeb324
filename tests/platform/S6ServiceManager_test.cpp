#include "platform/S6ServiceManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include "platform/LinuxProcesses.h"
#include "platform/PosixTasks.h"
#include "platform/SystemClock.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kScanDirectory = "/run/service";
constexpr std::string_view kLabel = "org.jabber.jabberd_notification";
constexpr const char* kReadyAtOnce = "#!/bin/sh\necho $$ >pid\necho >&3\nexec sleep 1000\n";

bool holdsWithin(const std::function<bool()>& condition, int seconds = 20) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// The real s6 on a scan directory below a scratch root.
class S6ServiceManagerTest : public testing::Test {
 protected:
  TestPlatform test;
  PosixTasks tasks{test.root.path()};
  SystemClock clock;
  LinuxProcesses processes{test.files};
  S6ServiceManager services{test.files, tasks, clock, test.log, std::string(kScanDirectory)};
  pid_t scanner = -1;

  void SetUp() override { test.root.makeDirectory(kScanDirectory); }

  void TearDown() override {
    if (scanner <= 0) return;
    ::kill(scanner, SIGTERM);
    ::waitpid(scanner, nullptr, 0);
  }

  static std::string in(std::string_view label, std::string_view name) {
    return std::string(kScanDirectory) + "/" + std::string(label) + "/" + std::string(name);
  }

  void define(std::string_view label, const std::string& run, const std::string& finish = "") {
    test.root.write(in(label, "down"), "");
    test.root.write(in(label, "notification-fd"), "3\n");
    for (const auto& [name, script] : {std::pair("finish", finish), std::pair("run", run)}) {
      if (script.empty()) continue;
      test.root.write(in(label, name), script);
      test.root.setMode(in(label, name), 0755);
    }
  }

  bool isSupervised(std::string_view label) {
    return tasks.ZtRunTask("/usr/bin/s6-svok", {TaskArgument::path(in(label, ""))}) == 0;
  }

  void scan() {
    const std::string directory = test.root.hostPath(kScanDirectory);
    std::array<char*, 3> arguments = {const_cast<char*>("s6-svscan"), const_cast<char*>(directory.c_str()),
                                      nullptr};
    ASSERT_EQ(::posix_spawnp(&scanner, "s6-svscan", nullptr, nullptr, arguments.data(), environ), 0);
    ASSERT_TRUE(holdsWithin([&] {
      for (const std::string& name : test.root.list(kScanDirectory)) {
        if (name.front() != '.' && !isSupervised(name)) return false;
      }
      return test.root.exists(std::string(kScanDirectory) + "/.s6-svscan");
    }));
  }

  pid_t pidOf(std::string_view label) { return processes.pid_from_file(in(label, "pid")); }
};

TEST_F(S6ServiceManagerTest, AStartEnablesTheUnitAndReturnsWhenItIsReady) {
  define(kLabel, "#!/bin/sh\nsleep 0.3\n: >prepared\n" + std::string(kReadyAtOnce));
  scan();
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_TRUE(test.root.exists(in(kLabel, "prepared"))) << "it had not said that it is ready";
  EXPECT_FALSE(test.root.exists(in(kLabel, "down")));
  EXPECT_TRUE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_THAT(test.log.messages(), IsEmpty());
}

TEST_F(S6ServiceManagerTest, AStartOfARunningUnitSucceedsAndLeavesItsProcess) {
  define(kLabel, kReadyAtOnce);
  scan();
  ASSERT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  const pid_t pid = pidOf(kLabel);
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_EQ(pidOf(kLabel), pid);
}

TEST_F(S6ServiceManagerTest, AStopDisablesTheUnitAndReturnsWhenItHasEnded) {
  define(kLabel,
         "#!/bin/sh\ntrap 'kill $!; sleep 0.3; exit 0' TERM\necho $$ >pid\necho >&3\nsleep 1000 & wait\n",
         "#!/bin/sh\n: >finished\n");
  scan();
  ASSERT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  const pid_t pid = pidOf(kLabel);
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, false));
  EXPECT_EQ(::kill(pid, 0), -1);
  EXPECT_TRUE(test.root.exists(in(kLabel, "finished")));
  EXPECT_TRUE(test.root.exists(in(kLabel, "down")));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, false)) << "a second stop";
  EXPECT_THAT(test.log.messages(), IsEmpty());
}

TEST_F(S6ServiceManagerTest, AUnitThatFailsForGoodFailsTheStartAndCanBeStartedAgain) {
  define(kLabel, "#!/bin/sh\nexit 69\n", "#!/bin/sh\nexit 125\n");
  scan();
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_FALSE(services.SetLaunchDaemonServiceState(kLabel, true));
    EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  }
  const std::string line =
      "the service \"org.jabber.jabberd_notification\" could not be started: it failed and stays down";
  EXPECT_THAT(test.log.messages(kLogError), ElementsAre(line, line));
  define(kLabel, kReadyAtOnce);
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
}

TEST_F(S6ServiceManagerTest, OnlyTheNamedUnitIsTouched) {
  define(kLabel, kReadyAtOnce);
  define("com.velto.Beaconry", kReadyAtOnce);
  scan();
  EXPECT_TRUE(services.SetLaunchDaemonServiceState("com.velto.Beaconry", true));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_TRUE(test.root.exists(in(kLabel, "down")));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState("com.velto.Beaconry", false));
  EXPECT_TRUE(services.GetLaunchDaemonServiceState(kLabel));
}

TEST_F(S6ServiceManagerTest, AServiceDirectoryThatIsNewIsShownToS6First) {
  scan();
  define(kLabel, kReadyAtOnce);
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_TRUE(services.GetLaunchDaemonServiceState(kLabel));
}

TEST_F(S6ServiceManagerTest, WithoutS6NothingRunsNothingStartsAndStoppingDisables) {
  define(kLabel, kReadyAtOnce);
  EXPECT_FALSE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_THAT(test.log.messages(kLogError),
              ElementsAre("s6 does not take up the service \"org.jabber.jabberd_notification\""));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, false));
  EXPECT_TRUE(test.root.exists(in(kLabel, "down")));
}

TEST_F(S6ServiceManagerTest, ALabelWithoutAServiceDirectoryIsAPlainFailure) {
  scan();
  test.root.write(std::string(kScanDirectory) + "/file", "no directory");
  for (const std::string_view label : {"com.velto.KorvBridge", "file", "", ".", "..", ".s6-svscan", "a/b"}) {
    test.log.clear();
    EXPECT_FALSE(services.GetLaunchDaemonServiceState(label)) << label;
    EXPECT_FALSE(services.SetLaunchDaemonServiceState(label, true)) << label;
    EXPECT_FALSE(services.SetLaunchDaemonServiceState(label, false)) << label;
    const std::string line = "s6 has no service \"" + std::string(label) + "\" in /run/service";
    EXPECT_THAT(test.log.messages(kLogError), ElementsAre(line));
    EXPECT_THAT(test.log.messages(kLogInfo), ElementsAre(line));
  }
}

TEST_F(S6ServiceManagerTest, AUnitThatCannotBeEnabledIsNotStarted) {
  define(kLabel, kReadyAtOnce);
  scan();
  test.files.failAll("remove", EROFS);
  EXPECT_FALSE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_THAT(test.log.messages(kLogError),
              ElementsAre("the service \"org.jabber.jabberd_notification\" cannot be enabled: Read-only file "
                          "system"));
}

TEST_F(S6ServiceManagerTest, AnEnabledUnitThatMayBeForgottenIsStartedWithAWarning) {
  define(kLabel, kReadyAtOnce);
  scan();
  test.files.failAll("syncDirectory", EIO);
  EXPECT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  EXPECT_THAT(test.log.messages(kLogWarning),
              ElementsAre("the service \"org.jabber.jabberd_notification\" may not start with the machine"));
}

TEST_F(S6ServiceManagerTest, AUnitThatCannotBeDisabledIsStoppedAllTheSame) {
  define(kLabel, kReadyAtOnce);
  scan();
  ASSERT_TRUE(services.SetLaunchDaemonServiceState(kLabel, true));
  test.files.failAll("createFile", ENOSPC);
  EXPECT_FALSE(services.SetLaunchDaemonServiceState(kLabel, false));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState(kLabel));
  EXPECT_THAT(
      test.log.messages(kLogError),
      ElementsAre("the service \"org.jabber.jabberd_notification\" cannot be disabled: No space left on "
                  "device"));
}

// What takes s6 its 10 seconds, and what a broken s6 says, played.
class S6Waiting : public testing::Test {
 protected:
  TestPlatform test;
  S6ServiceManager services{test.files, test.tasks, test.clock, test.log, "/run/service"};

  void SetUp() override {
    test.root.makeDirectory("/run/service/unit");
    test.tasks.on("/usr/bin/s6-svok", {0, "", ""});
  }
};

TEST_F(S6Waiting, AUnitHasTenSecondsToBecomeReadyAndToEnd) {
  test.tasks.on("/usr/bin/s6-svc", {99, "", "s6-svlisten1: fatal: timed out\n"});
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("unit", true));
  EXPECT_EQ(test.tasks.calls.back().arguments,
            (std::vector{TaskArgument::text("-wU"), TaskArgument::text("-T"), TaskArgument::text("10000"),
                         TaskArgument::text("-u"), TaskArgument::path("/run/service/unit")}));
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("unit", false));
  EXPECT_EQ(test.tasks.calls.back().arguments,
            (std::vector{TaskArgument::text("-wD"), TaskArgument::text("-T"), TaskArgument::text("10000"),
                         TaskArgument::text("-d"), TaskArgument::path("/run/service/unit")}));
  EXPECT_THAT(
      test.log.messages(kLogError),
      ElementsAre(
          "the service \"unit\" could not be started: it did not say within 10 seconds that it is ready",
          "the service \"unit\" could not be stopped: it did not end within 10 seconds"));
}

TEST_F(S6Waiting, WhatS6SaysIsLogged) {
  test.tasks.on("/usr/bin/s6-svc", {111, "", "s6-svc: fatal: no way\nmore\n"});
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("unit", true));
  test.tasks.on("/usr/bin/s6-svc", {111, "", ""});
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("unit", true));
  EXPECT_THAT(test.log.messages(kLogError),
              ElementsAre("the service \"unit\" could not be started: s6-svc: fatal: no way",
                          "the service \"unit\" could not be started: s6-svc ended with status 111"));
}

TEST_F(S6Waiting, AnS6ThatNeverTakesTheUnitUpIsWaitedForFiveSeconds) {
  test.tasks.on("/usr/bin/s6-svok", {1, "", ""});
  test.tasks.on("/usr/bin/s6-svscanctl", {0, "", ""});
  const double begin = test.clock.monotonicSeconds();
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("unit", true));
  EXPECT_NEAR(test.clock.monotonicSeconds() - begin, 5.0, 0.1);
}

}  // namespace
}  // namespace tessard
