#include "coordinator/SettingsProblems.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "common/Format.h"
#include "common/Text.h"
#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr std::int64_t kLargestPort = 65535;
// A domain is part of a file name, "sm_%@.xml.tmp", and file names have at most 255 bytes.
constexpr std::size_t kLongestDomain = 240;
// From 2^53 on doubles skip whole numbers.
constexpr double kFirstInexactReal = 0x1p53;

using Reading = bool (*)(const Value&);

struct SettingKind {
  const char* key;
  Reading reads;
  const char* expected;
};

bool isWholeNumber(const Value& value) {
  if (value.asInteger()) return true;
  if (const double* real = value.asReal()) {
    return std::trunc(*real) == *real && std::abs(*real) < kFirstInexactReal;
  }
  const std::string* text = value.asString();
  return text && !text->empty() && text->size() <= 9 &&
         std::ranges::all_of(*text, [](char c) { return c >= '0' && c <= '9'; });
}

bool isPort(const Value& value) {
  return isWholeNumber(value) && value.integerValue() >= 0 && value.integerValue() <= kLargestPort;
}

bool isCountOfDays(const Value& value) {
  return isWholeNumber(value) && value.integerValue() >= 0;
}

bool isSwitch(const Value& value) {
  if (value.isNumber() || isWholeNumber(value)) return true;
  const std::string* text = value.asString();
  if (!text) return false;
  std::string word = *text;
  std::ranges::transform(word, word.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; });
  constexpr std::array<std::string_view, 8> words = {"yes", "no", "true", "false", "y", "n", "t", "f"};
  return std::ranges::find(words, word) != words.end();
}

bool isText(const Value& value) {
  return value.asString() != nullptr;
}

bool isWord(const Value& value) {
  return value.stringValue().has_value();
}

bool isListOfTexts(const Value& value) {
  return value.asArray() && std::ranges::all_of(*value.asArray(), isText);
}

constexpr const char* kPort = "a port number from 0 to 65535";
constexpr const char* kDays = "a whole number of days";
constexpr const char* kSwitch = "true or false";
constexpr const char* kText = "a string";
constexpr const char* kTexts = "a list of strings";

constexpr std::array<SettingKind, 27> kKinds = {{
    {"hosts", isListOfTexts, kTexts},
    {"hostsCommaDelimitedString", isText, kText},
    {"sslKeyFile", isText, kText},
    {"sslCAFile", isText, kText},
    {"authLevel", isWord, kText},
    {"enableAutoBuddy", isSwitch, kSwitch},
    {"enableXMPP", isSwitch, kSwitch},
    {"requireSecureS2S", isSwitch, kSwitch},
    {"s2sRestrictDomains", isSwitch, kSwitch},
    {"s2sAllowedDomains", isListOfTexts, kTexts},
    {"logLevel", isText, kText},
    {"eventLogArchiveInterval", isCountOfDays, kDays},
    {"enableSavedChats", isSwitch, kSwitch},
    {"savedChatsLocation", isText, kText},
    {"savedChatsArchiveInterval", isCountOfDays, kDays},
    {"initialized", isSwitch, kSwitch},
    {"jabberdDatabasePath", isText, kText},
    {"jabberdClientPortTLS", isPort, kPort},
    {"jabberdClientPortSSL", isPort, kPort},
    {"jabberdS2SPort", isPort, kPort},
    {"jid", isText, kText},
    {"domain", isText, kText},
    {"secret", isText, kText},
    {"connectAsClient", isSwitch, kSwitch},
    {"korvbridgeEnabled", isSwitch, kSwitch},
    {"korvbridgePort", isPort, kPort},
    {"privilegedUsers", isListOfTexts, kTexts},
}};

bool holdsOnlyXmlText(const Value& value) {
  if (const std::string* text = value.asString()) return isXmlText(*text);
  if (const Array* array = value.asArray()) return std::ranges::all_of(*array, holdsOnlyXmlText);
  if (const Dictionary* dictionary = value.asDictionary()) {
    return std::ranges::all_of(*dictionary, [](const DictionaryEntry& entry) {
      return isXmlText(entry.key) && holdsOnlyXmlText(entry.value);
    });
  }
  return true;
}

}  // namespace

std::optional<std::string> problemWithSettings(const SettingsDictionary& settings) {
  for (const SettingKind& kind : kKinds) {
    const Value* value = settings.find(kind.key);
    if (value && !kind.reads(*value)) return fill("\"%@\" must be %@", {kind.key, kind.expected});
  }
  for (const DictionaryEntry& entry : settings) {
    if (!isXmlText(entry.key))
      return "the name of a setting holds characters that no configuration file can hold";
    if (!holdsOnlyXmlText(entry.value)) {
      return fill("\"%@\" holds characters that no configuration file can hold", {entry.key});
    }
  }
  return std::nullopt;
}

std::optional<std::string> problemWithHosts(const SettingsDictionary& filtered) {
  std::vector<std::string> hosts;
  if (const std::string* joined = filtered.stringFor("hostsCommaDelimitedString")) {
    hosts = componentsOf(*joined, ',');
  } else if (const Array* array = filtered.arrayFor("hosts")) {
    hosts = stringsOf(*array);
    if (hosts.empty()) return "\"hosts\" names no host";
  }
  for (const std::string& host : hosts) {
    if (host.empty()) return "\"hostsCommaDelimitedString\" has an empty entry";
    if (host.size() > kLongestDomain) return fill("a host name is longer than %lu bytes", {kLongestDomain});
  }
  return std::nullopt;
}

std::optional<std::string> problemWithServiceRequest(const Dictionary& request) {
  for (const char* key : {"service", "hostName"}) {
    const std::string* text = request.stringFor(key);
    if (!text || text->empty()) return fill("\"%@\" must be a string that is not empty", {key});
  }
  if (!holdsOnlyXmlText(Value(request))) {
    return "the request holds characters that no configuration file can hold";
  }
  return std::nullopt;
}

}  // namespace tessard
