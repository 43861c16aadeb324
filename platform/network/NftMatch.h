#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/network/PacketFacts.h"

namespace tessard {

/// Whether something holds for a packet, as far as it can be told.
enum class Match { no, maybe, yes };

/// The elements of a named set or map, by its name without "@"; null when they are not known.
using NftElements = std::function<const Json*(const std::string& name)>;

/// Judges the comparison of a "match" statement.
///
/// A stranger's address is in a set, prefix or range that takes in more than half of all hosts and in no
/// other: "ip saddr 10.0.0.0/8" never matches, "ip saddr != 10.0.0.0/8" does.
Match judgeMatch(const Json& match, const PacketFacts& facts, TrackedAs tracked, const NftElements& elements);

/// The verdicts that a "vmap" statement may come to, each with how sure that is; none when it finds nothing.
/// More than one only when none is sure.
std::vector<std::pair<const Json*, Match>> judgeVerdictMap(const Json& map, const PacketFacts& facts,
                                                           TrackedAs tracked, const NftElements& elements);

}  // namespace tessard
