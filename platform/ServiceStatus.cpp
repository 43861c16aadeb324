#include "platform/ServiceStatus.h"

#include <cerrno>

#include "common/Format.h"
#include "common/PropertyList.h"

namespace tessard {

namespace {

const FileOwnership kPublicDirectory{.owner = {}, .group = {}, .permissions = 0755};
const FileOwnership kPublicFile{.owner = {}, .group = {}, .permissions = 0644};

std::string pathOf(std::string_view label) {
  return fill("%@/%@.plist", {kServiceStatusDirectory, label});
}

Dictionary asDictionary(const ServiceStatus& status) {
  Array parts;
  for (const PartStatus& part : status.parts) {
    parts.emplace_back(
        Dictionary{{"name", part.name}, {"state", part.state}, {"pid", std::int64_t{part.pid}}});
  }
  return {{"pid", std::int64_t{status.pid}},
          {"state", status.state},
          {"reason", status.reason},
          {"parts", std::move(parts)}};
}

std::string textFor(const Dictionary& dictionary, std::string_view key) {
  const std::string* text = dictionary.stringFor(key);
  return text ? *text : "";
}

pid_t pidFor(const Dictionary& dictionary) {
  const Value* pid = dictionary.find("pid");
  return pid ? static_cast<pid_t>(pid->integerValue()) : 0;
}

ServiceStatus fromDictionary(const Dictionary& dictionary) {
  ServiceStatus status{pidFor(dictionary), textFor(dictionary, "state"), textFor(dictionary, "reason"), {}};
  const Array* parts = dictionary.arrayFor("parts");
  if (!parts) return status;
  for (const Value& value : *parts) {
    const Dictionary* part = value.asDictionary();
    if (part) status.parts.push_back({textFor(*part, "name"), textFor(*part, "state"), pidFor(*part)});
  }
  return status;
}

}  // namespace

Result<void> publishServiceStatus(FileSystem& files, std::string_view label, const ServiceStatus& status) {
  const auto text = serializePropertyList(asDictionary(status));
  if (!text) return text.error();
  const auto made = files.createDirectory(kServiceStatusDirectory, kPublicDirectory, false);
  if (!made && made.error().code() != EEXIST) return made.error();
  const std::string path = pathOf(label);
  const std::string next = path + ".new";
  if (auto created = files.createFile(next, text.value(), kPublicFile, Flush::now); !created) return created;
  return files.rename(next, path);
}

Result<void> withdrawServiceStatus(FileSystem& files, std::string_view label) {
  auto removed = files.remove(pathOf(label));
  if (!removed && removed.error().code() == ENOENT) return {};
  return removed;
}

std::map<std::string, ServiceStatus> readServiceStatuses(FileSystem& files) {
  constexpr std::string_view kEnding = ".plist";
  std::map<std::string, ServiceStatus> statuses;
  const auto names = files.listDirectory(kServiceStatusDirectory);
  if (!names) return statuses;
  for (const std::string& name : names.value()) {
    if (!name.ends_with(kEnding)) continue;
    const std::string label = name.substr(0, name.size() - kEnding.size());
    if (const auto content = readPropertyListFile(files, pathOf(label))) {
      statuses.emplace(label, fromDictionary(content.value()));
    }
  }
  return statuses;
}

}  // namespace tessard
