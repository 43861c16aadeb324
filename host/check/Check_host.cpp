#include <algorithm>
#include <array>

#include "common/Format.h"
#include "common/Text.h"
#include "host/check/CheckAreas.h"
#include "platform/HostsTable.h"
#include "platform/network/InterfaceAddresses.h"
#include "platform/network/IpAddress.h"

namespace tessard {

namespace {

constexpr FindingKind kNoName = {"host-name-missing", Severity::error};
constexpr FindingKind kTwoNames = {"host-names-differ", Severity::warning};
constexpr FindingKind kUnresolved = {"host-name-unresolved", Severity::warning};
constexpr FindingKind kDomainUnresolved = {"domain-unresolved", Severity::notice};
constexpr FindingKind kSlow = {"resolver-slow", Severity::warning};
constexpr FindingKind kStale = {"hosts-address-stale", Severity::warning};
constexpr FindingKind kHosts = {"hosts-unreadable", Severity::warning};
constexpr FindingKind kNotServed = {"host-name-not-served", Severity::notice};
constexpr std::array kKinds = {kNoName, kTwoNames, kUnresolved, kDomainUnresolved,
                               kSlow,   kStale,    kHosts,      kNotServed};

// For one name.
constexpr double kPatienceSeconds = 3;
// More of them would only tell the same, and ask the resolver too much.
constexpr std::size_t kMostDomains = 20;

// False when the resolver is too slow to be asked more.
bool examineResolves(CheckedSystem& system, const std::string& name, bool isHost, Findings& findings) {
  const auto addresses = system.lookUp(name, std::min(kPatienceSeconds, system.secondsLeft() / 2));
  if (!addresses) {
    findings.add(kSlow, name, fill("The resolver does not tell an address of \"%@\" in time.", {name}),
                 "See which name servers /etc/resolv.conf names and whether they answer; list the name in "
                 "/etc/hosts.");
    return false;
  }
  if (!addresses->empty()) return true;
  if (isHost) {
    findings.add(
        kUnresolved, name,
        fill("This machine's own name \"%@\" has no address, so that nobody finds the service by it.",
             {name}),
        "Add it to /etc/hosts, and to the name server that others ask.");
  } else {
    findings.add(
        kDomainUnresolved, name,
        fill("The served domain \"%@\" has no address here; clients find it by a service record, if at all.",
             {name}),
        fill("Add the domain, or _xmpp-client._tcp.%@, to the name server.", {name}));
  }
  return true;
}

void examineServed(const std::string& name, const std::vector<std::string>& domains, Findings& findings) {
  const bool isServed = std::ranges::any_of(domains, [&](const std::string& domain) {
    return sameHostName(domain, name) || asciiLowercase(name).ends_with("." + asciiLowercase(domain));
  });
  if (isServed || domains.empty()) return;
  findings.add(kNotServed, name,
               fill("This machine's name \"%@\" is none of the domains that are served (%@).",
                    {name, joinedWith({domains.begin(),
                                       domains.begin() + static_cast<std::ptrdiff_t>(
                                                             std::min<std::size_t>(domains.size(), 3))},
                                      ", ")}),
               "Nothing, if that is meant; otherwise tessardctl settings set hosts=[...]");
}

void examineHosts(CheckedSystem& system, const std::string& name, Findings& findings) {
  const auto entries = readHostsTable(system.files);
  if (!entries) {
    findings.add(kHosts, "/etc/hosts",
                 fill("\"/etc/hosts\" cannot be read: %@.", {entries.error().description()}),
                 "Put it right; without it names may not be found.");
    return;
  }
  if (!system.isMachine) return;
  const auto own = interfaceAddresses();
  if (!own) return;
  for (const HostsEntry& entry : entries.value()) {
    const auto listed = IpAddress::parse(entry.address);
    if (!entry.lists(name) || !listed) continue;
    const bool isLoopback = entry.address.starts_with("127.") || entry.address == "::1";
    const bool isOwn = std::ranges::any_of(own.value(), [&](const InterfaceAddress& address) {
      return IpAddress::parse(address.text) == listed;
    });
    if (isLoopback || isOwn) continue;
    findings.add(kStale, entry.address,
                 fill("\"/etc/hosts\" lists \"%@\" at %@, which is no address of this machine.",
                      {name, entry.address}),
                 "Correct the line, or remove it.");
  }
}

void examineHost(CheckedSystem& system, Findings& findings) {
  const auto configured = system.hostNames.configuredName();
  if (!configured || !configured.value()) {
    findings.add(
        kNoName, "/etc/hostname",
        configured
            ? "This machine has no name of its own (\"/etc/hostname\"), which setup and the settings need."
            : fill("\"/etc/hostname\" cannot be read: %@.", {configured.error().description()}),
        "hostnamectl hostname NAME, with the whole name, and list it in /etc/hosts");
    return;
  }
  const std::string name = *configured.value();
  const auto stored = system.hostNames.storedName();
  if (system.isMachine && stored && !sameHostName(*stored, name)) {
    findings.add(
        kTwoNames, name,
        fill("\"/etc/hostname\" says \"%@\", and the running system goes by \"%@\".", {name, *stored}),
        "hostnamectl hostname NAME, which sets both");
  }
  examineHosts(system, name, findings);
  const auto domains = system.instance().domains();
  examineServed(name, domains, findings);
  bool answers = examineResolves(system, name, true, findings);
  for (std::size_t at = 0; answers && at < domains.size() && at < kMostDomains; ++at) {
    if (!sameHostName(domains[at], name)) answers = examineResolves(system, domains[at], false, findings);
  }
}

}  // namespace

const CheckArea kHostArea = {"host", "the machine's name, its addresses and the served domains", 15, kKinds,
                             examineHost};

}  // namespace tessard
