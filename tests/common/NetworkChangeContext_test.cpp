#include "common/NetworkChangeContext.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

NetworkChangeContext contextFor(const Value& arguments) {
  return NetworkChangeContext::networkChangeContextWithChangeIPRequest(arguments);
}

std::string problemWith(const Value& arguments) {
  return NetworkChangeContext::problemWithChangeIPRequest(arguments).value_or("none");
}

TEST(ChangeIPRequest, CarriesAChangeOfTheHostName) {
  const Dictionary arguments{{"oldHost", "old.example.com"}, {"newHost", "new.example.com"}};
  const auto context = contextFor(arguments);
  EXPECT_TRUE(context.hasHostChanged());
  EXPECT_FALSE(context.hasAddrChanged());
  EXPECT_TRUE(context.hasValidNetworkConfiguration());
  EXPECT_FALSE(context.isNewAddressSelfAssigned());
  EXPECT_EQ(context.oldHost(), "old.example.com");
  EXPECT_EQ(context.newHost(), "new.example.com");
  EXPECT_EQ(context.changeInfo(), arguments);
}

TEST(ChangeIPRequest, CarriesAChangeOfTheAddress) {
  const auto context = contextFor(Dictionary{{"oldAddress", "192.0.2.1"}, {"newAddress", "192.0.2.2"}});
  EXPECT_FALSE(context.hasHostChanged());
  EXPECT_TRUE(context.hasAddrChanged());
  EXPECT_TRUE(context.hasValidNetworkConfiguration());
  EXPECT_EQ(context.oldHost(), std::nullopt);
  EXPECT_EQ(context.newHost(), std::nullopt);
}

TEST(ChangeIPRequest, NamesAndAddressesThatStayAreNoChange) {
  const auto context = contextFor(Dictionary{{"oldHost", "a.example.com"},
                                             {"newHost", "a.example.com"},
                                             {"oldAddress", "2001:db8::1"},
                                             {"newAddress", "2001:db8::1"}});
  EXPECT_FALSE(context.hasHostChanged());
  EXPECT_FALSE(context.hasAddrChanged());
  EXPECT_TRUE(context.hasValidNetworkConfiguration());
}

TEST(ChangeIPRequest, AChangeNeedsBothSides) {
  EXPECT_FALSE(contextFor(Dictionary{{"newHost", "a.example.com"}}).hasHostChanged());
  EXPECT_FALSE(contextFor(Dictionary{{"oldHost", "a.example.com"}}).hasHostChanged());
  EXPECT_FALSE(contextFor(Dictionary{{"newAddress", "192.0.2.1"}}).hasAddrChanged());
  EXPECT_FALSE(contextFor(Dictionary{{"oldAddress", "192.0.2.1"}}).hasAddrChanged());
}

TEST(ChangeIPRequest, AddressesThatAMachineGivesItselfAreTold) {
  for (const char* address : {"169.254.0.0", "169.254.1.2", "169.254.255.255", "fe80::1", "febf:ffff::1"}) {
    EXPECT_TRUE(contextFor(Dictionary{{"newAddress", address}}).isNewAddressSelfAssigned()) << address;
  }
  for (const char* address : {"169.253.255.255", "169.255.0.0", "192.0.2.1", "fec0::1", "fe7f::1", "::1",
                              "::ffff:169.254.1.2", "nonsense", ""}) {
    EXPECT_FALSE(contextFor(Dictionary{{"newAddress", address}}).isNewAddressSelfAssigned()) << address;
  }
  EXPECT_FALSE(contextFor(Dictionary{{"oldAddress", "169.254.1.2"}}).isNewAddressSelfAssigned());
}

TEST(ChangeIPRequest, WithoutADictionaryNothingIsCarried) {
  for (const Value& arguments : {Value("new.example.com"), Value(Array{"a", "b"}), Value(1)}) {
    const auto context = contextFor(arguments);
    EXPECT_FALSE(context.hasValidNetworkConfiguration());
    EXPECT_FALSE(context.hasHostChanged());
    EXPECT_TRUE(context.changeInfo().empty());
    EXPECT_EQ(context.newHost(), std::nullopt);
  }
}

TEST(ChangeIPRequest, WhatIsMalformedMakesTheConfigurationInvalid) {
  EXPECT_FALSE(
      contextFor(Dictionary{{"oldHost", "a"}, {"newHost", "bad name"}}).hasValidNetworkConfiguration());
  EXPECT_FALSE(contextFor(Dictionary{{"newHost", 5}}).hasValidNetworkConfiguration());
  EXPECT_FALSE(contextFor(Dictionary{}).hasValidNetworkConfiguration());
}

TEST(ChangeIPProblem, ThereIsNoneWithWellFormedArguments) {
  EXPECT_EQ(problemWith(Dictionary{{"newHost", "a.example.com"}}), "none");
  EXPECT_EQ(problemWith(Dictionary{{"newAddress", "192.0.2.1"}}), "none");
  EXPECT_EQ(problemWith(Dictionary{{"newAddress", "2001:db8::1"}, {"oldAddress", "192.0.2.1"}}), "none");
  EXPECT_EQ(problemWith(Dictionary{{"newHost", "a"}, {"other", Array{1}}}), "none");
}

TEST(ChangeIPProblem, TheArgumentsMustBeADictionary) {
  EXPECT_EQ(
      problemWith("x"),
      "the arguments must be a dictionary of \"oldHost\", \"newHost\", \"oldAddress\" and \"newAddress\"");
}

