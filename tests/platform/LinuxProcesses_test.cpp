#include "platform/LinuxProcesses.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

// A real process of this machine: started with a program and an argument 0, ended with the object.
class Child {
 public:
  explicit Child(const std::string& program = "/bin/sleep", std::string argumentZero = "/bin/sleep") {
    std::array<int, 2> started{};
    if (::pipe2(started.data(), O_CLOEXEC) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      std::string span = "1000";
      std::array<char*, 3> arguments{argumentZero.data(), span.data(), nullptr};
      ::execv(program.c_str(), arguments.data());
      ::_exit(127);
    }
    ::close(started[1]);
    char byte = 0;
    // Ends when the program has replaced this one, which closes its copy of the pipe.
    while (::read(started[0], &byte, 1) < 0 && errno == EINTR) {
    }
    ::close(started[0]);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    end();
    ::waitpid(pid_, nullptr, 0);
  }

  // Leaves a zombie.
  void end() const {
    ::kill(pid_, SIGKILL);
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

class LinuxProcessesTest : public testing::Test {
 protected:
  TestPlatform test;
  LinuxProcesses processes{test.files};

  pid_t pidIn(std::string_view content) {
    test.root.write("/var/run/x.pid", content);
    return processes.pid_from_file("/var/run/x.pid");
  }

  // Of a pid file whose name the processes here go by: "test_..." is this one, "sleep" its children.
  int stateOf(const std::string& content, const std::string& name = "sleep.pid") {
    test.root.write("/var/run/" + name, content);
    return processes.get_service_state_from_pid_file("/var/run/" + name);
  }

  std::int32_t count(LinuxProcesses& from, std::string_view name) {
    std::int32_t found = -7;
    EXPECT_EQ(from.ec_is_daemon_running(name, found), 0);
    return found;
  }

  // A /proc of the test's own for what a real one shows too seldom.
  void fakeProcess(const std::string& pid, const std::string& name, std::string_view commandLine,
                   const std::string& state = "S") {
    const std::string directory = "/proc/" + pid;
    test.root.write(directory + "/comm", name + "\n");
    test.root.write(directory + "/cmdline", commandLine);
    test.root.write(directory + "/status", "Name:\t" + name + "\nState:\t" + state + " (x)\nTgid:\t" + pid +
                                               "\nPid:\t" + pid + "\n");
  }
};

TEST_F(LinuxProcessesTest, APidFileHoldsDigitsAndPerhapsALineEnd) {
  EXPECT_EQ(pidIn("4711"), 4711);
  EXPECT_EQ(pidIn("4711\n"), 4711);
  EXPECT_EQ(pidIn("2147483647"), 2147483647);
}

TEST_F(LinuxProcessesTest, APidFileThatHoldsAnythingElseNamesNoProcess) {
  for (const char* content : {"", "\n", " 4711", "4711 ", "4711\n\n", "4711\nx", "-4711", "+4711", "0x12",
                              "12.5", "abc", "0", "2147483648", "99999999999999999999"}) {
    EXPECT_EQ(pidIn(content), 0) << content;
  }
  EXPECT_EQ(pidIn(std::string_view("47\0", 3)), 0);
  EXPECT_EQ(pidIn(std::string(1000, '1')), 0);
}

TEST_F(LinuxProcessesTest, AMissingOrUnreadablePidFileNamesNoProcess) {
  EXPECT_EQ(processes.pid_from_file("/var/run/none.pid"), 0);
  test.root.makeDirectory("/var/run/folder.pid");
  EXPECT_EQ(processes.pid_from_file("/var/run/folder.pid"), 0);
  test.root.write("/var/run/test.pid", std::to_string(::getpid()));
  test.files.failAll("readFile", EACCES);
  EXPECT_EQ(processes.pid_from_file("/var/run/test.pid"), 0);
  EXPECT_EQ(processes.get_service_state_from_pid_file("/var/run/test.pid"), 0);
}

TEST_F(LinuxProcessesTest, ALiveProcessIsRunningAndAZombieIsNot) {
  const Child child;
  EXPECT_EQ(stateOf(std::to_string(child.pid())), 1);
  child.end();
  EXPECT_EQ(stateOf(std::to_string(child.pid())), 0);
}

TEST_F(LinuxProcessesTest, AProcessThatIsGoneIsNotRunning) {
  pid_t gone = 0;
  {
    const Child child;
    gone = child.pid();
  }
  EXPECT_EQ(stateOf(std::to_string(gone)), 0);
  EXPECT_EQ(stateOf("0"), 0);
  EXPECT_EQ(stateOf("text"), 0);
}

TEST_F(LinuxProcessesTest, APidThatIsAnotherProgramsByNowIsNotRunning) {
  const Child child;
  const std::string pid = std::to_string(child.pid());
  EXPECT_EQ(stateOf(pid, "router.pid"), 0);
  EXPECT_EQ(stateOf(pid, "sleepless.pid"), 0);
  EXPECT_EQ(stateOf(pid, "sleep_one.example.pid"), 1);
  EXPECT_EQ(stateOf(pid, "lee.pid"), 1);
}

TEST_F(LinuxProcessesTest, TheProgramOfAPidFileIsKnownByItsArgumentZeroToo) {
  const Child child("/bin/sleep", "/usr/libexec/jabberd2-router");
  EXPECT_EQ(stateOf(std::to_string(child.pid()), "router.pid"), 1);
  EXPECT_EQ(stateOf(std::to_string(child.pid()), "usr.pid"), 0);
}

TEST_F(LinuxProcessesTest, TheIdOfAThreadNamesNoProcess) {
  std::atomic<pid_t> thread = 0;
  std::atomic<bool> done = false;
  std::thread other([&] {
    thread = ::gettid();
    thread.notify_one();
    done.wait(false);
  });
  thread.wait(0);
  EXPECT_EQ(stateOf(std::to_string(thread), "test.pid"), 0);
  EXPECT_EQ(stateOf(std::to_string(::getpid()), "test.pid"), 1);
  done = true;
  done.notify_one();
  other.join();
}

TEST_F(LinuxProcessesTest, ProcessesAreCountedByTheKernelsNameAndByArgumentZero) {
  const std::string name = "tsd-" + std::to_string(::getpid() % 100000);  // no other process goes by it
  const std::string longName = "tessard-process-" + std::to_string(::getpid());
  test.root.makeDirectory("/bin");
  std::filesystem::copy_file("/bin/sleep", test.root.hostPath("/bin/" + name));
  EXPECT_EQ(count(processes, name), 0);
  {
    const Child byKernelName(test.root.hostPath("/bin/" + name), "something else");
    const Child byArgument("/bin/sleep", "/usr/bin/" + name);
    const Child byBoth(test.root.hostPath("/bin/" + name), name);
    const Child longer("/bin/sleep", "/opt/" + longName);
    EXPECT_EQ(count(processes, name), 3);
    EXPECT_EQ(count(processes, longName), 1) << "longer than the kernel's name can be";
    byArgument.end();
    EXPECT_EQ(count(processes, name), 2) << "a zombie does not count";
  }
  EXPECT_EQ(count(processes, name), 0);
}

TEST_F(LinuxProcessesTest, OnlyWholeNamesCount) {
  fakeProcess("10", "router", std::string("/usr/sbin/router\0-c\0router.xml\0", 31));
  fakeProcess("11", "router2", std::string("router2\0", 8));
  fakeProcess("12", "sh", std::string("/bin/sh\0/usr/sbin/router\0", 25));
  fakeProcess("13", "kthread", "");
  fakeProcess("14", "router", "", "Z");
  test.root.write("/proc/uptime", "1 2\n");
  test.root.makeDirectory("/proc/99x");
  test.root.makeDirectory("/proc/15");  // ended since the directory was listed
  LinuxProcesses fake(test.files, test.root.hostPath("/proc"));
  EXPECT_EQ(count(fake, "router"), 1);
  EXPECT_EQ(count(fake, "kthread"), 1);
  EXPECT_EQ(count(fake, "rout"), 0);
  EXPECT_EQ(count(fake, "/usr/sbin/router"), 0);
  EXPECT_EQ(count(fake, ""), 0);
}

TEST_F(LinuxProcessesTest, WhenProcessesCannotBeListedItSaysSoAndLeavesTheCount) {
  LinuxProcesses without(test.files, test.root.hostPath("/none"));
  std::int32_t found = 5;
  errno = 0;
  EXPECT_LT(without.ec_is_daemon_running("router", found), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(found, 5);
}

TEST_F(LinuxProcessesTest, TheStartTimeOfAProcessIsWhenItWasStarted) {
  const std::int64_t before = std::time(nullptr);
  const Child child("/bin/sleep", "sleep");
  const std::int64_t afterwards = std::time(nullptr);
  // The machine's boot time is in whole seconds, and the clock may have been set since.
  EXPECT_GE(processes.start_time_in_seconds(child.pid()), before - 2);
  EXPECT_LE(processes.start_time_in_seconds(child.pid()), afterwards + 2);
}

TEST_F(LinuxProcessesTest, ANameWithBlanksAndParenthesesDoesNotMisleadTheStartTime) {
  const std::int64_t started = processes.start_time_in_seconds(::getpid());
  std::array<char, 16> name{};
  ::prctl(PR_GET_NAME, name.data());
  ::prctl(PR_SET_NAME, "a) R 1 (2 ) 3");
  EXPECT_EQ(processes.start_time_in_seconds(::getpid()), started);
  ::prctl(PR_SET_NAME, name.data());
  EXPECT_GT(started, 1'500'000'000);
}

TEST_F(LinuxProcessesTest, TheStartTimeIsTheTwentySecondFieldInTicksAfterBoot) {
  const long ticks = ::sysconf(_SC_CLK_TCK);
  test.root.write("/proc/stat", "cpu  1 2 3\nbtime 1795226427\nprocesses 7\n");
  test.root.write("/proc/10/stat", "10 (x (y) z) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 " +
                                       std::to_string(90 * ticks + 1) + " 23 24\n");
  LinuxProcesses fake(test.files, test.root.hostPath("/proc"));
  EXPECT_EQ(fake.start_time_in_seconds(10), 1795226427 + 90);
}

TEST_F(LinuxProcessesTest, WithoutAProcessOrASensibleAnswerTheStartTimeIs0) {
  EXPECT_EQ(processes.start_time_in_seconds(0), 0);
  EXPECT_EQ(processes.start_time_in_seconds(-1), 0);
  EXPECT_EQ(processes.start_time_in_seconds(2147483647), 0);

  LinuxProcesses fake(test.files, test.root.hostPath("/proc"));
  test.root.write("/proc/10/stat", "10 (x) S 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 500 23\n");
  EXPECT_EQ(fake.start_time_in_seconds(10), 0) << "no boot time";
  test.root.write("/proc/stat", "btime soon\n");
  EXPECT_EQ(fake.start_time_in_seconds(10), 0);
  test.root.write("/proc/stat", "btime 1795226427\n");
  EXPECT_NE(fake.start_time_in_seconds(10), 0);
  for (const char* broken : {"", "10 (x S 4 5", "10 (x) S 4 5 6", "10 (x) "}) {
    test.root.write("/proc/10/stat", broken);
    EXPECT_EQ(fake.start_time_in_seconds(10), 0) << broken;
  }
}

}  // namespace
}  // namespace tessard
