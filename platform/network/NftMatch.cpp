#include "platform/network/NftMatch.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace tessard {

namespace {

Match matchOf(bool holds) {
  return holds ? Match::yes : Match::no;
}

Match opposite(Match match) {
  if (match == Match::maybe) return match;
  return matchOf(match == Match::no);
}

// The key of an element with more to it, such as a time-out or a comment.
const Json& keyOf(const Json& element) {
  if (element.is_object() && element.contains("elem")) {
    const Json& inner = element["elem"];
    if (inner.is_object() && inner.contains("val")) return inner["val"];
  }
  return element;
}

const Json* rangeOf(const Json& item) {
  if (!item.is_object() || !item.contains("range")) return nullptr;
  const Json& range = item["range"];
  return range.is_array() && range.size() == 2 ? &range : nullptr;
}

std::optional<IpAddress> addressOf(const Json& item) {
  return item.is_string() ? IpAddress::parse(item.get<std::string>()) : std::nullopt;
}

std::optional<IpRange> addressRangeOf(const Json& item) {
  if (const auto address = addressOf(item)) return IpRange{*address, *address};
  if (const Json* range = rangeOf(item)) {
    const auto first = addressOf((*range)[0]);
    const auto last = addressOf((*range)[1]);
    if (first && last) return IpRange{*first, *last};
  }
  if (item.is_object() && item.contains("prefix") && item["prefix"].is_object()) {
    const Json& prefix = item["prefix"];
    const auto address = prefix.contains("addr") ? addressOf(prefix["addr"]) : std::nullopt;
    if (address) return IpRange::prefix(*address, prefix.value("len", -1));
  }
  return std::nullopt;
}

struct SameAs {
  const Json& item;

  Match operator()(const NotKnown&) const { return Match::maybe; }
  Match operator()(const NotThere&) const { return Match::no; }
  Match operator()(const StrangersAddress&) const { return Match::maybe; }

  Match operator()(const NamedNumber& number) const {
    if (item.is_boolean()) return matchOf(item.get<bool>());  // whether there is one
    if (item.is_number_integer()) return matchOf(item == number.value);
    if (item.is_string() && !number.names.empty()) {
      return matchOf(std::ranges::find(number.names, item.get<std::string>()) != number.names.end());
    }
    const Json* range = rangeOf(item);
    if (!range || !(*range)[0].is_number_integer() || !(*range)[1].is_number_integer()) return Match::maybe;
    return matchOf((*range)[0] <= number.value && (*range)[1] >= number.value);
  }

  Match operator()(const TcpFlags& flags) const {
    const auto bits = tcpFlagBits(item);
    return bits ? matchOf(*bits == flags.bits) : Match::maybe;
  }

  Match operator()(const InterfaceName& interface) const {
    if (!item.is_string()) return Match::maybe;
    std::string wanted = item.get<std::string>();
    if (wanted.find('\\') != std::string::npos) return Match::maybe;  // a name that holds an asterisk
    if (!wanted.ends_with('*')) return matchOf(interface.name == wanted);
    wanted.pop_back();
    return matchOf(interface.name.starts_with(wanted));
  }

  Match operator()(const IpAddress& address) const {
    const auto range = addressRangeOf(item);
    return range ? matchOf(range->contains(address)) : Match::maybe;
  }

