#include "atoms/HostObjects.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/FakeClock.h"
#include "tests/support/FakeNetwork.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HostObjectsTest : public testing::Test {
 protected:
  FakeNetwork network;
  FakeClock clock;
  HostObjects hosts{network, clock};

  bool same(std::string_view a, std::string_view b) { return hosts.isSame(hosts.hostWithName(a), b); }
  std::vector<std::string> asked() const {
    std::vector<std::string> names;
    for (const auto& lookup : network.lookups) names.push_back(lookup.host);
    return names;
  }
};

TEST_F(HostObjectsTest, HostsThatShareAnAddressAreTheSame) {
  network.addresses = {{"a", {"10.0.0.1", "fe80::1"}}, {"b", {"10.0.0.2", "fe80::1"}}, {"c", {"10.0.0.3"}}};
  EXPECT_TRUE(same("a", "b"));
  EXPECT_TRUE(same("b", "a"));
  EXPECT_FALSE(same("a", "c"));
}

TEST_F(HostObjectsTest, UnresolvedHostsAreTheSameByName) {
  EXPECT_TRUE(same("gone.example.com", "gone.example.com"));
  EXPECT_FALSE(same("gone.example.com", "lost.example.com"));
}

TEST_F(HostObjectsTest, CaseIsNoPartOfAName) {
  EXPECT_TRUE(same("Gone.Example.com", "gone.example.COM"));
  network.addresses = {{"a", {"10.0.0.1"}}, {"b", {"10.0.0.1"}}};
  EXPECT_TRUE(same("A", "B"));
}

TEST_F(HostObjectsTest, AResolvedAndAnUnresolvedHostAreTwo) {
  network.addresses = {{"a", {"10.0.0.1"}}};
  EXPECT_FALSE(same("a", "gone"));
  EXPECT_FALSE(same("gone", "a"));
}

TEST_F(HostObjectsTest, EveryNameIsLookedUpOnceAtMost) {
  network.addresses = {{"a", {"10.0.0.1"}}, {"b", {"10.0.0.1"}}};
  for (int i = 0; i < 3; ++i) {
    same("a", "b");
    same("a", "gone");
    same("a", "a");
  }
  EXPECT_THAT(asked(), ElementsAre("a", "b", "gone"));
}

TEST_F(HostObjectsTest, WithAnUnresolvedHostNoOtherIsLookedUp) {
  same("gone", "b");
  same("gone", "c");
  EXPECT_THAT(asked(), ElementsAre("gone"));
}

TEST_F(HostObjectsTest, ThisMachineIsAlsoReachedOverLoopback) {
  network.addresses = {{"localhost", {"127.0.0.1"}}, {"six", {"::1"}}, {"10.0.0.1", {"10.0.0.1"}}};
  const HostObject current = hosts.currentHostWithName("Chat.example.com");
  EXPECT_EQ(current.name, "chat.example.com");
  EXPECT_TRUE(hosts.isSame(current, "localhost"));
  EXPECT_TRUE(hosts.isSame(current, "six"));
  EXPECT_TRUE(hosts.isSame(current, "chat.example.com"));
  EXPECT_FALSE(hosts.isSame(current, "10.0.0.1"));
}

TEST_F(HostObjectsTest, ALookupMayTakeFiveSecondsAndAllTogetherTwenty) {
  hosts.hostWithName("a");
  clock.advance(17);
  hosts.hostWithName("b");
  EXPECT_FALSE(hosts.ranOutOfTime());
  clock.advance(3);
  hosts.hostWithName("a");
  EXPECT_FALSE(hosts.ranOutOfTime());
  EXPECT_THAT(hosts.hostWithName("c").addresses, IsEmpty());
  EXPECT_TRUE(hosts.ranOutOfTime());
  EXPECT_THAT(network.lookups, ElementsAre(FakeNetwork::Lookup{"a", 5}, FakeNetwork::Lookup{"b", 3}));
}

}  // namespace
}  // namespace tessard
