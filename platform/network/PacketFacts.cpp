#include "platform/network/PacketFacts.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace tessard {

namespace {

constexpr std::uint64_t kSyn = 2;
// One of those that clients choose; rules that look at a client's port want no more than a high one.
constexpr std::uint64_t kClientPort = 50'000;
constexpr std::uint64_t kDontFragment = 0x4000;

std::string textOf(const Json& object, const char* key) {
  const auto found = object.is_object() ? object.find(key) : object.end();
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> list) {
  return std::ranges::find(list, text) != list.end();
}

NamedNumber tcp() {
  return {6, {"tcp"}};
}

}  // namespace

std::optional<std::uint64_t> tcpFlagBits(const Json& written) {
  static constexpr std::array<std::string_view, 8> kNames = {"fin", "syn", "rst", "psh",
                                                             "ack", "urg", "ecn", "cwr"};
  if (written.is_number_unsigned()) return written.get<std::uint64_t>();
  if (written.is_string()) {
    const auto found = std::ranges::find(kNames, written.get<std::string>());
    if (found == kNames.end()) return std::nullopt;
    return std::uint64_t{1} << static_cast<unsigned>(found - kNames.begin());
  }
  const Json* parts = &written;
  if (written.is_object() && written.size() == 1 && written.contains("|")) parts = &written["|"];
  if (!parts->is_array()) return std::nullopt;
  std::uint64_t bits = 0;
  for (const Json& part : *parts) {
    const auto more = tcpFlagBits(part);
    if (!more) return std::nullopt;
    bits |= *more;
  }
  return bits;
}

std::vector<Fact> PacketFacts::factsOf(const Json& left, TrackedAs tracked) const {
  if (!left.is_object() || !left.contains("concat") || !left["concat"].is_array()) {
    return {factOf(left, tracked)};
  }
  std::vector<Fact> facts;
  for (const Json& part : left["concat"]) facts.push_back(factOf(part, tracked));
  return facts;
}

Fact PacketFacts::factOf(const Json& expression, TrackedAs tracked) const {
  if (!expression.is_object() || expression.size() != 1) return NotKnown();
  const std::string kind = expression.begin().key();
  const Json& what = expression.begin().value();
  if (kind == "payload") return payload(what);
  if (kind == "meta") return meta(textOf(what, "key"));
  if (kind == "ct") return tracking(what, tracked);
  if (kind == "fib") return route(what);
  if (kind == "&") return masked(what, tracked);
  // A first packet carries no extension headers; rules ask whether one exists, or look into it.
  if (kind == "exthdr") return what.is_object() && what.contains("field") ? Fact(NotThere()) : Fact(false);
  return NotKnown();
}

Fact PacketFacts::payload(const Json& what) const {
  const std::string protocol = textOf(what, "protocol");
  const std::string field = textOf(what, "field");
  if (protocol == "tcp" || protocol == "th") return tcpHeader(field);
  if (protocol == "ip" || protocol == "ip6") return networkHeader(protocol, field);
  if (protocol == "ether" && field == "type") return meta("protocol");
  if (isOneOf(protocol,
              {"udp", "udplite", "dccp", "sctp", "icmp", "icmpv6", "igmp", "arp", "ah", "esp", "comp"})) {
    return NotThere();
  }
  const bool destinationPort =
      textOf(what, "base") == "th" && what.value("offset", -1) == 16 && what.value("len", -1) == 16;
  return destinationPort ? tcpHeader("dport") : Fact(NotKnown());
}

Fact PacketFacts::networkHeader(const std::string& protocol, const std::string& field) const {
  if ((protocol == "ip6") != packet_.destination.ipv6) return NotThere();
  if (field == "saddr") return StrangersAddress{packet_.destination.ipv6};
  if (field == "daddr") return packet_.destination;
  if (field == "protocol" || field == "nexthdr") return tcp();
  if (field == "version") return NamedNumber{packet_.destination.ipv6 ? 6U : 4U, {}};
  if (field == "frag-off") return NamedNumber{kDontFragment, {}};
  return NotKnown();
}

