#include "platform/network/PortRestrictions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/PosixTasks.h"
#include "tests/network/FilterLab.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/ScriptedTasks.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::vector<PortItem> kPorts = {std::uint16_t{5218}, std::uint16_t{5268},
                                      std::set<std::uint16_t>{16384, 16403}};
constexpr const char* kNft = "/usr/sbin/nft";

std::vector<std::int64_t> portsIn(const Array& restrictions) {
  std::vector<std::int64_t> ports;
  for (const Value& one : restrictions) ports.push_back(one.asDictionary()->find("port")->integerValue());
  return ports;
}

class RestrictionsOnTheKernel : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
  }

  Array restrictionsOf(std::string_view ruleset) {
    Array restrictions;
    const bool restricted = FilterLab(ruleset).check(restrictions);
    EXPECT_EQ(restricted, !restrictions.empty());
    return restrictions;
  }
};

TEST_F(RestrictionsOnTheKernel, ARuleIsDescribedWithItsPlaceItsTextAndItsComment) {
  const Array restrictions = restrictionsOf(
      "table inet filter { chain input { type filter hook input priority 0; counter; ip saddr 10.0.0.0/8 "
      "accept; tcp dport { 5218, 5219 } drop comment \"not yet\"; }\n}");
  ASSERT_EQ(restrictions.size(), 1U);
  const Dictionary& entry = *restrictions[0].asDictionary();
  EXPECT_EQ(*entry.find("port"), Value(5218));
  EXPECT_EQ(*entry.find("addresses"), Value(Array{Value("192.0.2.1"), Value("2001:db8:1::1")}));
  EXPECT_EQ(*entry.find("family"), Value("inet"));
  EXPECT_EQ(*entry.find("table"), Value("filter"));
  EXPECT_EQ(*entry.find("chain"), Value("input"));
  EXPECT_EQ(*entry.find("comment"), Value("not yet"));
  EXPECT_EQ(*entry.find("rule"), Value("tcp dport { 5218, 5219 } drop comment \"not yet\""));
  EXPECT_GT(entry.find("handle")->integerValue(), 0);
  EXPECT_EQ(
      *entry.find("description"),
      Value("Connections to port 5218 of 192.0.2.1, 2001:db8:1::1 are refused by \"tcp dport { 5218, 5219 } "
            "drop comment \"not yet\"\" in chain input of table inet filter."));
}

TEST_F(RestrictionsOnTheKernel, APolicyIsDescribedWithoutAHandle) {
  const Array restrictions = restrictionsOf(
      "table ip filter { chain input { type filter hook input priority 0; policy drop; tcp dport != 16403 "
      "accept; }\n}");
  ASSERT_EQ(restrictions.size(), 1U);
  const Dictionary& entry = *restrictions[0].asDictionary();
  EXPECT_EQ(*entry.find("port"), Value(16403));
  EXPECT_EQ(*entry.find("addresses"), Value(Array{Value("192.0.2.1")}));
  EXPECT_EQ(*entry.find("rule"), Value("policy drop"));
  EXPECT_FALSE(entry.contains("handle"));
  EXPECT_FALSE(entry.contains("comment"));
}

TEST_F(RestrictionsOnTheKernel, PortsComeInTheOrderOfTheListAndRulesApartForEachFamily) {
  const Array restrictions = restrictionsOf(
      "table ip a { chain input { type filter hook input priority 0; drop; }\n}\n"
      "table ip6 a { chain input { type filter hook input priority 0; tcp dport > 5218 drop; }\n}");
  EXPECT_THAT(portsIn(restrictions), ElementsAre(5218, 5268, 5268, 16384, 16384, 16403, 16403));
}

