#include "platform/PosixTasks.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "platform/FileDescriptor.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

TaskArgument text(std::string_view content) {
  return TaskArgument::text(content);
}

TaskResult shell(Tasks& tasks, std::string_view script) {
  return tasks.launch_task("/bin/sh", {text("-c"), text(script)});
}

void writeProgram(const ScratchRoot& root, std::string_view path, std::string_view output) {
  root.write(path, "#!/bin/sh\necho " + std::string(output) + "\n");
  root.setMode(path, 0755);
}

// Whether a process of that id runs; a zombie does not.
bool isRunning(const std::string& pid) {
  std::ifstream stat("/proc/" + pid + "/stat");
  std::string content;
  std::getline(stat, content);
  return !content.empty() && content.find(") Z ") == std::string::npos;
}

void waitUntilGone(const std::string& pid) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (isRunning(pid) && std::chrono::steady_clock::now() < end) std::this_thread::yield();
}

TEST(PosixTasks, BothOutputsAndTheExitStatusComeBackApart) {
  PosixTasks tasks("/");
  const TaskResult result = shell(tasks, "echo out; echo err >&2; exit 7");
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.output, "out\n");
  EXPECT_EQ(result.errorText, "err\n");
}

TEST(PosixTasks, ArgumentsReachTheProgramAsTheyStandAndNoShellReadsThem) {
  PosixTasks tasks("/");
  const TaskResult result = tasks.launch_task(
      "/usr/bin/printf",
      {text("%s|"), text("a b"), text(""), text("$HOME"), text("*"), text("'\";&\n"), text("ä")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "a b||$HOME|*|'\";&\n|ä|");
}

TEST(PosixTasks, StandardInputIsEmptyWithoutAText) {
  PosixTasks tasks("/");
  const TaskResult result = tasks.launch_task("/bin/cat", {});
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, IsEmpty());
}

TEST(PosixTasks, AFedTextArrivesWholeAndEnds) {
  PosixTasks tasks("/");
  const std::string fed("one\0two\n", 8);
  EXPECT_EQ(tasks.launch_task_with_input("/bin/cat", {}, fed).output, fed);
  EXPECT_EQ(tasks.launch_task_with_input("/bin/cat", {}, "").output, "");
}

TEST(PosixTasks, AMegabyteEachWayAtOnceDoesNotBlock) {
  PosixTasks tasks("/");
  std::string fed;
  while (fed.size() < 3'000'000) fed += std::to_string(fed.size()) + "\n";
  const TaskResult result =
      tasks.launch_task_with_input("/bin/sh", {text("-c"), text("tee /dev/stderr")}, fed);
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.output == fed);
  EXPECT_TRUE(result.errorText == fed);
}

TEST(PosixTasks, AProgramThatLeavesItsInputUnreadAndWritesAMegabyteIsNoProblem) {
  PosixTasks tasks("/");
  const TaskResult result = tasks.launch_task_with_input(
      "/bin/sh", {text("-c"), text("head -c 1048576 /dev/zero; head -c 1048576 /dev/zero >&2")},
      std::string(1048576, 'x'));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output.size(), 1048576U);
  EXPECT_EQ(result.errorText.size(), 1048576U);
}

TEST(PosixTasks, AProgramThatClosesItsInputEarlyEndsNeitherThisProcessNorTheCall) {
  PosixTasks tasks("/");
  const TaskResult result = tasks.launch_task_with_input(
      "/bin/sh", {text("-c"), text("exec 0<&-; head -c 200000 /dev/zero; exit 3")},
      std::string(2'000'000, 'x'));
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output.size(), 200000U);
}

volatile std::sig_atomic_t sigpipesSeen = 0;

