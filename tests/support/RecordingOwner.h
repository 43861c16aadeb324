#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "atoms/ServiceOwner.h"
#include "config/MasterConfiguration.h"

namespace tessard {

/// An owner of service atoms with the real master configuration, whose preferences live in memory and keep
/// what is saved.
class RecordingOwner : public ServiceOwner {
 public:
  std::unique_ptr<NOTIFICATION_PLUGIN_MasterConfiguration> master;
  std::optional<std::string> hostDomain = "chat.example.com";
  std::optional<Dictionary> preferences = Dictionary{};
  int preferenceLoads = 0;
  /// Called at each load of preferences that are there; may put them into the file of a real owner.
  std::function<void(const Dictionary&)> onLoad;
  /// The domains of every service, and the services whose domains were asked for.
  std::optional<std::vector<std::string>> domains = std::vector<std::string>{};
  std::vector<std::string> domainsAsked;
  /// Every dictionary that was saved, in order.
  std::vector<Dictionary> saved;

  explicit RecordingOwner(Platform& platform)
      : master(NOTIFICATION_PLUGIN_MasterConfiguration::masterConfiguration(platform)) {}

  NOTIFICATION_PLUGIN_MasterConfiguration* masterConfig() override { return master.get(); }
  std::optional<std::string> currentHostDomain() override { return hostDomain; }
  std::optional<std::vector<std::string>> getDomainsForService(std::string_view name) override {
    domainsAsked.emplace_back(name);
    return domains;
  }
  std::optional<Dictionary> loadPreferences() override {
    ++preferenceLoads;
    if (preferences && onLoad) onLoad(*preferences);
    return preferences;
  }
  bool savePreferences(const Dictionary& changed) override {
    saved.push_back(changed);
    preferences = changed;
    return true;
  }
  std::optional<Value> getPreferenceValueForKey(std::string_view key) override {
    const Value* value = preferences ? preferences->find(key) : nullptr;
    return value ? std::optional(*value) : std::nullopt;
  }
};

}  // namespace tessard
