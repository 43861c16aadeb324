// What the class says about a packet filter, against what connections through the kernel's filter experience.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <ostream>

#include "tests/network/FilterLab.h"

namespace tessard {
namespace {

struct Filter {
  const char* name;
  const char* ruleset;
};

void PrintTo(const Filter& filter, std::ostream* out) {
  *out << filter.ruleset;
}

const Filter kFilters[] = {
    {"Empty", ""},
    {"PolicyAccept", "table inet t { chain input { type filter hook input priority 0; policy accept; }\n}"},
    {"PolicyDrop", "table inet t { chain input { type filter hook input priority 0; policy drop; }\n}"},
    {"OnePortDropped",
     "table inet t { chain input { type filter hook input priority 0; tcp dport 5218 drop; }\n}"},
    {"OnePortRejected",
     "table inet t { chain input { type filter hook input priority 0; tcp dport 5218 reject; }\n}"},
    {"RejectedWithReset",
     "table inet t { chain input { type filter hook input priority 0; tcp dport 5268 reject with tcp reset; "
     "}\n}"},
    {"AllButOnePort",
     "table inet t { chain input { type filter hook input priority 0; tcp dport != 5218 drop; }\n}"},
    {"PortRange",
     "table inet t { chain input { type filter hook input priority 0; tcp dport 16384-16403 drop; }\n}"},
    {"OutsideOfARange",
     "table inet t { chain input { type filter hook input priority 0; tcp dport != 5000-6000 drop; }\n}"},
    {"Comparisons",
     "table inet t { chain input { type filter hook input priority 0; tcp dport > 16384 drop; tcp dport < "
     "5268 reject with tcp reset; }\n}"},
    {"AnonymousSet",
     "table inet t { chain input { type filter hook input priority 0; policy drop; tcp dport { 22, 5218, "
     "16000-16400 } accept; }\n}"},
    {"NamedSet",
     "table inet t { set open { type inet_service; elements = { 5218, 5268 }\n}\nchain input { type filter "
     "hook input priority 0; policy drop; tcp dport @open accept; }\n}"},
    {"NamedIntervals",
     "table inet t { set closed { type inet_service; flags interval; elements = { 5000-5250, 16403 "
     "}\n}\nchain input { type filter hook input priority 0; tcp dport @closed drop; }\n}"},
    {"ElementsWithTimeOutsAndComments",
     "table inet t { set closed { type inet_service; timeout 1h; elements = { 5218 timeout 2h comment \"x\" "
     "}\n}\nchain input { type filter hook input priority 0; tcp dport @closed drop; }\n}"},
    {"EmptyNamedSet",
     "table inet t { set none { type inet_service; }\nchain input { type filter hook input priority 0; tcp "
     "dport @none drop; tcp dport != @none continue; }\n}"},
    {"VerdictMap",
     "table inet t { chain a { tcp dport 16384 return; drop; }\nchain input { type filter hook input "
     "priority 0; tcp dport vmap { 5218 : drop, 5268 : accept, 16384-16403 : jump a }; }\n}"},
    {"NamedVerdictMapWithCatchAll",
     "table inet t { map m { type inet_service : verdict; elements = { 5218 : accept, * : drop } }\nchain "
     "input { type filter hook input priority 0; tcp dport vmap @m; }\n}"},
    {"JumpAndReturn",
     "table inet t { chain sub { tcp dport 5218 return; tcp dport 5268 accept; tcp dport 16384 drop; "
     "}\nchain input { type filter hook input priority 0; policy drop; jump sub; tcp dport 16403 accept; "
     "}\n}"},
    {"GotoEndsInThePolicy",
     "table inet t { chain sub { tcp dport 5218 accept; }\nchain input { type filter hook input priority 0; "
     "policy drop; tcp dport { 5218, 5268 } goto sub; accept; }\n}"},
    {"GotoFromACalledChain",
     "table inet t { chain last { tcp dport 5218 drop; }\nchain sub { tcp dport < 6000 goto last; drop; "
     "}\nchain input { type filter hook input priority 0; jump sub; tcp dport 5268 drop; }\n}"},
    {"ReturnInABaseChain",
     "table inet t { chain input { type filter hook input priority 0; policy drop; tcp dport 5218 return; "
     "accept; }\n}"},
    {"AUsualServer",
     "table inet t { chain input { type filter hook input priority 0; policy drop;\nct state vmap { "
     "established : accept, related : accept, invalid : drop }\niifname \"lo\" accept\nip protocol icmp "
     "accept\nip6 nexthdr icmpv6 accept\nmeta l4proto { icmp, ipv6-icmp } accept\ntcp dport { 22, 5218, 5268 "
     "} ct state new accept\nudp dport 16384 accept\nreject with icmpx type admin-prohibited; }\n}"},
    {"OnlyEstablished",
     "table inet t { chain input { type filter hook input priority 0; policy drop; ct state "
     "established,related accept; ct state != new accept; }\n}"},
    {"NewIsDropped",
     "table inet t { chain input { type filter hook input priority 0; tcp dport 5218 ct state { new, "
     "untracked } drop; }\n}"},
    {"OtherProtocols",
     "table inet t { chain input { type filter hook input priority 0; udp dport 5218 drop; udp dport != 5268 "
     "drop; meta l4proto udp drop; meta l4proto != tcp drop; icmp type echo-request drop; }\n}"},
    {"TransportHeader",
     "table inet t { chain input { type filter hook input priority 0; meta l4proto { tcp, udp } th dport "
     "5218 drop; @th,16,16 5268 drop; }\n}"},
    {"OneFamilyOfTwo",
     "table inet t { chain input { type filter hook input priority 0; meta nfproto ipv6 tcp dport 5218 drop; "
     "meta protocol ip tcp dport 5268 drop; }\n}"},
    {"TablesOfEachFamily",
     "table ip t { chain input { type filter hook input priority 0; policy drop; tcp dport 5218 accept; "
     "}\n}\ntable ip6 t { chain input { type filter hook input priority 0; policy drop; tcp dport 5268 "
     "accept; }\n}"},
    {"AcceptDoesNotEndLaterChains",
     "table inet a { chain input { type filter hook input priority -10; tcp dport 5218 accept; tcp dport "
     "5268 drop; }\n}\ntable inet b { chain input { type filter hook input priority 10; tcp dport { 5218, "
     "16384 } drop; accept; }\n}"},
    {"StrangersAddress",
     "table inet t { chain input { type filter hook input priority 0; policy drop; ip saddr 10.0.0.0/8 "
     "accept; ip6 saddr fd00::/8 accept; ip saddr { 192.0.2.0/24, 203.0.113.1-203.0.113.9 } accept; ip saddr "
     "!= 10.0.0.0/8 tcp dport 5218 accept; ip6 saddr != { fe80::/10, fd00::/8 } tcp dport 5268 accept; }\n}"},
    {"BlockList",
     "table inet t { set bad { type ipv4_addr; flags interval; elements = { 203.0.113.0/24, 192.0.2.2 "
     "}\n}\nchain input { type filter hook input priority 0; ip saddr @bad drop; ip saddr @bad tcp dport "
     "5218 drop; }\n}"},
    {"AllAddressesInParts",
     "table inet t { set every { type ipv4_addr; flags interval; elements = { 0.0.0.0/1, 128.0.0.0/1 "
     "}\n}\nchain input { type filter hook input priority 0; ip saddr @every tcp dport 5218 drop; ip6 saddr "
     "2000::/3 tcp dport 5268 drop; }\n}"},
    {"Concatenations",
     "table inet t { set s { type ipv4_addr . inet_service; flags interval; elements = { 10.0.0.0/8 . 5218, "
     "0.0.0.0/0 . 5268, 10.1.0.0/16 . 16384-16403 }\n}\nchain input { type filter hook input priority 0; ip "
     "saddr . tcp dport @s drop; meta l4proto . tcp dport { tcp . 16384, udp . 16403 } drop; }\n}"},
    {"OwnAddress",
     "table inet t { chain input { type filter hook input priority 0; ip daddr 192.0.2.1 tcp dport 5218 "
     "drop; ip daddr 192.0.2.9 drop; ip6 daddr 2001:db8:1::/64 tcp dport 5268 drop; ip daddr != 192.0.2.0/24 "
     "drop; }\n}"},
    {"Interfaces",
     "table inet t { chain input { type filter hook input priority 0; policy drop; iifname \"eth*\" accept; "
     "iifname { \"lo\", \"tun0\" } accept; iif \"lo\" accept; iifname \"up*\" tcp dport 5218 accept; iif "
     "\"up0\" tcp dport 5268 accept; iifname != \"up0\" accept; }\n}"},
    {"InterfaceMap",
     "table inet t { chain wan { tcp dport 5218 accept; drop; }\nchain input { type filter hook input "
     "priority 0; iifname vmap { \"lo\" : accept, \"up0\" : goto wan }; }\n}"},
    {"TcpFlags",
     "table inet t { chain input { type filter hook input priority 0; tcp flags & (fin|syn|rst|ack) == syn "
     "tcp dport 5218 drop; tcp flags syn tcp dport 5268 drop; tcp flags ack tcp dport 16384 drop; tcp flags "
     "& (fin|syn|rst|ack) != syn ct state new drop; tcp flags & (syn|ack) == (syn|ack) drop; }\n}"},
    {"Routes",
     "table inet t { chain input { type filter hook input priority 0; fib daddr type local tcp dport 5218 "
     "drop; fib saddr . iif oif missing drop; fib daddr type != local drop; fib saddr type unicast tcp dport "
     "5268 drop; }\n}"},
    {"RatesAreNotExceeded",
     "table inet t { chain input { type filter hook input priority 0; policy drop; tcp dport 5218 limit rate "
     "100/second accept; tcp dport 5268 limit rate over 100/second drop; tcp dport 5268 ct count over 99 "
     "drop; tcp dport 5268 meter m { ip saddr limit rate over 100/second } drop; tcp dport 5268 accept; "
     "}\n}"},
    {"RatesPerAddress",
     "table inet t { set seen { type ipv4_addr; flags dynamic; size 99; }\nchain input { type filter hook "
     "input priority 0; tcp dport 5218 add @seen { ip saddr limit rate over 100/second } drop; tcp dport "
     "5268 drop; }\n}"},
    {"CountersAndLogsDecideNothing",
     "table inet t { counter c { }\nchain input { type filter hook input priority 0; counter; log prefix "
     "\"x\"; tcp dport 5218 counter name c log prefix \"y\" counter drop comment \"closed\"; }\n}"},
    {"MarksAreZeroAtFirst",
     "table inet t { chain input { type filter hook input priority 0; meta mark 7 drop; meta mark 0 tcp "
     "dport 5218 drop; ct mark != 0 drop; }\n}"},
    {"DroppedBeforeRouting",
     "table inet t { chain pre { type filter hook prerouting priority raw; tcp dport 5218 drop; ct state "
     "invalid tcp dport 5268 drop; ct state new drop; }\n}"},
    {"AfterTracking",
     "table inet t { chain pre { type filter hook prerouting priority mangle; ct state new tcp dport 5218 "
     "drop; ct state invalid drop; }\n}"},
    {"Untracked",
     "table inet t { chain pre { type filter hook prerouting priority raw; tcp dport 5218 notrack; }\nchain "
     "input { type filter hook input priority 0; ct state untracked drop; ct state new tcp dport 5268 drop; "
     "}\n}"},
    {"OtherHooks",
     "table inet t { chain f { type filter hook forward priority 0; policy drop; }\nchain post { type nat "
     "hook postrouting priority 100; masquerade; }\nchain lost { drop; }\n}"},
    {"NamesWithDashes",
     "table inet my-table { chain my-input { type filter hook input priority 0; jump deep_1; }\nchain deep_1 "
     "{ tcp dport 5218 drop; }\n}"},
};

class FilterTruth : public testing::TestWithParam<Filter> {
 protected:
  struct Findings {
    std::map<std::uint16_t, std::set<std::string>> refused;  // by the kernel
    bool restricted = false;
    Array restrictions;
  };

