#include "host/NetworkChange.h"

#include <utility>

#include "platform/HostsTable.h"

namespace tessard {

namespace {

using HostName = std::optional<std::string>;

bool sameName(const HostName& first, const HostName& second) {
  return first && second ? sameHostName(*first, *second) : first == second;
}

bool hostHasChanged(const NetworkRecord& before, const NetworkSnapshot& now) {
  return before.settledHost && now.host && !sameHostName(*before.settledHost, *now.host);
}

// Self-assigned addresses come and go with every interface; beside usable ones nothing is reached by them.
std::set<std::string> countingAddresses(const NetworkSnapshot& snapshot) {
  if (!snapshot.addresses) return {};
  return snapshot.addresses->usable.empty() ? snapshot.addresses->selfAssigned : snapshot.addresses->usable;
}

bool hasOnlySelfAssigned(const NetworkSnapshot& snapshot) {
  return snapshot.addresses && snapshot.addresses->usable.empty() &&
         !snapshot.addresses->selfAssigned.empty();
}

bool isValid(const NetworkRecord& before, const NetworkSnapshot& now) {
  if (!now.host) return false;
  if (!now.addresses || !now.addresses->usable.empty()) return true;
  return hasOnlySelfAssigned(now) && !hostHasChanged(before, now);
}

Dictionary nameChange(const HostName& before, const HostName& after) {
  Dictionary change;
  if (before) change.set("old", *before);
  if (after) change.set("new", *after);
  return change;
}

Array listed(const std::set<std::string>& addresses) {
  return {addresses.begin(), addresses.end()};
}

}  // namespace

std::optional<NetworkChangeContext> networkChange(const NetworkRecord& before, const NetworkSnapshot& now) {
  const auto oldAddresses = countingAddresses(before.seen);
  const auto newAddresses = countingAddresses(now);
  const bool nameIsAnother = !sameName(before.seen.host, now.host);
  const bool addressesAreOthers = oldAddresses != newAddresses;
  if (!nameIsAnother && !addressesAreOthers) return std::nullopt;

  const bool hostChanged = hostHasChanged(before, now);
  Dictionary changes;
  if (nameIsAnother || hostChanged) {
    changes.set("hostName", nameChange(hostChanged ? before.settledHost : before.seen.host, now.host));
  }
  if (addressesAreOthers) {
    changes.set("addresses", Dictionary{{"old", listed(oldAddresses)}, {"new", listed(newAddresses)}});
  }
  Dictionary fields{{"changeInfo", std::move(changes)},
                    {"hasHostChanged", hostChanged},
                    {"hasAddrChanged", addressesAreOthers},
                    {"hasValidNetworkConfiguration", isValid(before, now)},
                    {"isNewAddressSelfAssigned", hasOnlySelfAssigned(now)}};
  if (before.settledHost) fields.set("oldHost", *before.settledHost);
  if (now.host) fields.set("newHost", *now.host);
  return NetworkChangeContext::fromEvent(fields);
}

NetworkRecord recordAfter(const NetworkRecord& before, const NetworkSnapshot& now) {
  const bool isTakenOn = isValid(before, now) && !hasOnlySelfAssigned(now) && !now.host->ends_with(".local");
  return {isTakenOn || !before.settledHost ? now.host : before.settledHost, now};
}

}  // namespace tessard
