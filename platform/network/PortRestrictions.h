#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/Log.h"
#include "common/Network.h"
#include "common/Tasks.h"
#include "common/Value.h"
#include "platform/network/InboundPaths.h"

namespace tessard {

/// Which ports the machine's packet filter (nftables) keeps strangers from, and by which rule.
///
/// A stranger is a host whose address no rule names (see `judgeMatch`), and comes in by the ways of
/// `inboundPaths`. A port is restricted when at one of the machine's addresses a new TCP connection of a
/// stranger is sure to be refused. What a listing leaves open counts as no restriction, and so does what
/// stands outside of nftables: rules of the older iptables in the kernel, chains at the hook "ingress",
/// bridges, other machines on the way.
class PortRestrictions : private Object {
 public:
  using Paths = std::function<Result<std::vector<InboundPath>>()>;

  /// "nft" is run through `tasks`. All is borrowed and outlives this object.
  PortRestrictions(Tasks& tasks, Log& log, Paths paths = inboundPaths);

  /// True when one of the ports is restricted. `restrictions` is replaced in every case; it gets one
  /// dictionary for each restricted port and rule, in the order of the ports (a set's in ascending order):
  ///
  ///   "port"         integer
  ///   "addresses"    array: the addresses of the machine at which that rule refuses
  ///   "family", "table", "chain"   where the rule stands, as nft writes it
  ///   "rule"         the rule's text, or "policy drop" for a chain's policy
  ///   "handle"       the rule's number in its table; missing for a policy
  ///   "comment"      the rule's comment, when it has one
  ///   "description"  all of this as one sentence
  ///
  /// Where the rules cannot be listed - no nft, no permission - no restriction is known; the reason is logged
  /// at info level, once for as long as it stays the same.
  bool check(const std::vector<PortItem>& ports, Array& restrictions);

 private:
  Result<Array> find(const std::vector<PortItem>& ports);
  void tellOnce(const std::string& reason);

  Tasks& tasks_;
  Paths paths_;
  std::string toldReason_;
};

}  // namespace tessard