Fact PacketFacts::tcpHeader(const std::string& field) const {
  if (field == "dport") return NamedNumber{packet_.port, {}};
  if (field == "sport") return NamedNumber{kClientPort, {}};
  if (field == "flags") return TcpFlags{kSyn};
  return NotKnown();
}

Fact PacketFacts::meta(const std::string& key) const {
  const bool ipv6 = packet_.destination.ipv6;
  if (key == "l4proto") return tcp();
  if (key == "nfproto") return ipv6 ? NamedNumber{10, {"ipv6"}} : NamedNumber{2, {"ipv4"}};
  if (key == "protocol") return ipv6 ? NamedNumber{0x86dd, {"ip6"}} : NamedNumber{0x0800, {"ip"}};
  if (key == "pkttype") return NamedNumber{0, {"host", "unicast"}};
  if (key == "iifname") return InterfaceName{packet_.interface};
  if (key == "iif") return NamedNumber{packet_.interfaceIndex, {packet_.interface}};
  // A packet that comes in leaves by no interface.
  if (key == "oifname") return InterfaceName();
  if (key == "mark") return mark();
  return NotKnown();
}

Fact PacketFacts::tracking(const Json& what, TrackedAs tracked) const {
  const std::string key = textOf(what, "key");
  if (key == "state") {
    switch (tracked) {
      case TrackedAs::newConnection:
        return NamedNumber{8, {"new"}};
      case TrackedAs::notYet:
        return NamedNumber{1, {"invalid"}};
      case TrackedAs::untracked:
        return NamedNumber{64, {"untracked"}};
      case TrackedAs::unclear:
        return NotKnown();
    }
  }
  if (tracked == TrackedAs::unclear) return NotKnown();
  if (tracked != TrackedAs::newConnection) return NotThere();
  if (key == "direction") return NamedNumber{0, {"original"}};
  if (key == "protocol") return tcp();
  if (key == "mark") return mark();
  return NotKnown();
}

Fact PacketFacts::route(const Json& what) const {
  const auto flags = what.is_object() ? what.find("flags") : what.end();
  const auto asks = [&](const char* flag) {
    return flags != what.end() &&
           (*flags == flag || (flags->is_array() && std::ranges::find(*flags, flag) != flags->end()));
  };
  const std::string result = textOf(what, "result");
  if (result == "type" && asks("daddr")) return NamedNumber{2, {"local"}};
  if (result == "type" && asks("saddr")) return NamedNumber{1, {"unicast"}};
  // The way back to a stranger is the way it came.
  if (result == "oif" && asks("saddr")) return NamedNumber{packet_.interfaceIndex, {packet_.interface}};
  if (result == "oifname" && asks("saddr")) return NamedNumber{packet_.interfaceIndex, {packet_.interface}};
  return NotKnown();
}

Fact PacketFacts::masked(const Json& operands, TrackedAs tracked) const {
  if (!operands.is_array() || operands.size() != 2) return NotKnown();
  const Fact whole = factOf(operands[0], tracked);
  if (std::holds_alternative<NotThere>(whole)) return NotThere();
  if (const auto* flags = std::get_if<TcpFlags>(&whole)) {
    const auto mask = tcpFlagBits(operands[1]);
    return mask ? Fact(TcpFlags{flags->bits & *mask}) : Fact(NotKnown());
  }
  const auto* number = std::get_if<NamedNumber>(&whole);
  if (!number || !operands[1].is_number_unsigned()) return NotKnown();
  return NamedNumber{number->value & operands[1].get<std::uint64_t>(), {}};
}

Fact PacketFacts::mark() const {
  return marksAreSet_ ? Fact(NotKnown()) : Fact(NamedNumber{0, {}});
}

}  // namespace tessard
