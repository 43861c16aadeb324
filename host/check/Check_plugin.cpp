#include <array>
#include <cerrno>

#include "common/Format.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"
#include "platform/journal/JournalDirectory.h"

namespace tessard {

namespace {

constexpr FindingKind kNotLoaded = {"plugin-not-loaded", Severity::error};
constexpr FindingKind kNone = {"no-plugin", Severity::error};
constexpr FindingKind kNotSetUp = {"not-set-up", Severity::warning};
constexpr FindingKind kUnreadable = {"settings-unreadable", Severity::error};
constexpr FindingKind kForeign = {"journal-foreign", Severity::warning};
constexpr FindingKind kUndone = {"journal-undone", Severity::notice};
constexpr std::array kKinds = {kNotLoaded, kNone, kNotSetUp, kUnreadable, kForeign, kUndone};

void examineBundles(CheckedSystem& system, Findings& findings) {
  for (const auto& [name, problem] : system.plugins.problems) {
    findings.add(kNotLoaded, name, fill("The plug-in \"%@\" is not loaded: %@.", {name, problem}),
                 "Install the package tessardd again, and restart the daemon.");
  }
  if (!system.plugins.loaded.empty() || !system.plugins.problems.empty()) return;
  const std::string& directory = system.configuration.bundlesDirectory;
  findings.add(kNone, directory,
               fill("There are no plug-ins in \"%@\", so nothing can be administered.", {directory}),
               "Install the package tessardd again, and restart the daemon.");
}

void examineList(const char* path, const std::optional<SystemError>& problem, Findings& findings) {
  // Of a missing file the files' area tells.
  if (!problem || problem->code() == ENOENT) return;
  findings.add(kUnreadable, path, fill("\"%@\" cannot be read: %@.", {path, problem->description()}),
               "Put it back from a backup; \"plistutil\" shows where it is broken.");
}

void examineJournal(CheckedSystem& system, Findings& findings) {
  const std::string foreign = kJournalHome + kForeignSuffix;
  if (system.files.exists(foreign)) {
    findings.add(
        kForeign, foreign,
        fill("The journal of changes belonged to somebody else and was put aside as \"%@\".", {foreign}),
        "See who has made it, and remove it.");
  }
  const std::string replaced = std::string(kJournalHome) + "/" + kUndoneJournal + "/" + kReplaced;
  const auto kept = system.files.listDirectory(replaced);
  if (!kept || kept.value().empty()) return;
  findings.add(
      kUndone, replaced,
      fill("A request was cut off by a crash and was undone; what stood in the files then is kept in \"%@\".",
           {replaced}),
      "Remove it if nobody had edited these files by hand; the next request does so after another crash.");
}

void examinePlugin(CheckedSystem& system, Findings& findings) {
  const Instance& instance = system.instance();
  examineBundles(system, findings);
  examineList(kPluginPreferencesFile, instance.preferencesProblem, findings);
  examineList(kNotificationSettingsFile, instance.settingsProblem, findings);
  const bool isUnknown = instance.preferencesProblem && instance.preferencesProblem->code() != ENOENT;
  if (!instance.isSetUp() && !isUnknown) {
    findings.add(
        kNotSetUp, "setup",
        "First-time setup is not done, so the service cannot be started and some areas have little to "
        "look at.",
        "tessardctl setup");
  }
  examineJournal(system, findings);
}

}  // namespace

const CheckArea kPluginArea = {"plugin", "plug-ins, first-time setup and the journal of changes", 10, kKinds,
                               examinePlugin};

}  // namespace tessard
