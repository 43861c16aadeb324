#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Value.h"

namespace tessard {

class NOTIFICATION_PLUGIN_MasterConfiguration;

/// What a service atom needs of the coordinator that owns it. The owner outlives its atoms.
class ServiceOwner {
 public:
  virtual ~ServiceOwner() = default;

  /// The model of the jabberd configuration; null when there is none.
  virtual NOTIFICATION_PLUGIN_MasterConfiguration* masterConfig() = 0;

  /// The host's name, asked anew on every call; absent when it cannot be determined.
  virtual std::optional<std::string> currentHostDomain() = 0;

  /// The domains of all services of that name, empty when they serve none; absent when there is nobody to
  /// tell.
  virtual std::optional<std::vector<std::string>> getDomainsForService(std::string_view name) = 0;

  /// The plug-in's preferences, read afresh; seeded with the defaults when there is no file yet. Absent when
  /// no host name can be determined for the defaults or the file cannot be read.
  virtual std::optional<Dictionary> loadPreferences() = 0;

  /// Replaces the preferences file. Always true: a failed write goes unreported.
  virtual bool savePreferences(const Dictionary& preferences) = 0;

  /// One value of `loadPreferences`.
  virtual std::optional<Value> getPreferenceValueForKey(std::string_view key) = 0;
};

}  // namespace tessard
