#include "platform/network/NftRuleset.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tessard {

namespace {

std::string textOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::int64_t numberOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<std::int64_t>() : 0;
}

bool isMarkSetting(const Json& statement) {
  const auto mangle = statement.is_object() ? statement.find("mangle") : statement.end();
  if (mangle == statement.end() || !mangle->is_object()) return false;
  const auto key = mangle->find("key");
  if (key == mangle->end() || !key->is_object()) return true;
  for (const char* kind : {"meta", "ct"}) {
    const auto what = key->find(kind);
    if (what != key->end() && what->is_object() && textOf(*what, "key") == "mark") return true;
  }
  return false;
}

}  // namespace

Result<NftRuleset> NftRuleset::parse(std::string_view listing) {
  const Json document = Json::parse(listing, nullptr, false);
  const auto entries = document.is_object() ? document.find("nftables") : document.end();
  if (entries == document.end() || !entries->is_array()) {
    return SystemError(EBADMSG, "the listing of the packet filter cannot be read");
  }
  NftRuleset ruleset;
  // Chains first, whatever the order of the listing.
  for (const Json& entry : *entries) {
    if (entry.is_object() && entry.contains("chain")) ruleset.addChain(entry["chain"]);
  }
  for (const Json& entry : *entries) {
    if (entry.is_object() && entry.contains("rule")) ruleset.addRule(entry["rule"]);
  }
  return ruleset;
}

void NftRuleset::addChain(const Json& entry) {
  if (!entry.is_object()) return;
  NftChain chain{textOf(entry, "family"), textOf(entry, "table"), textOf(entry, "name"), std::nullopt, {}};
  if (const std::string hook = textOf(entry, "hook"); !hook.empty()) {
    chain.base = NftChain::Base{hook, numberOf(entry, "prio"), textOf(entry, "policy") == "drop"};
  }
  Key key{chain.family, chain.table, chain.name};
  chains_.insert_or_assign(std::move(key), std::move(chain));
}

void NftRuleset::addRule(const Json& entry) {
  if (!entry.is_object()) return;
  const auto chain = chains_.find({textOf(entry, "family"), textOf(entry, "table"), textOf(entry, "chain")});
  if (chain == chains_.end()) return;
  const auto statements = entry.find("expr");
  NftRule rule{numberOf(entry, "handle"), textOf(entry, "comment"), Json::array()};
  if (statements != entry.end() && statements->is_array()) rule.statements = *statements;
  setsMarks_ = setsMarks_ || std::ranges::any_of(rule.statements, isMarkSetting);
  chain->second.rules.push_back(std::move(rule));
}

const NftChain* NftRuleset::chain(const std::string& family, const std::string& table,
                                  const std::string& name) const {
  const auto found = chains_.find({family, table, name});
  return found == chains_.end() ? nullptr : &found->second;
}

std::vector<const NftChain*> NftRuleset::baseChains(std::string_view hook, bool ipv6) const {
  std::vector<const NftChain*> found;
  for (const auto& [key, chain] : chains_) {
    if (chain.base && chain.base->hook == hook &&
        (chain.family == "inet" || chain.family == (ipv6 ? "ip6" : "ip"))) {
      found.push_back(&chain);
    }
  }
  std::ranges::stable_sort(found, {}, [](const NftChain* chain) { return chain->base->priority; });
  return found;
}

}  // namespace tessard