TEST_F(RestrictionsOnTheKernel, WhatCannotBeToldIsNoRestriction) {
  for (const std::string statement :
       {"meta cpu 0 tcp dport 5218 drop", "meta random < 5 drop", "tcp dport 5218 quota over 1 mbytes drop",
        "tcp dport 5218 ip ttl < 5 drop", "tcp option maxseg size < 500 drop", "meta length < 50 drop",
        "ct helper \"ftp\" drop", "meta mark set 1 meta mark 1 accept", "numgen random mod 2 == 0 drop",
        "ip dscp 3 drop", "tcp dport 5218 add @seen { ip saddr } drop", "ip saddr & 0.0.0.1 == 1 drop"}) {
    EXPECT_THAT(
        restrictionsOf("table inet t { set seen { type ipv4_addr; flags dynamic; }\nchain input { type "
                       "filter hook input priority 0; policy accept; " +
                       statement + "; }\n}"),
        IsEmpty())
        << statement;
    // But a drop that follows is one, unless what came before may have let the packet in.
    const std::vector<std::int64_t> sure(statement.ends_with("accept") ? 0 : 1, 16403);
    EXPECT_EQ(
        portsIn(restrictionsOf(
            "table inet t { set seen { type ipv4_addr; flags dynamic; }\nchain input { type filter hook "
            "input priority 0; policy accept; " +
            statement + "; tcp dport 16403 drop; }\n}")),
        sure)
        << statement;
  }
}

TEST_F(RestrictionsOnTheKernel, APacketThatIsSentElsewhereIsNotJudged) {
  EXPECT_THAT(
      portsIn(restrictionsOf(
          "table inet t { chain pre { type nat hook prerouting priority dstnat; tcp dport 5218 redirect to "
          ":9; }\nchain input { type filter hook input priority 0; tcp dport { 9, 5268 } drop; }\n}")),
      ElementsAre(5268));
}

TEST_F(RestrictionsOnTheKernel, ManyChainsThatCallEachOtherAreGivenUpInTime) {
  std::string ruleset = "table inet t {\n";
  for (int i = 15; i >= 0; --i) {
    ruleset += "chain c" + std::to_string(i) + " {\n";
    if (i == 0) ruleset += "type filter hook input priority 0;\n";
    for (int call = 0; i < 14 && call < 8; ++call) ruleset += "jump c" + std::to_string(i + 1) + "\n";
    ruleset += "tcp dport 9 drop\n}\n";
  }
  EXPECT_THAT(restrictionsOf(ruleset + "}\n"), IsEmpty());
}

TEST_F(RestrictionsOnTheKernel, AMachineThatIsConnectedToNothingRestrictsNothing) {
  const NetworkNamespace alone;
  alone.shell(
      "nft 'add table inet t; add chain inet t input { type filter hook input priority 0; policy drop; }'");
  const NetworkNamespace::Stay inside(alone);
  PosixTasks tasks("/");
  RecordingLog log;
  PortRestrictions checker(tasks, log);
  Array restrictions{Value("from before")};
  EXPECT_FALSE(checker.check(kPorts, restrictions));
  EXPECT_THAT(restrictions, IsEmpty());
  EXPECT_THAT(log.messages(), IsEmpty());
}

class RestrictionsThatAreUnknown : public testing::Test {
 protected:
  ScriptedTasks tasks;
  RecordingLog log;
  PortRestrictions checker{tasks, log, [] {
                             return Result<std::vector<InboundPath>>(
                                 std::vector<InboundPath>{{"eth0", 2, *IpAddress::parse("192.0.2.1")}});
                           }};
};

TEST_F(RestrictionsThatAreUnknown, AreNoneAndTheReasonIsToldOnce) {
  tasks.on(kNft, {1, "", "Operation not permitted (you must be root)\nnetlink: Error\n"});
  for (int i = 0; i < 2; ++i) {
    Array restrictions{Value("from before")};
    EXPECT_FALSE(checker.check(kPorts, restrictions));
    EXPECT_THAT(restrictions, IsEmpty());
  }
  EXPECT_THAT(log.messages(),
              ElementsAre(RecordingLog::Message{
                  kLogInfo,
                  "It is not known which ports the packet filter restricts: nft ended with status 1: "
                  "Operation not permitted (you must be root)"}));
  tasks.on(kNft, {127, "", "there is no program"});
  Array restrictions;
  EXPECT_FALSE(checker.check(kPorts, restrictions));
  EXPECT_EQ(log.messages().size(), 2U);
}

