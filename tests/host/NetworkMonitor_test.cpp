#include "host/NetworkMonitor.h"

#include <gmock/gmock.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>

#include "host/SettledHost.h"
#include "platform/LinuxHostNames.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/OwnHostName.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::chrono::seconds kPatience{60};

/// The system log as a monitor's thread writes it.
class SafeSyslog : public Syslog {
 public:
  void write(int /*priority*/, const char* /*format*/, const std::string& line) override {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
  }
  std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

/// A monitor with a work slot and with the files of a scratch root. With "/" for its root it watches the
/// files of the machine, and the name and the addresses of the network that it is made in.
class MonitorOfMachine {
 public:
  explicit MonitorOfMachine(TestPlatform& platform, const std::string& root, milliseconds quiet)
      : platform_(platform),
        monitor_(root, quiet, names_, platform.posixFiles, slot_, log_,
                 [this](const NetworkChangeContext& change) { return deliver(change); }) {}
  ~MonitorOfMachine() { end(); }

  void start() {
    const auto started = monitor_.start();
    ASSERT_TRUE(started.ok()) << started.error().description();
  }

  void end() {
    release();
    slot_.stop();
    monitor_.stop();
  }

  /// Keeps the slot busy, so that whatever is changed until `release` is one burst.
  void hold() {
    auto begun = std::make_shared<std::promise<void>>();
    held_ = std::make_shared<std::promise<void>>();
    WorkSlot::Job job;
    job.run = [begun, held = held_] {
      begun->set_value();
      held->get_future().wait();
    };
    job.refuse = [](WorkSlot::Refusal) {};
    slot_.submit(std::move(job));
    begun->get_future().wait();
  }

  void release() {
    if (held_) held_->set_value();
    held_.reset();
  }

  /// The next change that was handed on.
  std::optional<NetworkChangeContext> next() {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, kPatience, [this] { return !changes_.empty(); })) {
      ADD_FAILURE() << "no change was told";
      return std::nullopt;
    }
    auto change = std::move(changes_.front());
    changes_.pop_front();
    return change;
  }

  bool hasMore() {
    const std::lock_guard lock(mutex_);
    return !changes_.empty();
  }

  void refuseNext(int times) {
    const std::lock_guard lock(mutex_);
    refusals_ = times;
  }

  std::vector<std::string> log() const { return syslog_.lines(); }
  WorkSlot& slot() { return slot_; }

 private:
  bool deliver(const NetworkChangeContext& change) {
    const std::lock_guard lock(mutex_);
    changes_.push_back(change);
    arrived_.notify_all();
    return refusals_-- <= 0;
  }

  TestPlatform& platform_;
  SafeSyslog syslog_;
  HostLog log_{syslog_};
  LinuxHostNames names_{platform_.posixFiles};
  WorkSlot slot_{std::chrono::seconds(0), [](int) {}};
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<NetworkChangeContext> changes_;
  int refusals_ = 0;
  std::shared_ptr<std::promise<void>> held_;
  NetworkMonitor monitor_;
};

/// A monitor of a scratch root, to which the machine's own name and addresses mean nothing.
class NetworkMonitorTest : public testing::Test {
 protected:
  void begin(milliseconds quiet = milliseconds(20)) {
    monitor.emplace(platform, platform.root.path(), quiet);
    monitor->start();
  }

  void name(const char* text) const { replace("/etc/hostname", text); }

  /// In one step, so that nobody sees half of it.
  void replace(const std::string& path, const char* text) const {
    platform.root.write(path + ".new", text);
    ASSERT_EQ(::rename(platform.root.hostPath(path + ".new").c_str(), platform.root.hostPath(path).c_str()),
              0);
  }

