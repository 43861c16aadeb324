#include "atoms/JabberServiceAtom.h"
#include "common/Format.h"
#include "config/JabberPaths.h"

namespace tessard {

bool NOTIFICATION_PLUGIN_JabberServiceAtom::createDirectory_ownerID_groupID_permissions(
    const std::string& path, unsigned ownerID, unsigned groupID, unsigned permissions) {
  return makeDirectory(path, {ownerID, groupID, permissions}).ok();
}

Result<void> NOTIFICATION_PLUGIN_JabberServiceAtom::makeDirectory(const std::string& path,
                                                                  const FileOwnership& ownership) {
  auto made = platform().files.createDirectory(path, ownership, true);
  if (made || isDirectory(path)) return {};
  logDebug_source(fill("creating directory '%@' failed: '%@'", {path, made.error().description()}), "");
  return made;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::isDirectory(const std::string& path) {
  const auto attributes = platform().files.attributes(path);
  return attributes && attributes.value().kind == FileAttributes::Kind::directory;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::directoryHasAttributes_ownerID_groupID_permissions(
    const std::string& path, unsigned ownerID, unsigned groupID, unsigned permissions) {
  const auto read = platform().files.attributes(path);
  if (!read) {
    logDebug_source(fill("missing directory '%s': '%@'", {path, read.error().description()}), "");
    return false;
  }
  const FileAttributes& attributes = read.value();
  bool asExpected = true;
  const auto expect = [&](bool holds, const std::string& complaint) {
    if (holds) return;
    logDebug_source(complaint, "");
    asExpected = false;
  };
  expect(attributes.kind == FileAttributes::Kind::directory, fill("file is not a directory: '%@'", {path}));
  expect(attributes.owner == ownerID,
         fill("directory has incorrect owner, should be %u: '%@'", {ownerID, path}));
  expect(attributes.group == groupID,
         fill("directory has incorrect group, should be %u: '%@'", {groupID, path}));
  expect(attributes.permissions == permissions,
         fill("directory has incorrect permissions, should be %o: '%@'", {permissions, path}));
  return asExpected;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::configureDirectory_ownerID_groupID_permissions(
    const std::optional<std::string>& path, unsigned ownerID, unsigned groupID, unsigned permissions) {
  if (!path) return false;
  Result<void> made;
  if (!platform().files.exists(*path)) {
    // Both answers only log: what counts is whether the owner can write in the directory in the end.
    made = makeDirectory(*path, {ownerID, groupID, permissions});
    directoryHasAttributes_ownerID_groupID_permissions(*path, ownerID, groupID, permissions);
  }
  if (userHasDirectoryWriteAccess_userID(path, ownerID)) {
    logDebug_source(fill("directory configured correctly: '%@'", {*path}), "");
    return true;
  }
  logError_source(fill("inaccessible directory: %@", {*path}), "");
  // Otherwise the path alone tells what can be wrong: owner, permissions, or that it is no directory.
  if (!made)
    logWarning_source(fill("Reason of the inaccessible directory: %@", {made.error().description()}), "");
  return false;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::userHasDirectoryWriteAccess_userID(
    const std::optional<std::string>& path, unsigned userID) {
  if (!path) return false;
  Bundle* bundle = platform().bundles.bundleWithIdentifier(kPluginBundleIdentifier);
  const auto tool = bundle ? bundle->pathForResource_ofType("check_user_access", "") : std::nullopt;
  if (!tool) {
    logError_source("failed to find bundle with requested identifier", "");
    return false;
  }
  logDebug_source(fill("executing: %@", {*tool}), "");
  return platform().tasks.ZtRunTask(
             *tool, {TaskArgument::text(fill("%lu", {userID})), TaskArgument::path(*path)}) == 0;
}

bool NOTIFICATION_PLUGIN_JabberServiceAtom::createServicePidDirectory() {
  const auto there = isThere(platform().files, kJabberRunDirectory);
  if (there && there.value()) return true;
  const auto made =
      there ? platform().files.createDirectory(
                  kJabberRunDirectory, {kJabberUserID, kRunDirectoryGroupID, kRunDirectoryPermissions}, false)
            : Result<void>(there.error());
  if (made) return true;
  logError_source(
      fill("unable to create the pid directory for the service: '%@'", {made.error().description()}), "");
  return false;
}

}  // namespace tessard
