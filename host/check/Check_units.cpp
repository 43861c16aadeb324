#include <array>
#include <map>

#include "common/Format.h"
#include "common/Text.h"
#include "config/JabberPaths.h"
#include "config/NotificationPlaces.h"
#include "host/ServiceManagers.h"
#include "host/ServiceReports.h"
#include "host/check/CheckAreas.h"
#include "host/check/Units.h"

namespace tessard {

namespace {

constexpr FindingKind kNoManager = {"no-service-manager", Severity::notice};
constexpr FindingKind kSilent = {"service-manager-silent", Severity::error};
constexpr FindingKind kUnknown = {"unit-unknown", Severity::error};
constexpr FindingKind kMasked = {"unit-masked", Severity::error};
constexpr FindingKind kFailed = {"unit-failed", Severity::error};
constexpr FindingKind kNotRunning = {"unit-not-running", Severity::warning};
constexpr FindingKind kNotEnabled = {"unit-not-enabled", Severity::warning};
constexpr FindingKind kApart = {"services-apart", Severity::warning};
constexpr FindingKind kOverridden = {"unit-overridden", Severity::notice};
constexpr FindingKind kForeign = {"foreign-unit-runs", Severity::error};
constexpr FindingKind kReleased = {"foreign-unit-released", Severity::warning};
constexpr FindingKind kBridge = {"bridge-without-unit", Severity::warning};
constexpr std::array kKinds = {kNoManager,  kSilent, kUnknown,    kMasked,  kFailed,   kNotRunning,
                               kNotEnabled, kApart,  kOverridden, kForeign, kReleased, kBridge};

constexpr const char* kPasswordsLabel = "tessard-saslauthd";
// Debian's own, which take the same ports and are kept down by a drop-in of this name.
constexpr std::array kForeignUnits = {"jabberd",    "jabberd2",    "jabberd-router",
                                      "jabberd-sm", "jabberd-c2s", "jabberd-s2s"};
constexpr const char* kOwnDropIn = "/etc/systemd/system/%@.service.d/tessardd.conf";

using Units = std::map<std::string, UnitFacts>;

// False when the service manager does not answer, which is told once.
bool ask(CheckedSystem& system, const std::string& label, Units& units, Findings& findings) {
  auto facts = unitFacts(system, label);
  if (facts) {
    units[label] = std::move(facts).value();
    return true;
  }
  findings.add(kSilent, serviceManagerOf(system.configuration),
               fill("The service manager cannot be asked: %@.", {facts.error().description()}),
               "See whether it runs; \"service-manager\" in tessardd.conf says which one is asked.");
  return false;
}

void examineRuns(const std::string& label, const UnitFacts& unit, Findings& findings) {
  if (unit.hasFailed) return;
  if (unit.isEnabled && !unit.isRunning) {
    findings.add(kNotRunning, label, fill("\"%@\" is to run with the machine and does not run.", {label}),
                 "tessardctl start; or tessardctl stop, which also keeps it down at the next boot");
  } else if (!unit.isEnabled && unit.isRunning) {
    findings.add(kNotEnabled, label, fill("\"%@\" runs and will not be started with the machine.", {label}),
                 "tessardctl start, which enables it as well");
  }
}

void examineUnit(const std::string& label, const UnitFacts& unit, Findings& findings) {
  if (!unit.isKnown) {
    findings.add(
        kUnknown, label, fill("The service manager knows no unit \"%@\".", {label}),
        "Install the package tessardd-instance; on a machine with s6, put the service's directory into "
        "the scan directory.");
    return;
  }
  if (unit.isMasked) {
    findings.add(kMasked, label, fill("The unit \"%@\" is masked, so nothing can start it.", {label}),
                 fill("systemctl unmask %@.service", {label}));
  }
  for (const std::string& path : unit.dropIns) {
    findings.add(kOverridden, label, fill("\"%@\" changes the unit \"%@\".", {path, label}),
                 fill("Nothing, if that is meant; systemctl cat %@.service shows all of it.", {label}));
  }
}

// What the launchers say themselves.
void examineReports(CheckedSystem& system, Units& units, Findings& findings) {
  const Dictionary reports = ServiceReports(system.configuration.root).all();
  for (const char* label : {kJabberLabel, kNotificationLaunchdLabel}) {
    const Dictionary* report = reports.dictionaryFor(label);
    const std::string* state = report ? report->stringFor("state") : nullptr;
    const std::string* reason = report ? report->stringFor("reason") : nullptr;
    UnitFacts& unit = units[label];
    const bool isDown = state && (*state == "failed" || *state == "restarting" || *state == "lost");
    if (!isDown && !unit.hasFailed) continue;
    unit.hasFailed = true;
    findings.add(
        kFailed, label,
        fill("The service \"%@\" has failed%@%@", {label, reason ? ": " : ".", reason ? *reason : ""}),
        "tessardctl log shows its last lines, and tessardctl start tries again and tells how far it comes.");
  }
}

void examineForeign(CheckedSystem& system, Findings& findings) {
  for (const char* label : kForeignUnits) {
    const auto facts = unitFacts(system, label);
    if (!facts || !facts.value().isKnown) continue;
    if (facts.value().isRunning) {
      findings.add(kForeign, label,
                   fill("Debian's own \"%@\" runs beside the private instance and takes its ports.", {label}),
                   fill("systemctl disable --now %@.service", {label}));
    }
    const std::string path = fill(kOwnDropIn, {label});
    if (!system.files.exists(path)) continue;
    findings.add(kReleased, label,
                 fill("\"%@\" lets Debian's own \"%@\" run, which takes the ports of the private instance.",
                      {path, label}),
                 "Remove the file, or give one of them other ports.");
  }
}

void examineBridge(CheckedSystem& system, Units& units, Findings& findings) {
  const Instance& instance = system.instance();
  const Value* enabled = instance.settings ? instance.settings->find("korvbridgeEnabled") : nullptr;
  if (!enabled || !enabled->boolValue()) return;
  if (!ask(system, kKorvBridgeLabel, units, findings) || units[kKorvBridgeLabel].isKnown) return;
  findings.add(
      kBridge, kKorvBridgeLabel,
      fill("The push bridge is on (korvbridgeEnabled), and there is no unit \"%@\" to start: it is another "
           "program.",
           {kKorvBridgeLabel}),
      "Install the bridge with its unit, or: tessardctl settings set korvbridgeEnabled=false");
}

void examineUnits(CheckedSystem& system, Findings& findings) {
  const std::string manager = serviceManagerOf(system.configuration);
  if (manager == "none") {
    findings.add(
        kNoManager, "service-manager",
        "This daemon has no service manager, so that the services can be configured and not started.",
        "Set \"service-manager\" in tessardd.conf, if they are to run here.");
    return;
  }
  Units units;
  for (const char* label : {kJabberLabel, kNotificationLaunchdLabel, kPasswordsLabel}) {
    if (!ask(system, label, units, findings)) return;
    examineUnit(label, units[label], findings);
  }
  examineReports(system, units, findings);
  const UnitFacts& jabber = units[kJabberLabel];
  const UnitFacts& notification = units[kNotificationLaunchdLabel];
  examineRuns(kJabberLabel, jabber, findings);
  examineRuns(kNotificationLaunchdLabel, notification, findings);
  if (jabber.isRunning != notification.isRunning && jabber.isKnown && notification.isKnown) {
    const bool isFirst = jabber.isRunning;
    findings.add(kApart, isFirst ? kNotificationLaunchdLabel : kJabberLabel,
                 fill("\"%@\" runs without \"%@\", and the service needs both.",
                      {isFirst ? kJabberLabel : kNotificationLaunchdLabel,
                       isFirst ? kNotificationLaunchdLabel : kJabberLabel}),
                 "tessardctl restart");
  }
  examineBridge(system, units, findings);
  if (manager == "systemd") examineForeign(system, findings);
}

}  // namespace

const CheckArea kUnitsArea = {"units", "the service manager's units", 20, kKinds, examineUnits};

}  // namespace tessard
