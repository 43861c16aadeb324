#include "host/ctl/SettingsDifferences.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <numeric>
#include <utility>

#include "common/Format.h"
#include "common/SettingKeys.h"
#include "common/Text.h"
#include "host/SecretKeys.h"

namespace tessard {

namespace {

constexpr std::size_t kLikeEnough = 3;  // letters that may be wrong

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

// The number of letters to change, add or take away for one word to become the other.
std::size_t distanceBetween(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = std::exchange(row[j + 1], std::min({changed, row[j] + 1, row[j + 1] + 1}));
    }
  }
  return row.back();
}

std::optional<std::string_view> keyLike(const std::string& key) {
  const auto distance = [lower = asciiLowercase(key)](std::string_view known) {
    return distanceBetween(lower, asciiLowercase(known));
  };
  const auto nearest = std::ranges::min_element(kSettingKeys, {}, distance);
  if (distance(*nearest) > kLikeEnough || distance(*nearest) >= nearest->size()) return std::nullopt;
  return *nearest;
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

std::optional<std::string> problemWithKeys(const Dictionary& settings) {
  for (const DictionaryEntry& entry : settings) {
    if (std::ranges::find(kSettingKeys, entry.key) != kSettingKeys.end()) continue;
    const auto like = keyLike(entry.key);
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