TEST_F(RestrictionsThatAreUnknown, AreThoseOfListingsInAnUnknownForm) {
  for (const char* listing : {"", "{", "[]", R"({"nftables": 7})",
                              R"({"nftables": [{"chain": {"family": "inet", "table": "t", "name": "c",
        "hook": "input", "prio": 0, "policy": "accept"}}, {"rule": {"family": "inet", "table": "t", "chain": "c",
        "handle": 1, "expr": [{"limit": {"inv": "yes"}}, {"drop": null}]}}]})"}) {
    tasks.on(kNft, {0, listing, ""});
    Array restrictions;
    EXPECT_FALSE(checker.check(kPorts, restrictions)) << listing;
  }
  EXPECT_FALSE(log.messages(kLogInfo).empty());
}

TEST_F(RestrictionsThatAreUnknown, AreThoseOfRulesOfIptablesExtensions) {
  tasks.on(
      kNft,
      {0, R"({"nftables": [{"chain": {"family": "ip", "table": "filter", "name": "INPUT", "hook": "input",
      "prio": 0, "policy": "drop"}}, {"rule": {"family": "ip", "table": "filter", "chain": "INPUT", "handle": 1,
      "expr": [{"xt": null}, {"counter": {"packets": 0, "bytes": 0}}, {"accept": null}]}}]})",
       ""});
  Array restrictions;
  EXPECT_FALSE(checker.check(kPorts, restrictions));
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(InboundPaths, AreTheAddressesOfTheInterfacesThatStrangersComeBy) {
  if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
  const NetworkNamespace machine;
  const NetworkNamespace outside;
  machine.connect("wan0", outside, "far0");
  machine.connect("lan0", outside, "far1");
  machine.connect("off0", outside, "far2");
  machine.shell(
      "ip address add 192.0.2.1/24 dev wan0; ip address add 10.0.0.1/8 dev lan0; ip address add 10.9.0.1/16 "
      "dev "
      "off0; ip link set off0 down; ip address add 2001:db8::1/64 dev lan0 nodad");
  const NetworkNamespace::Stay inside(machine);
  const auto texts = [] {
    std::vector<std::string> texts;
    const auto paths = inboundPaths();
    EXPECT_TRUE(paths.ok());
    if (!paths) return texts;
    for (const InboundPath& path : paths.value()) texts.push_back(path.interface + " " + path.address.text());
    return texts;
  };
  EXPECT_THAT(texts(), ElementsAre("lan0 10.0.0.1", "lan0 2001:db8::1", "wan0 192.0.2.1"));
  machine.shell("ip route add default via 192.0.2.2");
  EXPECT_THAT(texts(), ElementsAre("lan0 2001:db8::1", "wan0 192.0.2.1"));
}

TEST(IpAddresses, MostHostsAreMoreThanHalfOfThem) {
  const auto prefix = [](const char* address, int length) {
    return *IpRange::prefix(*IpAddress::parse(address), length);
  };
  EXPECT_TRUE(coverMost({prefix("0.0.0.0", 0)}, false));
  EXPECT_FALSE(coverMost({prefix("0.0.0.0", 1)}, false));
  EXPECT_TRUE(coverMost({prefix("0.0.0.0", 1), prefix("128.0.0.0", 8)}, false));
  EXPECT_FALSE(coverMost({prefix("::", 0)}, false));
  EXPECT_TRUE(coverMost({prefix("2000::", 3)}, true));
  EXPECT_FALSE(coverMost({prefix("2001::", 16), prefix("fe80::", 10), prefix("fc00::", 7)}, true));
  EXPECT_FALSE(IpRange::prefix(*IpAddress::parse("::1"), 129));
  EXPECT_FALSE(IpRange::prefix(*IpAddress::parse("1.2.3.4"), 33));
  EXPECT_FALSE(IpAddress::parse("1.2.3"));
  EXPECT_FALSE(IpAddress::parse(std::string("1.2.3.4\0", 8)));
}

}  // namespace
}  // namespace tessard