  // All filters at once: a dropped packet takes the kernel a second to give up.
  static void SetUpTestSuite() {
    if (NetworkNamespace::whyImpossible()) return;
    std::vector<std::unique_ptr<FilterLab>> labs;
    for (const Filter& filter : kFilters) {
      SCOPED_TRACE(filter.name);
      labs.push_back(std::make_unique<FilterLab>(filter.ruleset));
      Findings& findings = all()[filter.name];
      findings.restricted = labs.back()->check(findings.restrictions);
      labs.back()->beginConnections();
    }
    for (std::size_t i = 0; i < labs.size(); ++i) {
      while (!labs[i]->allAreDecided()) poll(nullptr, 0, 10);
      for (const std::uint16_t port : labPorts()) {
        all()[kFilters[i].name].refused[port] = labs[i]->refusedAddresses(port);
      }
    }
  }

  static void TearDownTestSuite() { all().clear(); }

  static std::map<std::string, Findings>& all() {
    static std::map<std::string, Findings> findings;
    return findings;
  }
};

TEST_P(FilterTruth, IsWhatTheClassSaysForEveryPortAndAddress) {
  if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
  const Findings& findings = all().at(GetParam().name);
  std::map<std::uint16_t, std::set<std::string>> said;
  for (const std::uint16_t port : labPorts()) said[port];
  for (const Value& restriction : findings.restrictions) {
    const Dictionary& entry = *restriction.asDictionary();
    for (const std::string& address : stringsOf(*entry.arrayFor("addresses"))) {
      said[static_cast<std::uint16_t>(entry.find("port")->integerValue())].insert(address);
    }
  }
  EXPECT_EQ(said, findings.refused) << Value(findings.restrictions).description();
  EXPECT_EQ(findings.restricted, !findings.restrictions.empty());
}

INSTANTIATE_TEST_SUITE_P(Kernel, FilterTruth, testing::ValuesIn(kFilters),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tessard
