#include "host/NetworkChange.h"

#include <gmock/gmock.h>

namespace tessard {
namespace {

using Name = std::optional<std::string>;

constexpr const char* kOld = "old.example.com";
constexpr const char* kNew = "new.example.com";
const HostAddresses kOne{{"192.0.2.1"}, {}};
const HostAddresses kTwo{{"192.0.2.1", "2001:db8::1"}, {"fe80::1"}};
const HostAddresses kSelfAssigned{{}, {"169.254.1.1"}};
const HostAddresses kLinkLocal{{}, {"fe80::1"}};
const HostAddresses kNone{};

/// A machine whose name is settled and whose network has not changed since.
NetworkRecord settled(const Name& host, const std::optional<HostAddresses>& addresses) {
  return {host, {host, addresses}};
}

/// The flags of a change, by their letters: h host, a address, v valid, s self-assigned; "none" for no
/// change.
std::string flagsOf(const NetworkRecord& before, const NetworkSnapshot& now) {
  const auto change = networkChange(before, now);
  if (!change) return "none";
  return std::string(change->hasHostChanged() ? "h" : "") + (change->hasAddrChanged() ? "a" : "") +
         (change->hasValidNetworkConfiguration() ? "v" : "") +
         (change->isNewAddressSelfAssigned() ? "s" : "");
}

Name settledAfter(const NetworkRecord& before, const NetworkSnapshot& now) {
  const auto after = recordAfter(before, now);
  EXPECT_EQ(after.seen.host, now.host);
  EXPECT_EQ(after.seen.addresses, now.addresses);
  EXPECT_EQ(flagsOf(after, now), "none") << "what was told once is told again";
  return after.settledHost;
}

TEST(NetworkChange, IsAbsentWhenNothingIsAnother) {
  EXPECT_EQ(flagsOf(settled(kOld, kTwo), {kOld, kTwo}), "none");
  EXPECT_EQ(flagsOf(settled(std::nullopt, kNone), {std::nullopt, kNone}), "none");
  EXPECT_EQ(flagsOf(settled(kOld, std::nullopt), {kOld, std::nullopt}), "none");
}

TEST(NetworkChange, OfTheNameCarriesBothNames) {
  const auto change = networkChange(settled(kOld, kOne), {kNew, kOne});
  ASSERT_TRUE(change);
  EXPECT_TRUE(change->hasHostChanged());
  EXPECT_FALSE(change->hasAddrChanged());
  EXPECT_TRUE(change->hasValidNetworkConfiguration());
  EXPECT_FALSE(change->isNewAddressSelfAssigned());
  EXPECT_EQ(change->oldHost(), kOld);
  EXPECT_EQ(change->newHost(), kNew);
  EXPECT_EQ(change->changeInfo(), (Dictionary{{"hostName", Dictionary{{"old", kOld}, {"new", kNew}}}}));
  EXPECT_EQ(settledAfter(settled(kOld, kOne), {kNew, kOne}), kNew);
}

TEST(NetworkChange, OfAddressesCarriesTheNameThatStays) {
  const auto change = networkChange(settled(kOld, kOne), {kOld, kTwo});
  ASSERT_TRUE(change);
  EXPECT_FALSE(change->hasHostChanged());
  EXPECT_TRUE(change->hasAddrChanged());
  EXPECT_TRUE(change->hasValidNetworkConfiguration());
  EXPECT_FALSE(change->isNewAddressSelfAssigned());
  EXPECT_EQ(change->oldHost(), kOld);
  EXPECT_EQ(change->newHost(), kOld);
  EXPECT_EQ(change->changeInfo(),
            (Dictionary{{"addresses", Dictionary{{"old", Array{"192.0.2.1"}},
                                                 {"new", Array{"192.0.2.1", "2001:db8::1"}}}}}));
  EXPECT_EQ(settledAfter(settled(kOld, kOne), {kOld, kTwo}), kOld);
}

TEST(NetworkChange, OfBothIsOneChange) {
  const auto change = networkChange(settled(kOld, kOne), {kNew, kTwo});
  ASSERT_TRUE(change);
  EXPECT_EQ(flagsOf(settled(kOld, kOne), {kNew, kTwo}), "hav");
  ASSERT_EQ(change->changeInfo().size(), 2U);
  EXPECT_EQ(change->changeInfo().begin()->key, "hostName");
  EXPECT_EQ(std::next(change->changeInfo().begin())->key, "addresses");
}

TEST(NetworkChange, IsNoneForANameInAnotherCase) {
  EXPECT_EQ(flagsOf(settled("Chat.Example.com", kOne), {"chat.example.COM", kOne}), "none");
}

TEST(NetworkChange, ToALocalNameIsToldAndNotSettled) {
  const NetworkSnapshot local{"chat.local", kOne};
  EXPECT_EQ(flagsOf(settled(kOld, kOne), local), "hv");
  EXPECT_EQ(settledAfter(settled(kOld, kOne), local), kOld);

  const NetworkRecord after = recordAfter(settled(kOld, kOne), local);
  EXPECT_EQ(flagsOf(after, {kOld, kOne}), "v") << "back to the name that the services have kept";
  const auto further = networkChange(after, {kNew, kOne});
  ASSERT_TRUE(further);
  EXPECT_TRUE(further->hasHostChanged());
  EXPECT_EQ(further->oldHost(), kOld);
  EXPECT_EQ(further->newHost(), kNew);
  EXPECT_EQ(settledAfter(after, {kNew, kOne}), kNew);
}

TEST(NetworkChange, FromALocalNameThatWasTheFirstOneIsFollowed) {
  const NetworkRecord before = recordAfter({}, {"chat.local", kOne});
  EXPECT_EQ(before.settledHost, "chat.local");
  EXPECT_EQ(flagsOf(before, {kNew, kOne}), "hv");
}

TEST(NetworkChange, ToSelfAssignedAddressesIsTold) {
  EXPECT_EQ(flagsOf(settled(kOld, kOne), {kOld, kSelfAssigned}), "avs");
  EXPECT_EQ(flagsOf(settled(kOld, kOne), {kOld, kLinkLocal}), "avs");
  EXPECT_EQ(flagsOf(settled(kOld, kNone), {kOld, kLinkLocal}), "avs");
  EXPECT_EQ(flagsOf(settled(kOld, kLinkLocal), {kOld, kOne}), "av");
}

TEST(NetworkChange, OfSelfAssignedAddressesCountsOnlyWithoutUsableOnes) {
  const HostAddresses besides{{"192.0.2.1"}, {"fe80::1", "169.254.1.1"}};
  EXPECT_EQ(flagsOf(settled(kOld, kOne), {kOld, besides}), "none");
  EXPECT_EQ(flagsOf(settled(kOld, kLinkLocal), {kOld, kSelfAssigned}), "avs");
}

TEST(NetworkChange, OfTheNameIsInvalidWhileAddressesAreSelfAssignedAndFollowedAfterwards) {
  for (const HostAddresses& addresses : {kSelfAssigned, kLinkLocal}) {
    const NetworkSnapshot renamed{kNew, addresses};
    EXPECT_EQ(flagsOf(settled(kOld, addresses), renamed), "hs");
    EXPECT_EQ(flagsOf(settled(kOld, kOne), renamed), "has");
    EXPECT_EQ(settledAfter(settled(kOld, addresses), renamed), kOld);
    const auto change = networkChange(recordAfter(settled(kOld, addresses), renamed), {kNew, kOne});
    ASSERT_TRUE(change);
    EXPECT_TRUE(change->hasHostChanged() && change->hasAddrChanged() &&
                change->hasValidNetworkConfiguration());
    EXPECT_EQ(change->oldHost(), kOld);
    EXPECT_EQ(*change->changeInfo().dictionaryFor("hostName"), (Dictionary{{"old", kOld}, {"new", kNew}}));
  }
}

TEST(NetworkChange, ToNoAddressIsInvalid) {
  EXPECT_EQ(flagsOf(settled(kOld, kOne), {kOld, kNone}), "a");
  EXPECT_EQ(flagsOf(settled(kOld, kLinkLocal), {kOld, kNone}), "a");
  EXPECT_EQ(flagsOf(settled(kOld, kOne), {kNew, kNone}), "ha");
  EXPECT_EQ(settledAfter(settled(kOld, kOne), {kNew, kNone}), kOld);
}

TEST(NetworkChange, ToNoNameIsInvalidAndKeepsTheSettledOne) {
  const NetworkSnapshot nameless{std::nullopt, kOne};
  const auto change = networkChange(settled(kOld, kOne), nameless);
  ASSERT_TRUE(change);
  EXPECT_EQ(flagsOf(settled(kOld, kOne), nameless), "");
  EXPECT_EQ(change->oldHost(), kOld);
  EXPECT_EQ(change->newHost(), std::nullopt);
  EXPECT_EQ(change->changeInfo(), (Dictionary{{"hostName", Dictionary{{"old", kOld}}}}));
  EXPECT_EQ(settledAfter(settled(kOld, kOne), nameless), kOld);

  const NetworkRecord after = recordAfter(settled(kOld, kOne), nameless);
  EXPECT_EQ(flagsOf(after, {kOld, kOne}), "v");
  EXPECT_EQ(flagsOf(after, {kNew, kOne}), "hv");
}

TEST(NetworkChange, ToAFirstNameIsNoChangeOfHost) {
  const auto change = networkChange(settled(std::nullopt, kOne), {kNew, kOne});
  ASSERT_TRUE(change);
  EXPECT_FALSE(change->hasHostChanged());
  EXPECT_TRUE(change->hasValidNetworkConfiguration());
  EXPECT_EQ(change->oldHost(), std::nullopt);
  EXPECT_EQ(settledAfter(settled(std::nullopt, kNone), {kNew, kNone}), kNew) << "also without an address";
}

TEST(NetworkChange, NeedsNoAddressWhereThereIsNoNetwork) {
  EXPECT_EQ(flagsOf(settled(kOld, std::nullopt), {kNew, std::nullopt}), "hv");
  EXPECT_EQ(settledAfter(settled(kOld, std::nullopt), {kNew, std::nullopt}), kNew);
  EXPECT_EQ(flagsOf(settled(kOld, std::nullopt), {std::nullopt, std::nullopt}), "");
}

TEST(NetworkChange, SinceAnEarlierRunIsToldWithTheNameOfThatRun) {
  // What a start makes of a remembered name.
  const NetworkRecord atStart{kOld, {kOld, kOne}};
  EXPECT_EQ(flagsOf(atStart, {kNew, kOne}), "hv");
  EXPECT_EQ(flagsOf(atStart, {kOld, kOne}), "none");
}

}  // namespace
}  // namespace tessard
