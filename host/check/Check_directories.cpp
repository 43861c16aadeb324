#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>

#include "common/Format.h"
#include "config/JabberPaths.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"
#include "host/check/Rights.h"

namespace tessard {

namespace {

constexpr FindingKind kMissing = {"directory-missing", Severity::error};
constexpr FindingKind kNone = {"not-a-directory", Severity::error};
constexpr FindingKind kLink = {"directory-link", Severity::error};
constexpr FindingKind kClosed = {"directory-closed", Severity::error};
constexpr FindingKind kChangeable = {"directory-changeable", Severity::error};
constexpr FindingKind kFull = {"space-gone", Severity::error};
constexpr FindingKind kNearlyFull = {"space-low", Severity::warning};
constexpr FindingKind kReadOnly = {"disk-read-only", Severity::error};
constexpr std::array kKinds = {kMissing, kNone, kLink, kClosed, kChangeable, kFull, kNearlyFull, kReadOnly};

constexpr std::uint64_t kMebibyte = std::uint64_t{1024} * 1024;
constexpr std::uint64_t kLeastSpace = 10 * kMebibyte;
constexpr std::uint64_t kLittleSpace = 100 * kMebibyte;
constexpr std::uint64_t kFewFiles = 1000;

constexpr mode_t kEnter = S_IXOTH;
constexpr mode_t kUse = S_IROTH | S_IWOTH | S_IXOTH;

// The publish-subscribe launcher's, which makes it at its first start.
constexpr const char* kClusterDirectory = "/var/lib/tessard-pubsub";

struct ExpectedDirectory {
  std::string path;
  mode_t rights;  ///< that the service's account needs
  bool mustBe = true;
  bool mayBeLink = false;
};

std::vector<ExpectedDirectory> expectedDirectories(const Instance& instance) {
  std::vector<ExpectedDirectory> directories = {{kJabberConfigDirectory, kEnter, true, true},
                                                // Made by the launchers, and gone after a boot.
                                                {kJabberRunDirectory, kUse, false},
                                                {kClusterDirectory, kUse, false}};
  if (!instance.isSetUp()) return directories;
  std::set<std::string> databases;
  for (const InstanceComponent* sm : instance.all("sm")) {
    const std::string path = sm->textAt("storage.sqlite.dbname");
    if (path.starts_with('/') && databases.insert(directoryOf(path)).second) {
      directories.push_back({directoryOf(path), kUse, true, true});
    }
  }
  for (const char* path : {kNotificationDataDirectory, kKorvBridgeDirectory, kNotificationLogDirectory}) {
    directories.push_back({path, kUse});
  }
  const InstanceComponent* router = instance.first("router");
  if (router && router->textAt("message_logging_enabled") == "1") {
    directories.push_back({router->textAt("message_logging_dir"), kUse, true, true});
  }
  return directories;
}

void examineRights(CheckedSystem& system, const ExpectedDirectory& directory, const FileAttributes& is,
                   Findings& findings) {
  const std::string& path = directory.path;
  const std::string above = closedDirectoryAbove(system, path);
  if (!serviceMay(is, directory.rights) || !above.empty()) {
    const std::string& closed = above.empty() ? path : above;
    findings.add(
        kClosed, path,
        fill("The service's account %u cannot %@ \"%@\" (owner %u, group %u, mode %o%@).",
             {kJabberUserID, directory.rights == kUse ? "write in" : "enter", path, is.owner, is.group,
              is.permissions, above.empty() ? "" : fill("; \"%@\" is closed to it", {closed})}),
        above.empty() && directory.rights == kUse
            ? fill("chown %u %@ and chmod u+rwx %@", {kJabberUserID, path, path})
            : fill("chgrp %u %@ and chmod g+x %@", {kJabberGroupID, closed, closed}));
  }
  if ((is.permissions & S_IWOTH) == 0 || (is.permissions & S_ISVTX) != 0) return;
  findings.add(kChangeable, path,
               fill("Everybody on this machine may make and remove files in \"%@\" (mode %o).",
                    {path, is.permissions}),
               fill("chmod o-w %@, and see what was put there.", {path}));
}

void examineDirectory(CheckedSystem& system, const ExpectedDirectory& directory, Findings& findings) {
  const std::string& path = directory.path;
  if (!directory.mayBeLink && system.isLink(path)) {
    findings.add(kLink, path, fill("\"%@\" is a symbolic link, which this daemon does not use.", {path}),
                 "Put what it leads to in its place, or remove the link.");
    return;
  }
  const auto attributes = system.files.attributes(path);
  if (!attributes) {
    if (attributes.error().code() == ENOENT && !directory.mustBe) return;
    findings.add(kMissing, path,
                 fill("The directory \"%@\" cannot be found: %@.", {path, attributes.error().description()}),
                 path == kJabberConfigDirectory
                     ? fill("Run %@/prepare-instance.", {system.configuration.programsDirectory})
                     : "tessardctl setup makes the service's directories; others come from a backup.");
  } else if (attributes.value().kind != FileAttributes::Kind::directory) {
    findings.add(kNone, path, fill("\"%@\" is no directory.", {path}), "Move it away: tessardctl setup");
  } else {
    examineRights(system, directory, attributes.value(), findings);
  }
}

// One place of each file system.
void examineSpace(CheckedSystem& system, const std::vector<ExpectedDirectory>& directories,
                  Findings& findings) {
  std::set<std::uint64_t> seen;
  for (const ExpectedDirectory& directory : directories) {
    const std::string& path = directory.path;
    const auto attributes = system.files.attributes(path);
    const auto place = system.machinePathOf(path);
    struct statvfs space {};
    if (!attributes || !place || !seen.insert(attributes.value().device).second) continue;
    if (::statvfs(place.value().c_str(), &space) != 0) continue;
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    const bool fewFiles = space.f_files > 0 && space.f_favail < kFewFiles;
    if ((space.f_flag & ST_RDONLY) != 0) {
      findings.add(kReadOnly, path, fill("The file system of \"%@\" is read-only.", {path}),
                   "See what the kernel's log says of the disk (dmesg), and mount it for writing.");
    } else if (free < kLeastSpace || (fewFiles && space.f_favail == 0)) {
      findings.add(kFull, path,
                   fill("The file system of \"%@\" is full: %lu MiB and %lu files are left.",
                        {path, free / kMebibyte, std::uint64_t{space.f_favail}}),
                   "Remove what is not needed there; \"du -xh\" shows what takes the room.");
    } else if (free < kLittleSpace || fewFiles) {
      findings.add(kNearlyFull, path,
                   fill("The file system of \"%@\" has %lu MiB and room for %lu files left.",
                        {path, free / kMebibyte, std::uint64_t{space.f_favail}}),
                   "Remove what is not needed there; \"du -xh\" shows what takes the room.");
    }
  }
}

void examineDirectories(CheckedSystem& system, Findings& findings) {
  const auto directories = expectedDirectories(system.instance());
  for (const ExpectedDirectory& directory : directories) examineDirectory(system, directory, findings);
  examineSpace(system, directories, findings);
}

}  // namespace

const CheckArea kDirectoriesArea = {"directories", "data directories, who may use them, and the room there",
                                    10, kKinds, examineDirectories};

}  // namespace tessard
