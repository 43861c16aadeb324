#include "host/ctl/SettingsDifferences.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "common/Format.h"
#include "common/MostLike.h"
#include "common/SettingKeys.h"
#include "common/Text.h"
#include "host/SecretKeys.h"

namespace tessard {

namespace {

// Another form of "hosts", and what first-time setup keeps for itself.
constexpr std::array<std::string_view, 2> kNotExported = {"hostsCommaDelimitedString", "initialized"};

// Domains are kept in lower case.
bool holdsNames(std::string_view key) {
  return key == "hosts" || key == "hostsCommaDelimitedString" || key == "s2sAllowedDomains";
}

bool readsTheSame(std::string_view key, const Value& wanted, const Value& current) {
  if (const Array* list = current.asArray()) {
    const Array* other = wanted.asArray();
    return other && std::ranges::equal(*other, *list, [key](const Value& one, const Value& two) {
             return readsTheSame(key, one, two);
           });
  }
  if (wanted.asArray() || wanted.asDictionary() || current.asDictionary()) return wanted == current;
  if (const bool* flag = current.asBoolean()) return wanted.boolValue() == *flag;
  const auto text = wanted.stringValue();
  const auto now = current.stringValue();
  if (!text || !now) return wanted == current;
  return holdsNames(key) ? asciiLowercase(*text) == asciiLowercase(*now) : *text == *now;
}

}  // namespace

std::vector<SettingDifference> differencesBetween(const Dictionary& wanted, const Dictionary& current) {
  std::vector<SettingDifference> differences;
  for (const DictionaryEntry& entry : wanted) {
    const Value* now = current.find(entry.key);
    if (now && readsTheSame(entry.key, entry.value, *now)) continue;
    differences.push_back({entry.key, now ? std::optional(*now) : std::nullopt, entry.value});
  }
  return differences;
}

std::vector<SettingDifference> allDifferencesBetween(const Dictionary& wanted, const Dictionary& current) {
  auto differences = differencesBetween(wanted, current);
  for (const DictionaryEntry& entry : current) {
    if (!wanted.contains(entry.key)) differences.push_back({entry.key, entry.value, std::nullopt});
  }
  return differences;
}

std::optional<std::string> problemWithKeys(const Dictionary& settings) {
  for (const DictionaryEntry& entry : settings) {
    if (std::ranges::find(kSettingKeys, entry.key) != kSettingKeys.end()) continue;
    const auto like = mostLike(entry.key, kSettingKeys);
    return fill("There is no setting \"%@\"%@.",
                {entry.key, like ? fill("; \"%@\" may be meant", {*like}) : std::string()});
  }
  return std::nullopt;
}

Dictionary exportedSettings(const Dictionary& current, bool withSecrets) {
  Dictionary kept;
  for (const std::string_view key : kSettingKeys) {
    const bool isLeftOut = std::ranges::find(kNotExported, key) != kNotExported.end();
    if (!isLeftOut && (withSecrets || !speaksOfSecret(key)))
      kept.setIfPresent(std::string(key), current.find(key));
  }
  return kept;
}

}  // namespace tessard
