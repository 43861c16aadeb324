#include "platform/network/HostLookup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

using Addresses = std::vector<std::string>;

constexpr double kLong = 600;

// A resolver that answers when it is told to; may outlive the test as the lookup's threads do.
class Gate {
 public:
  Addresses resolve(const std::string& host) {
    std::unique_lock lock(mutex_);
    ++asked_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    ++answered_;
    changed_.notify_all();
    return {host};
  }

  void open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

  void awaitAnswered(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return answered_ == count; });
  }

  int asked() {
    const std::lock_guard lock(mutex_);
    return asked_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
  int asked_ = 0;
  int answered_ = 0;
};

TEST(HostLookup, HandsOnWhatTheResolverSaysInItsOrder) {
  HostLookup lookup([](const std::string& host) { return Addresses{"192.0.2.2", "192.0.2.1", host}; });
  EXPECT_THAT(lookup.addressesOf("chat.example.com", kLong),
              Optional(ElementsAre("192.0.2.2", "192.0.2.1", "chat.example.com")));
}

TEST(HostLookup, AResolverThatHangsHoldsNobodyBeyondTheTime) {
  const auto gate = std::make_shared<Gate>();
  HostLookup lookup([gate](const std::string& host) { return gate->resolve(host); });
  EXPECT_EQ(lookup.addressesOf("chat.example.com", 0.05), std::nullopt);
  EXPECT_EQ(lookup.addressesOf("chat.example.com", 0), std::nullopt);
  EXPECT_EQ(lookup.addressesOf("chat.example.com", -3), std::nullopt);
  gate->open();
}

TEST(HostLookup, HangingQuestionsDoNotPileUpAndTheirPlacesComeBack) {
  const auto gate = std::make_shared<Gate>();
  HostLookup lookup([gate](const std::string& host) { return gate->resolve(host); });
  for (int i = 0; i < HostLookup::kAtATime + 5; ++i) {
    EXPECT_EQ(lookup.addressesOf("a.example.com", 0.01), std::nullopt);
  }
  EXPECT_LE(gate->asked(), HostLookup::kAtATime);
  gate->open();
  EXPECT_THAT(lookup.addressesOf("b.example.com", kLong), Optional(ElementsAre("b.example.com")));
  gate->awaitAnswered(HostLookup::kAtATime + 1);
}

TEST(HostLookup, AnAnswerThatComesTooLateDisturbsNothingEvenAfterTheEnd) {
  const auto gate = std::make_shared<Gate>();
  {
    HostLookup lookup([gate](const std::string& host) { return gate->resolve(host); });
    EXPECT_EQ(lookup.addressesOf("a.example.com", 0.01), std::nullopt);
  }
  gate->open();
  gate->awaitAnswered(1);
}

TEST(HostLookup, AResolverWithoutMemoryHasNoAddresses) {
  HostLookup lookup([](const std::string&) -> Addresses { throw std::bad_alloc(); });
  EXPECT_THAT(lookup.addressesOf("a.example.com", kLong), Optional(IsEmpty()));
}

TEST(MachineResolver, NumericHostsAreTheirOwnAddressesEachOnce) {
  EXPECT_THAT(resolveHost("192.0.2.7"), ElementsAre("192.0.2.7"));
  EXPECT_THAT(resolveHost("2001:DB8:0:0::0007"), ElementsAre("2001:db8::7"));
}

TEST(MachineResolver, TheLoopbackIsKnownByItsName) {
  const Addresses addresses = resolveHost("localhost");
  EXPECT_THAT(addresses, Contains("127.0.0.1"));
  EXPECT_EQ(std::set<std::string>(addresses.begin(), addresses.end()).size(), addresses.size());
}

TEST(MachineResolver, NoNameAndANameWithANulHaveNoAddress) {
  EXPECT_THAT(resolveHost(""), IsEmpty());
  EXPECT_THAT(resolveHost(std::string("192.0.2.1\0x", 11)), IsEmpty());
}

}  // namespace
}  // namespace tessard
