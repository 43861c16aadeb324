#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>

#include "common/DurableReplace.h"
#include "common/Format.h"
#include "config/JabberPaths.h"
#include "config/MasterFileLines.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"
#include "platform/keychain/KeychainDirectory.h"

namespace tessard {

namespace {

constexpr FindingKind kMissing = {"file-missing", Severity::error};
constexpr FindingKind kNoFile = {"not-a-file", Severity::error};
constexpr FindingKind kUnexpectedLink = {"unexpected-link", Severity::warning};
constexpr FindingKind kWrongOwner = {"file-owner", Severity::error};
constexpr FindingKind kOpenToAll = {"readable-by-others", Severity::error};
constexpr FindingKind kWrongMode = {"file-mode", Severity::warning};
constexpr FindingKind kChangeable = {"changeable-by-others", Severity::error};
constexpr FindingKind kLeftover = {"leftover-file", Severity::warning};
constexpr FindingKind kUnlisted = {"unlisted-session-manager", Severity::notice};
constexpr FindingKind kKeychain = {"keychain-refused", Severity::error};
constexpr FindingKind kPrivateLink = {"private-link", Severity::error};
constexpr std::array kKinds = {kMissing,    kNoFile,   kUnexpectedLink, kWrongOwner, kOpenToAll,  kWrongMode,
                               kChangeable, kLeftover, kUnlisted,       kKeychain,   kPrivateLink};

constexpr mode_t kAnyPermissions = S_IRWXU | S_IRWXG | S_IRWXO;

struct ExpectedFile {
  std::string path;
  FileOwnership ownership;
  std::string whenMissing;  ///< the remedy
  bool holdsSecrets = true;
};

std::string remedyWithBackup(CheckedSystem& system, const std::string& path) {
  const std::string backup = backupPathFor(path);
  if (!system.files.exists(backup))
    return "Put it back from a backup, or take its line out of the master file.";
  return fill("Look into \"%@\", and copy it to \"%@\".", {backup, path});
}

std::vector<ExpectedFile> expectedFiles(CheckedSystem& system) {
  const std::string prepare = fill("Run %@/prepare-instance, which makes it from the template.",
                                   {system.configuration.programsDirectory});
  std::vector<ExpectedFile> files = {
      {inConfiguration(kMasterFileName), kConfigurationFileOwnership, prepare, false},
      {inConfiguration("router-users.xml"), kConfigurationFileOwnership, prepare}};
  for (const InstanceComponent& component : system.instance().components) {
    const std::string name = lastPathComponent(component.path);
    const bool isSecondary = component.kind == "sm" && name != "sm.xml";
    files.push_back({component.path, kConfigurationFileOwnership,
                     isSecondary ? remedyWithBackup(system, component.path) : prepare});
  }
  if (!system.instance().isSetUp()) return files;
  files.push_back({kNotificationSettingsFile, kNotificationConfigOwnership,
                   "Run tessardctl settings get, which makes it from the defaults."});
  FileOwnership preferences = kBundleConfigOwnership;
  preferences.owner = 0;
  files.push_back({kPluginPreferencesFile, preferences, "Run tessardctl setup."});
  return files;
}

void examineRights(const ExpectedFile& file, const FileAttributes& is, Findings& findings) {
  const std::string& path = file.path;
  const FileOwnership& expected = file.ownership;
  const bool isRootsOwn = is.owner == 0 && !file.holdsSecrets;
  if (is.owner != *expected.owner && !isRootsOwn) {
    findings.add(kWrongOwner, path,
                 fill("\"%@\" belongs to the user %u and not to %u, who must be able to read it alone.",
                      {path, is.owner, *expected.owner}),
                 fill("chown %u %@", {*expected.owner, path}));
  }
  const mode_t permissions = is.permissions & kAnyPermissions;
  if ((permissions & S_IRWXO) != 0 && file.holdsSecrets) {
    findings.add(kOpenToAll, path,
                 fill("Everybody on this machine may open \"%@\" (mode %o), which holds secrets.",
                      {path, permissions}),
                 fill("chmod %o %@, and then draw new secrets if others use this machine.",
                      {*expected.permissions, path}));
  } else if (permissions != *expected.permissions) {
    findings.add(kWrongMode, path,
                 fill("\"%@\" has the mode %o and not %o.", {path, permissions, *expected.permissions}),
                 fill("chmod %o %@", {*expected.permissions, path}));
  }
}

void examineFile(CheckedSystem& system, const ExpectedFile& file, Findings& findings) {
  if (system.isLink(file.path)) {
    findings.add(
        kUnexpectedLink, file.path,
        fill("\"%@\" is a symbolic link; the next write of settings replaces the link and not what it "
             "leads to.",
             {file.path}),
        "Put the file itself in the link's place.");
  }
  const auto attributes = system.files.attributes(file.path);
  if (!attributes) {
    findings.add(kMissing, file.path,
                 fill("\"%@\" cannot be found: %@.", {file.path, attributes.error().description()}),
                 file.whenMissing);
  } else if (attributes.value().kind != FileAttributes::Kind::regular) {
    findings.add(kNoFile, file.path, fill("\"%@\" is no file, so nothing can be read from it.", {file.path}),
                 fill("Move it away. %@", {file.whenMissing}));
  } else {
    examineRights(file, attributes.value(), findings);
  }
}

// What prepare-instance makes before a file has its name.
bool isUnfinished(const std::string& name) {
  const auto mark = name.find(".new.");
  return mark != std::string::npos && name.size() == mark + std::string(".new.XXXXXXXX").size();
}

void examineDirectory(CheckedSystem& system, const std::string& directory, std::string_view prefix,
                      Findings& findings) {
  const auto names = system.files.listDirectory(directory);
  if (!names) return;
  for (const std::string& name : names.value()) {
    if (!name.starts_with(prefix) || (!name.ends_with(".tmp") && !isUnfinished(name))) continue;
    const std::string path = fill("%@/%@", {directory, name});
    findings.add(
        kLeftover, path,
        fill("\"%@\" is left of a write that did not succeed; it holds what was to be written.", {path}),
        "Compare it with the file itself, and remove it.");
  }
}

void examineUnlisted(CheckedSystem& system, Findings& findings) {
  const auto names = system.files.listDirectory(kJabberConfigDirectory);
  if (!names || system.instance().masterProblem) return;
  std::set<std::string> listed;
  for (const InstanceComponent& component : system.instance().components) listed.insert(component.path);
  for (const std::string& name : names.value()) {
    const std::string path = inConfiguration(name);
    if (!name.starts_with("sm_") || !name.ends_with(".xml") || listed.contains(path)) continue;
    findings.add(kUnlisted, path,
                 fill("\"%@\" configures a session manager that the master file does not list.", {path}),
                 "Remove it, or serve its domain: tessardctl settings set hosts=[...]");
  }
}

void examineChangeable(CheckedSystem& system, const std::string& path, Findings& findings) {
  const auto attributes = system.files.attributes(path);
  if (!attributes || (attributes.value().permissions & S_IWOTH) == 0) return;
  findings.add(kChangeable, path,
               fill("Everybody on this machine may change \"%@\", and so what runs as root here.", {path}),
               fill("chmod o-w %@, and see whether somebody has changed it.", {path}));
}

void examineKeychain(CheckedSystem& system, Findings& findings) {
  const auto told = [&](const KeychainError& error) {
    findings.add(kKeychain, kKeychainDirectory, fill("The keychain cannot be used: %@.", {error.text}),
                 "keywarden --help tells how a keychain is made; \"ls -la\" shows what stands in its place.");
  };
  const auto directory = KeychainDirectory::open(system.configuration.root);
  if (!directory) return told(directory.error());
  if (!directory.value()) return;
  if (const auto store = directory.value()->hasStore(); !store) return told(store.error());
  if (const auto key = directory.value()->key(); !key) told(key.error());
}

// The configuration names files by "/private/etc" and "/private/var".
void examinePrivateLink(CheckedSystem& system, const std::string& name, Findings& findings) {
  const std::string path = "/private" + name;
  const auto wanted = system.files.attributes(name);
  const auto found = system.files.attributes(path);
  if (wanted && found && wanted.value().inode == found.value().inode &&
      wanted.value().device == found.value().device) {
    return;
  }
  findings.add(
      kPrivateLink, path,
      fill("\"%@\" does not lead to \"%@\", so that the service and this daemon may look at different files.",
           {path, name}),
      fill("Move what is there to \"%@\", and make the link: ln -sT ..%@ %@", {name, name, path}));
}

void examineFiles(CheckedSystem& system, Findings& findings) {
  for (const ExpectedFile& file : expectedFiles(system)) examineFile(system, file, findings);
  examineDirectory(system, kJabberConfigDirectory, "", findings);
  for (const char* path : {kNotificationSettingsFile, kPluginPreferencesFile}) {
    examineDirectory(system, directoryOf(path), lastPathComponent(path), findings);
  }
  examineUnlisted(system, findings);
  examineChangeable(system, system.configuration.configurationFile, findings);
  examineChangeable(system, system.configuration.bundlesDirectory, findings);
  examineChangeable(system, kJabberConfigDirectory, findings);
  examineKeychain(system, findings);
  examinePrivateLink(system, "/etc", findings);
  examinePrivateLink(system, "/var", findings);
}

}  // namespace

const CheckArea kFilesArea = {"files", "owners, modes and leftovers of configuration files", 10, kKinds,
                              examineFiles};

}  // namespace tessard
