// The input's lines are the elements of "hosts" and "s2sAllowedDomains"; all of it is
// "hostsCommaDelimitedString".

#include <algorithm>

#include "common/Utf8.h"
#include "coordinator/ChatServiceWrangler.h"
#include "coordinator/SettingsProblems.h"
#include "fuzz/FuzzBytes.h"
#include "fuzz/FuzzTargets.h"
#include "tests/support/TestPlatform.h"

namespace tessard::fuzz {

namespace {

void promiseName(std::string_view name, std::string_view signs) {
  UnistringUnicode unicode;
  promise(isUtf8(name), "a filtered name is UTF-8");
  promise(unicode.lowercase(name) == name, "a filtered name is in lower case");
  for (const char32_t point : decodeUtf8(name)) {
    const bool sign = point < 0x80 && signs.find(static_cast<char>(point)) != std::string_view::npos;
    promise(sign || unicode.isAlphanumeric(point), "a filtered name holds letters, digits and its signs");
  }
}

void promiseNames(const SettingsDictionary& filtered, const char* key) {
  promise(filtered.arrayFor(key) != nullptr, "a list that was there stays there");
  for (const Value& name : *filtered.arrayFor(key)) {
    promise(name.asString() && !name.asString()->empty(), "no filtered name is empty");
    promiseName(*name.asString(), "-.");
  }
}

void promiseUsable(const SettingsDictionary& filtered) {
  if (problemWithHosts(filtered)) return;
  std::vector<std::string> names;
  if (const std::string* joined = filtered.stringFor("hostsCommaDelimitedString")) {
    FuzzBytes left(*joined);
    std::string commas(*joined);
    promise(!commas.starts_with(',') && !commas.ends_with(',') && commas.find(",,") == std::string::npos,
            "no host of an accepted list is empty");
  }
}

}  // namespace

void host_filter(std::string_view input) {
  static TestPlatform platform;
  static NOTIFICATION_PLUGIN_ChatServiceWrangler wrangler(platform);
  Array names;
  for (FuzzBytes lines(input); !lines.empty();) names.emplace_back(lines.line());
  const SettingsDictionary settings = {
      {"hosts", names}, {"hostsCommaDelimitedString", input}, {"s2sAllowedDomains", names}, {"other", input}};
  const auto filtered = wrangler.filterWriteSettings(&settings);
  promise(filtered.has_value(), "settings give settings");
  promiseNames(*filtered, "hosts");
  promiseNames(*filtered, "s2sAllowedDomains");
  if (const std::string* joined = filtered->stringFor("hostsCommaDelimitedString")) {
    promise(!joined->empty(), "a list of no names is left out");
    promiseName(*joined, "-.,");
  }
  promise(*filtered->stringFor("other") == input, "other settings stay as they are");
  promise(wrangler.filterWriteSettings(&*filtered) == filtered, "filtering twice is filtering once");
  promiseUsable(*filtered);
  platform.log.clear();
}

}  // namespace tessard::fuzz
