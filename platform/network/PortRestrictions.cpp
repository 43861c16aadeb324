#include "platform/network/PortRestrictions.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "common/Format.h"
#include "platform/network/NftVerdict.h"

namespace tessard {

namespace {

constexpr const char* kNft = "/usr/sbin/nft";

TaskResult runNft(Tasks& tasks, std::initializer_list<std::string_view> words) {
  std::vector<TaskArgument> arguments;
  for (const std::string_view word : words) arguments.push_back(TaskArgument::text(word));
  return tasks.launch_task(kNft, arguments);
}

// nft reads its arguments as one line of its language.
bool isPlainName(std::string_view name) {
  constexpr std::string_view kOthers = "_-./";
  return !name.empty() && std::ranges::all_of(name, [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           kOthers.find(c) != std::string_view::npos;
  }) && name.front() != '-';
}

// Named sets and maps, each asked for when a rule that uses it is come to: there may be sets of many thousand
// addresses that no packet of ours is compared with.
class NamedElements {
 public:
  explicit NamedElements(Tasks& tasks) : tasks_(tasks) {}

  const Json* find(const std::string& family, const std::string& table, const std::string& name) {
    const auto key = std::tuple(family, table, name);
    auto known = known_.find(key);
    if (known == known_.end()) known = known_.emplace(key, ask(family, table, name)).first;
    return known->second ? &*known->second : nullptr;
  }

 private:
  std::optional<Json> ask(const std::string& family, const std::string& table, const std::string& name) {
    if (!isPlainName(family) || !isPlainName(table) || !isPlainName(name)) return std::nullopt;
    for (const char* kind : {"set", "map"}) {
      const TaskResult listing = runNft(tasks_, {"-j", "list", kind, family, table, name});
      if (listing.status != 0) continue;
      return elementsOf(listing.output, kind);
    }
    return std::nullopt;
  }

  static std::optional<Json> elementsOf(const std::string& listing, const char* kind) {
    const Json document = Json::parse(listing, nullptr, false);
    if (!document.is_object() || !document.contains("nftables")) return std::nullopt;
    for (const Json& entry : document["nftables"]) {
      if (!entry.is_object() || !entry.contains(kind) || !entry[kind].is_object()) continue;
      const Json elements = entry[kind].value("elem", Json::array());
      if (elements.is_array()) return elements;
    }
    return std::nullopt;
  }

