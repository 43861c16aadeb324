#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "common/Result.h"

namespace tessard {

using Json = nlohmann::json;

/// One rule of a chain, its statements as nft writes them in JSON.
struct NftRule {
  std::int64_t handle = 0;
  std::string comment;
  Json statements;
};

/// A chain; a base chain also knows at which hook of the kernel it stands.
struct NftChain {
  struct Base {
    std::string hook;  ///< "prerouting", "input", ...
    std::int64_t priority = 0;
    bool dropsByDefault = false;
  };

  std::string family;  ///< "ip", "ip6", "inet", ...
  std::string table;
  std::string name;
  std::optional<Base> base;
  std::vector<NftRule> rules;
};

/// The packet filter's tables as one listing of nft tells them. What it does not know it passes over.
class NftRuleset {
 public:
  /// Reads the output of "nft -j list ruleset". Fails with EBADMSG and a sentence when that is no such
  /// listing.
  static Result<NftRuleset> parse(std::string_view listing);

  /// The chain of that table; null when there is none.
  const NftChain* chain(const std::string& family, const std::string& table, const std::string& name) const;

  /// The base chains of a hook that see packets of IPv4, or of IPv6, in the order in which they do.
  std::vector<const NftChain*> baseChains(std::string_view hook, bool ipv6) const;

  /// Whether any rule sets a mark of packets or connections.
  bool setsMarks() const { return setsMarks_; }

 private:
  using Key = std::tuple<std::string, std::string, std::string>;  // family, table, name

  void addChain(const Json& entry);
  void addRule(const Json& entry);

  std::map<Key, NftChain> chains_;
  bool setsMarks_ = false;
};

}  // namespace tessard
