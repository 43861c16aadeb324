#include "platform/network/NftVerdict.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <vector>

namespace tessard {

namespace {

// Connection tracking looks at packets at this priority of "prerouting".
constexpr std::int64_t kTrackingPriority = -200;
// More rules than any table has; chains that call each other many times over are given up.
constexpr int kMostSteps = 500'000;
// The kernel allows 16.
constexpr int kDeepestCall = 20;

bool isOneOf(std::string_view text, std::initializer_list<std::string_view> list) {
  return std::ranges::find(list, text) != list.end();
}

// What may become of a packet in a chain.
struct Ends {
  bool accepted = false;
  bool unclear = false;
  bool fallsThrough = false;         // it comes to the chain's end
  std::vector<NftRefusal> refusals;  // the surest last

  void add(const Ends& more) {
    accepted = accepted || more.accepted;
    unclear = unclear || more.unclear;
    refusals.insert(refusals.end(), more.refusals.begin(), more.refusals.end());
  }
};

class Walk {
 public:
  Walk(const NftRuleset& ruleset, const InboundPacket& packet, const NftNamedElements& named)
      : ruleset_(ruleset), facts_(packet, ruleset.setsMarks()), named_(named) {}

  Ends throughBaseChain(const NftChain& chain) {
    Ends ends = through(chain, 0);
    if (ends.fallsThrough) {
      if (chain.base->dropsByDefault) {
        ends.refusals.push_back({&chain, nullptr});
      } else {
        ends.accepted = true;
      }
    }
    return ends;
  }

  void comesTo(std::string_view hook, const NftChain& chain) {
    if (hook == "prerouting" && chain.base->priority <= kTrackingPriority) return;
    if (tracked_ == TrackedAs::notYet) tracked_ = afterTracking_;
  }

 private:
  // What a rule does with the packet; `alive` tells whether the packet may go on to the next one.
  struct Step {
    Ends& ends;
    const NftChain& chain;
    const NftRule& rule;
    int depth;
    bool alive = true;
    Match sure = Match::yes;
    bool done = false;
  };

  Ends through(const NftChain& chain, int depth) {
    Ends ends;
    for (const NftRule& rule : chain.rules) {
      if (++steps_ > kMostSteps || depth > kDeepestCall) {
        ends.unclear = true;
        return ends;
      }
      Step step{ends, chain, rule, depth};
      for (const Json& statement : rule.statements) {
        take(step, statement);
        if (step.done || step.sure == Match::no) break;
      }
      if (!step.alive) return ends;
    }
    ends.fallsThrough = true;
    return ends;
  }

  void take(Step& step, const Json& statement) {
    if (!statement.is_object() || statement.empty()) return takeUnknown(step);
    const std::string kind = statement.begin().key();
    const Json& what = statement.begin().value();
    if (takeCondition(step, kind, what) || takeVerdict(step, kind, what)) return;
    if (kind == "vmap") {
      takeMap(step, what);
    } else if (kind == "notrack") {
      if (tracked_ == TrackedAs::notYet) {
        afterTracking_ = step.sure == Match::yes ? TrackedAs::untracked : TrackedAs::unclear;
      }
    } else if (kind == "mangle") {
      const auto key = what.is_object() ? what.find("key") : what.end();
      if (key == what.end() || key->contains("payload")) step.ends.unclear = true;
    } else if (!isOneOf(kind, {"counter", "log", "comment", "ct helper", "ct timeout", "ct expectation",
                               "secmark", "flow", "dup", "last"})) {
      takeUnknown(step);
    }
  }

  static void takeUnknown(Step& step) {
    step.sure = std::min(step.sure, Match::maybe);
    step.ends.unclear = true;
  }

  bool takeCondition(Step& step, const std::string& kind, const Json& what) {
    Match holds = Match::yes;
    if (kind == "match") {
      holds = judgeMatch(what, facts_, tracked_, elementsFor(step.chain));
    } else if (kind == "limit" || kind == "ct count") {
      // The name of a limit does not tell whether it is one to stay below or one to exceed.
      holds = !what.is_object() ? Match::maybe : what.value("inv", false) ? Match::no : Match::yes;
    } else if (kind == "quota") {
      holds = Match::maybe;
    } else if (kind == "set" || kind == "meter" || kind == "map") {
      return takeInner(step, what);
    } else {
      return false;
    }
    step.sure = std::min(step.sure, holds);
    return true;
  }

