#include "programs/authenticator/LoginRules.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>
#include <string_view>

namespace tessard {

namespace {

constexpr const char* kLoginDefinitions = "/etc/login.defs";
constexpr const char* kAccessToAll = "com.velto.access_all_services";
constexpr const char* kAccessToChat = "com.velto.access_chat";
constexpr std::string_view kServiceUser = "com.velto.notificationuser";
constexpr uid_t kNobody = 65534;
constexpr std::size_t kLongestRecord = 1'048'576;

std::vector<gid_t> groupsOf(const passwd& record) {
  std::vector<gid_t> groups(64);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(record.pw_name, record.pw_gid, groups.data(), &count) < 0) {
    if (count <= static_cast<int>(groups.size())) return {record.pw_gid};
    groups.resize(static_cast<std::size_t>(count));
  }
  groups.resize(static_cast<std::size_t>(count));
  return groups;
}

std::optional<gid_t> groupNamed(const char* name) {
  group record{};
  group* found = nullptr;
  std::vector<char> buffer(4096);
  while (::getgrnam_r(name, &record, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kLongestRecord) {
    buffer.resize(buffer.size() * 2);
  }
  return found ? std::optional(record.gr_gid) : std::nullopt;
}

}  // namespace

Result<std::optional<LocalAccount>> localAccount(const std::string& name) {
  passwd record{};
  passwd* found = nullptr;
  std::vector<char> buffer(4096);
  int error = 0;
  while ((error = ::getpwnam_r(name.c_str(), &record, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kLongestRecord) {
    buffer.resize(buffer.size() * 2);
  }
  if (!found && error != 0 && error != ENOENT && error != ESRCH) return SystemError(error);
  if (!found || name != record.pw_name) return std::optional<LocalAccount>();
  return std::optional(LocalAccount{.name = name, .user = record.pw_uid, .groups = groupsOf(record)});
}

std::optional<uid_t> firstPersonIn(const std::string& loginDefinitions) {
  std::istringstream lines(loginDefinitions);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string key;
    std::string value;
    if (!(words >> key >> value) || key != "UID_MIN") continue;
    uid_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [stop, problem] = std::from_chars(value.data(), end, number);
    if (problem == std::errc() && stop == end) return number;
  }
  return std::nullopt;
}

LoginRules loginRules() {
  LoginRules rules;
  std::ifstream file(kLoginDefinitions);
  std::ostringstream text;
  if (file >> text.rdbuf()) rules.firstPerson = firstPersonIn(text.str()).value_or(rules.firstPerson);
  rules.accessGroup = groupNamed(kAccessToAll);
  if (!rules.accessGroup) rules.accessGroup = groupNamed(kAccessToChat);
  return rules;
}

std::optional<std::string> refusalOf(const LocalAccount& account, const LoginRules& rules) {
  if (account.user == 0) return "it is root";
  if (rules.accessGroup) {
    const bool isMember =
        std::find(account.groups.begin(), account.groups.end(), *rules.accessGroup) != account.groups.end();
    return isMember ? std::nullopt : std::optional<std::string>("it is not in the access group");
  }
  if (account.name == kServiceUser) return std::nullopt;
  const bool isPerson = account.user >= rules.firstPerson && account.user != kNobody;
  return isPerson ? std::nullopt : std::optional<std::string>("it is an account of the system");
}

}  // namespace tessard