  void waitUntilChangeWaits() {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (monitor->slot().status().waiting == 0 && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    ASSERT_EQ(monitor->slot().status().waiting, 1U);
  }

  std::string settled() { return readSettledHost(platform.posixFiles).value().value_or("none"); }

  void expectRenamed(const char* before, const char* after) {
    const auto change = monitor->next();
    ASSERT_TRUE(change);
    EXPECT_TRUE(change->hasHostChanged());
    EXPECT_TRUE(change->hasValidNetworkConfiguration());
    EXPECT_FALSE(change->hasAddrChanged());
    EXPECT_EQ(change->oldHost(), before);
    EXPECT_EQ(change->newHost(), after);
  }

  /// All that was told before a further change of the name is told.
  void expectNothingBefore(const char* before, const char* last) {
    name(last);
    expectRenamed(before, last);
    EXPECT_FALSE(monitor->hasMore());
  }

  TestPlatform platform;
  std::optional<MonitorOfMachine> monitor;
};

TEST_F(NetworkMonitorTest, TellsANewNameOnce) {
  name("old.example.com\n");
  begin();
  EXPECT_EQ(settled(), "old.example.com");
  name("new.example.com\n");
  expectRenamed("old.example.com", "new.example.com");
  EXPECT_THAT(monitor->log(), ElementsAre("The network has changed: the host name is now \"new.example.com\" "
                                          "and was \"old.example.com\"."));
  expectNothingBefore("new.example.com", "last.example.com");
  monitor->end();
  EXPECT_EQ(settled(), "last.example.com");
}

TEST_F(NetworkMonitorTest, FollowsTheTableThatCompletesAShortName) {
  name("chat\n");
  platform.root.write("/etc/hosts", "192.0.2.1 chat.example.com chat\n");
  begin();
  replace("/etc/hosts", "192.0.2.1 chat.example.org chat\n");
  expectRenamed("chat.example.com", "chat.example.org");
}

TEST_F(NetworkMonitorTest, TellsTheLastOfManyNamesWhileARequestRuns) {
  name("old.example.com\n");
  begin();
  monitor->hold();
  for (const char* other : {"a.example.com", "b.example.com", "c.example.com"}) name(other);
  monitor->release();
  expectRenamed("old.example.com", "c.example.com");
  expectNothingBefore("c.example.com", "last.example.com");
}

TEST_F(NetworkMonitorTest, TellsNothingWhenEverythingIsAsBefore) {
  name("old.example.com\n");
  begin();
  monitor->hold();
  name("other.example.com\n");
  name("old.example.com\n");
  replace("/etc/hosts", "192.0.2.1 x.example.com\n");
  monitor->release();
  expectNothingBefore("old.example.com", "last.example.com");
}

TEST_F(NetworkMonitorTest, ShowsAmongTheDaemonsWorkWhatItWaitsFor) {
  name("old.example.com\n");
  begin();
  monitor->hold();
  name("new.example.com\n");
  waitUntilChangeWaits();
  EXPECT_FALSE(monitor->hasMore());
  monitor->release();
  expectRenamed("old.example.com", "new.example.com");
}

TEST_F(NetworkMonitorTest, StartsWithoutFilesAndTellsThatANameCame) {
  platform.root.remove("/etc");
  begin();
  EXPECT_EQ(settled(), "none");
  name("first.example.com\n");
  const auto change = monitor->next();
  ASSERT_TRUE(change);
  EXPECT_FALSE(change->hasHostChanged());
  EXPECT_EQ(change->newHost(), "first.example.com");
  EXPECT_EQ(change->oldHost(), std::nullopt);
  platform.root.remove("/etc/hostname");
  const auto lost = monitor->next();
  ASSERT_TRUE(lost);
  EXPECT_FALSE(lost->hasValidNetworkConfiguration());
  EXPECT_EQ(lost->newHost(), std::nullopt);
  expectNothingBefore("first.example.com", "last.example.com");
}

TEST_F(NetworkMonitorTest, KeepsTheSettledNameThroughALocalOne) {
  name("old.example.com\n");
  begin();
  name("chat.local\n");
  expectRenamed("old.example.com", "chat.local");
  name("new.example.com\n");
  expectRenamed("old.example.com", "new.example.com");
  EXPECT_THAT(monitor->log(),
              testing::Contains("The services keep the name \"old.example.com\" until there is "
                                "a name that they can take and an address that others can "
                                "reach."));
  monitor->end();
  EXPECT_EQ(settled(), "new.example.com");
}

TEST_F(NetworkMonitorTest, TellsANameThatCameWhileItDidNotRun) {
  name("old.example.com\n");
  begin();
  monitor.reset();
  name("new.example.com\n");
  begin();
  expectRenamed("old.example.com", "new.example.com");
  monitor.reset();
  EXPECT_EQ(settled(), "new.example.com");
  begin();
  expectNothingBefore("new.example.com", "last.example.com");
}

TEST_F(NetworkMonitorTest, TellsAChangeAgainThatAPlugInCouldNotTake) {
  name("old.example.com\n");
  begin();
  monitor->refuseNext(2);
  name("new.example.com\n");
  expectRenamed("old.example.com", "new.example.com");
  name("new.example.com\n");
  expectRenamed("old.example.com", "new.example.com");
  monitor.reset();
  EXPECT_EQ(settled(), "old.example.com");
  begin();
  expectRenamed("old.example.com", "new.example.com");
}

TEST_F(NetworkMonitorTest, TakesThePresentNameWhereTheRememberedOneCannotBeRead) {
  name("old.example.com\n");
  platform.root.write(kSettledHostFile, "nonsense");
  begin();
  EXPECT_THAT(monitor->log(), ElementsAre(HasSubstr("/var/lib/tessardd/network.plist is not used: ")));
  EXPECT_EQ(settled(), "old.example.com");
  expectNothingBefore("old.example.com", "last.example.com");
}

TEST_F(NetworkMonitorTest, GoesOnWhereTheNameCannotBeRemembered) {
  name("old.example.com\n");
  platform.root.write("/var/lib/tessardd", "in the way");
  begin();
  EXPECT_THAT(monitor->log(), testing::Contains(HasSubstr("The host name cannot be remembered in")));
  expectNothingBefore("old.example.com", "last.example.com");
}

TEST_F(NetworkMonitorTest, EndsAtOnceInTheMiddleOfABurst) {
  name("old.example.com\n");
  begin(std::chrono::hours(1));
  name("new.example.com\n");
  monitor.reset();
  EXPECT_EQ(settled(), "old.example.com") << "so that the next start tells it";
}

TEST_F(NetworkMonitorTest, EndsWhileItsChangeWaitsForARequest) {
  name("old.example.com\n");
  begin();
  monitor->hold();
  name("new.example.com\n");
  waitUntilChangeWaits();
  monitor->end();
  EXPECT_EQ(settled(), monitor->hasMore() ? "new.example.com" : "old.example.com");
}

/// A monitor of a machine with a name and addresses of its own; its files are those of a scratch root.
class NetworkMonitorOfAMachine : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
    network.emplace();
    stay.emplace(*network);
    name.emplace();
    name->set("old.example.com");
    ip("addr add 192.0.2.1/24 dev lo");
    monitor.emplace(platform, "/", milliseconds(20));
    monitor->start();
  }

  void ip(const std::string& words) const { network->shell("ip " + words); }

  static Array addressesOf(const NetworkChangeContext& change, const char* when) {
    const Dictionary* addresses = change.changeInfo().dictionaryFor("addresses");
    return addresses && addresses->arrayFor(when) ? *addresses->arrayFor(when) : Array{};
  }

  TestPlatform platform;
  std::optional<NetworkNamespace> network;
  std::optional<NetworkNamespace::Stay> stay;
  std::optional<OwnHostName> name;
  std::optional<MonitorOfMachine> monitor;
};

