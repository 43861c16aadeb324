#include "coordinator/SettingsProblems.h"

#include <limits.h>

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
// What SQLite opens: its own limit of 512 with room for the names of its further files.
constexpr std::size_t kLongestDatabasePath = 504;
constexpr std::size_t kLongestPath = PATH_MAX - 1;
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
  const std::string word = asciiLowercase(*text);
  constexpr std::array<std::string_view, 8> words = {"yes", "no", "true", "false", "y", "n", "t", "f"};
  return std::ranges::find(words, word) != words.end();
}

bool isText(const Value& value) {
  return value.asString() != nullptr;
}

// jabberd2 puts other parts of its configuration in the place of "${name}", and does not start with any other
// "${". The placeholders are filled in whenever service data is made again.
bool staysAsItIs(const Value& value) {
  const std::string* text = value.asString();
  const auto lacks = [&](const char* part) { return text->find(part) == std::string::npos; };
  return text && lacks("${") && lacks("@HOSTNAME@") && lacks("@ROUTERPASSWORD@");
}

bool isFile(const Value& value) {
  return staysAsItIs(value) && value.asString()->size() <= kLongestPath;
}

// An empty one would be taken for "1", and another for one below the directory that the component happens to
// be in.
bool isDatabase(const Value& value) {
  return staysAsItIs(value) && value.asString()->starts_with('/') &&
         value.asString()->size() <= kLongestDatabasePath;
}

// The router accepts nobody without one.
bool isSecret(const Value& value) {
  return isText(value) && !value.asString()->empty();
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
constexpr const char* kPlainText = "a string without \"${\" and placeholders, which would be replaced";
constexpr const char* kFile =
    "a path of at most 4095 bytes without \"${\" and placeholders, which would be replaced";
constexpr const char* kDatabase =
    "an absolute path of at most 504 bytes without \"${\" and placeholders, which would be replaced";
constexpr const char* kSecret = "a string that is not empty";
constexpr const char* kTexts = "a list of strings, such as [a, b]";

constexpr std::array<SettingKind, 27> kKinds = {{
    {"hosts", isListOfTexts, kTexts},
    {"hostsCommaDelimitedString", isText, kText},
    {"sslKeyFile", isFile, kFile},
    {"sslCAFile", isFile, kFile},
    {"authLevel", isWord, kText},
    {"enableAutoBuddy", isSwitch, kSwitch},
    {"enableXMPP", isSwitch, kSwitch},
    {"requireSecureS2S", isSwitch, kSwitch},
    {"s2sRestrictDomains", isSwitch, kSwitch},
    {"s2sAllowedDomains", isListOfTexts, kTexts},
    {"logLevel", isText, kText},
    {"eventLogArchiveInterval", isCountOfDays, kDays},
    {"enableSavedChats", isSwitch, kSwitch},
    {"savedChatsLocation", staysAsItIs, kPlainText},
    {"savedChatsArchiveInterval", isCountOfDays, kDays},
    {"initialized", isSwitch, kSwitch},
    {"jabberdDatabasePath", isDatabase, kDatabase},
    {"jabberdClientPortTLS", isPort, kPort},
    {"jabberdClientPortSSL", isPort, kPort},
    {"jabberdS2SPort", isPort, kPort},
    {"jid", isText, kText},
    {"domain", isText, kText},
    {"secret", isSecret, kSecret},
    {"connectAsClient", isSwitch, kSwitch},
    {"korvbridgeEnabled", isSwitch, kSwitch},
    {"korvbridgePort", isPort, kPort},
    {"privilegedUsers", isListOfTexts, kTexts},
}};

// What is shown in one line and may come back in a log; of control characters, XML can hold these alone.
bool isOneLine(std::string_view text) {
  return text.find_first_of("\t\n\r\x7f") == std::string_view::npos;
}

bool everyTextIs(bool (*good)(std::string_view), const Value& value) {
  const auto isGood = [good](const Value& part) { return everyTextIs(good, part); };
  if (const std::string* text = value.asString()) return good(*text);
  if (const Array* array = value.asArray()) return std::ranges::all_of(*array, isGood);
  if (const Dictionary* dictionary = value.asDictionary()) {
    return std::ranges::all_of(
        *dictionary, [&](const DictionaryEntry& entry) { return good(entry.key) && isGood(entry.value); });
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
    if (!everyTextIs(isXmlText, entry.value)) {
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
  if (!everyTextIs(isXmlText, Value(request))) {
    return "the request holds characters that no configuration file can hold";
  }
  if (!everyTextIs(isOneLine, Value(request))) return "the request holds control characters";
  return std::nullopt;
}

}  // namespace tessard
