#pragma once

#include <functional>
#include <string>

#include "platform/network/NftMatch.h"
#include "platform/network/NftRuleset.h"
#include "platform/network/PacketFacts.h"

namespace tessard {

/// Where a packet is refused: by a rule, or by a base chain's policy when `rule` is null.
struct NftRefusal {
  const NftChain* chain = nullptr;
  const NftRule* rule = nullptr;
};

/// What the packet filter does with a packet.
struct NftVerdict {
  enum class Kind {
    passes,
    refused,
    unclear,  ///< that depends on something that cannot be told, or the packet is sent elsewhere
  };

  Kind kind = Kind::passes;
  NftRefusal refusal;  ///< when refused
};

/// The elements of a named set or map of that table; null when they are not known.
using NftNamedElements =
    std::function<const Json*(const std::string& family, const std::string& table, const std::string& name)>;

/// Sends a packet through the base chains of the hooks "prerouting" and "input", each in the order of their
/// priorities, as the kernel does. A packet counts as refused only when it is in every case.
///
/// How things are judged that no listing tells: rates and counts are not exceeded; marks are 0 unless some
/// rule sets marks; statements that are not known, such as those of iptables' extensions, may do anything;
/// a packet that is redirected, queued or changed on its way is unclear.
NftVerdict judgePacket(const NftRuleset& ruleset, const InboundPacket& packet, const NftNamedElements& named);

}  // namespace tessard
