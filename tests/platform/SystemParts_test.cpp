#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <string_view>

#include "platform/SystemClock.h"
#include "platform/SystemRandom.h"
#include "platform/SystemSyslog.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

std::int64_t nanoseconds(FileTime time) {
  return time.seconds * 1'000'000'000 + time.nanoseconds;
}

TEST(SystemClock, AFileThatIsWrittenAfterNowWasAskedIsNeverOlder) {
  SystemClock clock;
  const ScratchRoot root;
  for (int i = 0; i < 40; ++i) {
    const std::int64_t before = nanoseconds(clock.now());
    root.write("/file", std::to_string(i));
    ASSERT_LE(before, nanoseconds(root.modified("/file")));
  }
}

TEST(SystemClock, NowIsTheMachinesTimeOfATickAgoAtMost) {
  SystemClock clock;
  timespec before{};
  ::clock_gettime(CLOCK_REALTIME_COARSE, &before);
  const std::int64_t now = nanoseconds(clock.now());
  timespec afterwards{};
  ::clock_gettime(CLOCK_REALTIME, &afterwards);
  EXPECT_LE(nanoseconds({before.tv_sec, before.tv_nsec}), now);
  EXPECT_LE(now, nanoseconds({afterwards.tv_sec, afterwards.tv_nsec}));
}

TEST(SystemClock, ASleepLastsAtLeastItsLengthOnTheMonotonicClock) {
  SystemClock clock;
  const double before = clock.monotonicSeconds();
  clock.sleepMicroseconds(20'000);
  EXPECT_GE(clock.monotonicSeconds() - before, 0.02);
  clock.sleepMicroseconds(0);
}

volatile std::sig_atomic_t alarms = 0;

TEST(SystemClock, SignalsDoNotShortenASleep) {
  struct sigaction counting {};
  struct sigaction actionBefore {};
  counting.sa_handler = [](int) { alarms = alarms + 1; };
  ::sigaction(SIGALRM, &counting, &actionBefore);
  const itimerval every5Milliseconds{{0, 5000}, {0, 5000}};
  ::setitimer(ITIMER_REAL, &every5Milliseconds, nullptr);
  SystemClock clock;
  const double before = clock.monotonicSeconds();
  clock.sleepMicroseconds(60'000);
  const double slept = clock.monotonicSeconds() - before;
  const itimerval never{};
  ::setitimer(ITIMER_REAL, &never, nullptr);
  ::sigaction(SIGALRM, &actionBefore, nullptr);
  EXPECT_GE(slept, 0.06);
  EXPECT_GT(alarms, 0);
}

TEST(SystemRandom, NumbersAreSpreadOverAll32Bits) {
  SystemRandom random;
  std::set<std::uint32_t> seen;
  std::uint32_t ones = 0;
  std::uint32_t zeros = 0;
  for (int i = 0; i < 64; ++i) {
    const std::uint32_t number = random.arc4random();
    seen.insert(number);
    ones |= number;
    zeros |= ~number;
  }
  EXPECT_GT(seen.size(), 60U);
  EXPECT_EQ(ones, 0xFFFFFFFFU) << "each bit was 1 once";
  EXPECT_EQ(zeros, 0xFFFFFFFFU) << "each bit was 0 once";
}

TEST(SystemRandom, GivesAsManyBytesOfTheDeviceAsWereAskedFor) {
  SystemRandom random;
  const auto first = random.readDevRandom(64);
  const auto second = random.readDevRandom(64);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->size(), 64U);
  EXPECT_NE(*first, *second);
  EXPECT_EQ(random.readDevRandom(0), "");
}

// A system log's socket in a mount namespace of its own, for a child. Below 0 an exit status: 77 when this
// user may not make the namespace.
int makeNamespace() {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
    return -77;
  }
  ::closelog();
  ::openlog("test", 0, LOG_DAEMON);
  return 0;
}

int listenAsSystemLog() {
  const int log = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");  // NOLINT(clang-analyzer-security.insecureAPI.strcpy): a literal
  return ::bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? log : -2;
}

// The exit status: 0 when what the system log receives is as expected.
int logAndReceive(std::string_view expectedStart, std::string_view expectedEnd) {
  if (const int failed = makeNamespace(); failed < 0) return -failed;
  const int log = listenAsSystemLog();
  if (log < 0) return -log;
  SystemSyslog syslog;
  syslog.write(13, "%s", "tessard_notification[E]: 100% of %s and %n");
  std::array<char, 512> line{};
  const ssize_t length = ::recv(log, line.data(), line.size(), MSG_DONTWAIT);
  if (length < 0) return 3;
  const std::string_view received(line.data(), static_cast<std::size_t>(length));
  return received.starts_with(expectedStart) && received.ends_with(expectedEnd) ? 0 : 4;
}

// A log that comes to listen late gets the lines from then on.
int logBeforeAndAfterSomebodyListens() {
  if (const int failed = makeNamespace(); failed < 0) return -failed;
  SystemSyslog syslog;
  syslog.write(13, "%s", "lost");
  const int log = listenAsSystemLog();
  if (log < 0) return -log;
  std::array<char, 512> line{};
  ssize_t length = -1;
  ::alarm(60);
  while (length < 0) {
    syslog.write(13, "%s", "heard");
    length = ::recv(log, line.data(), line.size(), MSG_DONTWAIT);
  }
  return std::string_view(line.data(), static_cast<std::size_t>(length)).ends_with(" test: heard") ? 0 : 4;
}

void expectInChild(const std::function<int()>& work) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(work());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs the right to make a mount namespace";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(SystemSyslog, ALineArrivesAsItIsWithItsPriority) {
  expectInChild([] { return logAndReceive("<13>", " test: tessard_notification[E]: 100% of %s and %n"); });
}

TEST(SystemSyslog, IsFoundWhenItComesToListenLater) {
  expectInChild(logBeforeAndAfterSomebodyListens);
}

}  // namespace
}  // namespace tessard