  Match operator()(bool flag) const { return item.is_boolean() ? matchOf(item == flag) : Match::maybe; }
};

// One element against the facts, but for the stranger's address: that one's range is added to `range`.
Match judgeElement(const std::vector<Fact>& facts, const Json& element, std::optional<IpRange>& range) {
  const Json& key = keyOf(element);
  const bool several = key.is_object() && key.contains("concat") && key["concat"].is_array();
  if ((several ? key["concat"].size() : 1) != facts.size()) return Match::maybe;
  Match sure = Match::yes;
  for (std::size_t i = 0; i < facts.size(); ++i) {
    const Json& item = several ? key["concat"][i] : key;
    if (std::holds_alternative<StrangersAddress>(facts[i]) && !range) {
      range = addressRangeOf(item);
      if (!range) sure = std::min(sure, Match::maybe);
    } else {
      sure = std::min(sure, std::visit(SameAs{item}, facts[i]));
    }
  }
  return sure;
}

bool isCatchAll(const Json& element) {
  const Json& key = keyOf(element);
  return key.is_string() && key.get<std::string>() == "*";
}

template <class Elements>
Match judgeMembership(const std::vector<Fact>& facts, const Elements& elements) {
  Match found = Match::no;
  std::vector<IpRange> surely;
  std::vector<IpRange> perhaps;
  const auto stranger = std::ranges::find_if(
      facts, [](const Fact& fact) { return std::holds_alternative<StrangersAddress>(fact); });
  for (const Json& element : elements) {
    if (isCatchAll(element)) return Match::yes;
    std::optional<IpRange> range;
    const Match one = judgeElement(facts, element, range);
    if (one == Match::no) continue;
    if (!range) {
      found = std::max(found, one);
      continue;
    }
    if (one == Match::yes) surely.push_back(*range);
    perhaps.push_back(*range);
  }
  if (stranger != facts.end()) {
    const bool ipv6 = std::get<StrangersAddress>(*stranger).ipv6;
    if (coverMost(surely, ipv6)) return Match::yes;
    if (coverMost(perhaps, ipv6)) found = std::max(found, Match::maybe);
  }
  return found;
}

// The elements that are written out, or those of the set that is named; null when they are not known.
const Json* elementsOf(const Json& written, const NftElements& named) {
  if (written.is_object() && written.contains("set")) {
    return written["set"].is_array() ? &written["set"] : nullptr;
  }
  if (!written.is_string()) return nullptr;
  const std::string name = written.get<std::string>();
  return name.starts_with('@') ? named(name.substr(1)) : nullptr;
}

bool isSet(const Json& written) {
  return (written.is_object() && written.contains("set")) ||
         (written.is_string() && written.get<std::string>().starts_with('@'));
}

Match judgeEquality(const std::vector<Fact>& facts, const Json& right, const NftElements& named) {
  if (isSet(right)) {
    const Json* elements = elementsOf(right, named);
    return elements ? judgeMembership(facts, *elements) : Match::maybe;
  }
  return judgeMembership(facts, std::vector<std::reference_wrapper<const Json>>{right});
}

// "in": one of several flags is set.
Match judgeFlags(const Fact& fact, const Json& right, const NftElements& named) {
  if (const auto* flags = std::get_if<TcpFlags>(&fact)) {
    const auto bits = tcpFlagBits(right);
    return bits ? matchOf((*bits & flags->bits) != 0) : Match::maybe;
  }
  if (!right.is_array()) return judgeEquality({fact}, right, named);
  return judgeMembership({fact}, right);
}

Match judgeOrder(const std::string& comparison, const Fact& fact, const Json& right) {
  const auto* number = std::get_if<NamedNumber>(&fact);
  if (!number || !right.is_number_integer()) return Match::maybe;
  const Json value = number->value;
  if (comparison == "<") return matchOf(value < right);
  if (comparison == ">") return matchOf(value > right);
  if (comparison == "<=") return matchOf(value <= right);
  if (comparison == ">=") return matchOf(value >= right);
  return Match::maybe;
}

bool anyIsMissing(const std::vector<Fact>& facts) {
  return std::ranges::any_of(facts, [](const Fact& fact) { return std::holds_alternative<NotThere>(fact); });
}

}  // namespace

Match judgeMatch(const Json& match, const PacketFacts& facts, TrackedAs tracked,
                 const NftElements& elements) {
  if (!match.is_object() || !match.contains("left") || !match.contains("right")) return Match::maybe;
  const std::vector<Fact> left = facts.factsOf(match["left"], tracked);
  if (left.empty() || anyIsMissing(left)) return Match::no;
  const Json& right = match["right"];
  const auto op = match.find("op");
  const std::string comparison = op != match.end() && op->is_string() ? op->get<std::string>() : "==";
  if (comparison == "==") return judgeEquality(left, right, elements);
  if (comparison == "!=") return opposite(judgeEquality(left, right, elements));
  if (left.size() != 1) return Match::maybe;
  return comparison == "in" ? judgeFlags(left.front(), right, elements)
                            : judgeOrder(comparison, left.front(), right);
}

std::vector<std::pair<const Json*, Match>> judgeVerdictMap(const Json& map, const PacketFacts& facts,
                                                           TrackedAs tracked, const NftElements& elements) {
  static const Json kAnything = {{"unreadable map", nullptr}};
  std::vector<std::pair<const Json*, Match>> verdicts;
  if (!map.is_object() || !map.contains("key") || !map.contains("data")) return {{&kAnything, Match::maybe}};
  const std::vector<Fact> key = facts.factsOf(map["key"], tracked);
  if (key.empty() || anyIsMissing(key)) return verdicts;
  const Json* pairs = elementsOf(map["data"], elements);
  if (!pairs) return {{&kAnything, Match::maybe}};
  const Json* otherwise = nullptr;
  for (const Json& pair : *pairs) {
    if (!pair.is_array() || pair.size() != 2) return {{&kAnything, Match::maybe}};
    if (isCatchAll(pair[0])) {
      otherwise = &pair[1];
      continue;
    }
    const Match found = judgeMembership(key, std::vector<std::reference_wrapper<const Json>>{pair[0]});
    if (found == Match::yes) return {{&pair[1], Match::yes}};
    if (found == Match::maybe) verdicts.emplace_back(&pair[1], found);
  }
  if (otherwise) verdicts.emplace_back(otherwise, verdicts.empty() ? Match::yes : Match::maybe);
  return verdicts;
}

}  // namespace tessard