TEST(PosixTasks, SigpipeReachesNoHandlerAndTheMaskStaysAsItWas) {
  struct sigaction counting {};
  struct sigaction before {};
  counting.sa_handler = [](int) { sigpipesSeen = sigpipesSeen + 1; };
  ASSERT_EQ(::sigaction(SIGPIPE, &counting, &before), 0);
  PosixTasks tasks("/");
  sigpipesSeen = 0;
  EXPECT_EQ(tasks.launch_task_with_input("/bin/true", {}, std::string(2'000'000, 'x')).status, 0);
  EXPECT_EQ(sigpipesSeen, 0);

  struct sigaction now {};
  ::sigaction(SIGPIPE, nullptr, &now);
  EXPECT_EQ(now.sa_handler, counting.sa_handler);
  sigset_t mask;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(::sigismember(&mask, SIGPIPE), 0);
  ::raise(SIGPIPE);
  EXPECT_EQ(sigpipesSeen, 1) << "SIGPIPE works as before";
  ::sigaction(SIGPIPE, &before, nullptr);
}

TEST(PosixTasks, ASigpipeThatWasPendingBeforeStaysPending) {
  sigset_t sigpipe;
  sigset_t before;
  ::sigemptyset(&sigpipe);
  ::sigaddset(&sigpipe, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
  ::raise(SIGPIPE);
  PosixTasks tasks("/");
  tasks.launch_task_with_input("/bin/true", {}, std::string(2'000'000, 'x'));
  const timespec noWait{};
  EXPECT_EQ(::sigtimedwait(&sigpipe, nullptr, &noWait), SIGPIPE);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(PosixTasks, TheProgramStartsWithNoSignalBlockedOrIgnored) {
  struct sigaction ignoring {};
  struct sigaction before {};
  ignoring.sa_handler = SIG_IGN;
  ::sigaction(SIGHUP, &ignoring, &before);
  sigset_t blocked;
  sigset_t maskBefore;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &maskBefore);
  PosixTasks tasks("/");
  const TaskResult result =
      tasks.launch_task_with_input("/bin/grep", {text("^Sig[BI]"), text("/proc/self/status")}, "unread");
  ::pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);
  ::sigaction(SIGHUP, &before, nullptr);
  // Signals 32 and 33, the upper digits, belong to the C library and cannot be asked for.
  EXPECT_THAT(result.output, MatchesRegex("SigBlk:\t0000000000000000\nSigIgn:\t0000000[01][08]0000000\n"));
}