  Tasks& tasks_;
  std::map<std::tuple<std::string, std::string, std::string>, std::optional<Json>> known_;
};

std::vector<std::uint16_t> portsOf(const std::vector<PortItem>& items) {
  std::vector<std::uint16_t> ports;
  const auto add = [&](std::uint16_t port) {
    if (std::ranges::find(ports, port) == ports.end()) ports.push_back(port);
  };
  for (const PortItem& item : items) {
    if (const auto* port = std::get_if<std::uint16_t>(&item)) {
      add(*port);
    } else {
      std::ranges::for_each(std::get<std::set<std::uint16_t>>(item), add);
    }
  }
  return ports;
}

// A refused port, and the addresses at which the same rule refuses it.
struct Restriction {
  std::uint16_t port;
  NftRefusal refusal;
  std::vector<std::string> addresses;
};

std::vector<Restriction> restrictionsOf(const NftRuleset& ruleset, const std::vector<InboundPath>& paths,
                                        const std::vector<std::uint16_t>& ports, NamedElements& elements) {
  const NftNamedElements named = [&](const auto& family, const auto& table, const auto& name) {
    return elements.find(family, table, name);
  };
  std::vector<Restriction> found;
  for (const std::uint16_t port : ports) {
    const auto begin = static_cast<std::ptrdiff_t>(found.size());
    for (const InboundPath& path : paths) {
      const NftVerdict verdict =
          judgePacket(ruleset, {path.interface, path.interfaceIndex, path.address, port}, named);
      if (verdict.kind != NftVerdict::Kind::refused) continue;
      const auto same = std::find_if(found.begin() + begin, found.end(), [&](const Restriction& other) {
        return other.refusal.chain == verdict.refusal.chain && other.refusal.rule == verdict.refusal.rule;
      });
      if (same != found.end()) {
        same->addresses.push_back(path.address.text());
      } else {
        found.push_back({port, verdict.refusal, {path.address.text()}});
      }
    }
  }
  return found;
}

// The chain's rules as they are written, by their handles.
std::map<std::int64_t, std::string> ruleTexts(Tasks& tasks, const NftChain& chain) {
  std::map<std::int64_t, std::string> texts;
  if (!isPlainName(chain.family) || !isPlainName(chain.table) || !isPlainName(chain.name)) return texts;
  const TaskResult listing =
      runNft(tasks, {"-a", "-t", "list", "chain", chain.family, chain.table, chain.name});
  std::string_view rest = listing.status == 0 ? listing.output : std::string_view();
  constexpr std::string_view kMark = " # handle ";
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    const auto mark = line.rfind(kMark);
    const auto begin = line.find_first_not_of(" \t");
    if (mark == std::string_view::npos || begin >= mark) continue;
    texts[integerReading(line.substr(mark + kMark.size()))] = line.substr(begin, mark - begin);
  }
  return texts;
}

Value describe(const Restriction& restriction, const std::map<std::int64_t, std::string>& texts) {
  const auto& [chain, rule] = restriction.refusal;
  Dictionary entry;
  entry.set("port", Value(static_cast<int>(restriction.port)));
  entry.set("addresses", Value(arrayOf(restriction.addresses)));
  entry.set("family", Value(chain->family));
  entry.set("table", Value(chain->table));
  entry.set("chain", Value(chain->name));
  std::string text = "policy drop";
  if (rule) {
    const auto known = texts.find(rule->handle);
    text = known == texts.end() ? fill("handle %ld", {rule->handle}) : known->second;
    entry.set("handle", Value(rule->handle));
    if (!rule->comment.empty()) entry.set("comment", Value(rule->comment));
  }
  entry.set("rule", Value(text));
  std::string addresses;
  for (const std::string& address : restriction.addresses)
    addresses += (addresses.empty() ? "" : ", ") + address;
  entry.set("description",
            Value(fill("Connections to port %u of %@ are refused by \"%@\" in chain %@ of table %@ %@.",
                       {restriction.port, addresses, text, chain->name, chain->family, chain->table})));
  return Value(std::move(entry));
}

}  // namespace

PortRestrictions::PortRestrictions(Tasks& tasks, Log& log, Paths paths)
    : Object(log), tasks_(tasks), paths_(std::move(paths)) {}

bool PortRestrictions::check(const std::vector<PortItem>& ports, Array& restrictions) {
  restrictions.clear();
  Result<Array> found = SystemError(0);
  try {
    found = find(ports);
  } catch (const Json::exception& problem) {
    // A statement in a form that no version of nft has had so far.
    found = SystemError(EBADMSG, problem.what());
  }
  if (!found) {
    tellOnce(found.error().description());
    return false;
  }
  toldReason_.clear();
  restrictions = std::move(found.value());
  return !restrictions.empty();
}

Result<Array> PortRestrictions::find(const std::vector<PortItem>& ports) {
  const TaskResult listing = runNft(tasks_, {"-j", "-t", "list", "ruleset"});
  if (listing.status != 0) {
    const std::string_view said(listing.errorText);
    return SystemError(
        0, fill("nft ended with status %d: %@", {listing.status, said.substr(0, said.find('\n'))}));
  }
  const auto ruleset = NftRuleset::parse(listing.output);
  if (!ruleset) return ruleset.error();
  const auto paths = paths_();
  if (!paths) return paths.error();
  Array found;
  NamedElements elements(tasks_);
  std::map<const NftChain*, std::map<std::int64_t, std::string>> texts;
  for (const Restriction& one : restrictionsOf(ruleset.value(), paths.value(), portsOf(ports), elements)) {
    const NftChain* chain = one.refusal.chain;
    if (one.refusal.rule && !texts.contains(chain)) texts[chain] = ruleTexts(tasks_, *chain);
    found.push_back(describe(one, texts[chain]));
  }
  return found;
}

void PortRestrictions::tellOnce(const std::string& reason) {
  if (reason == toldReason_) return;
  toldReason_ = reason;
  logInfo_source(fill("It is not known which ports the packet filter restricts: %@", {reason}), "");
}

}  // namespace tessard
