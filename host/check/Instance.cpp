#include "host/check/Instance.h"

#include <algorithm>
#include <utility>

#include "common/Format.h"
#include "common/PropertyList.h"
#include "common/Text.h"
#include "config/ComponentConfiguration.h"
#include "config/JabberPaths.h"
#include "config/KnownDocuments.h"
#include "config/LiveElements.h"
#include "config/MasterConfiguration.h"
#include "config/MasterFileLines.h"
#include "config/NotificationPlaces.h"

namespace tessard {

namespace {

void readComponent(FileSystem& files, KnownDocuments& known, InstanceComponent& component) {
  auto text = files.readFile(component.path, NOTIFICATION_PLUGIN_ComponentConfiguration::kMaximumFileSize);
  if (!text) {
    component.unreadable = text.error();
    return;
  }
  auto document = known.parse(component.kind, std::move(text).value());
  if (document) {
    component.document = std::move(document).value();
  } else {
    component.malformed = document.error();
  }
}

void readMaster(FileSystem& files, Instance& instance) {
  const auto text = files.readFile(inConfiguration(kMasterFileName),
                                   NOTIFICATION_PLUGIN_MasterConfiguration::kMaximumFileSize);
  if (!text) {
    instance.masterProblem = text.error();
    return;
  }
  KnownDocuments known;
  for (const std::string& line : linesOf(text.value())) {
    auto listed = listedComponentIn(line);
    if (!listed) {
      if (!line.starts_with('#') && !trimmed(line, " \t").empty()) instance.strayLines.push_back(line);
      continue;
    }
    const auto isSame = [&](const InstanceComponent& other) {
      return other.kind == listed->kind && other.path == listed->path;
    };
    if (std::ranges::any_of(instance.components, isSame)) continue;
    InstanceComponent component;
    component.kind = std::move(listed->kind);
    component.path = std::move(listed->path);
    readComponent(files, known, component);
    instance.components.push_back(std::move(component));
  }
}

void readList(FileSystem& files, const char* path, std::optional<Dictionary>& content,
              std::optional<SystemError>& problem) {
  auto read = readPropertyListFile(files, path);
  if (read) {
    content = std::move(read).value();
  } else {
    problem = read.error();
  }
}

}  // namespace

std::vector<XmlNode> InstanceComponent::elementsAt(std::string_view where) const {
  return document ? liveElementsAt(document->root(), where) : std::vector<XmlNode>();
}

std::vector<std::string> InstanceComponent::textsAt(std::string_view where) const {
  return document ? liveTextsAt(document->root(), where) : std::vector<std::string>();
}

std::string InstanceComponent::textAt(std::string_view where) const {
  return document ? liveTextAt(document->root(), where) : "";
}

bool Instance::isSetUp() const {
  const Value* initialized = preferences ? preferences->find("initialized") : nullptr;
  return initialized && initialized->boolValue();
}

std::vector<const InstanceComponent*> Instance::all(std::string_view kind) const {
  std::vector<const InstanceComponent*> found;
  for (const InstanceComponent& component : components) {
    if (component.kind == kind) found.push_back(&component);
  }
  return found;
}

const InstanceComponent* Instance::first(std::string_view kind) const {
  const auto found = all(kind);
  return found.empty() || !found.front()->document ? nullptr : found.front();
}

std::vector<std::string> Instance::domains() const {
  const InstanceComponent* c2s = first("c2s");
  return c2s ? c2s->textsAt("local.id") : std::vector<std::string>();
}

Instance readInstance(FileSystem& files) {
  Instance instance;
  readMaster(files, instance);
  readList(files, kNotificationSettingsFile, instance.settings, instance.settingsProblem);
  readList(files, kPluginPreferencesFile, instance.preferences, instance.preferencesProblem);
  return instance;
}

std::string inConfiguration(std::string_view name) {
  return fill("%@/%@", {kJabberConfigDirectory, name});
}

}  // namespace tessard