TEST(PosixTasks, ProgramsOnAnotherRootAreToldOfIt) {
  const ScratchRoot root;
  PosixTasks tasks(root.path() + "/");
  EXPECT_EQ(tasks.launch_task("/usr/bin/env", {}).output,
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLANG=C.UTF-8\nTESSARD_ROOT=" + root.path() + "\n");
}

TEST(PosixTasks, TheEnvironmentHoldsPathAndLanguageAlone) {
  ::setenv("TESSARD_TEST_SECRET", "hidden", 1);
  PosixTasks tasks("/");
  EXPECT_EQ(tasks.launch_task("/usr/bin/env", {}).output,
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLANG=C.UTF-8\n");
  ::unsetenv("TESSARD_TEST_SECRET");
}

TEST(PosixTasks, NoDescriptorOfThisProcessIsInherited) {
  const FileDescriptor inheritable(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(inheritable);
  PosixTasks tasks("/");
  // 3 is the directory that ls itself has open.
  EXPECT_EQ(tasks.launch_task_with_input("/bin/ls", {text("/proc/self/fd")}, "fed").output, "0\n1\n2\n3\n");
}

TEST(PosixTasks, ProgramsRunInTheRootDirectoryInAGroupOfTheirOwn) {
  PosixTasks tasks("/");
  const TaskResult result = shell(tasks, "pwd; set -- $(cat /proc/$$/stat); test $$ = $5 && echo leader");
  EXPECT_EQ(result.output, "/\nleader\n");
}

TEST(PosixTasks, WorksWhileTheStandardDescriptorsOfThisProcessAreClosed) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (const int standard : {0, 1, 2}) ::close(standard);
    PosixTasks tasks("/");
    const TaskResult fed =
        tasks.launch_task_with_input("/bin/sh", {text("-c"), text("cat; echo err >&2")}, "in");
    const TaskResult unfed = tasks.launch_task("/bin/sh", {text("-c"), text("cat; echo out")});
    const bool right = fed.output == "in" && fed.errorText == "err\n" && unfed.output == "out\n";
    ::_exit(right && tasks.ZtRunTask("/bin/true", {}) == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(PosixTasks, NoDescriptorIsLeftOpenByAnyKindOfCall) {
  PosixTasks tasks("/", "/nowhere", 0.05);
  const auto openDescriptors = [] {
    int count = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor)
      count += ::fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    return count;
  };
  const int before = openDescriptors();
  tasks.launch_task_with_input("/bin/true", {}, "x");
  tasks.launch_task("/bin/sleep", {text("1000")});
  tasks.launch_task("/no/such", {});
  tasks.ZtRunTask("/bin/false", {});
  EXPECT_EQ(openDescriptors(), before);
}

TEST(PosixTasks, ASignalThatEndsTheProgramIsItsNumberAbove128) {
  PosixTasks tasks("/");
  EXPECT_EQ(shell(tasks, "kill -SEGV $$").status, 128 + SIGSEGV);
  EXPECT_EQ(shell(tasks, "kill -KILL $$").status, 128 + SIGKILL);
}

TEST(PosixTasks, AProgramThatTakesTooLongIsEndedWithWhatItStarted) {
  PosixTasks tasks("/", "/nowhere", 1.5);
  const TaskResult result = shell(tasks, "echo begun; echo trouble >&2; sleep 1000 & echo $!; wait");
  EXPECT_EQ(result.status, 124);
  ASSERT_THAT(result.output, StartsWith("begun\n"));
  EXPECT_EQ(result.errorText, "trouble\n/bin/sh: ended for taking longer than 1.5 seconds");
  const std::string sleeper = result.output.substr(6, result.output.find('\n', 6) - 6);
  waitUntilGone(sleeper);
  EXPECT_FALSE(isRunning(sleeper));
}

TEST(PosixTasks, ATermThatIsHeededLetsTheProgramSayALastWord) {
  PosixTasks tasks("/", "/nowhere", 1.5);
  const TaskResult result =
      shell(tasks, "trap 'echo bye; exit 0' TERM; echo ready; while :; do sleep 0.01; done");
  EXPECT_EQ(result.status, 124) << "whatever status it chose";
  EXPECT_EQ(result.output, "ready\nbye\n");
}

TEST(PosixTasks, AProgramThatIgnoresTermIsKilled) {
  PosixTasks tasks("/", "/nowhere", 0.2);
  const TaskResult result = shell(tasks, "trap '' TERM; echo $$; while :; do sleep 0.01; done");
  EXPECT_EQ(result.status, 124);
  EXPECT_FALSE(isRunning(result.output.substr(0, result.output.find('\n'))));
}

TEST(PosixTasks, ATimeLimitHoldsForAProgramThatHasClosedItsOutputs) {
  PosixTasks tasks("/", "/nowhere", 0.2);
  const TaskResult result = shell(tasks, "exec >&- 2>&-; exec sleep 1000");
  EXPECT_EQ(result.status, 124);
  EXPECT_EQ(result.output, "");
}

TEST(PosixTasks, TheCallReturnsWithTheProgramAndLeavesWhatItStartedRunning) {
  PosixTasks tasks("/");
  const TaskResult result = shell(tasks, "sleep 1000 & echo $!");
  EXPECT_EQ(result.status, 0);
  const std::string sleeper = result.output.substr(0, result.output.find('\n'));
  EXPECT_TRUE(isRunning(sleeper)) << sleeper;
  ::kill(std::stoi(sleeper), SIGKILL);
}

TEST(PosixTasks, AnOutputThatSomebodyElseGoesOnFillingDoesNotHoldTheCall) {
  PosixTasks tasks("/");
  const TaskResult result = shell(tasks, "cat /dev/zero & echo $! >&2");
  EXPECT_EQ(result.status, 0);
  ::kill(std::stoi(result.errorText), SIGKILL);
}

TEST(PosixTasks, OutputPastTheLimitIsReadAndDropped) {
  PosixTasks tasks("/");
  const TaskResult result =
      shell(tasks, "head -c 20000000 /dev/zero; head -c 20000000 /dev/zero >&2; echo end");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output.size(), std::size_t{16} * 1024 * 1024);
  EXPECT_EQ(result.errorText.size(), std::size_t{16} * 1024 * 1024);
}

TEST(PosixTasks, AMissingProgramIs127WithTheReason) {
  PosixTasks tasks("/", "/nowhere");
  const TaskResult result = tasks.launch_task("/usr/sbin/no-such-program", {});
  EXPECT_EQ(result.status, 127);
  EXPECT_EQ(result.errorText, "/usr/sbin/no-such-program: No such file or directory");
  EXPECT_EQ(tasks.ZtRunTask("/usr/sbin/no-such-program", {}), 127);
}

TEST(PosixTasks, WhoAsksForTheStatusAloneFindsTheReasonInTheLog) {
  RecordingLog log;
  Log& written = log;
  PosixTasks tasks("/", "/nowhere", PosixTasks::kTimeLimitSeconds, &written);
  EXPECT_EQ(tasks.ZtRunTask("/usr/sbin/no-such-program", {}), 127);
  EXPECT_THAT(log.messages(kLogWarning),
              ElementsAre("running \"/usr/sbin/no-such-program\" failed: /usr/sbin/no-such-program: "
                          "No such file or directory"));
  log.clear();
  EXPECT_EQ(tasks.ZtRunTask("/bin/sh", {text("-c"), text("echo to nobody >&2; exit 127")}), 127);
  EXPECT_THAT(log.messages(), IsEmpty()) << "the program says itself what is wrong";
}

TEST(PosixTasks, WhatCannotBeExecutedIs127WithTheReason) {
  const ScratchRoot root;
  root.write("/bin/plain", "text");
  root.setMode("/bin/plain", 0644);
  root.makeDirectory("/bin/folder");
  root.write("/bin/garbage", "neither a script nor a program");
  root.setMode("/bin/garbage", 0755);
  root.write("/bin/orphan", "#!/no/such/interpreter\n");
  root.setMode("/bin/orphan", 0755);
  PosixTasks tasks(root.path(), "/nowhere");
  for (const auto& [program, reason] : {std::pair("/bin/plain", "Permission denied"),
                                        {"/bin/folder", "Permission denied"},
                                        {"/bin/garbage", "Exec format error"},
                                        {"/bin/orphan", "No such file or directory"}}) {
    const TaskResult result = tasks.launch_task_with_input(program, {}, "input");
    EXPECT_EQ(result.status, 127) << program;
    EXPECT_THAT(result.errorText, AllOf(HasSubstr(program), EndsWith(reason)));
    EXPECT_THAT(result.output, IsEmpty());
  }
}

TEST(PosixTasks, RefusesNulBytesAndPathsThatAreNotAbsolute) {
  PosixTasks tasks("/");
  const std::string withNul("/bin/echo\0x", 11);
  EXPECT_EQ(tasks.launch_task(withNul, {}).errorText, "the program's name holds a NUL byte");
  EXPECT_EQ(tasks.launch_task("/bin/echo", {text(withNul)}).errorText,
            "/bin/echo: an argument holds a NUL byte");
  EXPECT_EQ(tasks.launch_task("/bin/echo", {TaskArgument::path(withNul)}).status, 127);
  EXPECT_EQ(tasks.launch_task("echo", {}).errorText, "echo: not an absolute path");
  EXPECT_EQ(tasks.launch_task("", {}).status, 127);
  EXPECT_EQ(tasks.launch_task("/bin/echo", {TaskArgument::path("a/b")}).errorText,
            "a/b: not an absolute path");
}

TEST(PosixTasks, AProgramBelowTheSystemRootComesFirst) {
  const ScratchRoot root;
  const ScratchRoot own;
  writeProgram(root, "/bin/true", "root");
  writeProgram(own, "/true", "own");
  PosixTasks tasks(root.path(), own.path());
  EXPECT_EQ(tasks.launch_task("/bin/true", {}).output, "root\n");
}

TEST(PosixTasks, TheMachinesProgramComesBeforeTheDaemonsOwn) {
  const ScratchRoot root;
  const ScratchRoot own;
  writeProgram(own, "/echo", "own");
  root.write("/bin/echo", "not executable, so passed over");
  root.setMode("/bin/echo", 0644);
  PosixTasks tasks(root.path(), own.path() + "/");
  EXPECT_EQ(tasks.launch_task("/bin/echo", {text("machine")}).output, "machine\n");
}

TEST(PosixTasks, AProgramThatTheMachineLacksIsFoundAmongTheDaemonsOwnByItsLastName) {
  const ScratchRoot root;
  const ScratchRoot own;
  writeProgram(own, "/keywarden-of-test", "own");
  PosixTasks tasks(root.path(), own.path());
  EXPECT_EQ(tasks.launch_task("/usr/sbin/keywarden-of-test", {}).output, "own\n");
}

TEST(PosixTasks, PathArgumentsGetTheSystemRootAndTextsDoNot) {
  const ScratchRoot root;
  root.write("/etc/file", "content below the root");
  PosixTasks tasks(root.path() + "/");
  EXPECT_EQ(tasks.launch_task("/bin/cat", {TaskArgument::path("/etc/file")}).output,
            "content below the root");
  EXPECT_EQ(tasks.launch_task("/bin/echo", {text("/etc/file")}).output, "/etc/file\n");
}

TEST(PosixTasks, DotsInAPathArgumentEndAtTheSystemRoot) {
  const ScratchRoot root;
  PosixTasks tasks(root.path());
  EXPECT_EQ(
      tasks.launch_task("/bin/echo", {TaskArgument::path("/../../etc/../x"), TaskArgument::path("/")}).output,
      root.path() + "/x " + root.path() + "/\n");
}

TEST(PosixTasks, TheRootOfTheMachineAddsNothingToPathArguments) {
  PosixTasks tasks("/");
  EXPECT_EQ(tasks.launch_task("/bin/echo", {TaskArgument::path("/a//b/../c")}).output, "/a//b/../c\n");
}

TEST(PosixTasks, ZtRunTaskGivesTheStatusAloneAndShowsNothing) {
  PosixTasks tasks("/");
  EXPECT_EQ(tasks.ZtRunTask("/bin/sh", {text("-c"), text("exit 42")}), 42);
  const std::string script = "for n in 0 1 2; do test /proc/$$/fd/$n -ef /dev/null || exit 1; done";
  EXPECT_EQ(tasks.ZtRunTask("/bin/sh", {text("-c"), text(script)}), 0);
}

TEST(PosixTasks, AStatusThatWasTakenByTheSystemIsReportedAsUnknown) {
  struct sigaction ignoring {};
  struct sigaction before {};
  ignoring.sa_handler = SIG_IGN;
  ::sigaction(SIGCHLD, &ignoring, &before);
  PosixTasks tasks("/");
  const TaskResult quick = tasks.launch_task("/bin/true", {});
  const TaskResult slower = tasks.launch_task_with_input("/bin/cat", {}, std::string(1'000'000, 'x'));
  ::sigaction(SIGCHLD, &before, nullptr);
  EXPECT_EQ(quick.status, 127);
  EXPECT_EQ(quick.errorText, "/bin/true: its status is not known: No child processes");
  EXPECT_EQ(slower.status, 127);
  EXPECT_EQ(slower.errorText, "/bin/cat: its status is not known: No child processes");
}

TEST(PosixTasks, RunningOutOfDescriptorsIsAFailureToStart) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const FileDescriptor next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  // How many more descriptors there may be decides which of the steps fails.
  for (rlim_t spare = 0; spare < 6; ++spare) {
    rlimit low = before;
    low.rlim_cur = static_cast<rlim_t>(next.get()) + 1 + spare;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    PosixTasks tasks("/");
    const TaskResult result = tasks.launch_task_with_input("/bin/cat", {}, "x");
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(result.status, 127) << spare;
    EXPECT_THAT(result.errorText, HasSubstr("Too many open files"));
  }
  PosixTasks tasks("/");
  EXPECT_EQ(tasks.launch_task("/bin/true", {}).status, 0);
}

}  // namespace
}  // namespace tessard
