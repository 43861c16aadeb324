#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Value.h"

namespace tessard {

/// A setting that is wanted otherwise than it is.
struct SettingDifference {
  std::string key;
  std::optional<Value> old;     ///< absent when the setting has no value
  std::optional<Value> wanted;  ///< absent when it is to have none
};

/// What would have to be written for the settings to be as wanted, in the order of `wanted`. Values that the
/// service takes for the same are no difference: "5218" and 5218, 1 and true, names in upper and lower case.
std::vector<SettingDifference> differencesBetween(const Dictionary& wanted, const Dictionary& current);

/// The same, and the current settings that are not wanted at all.
std::vector<SettingDifference> allDifferencesBetween(const Dictionary& wanted, const Dictionary& current);

/// The first key that is no setting, as a sentence that proposes the one that may be meant; absent when all
/// are.
std::optional<std::string> problemWithKeys(const Dictionary& settings);

/// Of the current settings those that `settings apply` takes, each once, in their usual order.
Dictionary exportedSettings(const Dictionary& current, bool withSecrets);

}  // namespace tessard