  // An element that a rule adds to a set, and the statements that go with it. The packet may have no such
  // key, the set may be full, and an element that is there already has statements of its own.
  bool takeInner(Step& step, const Json& what) {
    step.sure = std::min(step.sure, Match::maybe);
    const auto inner = what.is_object() ? what.find("stmt") : what.end();
    if (inner == what.end()) return true;
    const Json list = inner->is_array() ? *inner : Json::array({*inner});
    for (const Json& statement : list) take(step, statement);
    return true;
  }

  bool takeVerdict(Step& step, const std::string& kind, const Json& what) {
    if (isOneOf(kind, {"accept", "snat", "masquerade"})) {
      step.ends.accepted = true;
      end(step);
    } else if (kind == "drop" || kind == "reject") {
      step.ends.refusals.push_back({&step.chain, &step.rule});
      end(step);
    } else if (kind == "return") {
      step.ends.fallsThrough = true;
      end(step);
    } else if (kind == "continue") {
      step.done = true;
    } else if (kind == "jump" || kind == "goto") {
      call(step, what, kind == "goto");
    } else if (isOneOf(kind, {"dnat", "redirect", "tproxy", "synproxy", "queue", "fwd"})) {
      step.ends.unclear = true;
      end(step);
    } else {
      return false;
    }
    return true;
  }

  static void end(Step& step) {
    step.done = true;
    if (step.sure == Match::yes) step.alive = false;
  }

  void call(Step& step, const Json& what, bool forGood) {
    const auto target = what.is_object() ? what.find("target") : what.end();
    const NftChain* chain =
        target != what.end() && target->is_string()
            ? ruleset_.chain(step.chain.family, step.chain.table, target->get<std::string>())
            : nullptr;
    step.done = true;
    if (!chain) return takeUnknown(step);
    const Ends inner = through(*chain, step.depth + 1);
    step.ends.add(inner);
    if (forGood && inner.fallsThrough) step.ends.fallsThrough = true;
    if (step.sure == Match::yes && (forGood || !inner.fallsThrough)) step.alive = false;
  }

  void takeMap(Step& step, const Json& what) {
    const auto verdicts = judgeVerdictMap(what, facts_, tracked_, elementsFor(step.chain));
    if (verdicts.empty()) {
      step.sure = Match::no;
      return;
    }
    const Match before = step.sure;
    for (const auto& [verdict, sure] : verdicts) {
      step.sure = std::min(before, sure);
      const bool known = verdict->is_object() && !verdict->empty() &&
                         takeVerdict(step, verdict->begin().key(), verdict->begin().value());
      if (!known) takeUnknown(step);
    }
    step.done = true;
  }

  NftElements elementsFor(const NftChain& chain) const {
    return [this, &chain](const std::string& name) { return named_(chain.family, chain.table, name); };
  }

  const NftRuleset& ruleset_;
  const PacketFacts facts_;
  const NftNamedElements& named_;
  TrackedAs tracked_ = TrackedAs::notYet;
  TrackedAs afterTracking_ = TrackedAs::newConnection;
  int steps_ = 0;
};

}  // namespace

NftVerdict judgePacket(const NftRuleset& ruleset, const InboundPacket& packet,
                       const NftNamedElements& named) {
  Walk walk(ruleset, packet, named);
  NftVerdict verdict;
  for (const std::string_view hook : {"prerouting", "input"}) {
    for (const NftChain* chain : ruleset.baseChains(hook, packet.destination.ipv6)) {
      walk.comesTo(hook, *chain);
      const Ends ends = walk.throughBaseChain(*chain);
      if (ends.unclear) verdict.kind = NftVerdict::Kind::unclear;
      if (ends.refusals.empty()) continue;
      // The last one is sure to catch what the others let go.
      if (!ends.accepted && !ends.unclear) return {NftVerdict::Kind::refused, ends.refusals.back()};
      verdict.kind = NftVerdict::Kind::unclear;
    }
  }
  return verdict;
}

}  // namespace tessard