TEST(ChangeIPProblem, SomethingToChangeToMustBeGiven) {
  const char* const nothing = "neither \"newHost\" nor \"newAddress\" is given";
  EXPECT_EQ(problemWith(Dictionary{}), nothing);
  EXPECT_EQ(problemWith(Dictionary{{"oldHost", "a"}, {"oldAddress", "192.0.2.1"}}), nothing);
}

TEST(ChangeIPProblem, EveryFieldMustBeAString) {
  for (const char* key : {"oldHost", "newHost", "oldAddress", "newAddress"}) {
    EXPECT_EQ(problemWith(Dictionary{{"newHost", "a"}, {key, 7}}),
              "\"" + std::string(key) + "\" must be a string");
  }
}

TEST(ChangeIPProblem, NamesMustBeHostNames) {
  EXPECT_EQ(problemWith(Dictionary{{"newHost", "../etc"}}), "\"newHost\" is not a host name: \"../etc\"");
  EXPECT_EQ(problemWith(Dictionary{{"newHost", "a"}, {"oldHost", ""}}),
            "\"oldHost\" is not a host name: \"\"");
}

TEST(ChangeIPProblem, AddressesMustBeAddresses) {
  EXPECT_EQ(problemWith(Dictionary{{"newAddress", "192.0.2.256"}}),
            "\"newAddress\" is not an IP address: \"192.0.2.256\"");
  EXPECT_EQ(problemWith(Dictionary{{"newHost", "a"}, {"oldAddress", "2001:db8:::1"}}),
            "\"oldAddress\" is not an IP address: \"2001:db8:::1\"");
  EXPECT_NE(problemWith(Dictionary{{"newAddress", ""}}), "none");
  EXPECT_NE(problemWith(Dictionary{{"newAddress", std::string("192.0.2.1\0x", 11)}}), "none");
}

TEST(NetworkChangeEvent, EveryFieldIsTakenOver) {
  const Dictionary info{{"hostName", Array{"old", "new"}}};
  const auto context = NetworkChangeContext::fromEvent({{"changeInfo", info},
                                                        {"hasHostChanged", true},
                                                        {"hasAddrChanged", true},
                                                        {"hasValidNetworkConfiguration", true},
                                                        {"isNewAddressSelfAssigned", true},
                                                        {"oldHost", "old.example.com"},
                                                        {"newHost", "new.example.com"}});
  EXPECT_EQ(context.changeInfo(), info);
  EXPECT_TRUE(context.hasHostChanged());
  EXPECT_TRUE(context.hasAddrChanged());
  EXPECT_TRUE(context.hasValidNetworkConfiguration());
  EXPECT_TRUE(context.isNewAddressSelfAssigned());
  EXPECT_EQ(context.oldHost(), "old.example.com");
  EXPECT_EQ(context.newHost(), "new.example.com");
}

TEST(NetworkChangeEvent, EachFlagStandsForItself) {
  EXPECT_TRUE(NetworkChangeContext::fromEvent({{"hasHostChanged", true}}).hasHostChanged());
  EXPECT_FALSE(NetworkChangeContext::fromEvent({{"hasHostChanged", true}}).hasAddrChanged());
  EXPECT_TRUE(NetworkChangeContext::fromEvent({{"hasAddrChanged", "YES"}}).hasAddrChanged());
  EXPECT_FALSE(NetworkChangeContext::fromEvent({{"hasAddrChanged", true}}).hasValidNetworkConfiguration());
  EXPECT_TRUE(
      NetworkChangeContext::fromEvent({{"hasValidNetworkConfiguration", 1}}).hasValidNetworkConfiguration());
  EXPECT_FALSE(
      NetworkChangeContext::fromEvent({{"hasValidNetworkConfiguration", 1}}).isNewAddressSelfAssigned());
  EXPECT_TRUE(
      NetworkChangeContext::fromEvent({{"isNewAddressSelfAssigned", true}}).isNewAddressSelfAssigned());
}

TEST(NetworkChangeEvent, ANewHostThatIsNoHostNameMakesTheConfigurationInvalid) {
  for (const char* host : {"../../etc/cron.d/x", "a b", "", "-a.example.test", "a..b"}) {
    const auto context =
        NetworkChangeContext::fromEvent({{"hasValidNetworkConfiguration", true}, {"newHost", host}});
    EXPECT_FALSE(context.hasValidNetworkConfiguration()) << host;
  }
  const auto context = NetworkChangeContext::fromEvent(
      {{"hasValidNetworkConfiguration", true}, {"newHost", "a.example.test"}});
  EXPECT_TRUE(context.hasValidNetworkConfiguration());
}

TEST(NetworkChangeEvent, WhatIsMissingIsFalseEmptyOrAbsent) {
  const auto context = NetworkChangeContext::fromEvent({});
  EXPECT_TRUE(context.changeInfo().empty());
  EXPECT_FALSE(context.hasHostChanged());
  EXPECT_FALSE(context.hasAddrChanged());
  EXPECT_FALSE(context.hasValidNetworkConfiguration());
  EXPECT_FALSE(context.isNewAddressSelfAssigned());
  EXPECT_EQ(context.oldHost(), std::nullopt);
  EXPECT_EQ(context.newHost(), std::nullopt);
}

}  // namespace
}  // namespace tessard