TEST_F(NetworkMonitorOfAMachine, TellsABurstOfAddressesOnce) {
  monitor->hold();
  std::string lines = "addr del 192.0.2.1/24 dev lo\n";
  for (int number = 1; number <= 50; ++number) {
    lines += "addr add 198.51.100." + std::to_string(number) + "/24 dev lo\n";
  }
  lines += "addr flush dev lo\naddr add 203.0.113.1/24 dev lo\naddr add 2001:db8::1/64 dev lo\n";
  ip("-batch - <<'END'\n" + lines + "END\n");
  monitor->release();
  const auto change = monitor->next();
  ASSERT_TRUE(change);
  EXPECT_TRUE(change->hasAddrChanged());
  EXPECT_FALSE(change->hasHostChanged());
  EXPECT_TRUE(change->hasValidNetworkConfiguration());
  EXPECT_EQ(change->newHost(), "old.example.com");
  EXPECT_EQ(addressesOf(*change, "old"), Array{"192.0.2.1"});
  EXPECT_EQ(addressesOf(*change, "new"), (Array{"2001:db8::1", "203.0.113.1"}));

  ip("addr add 192.0.2.9/24 dev lo");
  const auto last = monitor->next();
  ASSERT_TRUE(last);
  EXPECT_EQ(addressesOf(*last, "old"), (Array{"2001:db8::1", "203.0.113.1"})) << "nothing in between";
  EXPECT_EQ(addressesOf(*last, "new"), (Array{"192.0.2.9", "2001:db8::1", "203.0.113.1"}));
  EXPECT_FALSE(monitor->hasMore());
}

TEST_F(NetworkMonitorOfAMachine, TellsTheNewNameOfTheRunningSystem) {
  name->set("new.example.com");
  const auto change = monitor->next();
  ASSERT_TRUE(change);
  EXPECT_TRUE(change->hasHostChanged());
  EXPECT_TRUE(change->hasValidNetworkConfiguration());
  EXPECT_EQ(change->oldHost(), "old.example.com");
  EXPECT_EQ(change->newHost(), "new.example.com");
  monitor->end();
  EXPECT_EQ(readSettledHost(platform.posixFiles).value(), "new.example.com");
}

TEST_F(NetworkMonitorOfAMachine, HoldsANewNameBackUntilThereIsAUsableAddress) {
  ip("addr flush dev lo");
  const auto without = monitor->next();
  ASSERT_TRUE(without);
  EXPECT_TRUE(without->hasAddrChanged());
  EXPECT_FALSE(without->hasValidNetworkConfiguration());

  ip("addr add 169.254.1.1/16 dev lo");
  const auto selfAssigned = monitor->next();
  ASSERT_TRUE(selfAssigned);
  EXPECT_TRUE(selfAssigned->isNewAddressSelfAssigned());
  EXPECT_TRUE(selfAssigned->hasValidNetworkConfiguration());

  name->set("new.example.com");
  const auto renamed = monitor->next();
  ASSERT_TRUE(renamed);
  EXPECT_TRUE(renamed->hasHostChanged());
  EXPECT_FALSE(renamed->hasValidNetworkConfiguration());

  ip("addr add 192.0.2.2/24 dev lo");
  const auto usable = monitor->next();
  ASSERT_TRUE(usable);
  EXPECT_TRUE(usable->hasHostChanged() && usable->hasAddrChanged());
  EXPECT_TRUE(usable->hasValidNetworkConfiguration());
  EXPECT_FALSE(usable->isNewAddressSelfAssigned());
  EXPECT_EQ(usable->oldHost(), "old.example.com");
  EXPECT_EQ(usable->newHost(), "new.example.com");
}

}  // namespace
}  // namespace tessard
