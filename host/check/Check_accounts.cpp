#include <algorithm>
#include <array>
#include <cerrno>

#include "common/Format.h"
#include "config/JabberPaths.h"
#include "config/NotificationPlaces.h"
#include "host/PeerCheck.h"
#include "host/check/CheckAreas.h"
#include "platform/accounts/AccountFiles.h"

namespace tessard {

namespace {

constexpr FindingKind kUnreadable = {"accounts-unreadable", Severity::error};
constexpr FindingKind kNoAccount = {"service-account-missing", Severity::error};
constexpr FindingKind kShared = {"service-account-shared", Severity::error};
constexpr FindingKind kNoGroup = {"service-group-missing", Severity::error};
constexpr FindingKind kLogin = {"service-account-login", Severity::warning};
constexpr FindingKind kNoAdmins = {"admin-group-missing", Severity::warning};
constexpr FindingKind kComponent = {"component-account-missing", Severity::error};
constexpr FindingKind kServiceUser = {"service-user-missing", Severity::warning};
constexpr FindingKind kPassword = {"service-user-without-password", Severity::warning};
constexpr FindingKind kRefused = {"service-user-refused", Severity::warning};
constexpr std::array kKinds = {kUnreadable, kNoAccount, kShared,      kNoGroup,  kLogin,
                               kNoAdmins,   kComponent, kServiceUser, kPassword, kRefused};

// Where one of these groups is there, nobody but its members may log in; the first counts.
constexpr std::array kAccessGroups = {"com.velto.access_all_services", "com.velto.access_chat"};

using Users = std::vector<UserEntry>;
using Groups = std::vector<GroupEntry>;

const UserEntry* named(const Users& users, const std::string& name) {
  const auto found = std::ranges::find(users, name, &UserEntry::name);
  return found == users.end() ? nullptr : &*found;
}

void examineServiceAccount(const Users& users, const Groups& groups, Findings& findings) {
  std::vector<const UserEntry*> owners;
  for (const UserEntry& user : users) {
    if (user.uid == kJabberUserID) owners.push_back(&user);
  }
  const std::string number = std::to_string(kJabberUserID);
  if (owners.empty()) {
    findings.add(kNoAccount, number,
                 fill("There is no account with the number %@, as which the components run.", {number}),
                 "systemd-sysusers, or: useradd --system --uid 84 --home-dir /var/jabberd jabberd");
  } else if (owners.size() > 1) {
    findings.add(
        kShared, number,
        fill("The accounts \"%@\" and \"%@\" have the number %@ together, so that one can read what is the "
             "other's.",
             {owners[0]->name, owners[1]->name, number}),
        "Give the other one a number of its own (usermod --uid).");
  }
  for (const UserEntry* user : owners) {
    if (user->shell.empty() || user->shell.ends_with("/nologin") || user->shell.ends_with("/false")) continue;
    findings.add(kLogin, user->name,
                 fill("The service's account \"%@\" has the shell \"%@\", and is meant for no person.",
                      {user->name, user->shell}),
                 fill("usermod --shell /usr/sbin/nologin %@", {user->name}));
  }
  const bool hasGroup =
      std::ranges::any_of(groups, [](const GroupEntry& group) { return group.gid == kJabberGroupID; });
  if (hasGroup) return;
  findings.add(kNoGroup, number,
               fill("There is no group with the number %u, which the components have.", {kJabberGroupID}),
               "systemd-sysusers, or: groupadd --system --gid 84 jabberd");
}

void examineAdmins(CheckedSystem& system, const Groups& groups, Findings& findings) {
  const std::string& name = system.configuration.adminGroup;
  const bool isLocal =
      std::ranges::any_of(groups, [&](const GroupEntry& group) { return group.name == name; });
  if (isLocal || (system.isMachine && groupNamed(name))) return;
  findings.add(kNoAdmins, name,
               fill("There is no group \"%@\", so that nobody but root can administer the service.", {name}),
               fill("groupadd --system %@, and restart the daemon", {name}));
}

void examineComponent(const Instance& instance, const Users& users, Findings& findings) {
  const Value* client = instance.settings ? instance.settings->find("connectAsClient") : nullptr;
  const std::string* jid = instance.settings ? instance.settings->stringFor("jid") : nullptr;
  if (!client || !client->boolValue() || !jid || named(users, *jid)) return;
  findings.add(
      kComponent, "jid",
      "The publish-subscribe component is to log in as a client (connectAsClient), and there is no account "
      "of its name (jid).",
      "tessardctl setup makes it; or tessardctl settings set connectAsClient=false");
}

bool wasMade(const Instance& instance) {
  const Array* privileged = instance.settings ? instance.settings->arrayFor("privilegedUsers") : nullptr;
  return privileged && std::ranges::any_of(*privileged, [](const Value& user) {
           return user.asString() && user.asString()->starts_with(kServiceUserName);
         });
}

bool isMember(const GroupEntry& group, const UserEntry& user) {
  return user.gid == group.gid || std::ranges::find(group.members, user.name) != group.members.end();
}

void examineServiceUser(CheckedSystem& system, const Users& users, const Groups& groups, Findings& findings) {
  if (!wasMade(system.instance())) return;
  const std::string name = kServiceUserName;
  const UserEntry* user = named(users, name);
  if (!user) {
    findings.add(
        kServiceUser, name, fill("The account \"%@\", by which client services publish, is gone.", {name}),
        "tessardctl service-user calendar makes it anew, with a password that the services must be given.");
    return;
  }
  const auto hasPassword = hasShadowLine(system.files, name);
  if (hasPassword && !hasPassword.value()) {
    findings.add(kPassword, name,
                 fill("The account \"%@\", by which client services publish, has no password.", {name}),
                 "tessardctl service-user calendar gives it one, which the services must be given.");
  }
  for (const char* wanted : kAccessGroups) {
    const auto group = std::ranges::find(groups, wanted, &GroupEntry::name);
    if (group == groups.end()) continue;
    if (!isMember(*group, *user)) {
      findings.add(
          kRefused, name,
          fill(
              "Only members of the group \"%@\" may log in, and \"%@\", by which client services publish, is "
              "none.",
              {wanted, name}),
          fill("usermod --append --groups %@ %@", {wanted, name}));
    }
    return;
  }
}

void examineAccounts(CheckedSystem& system, Findings& findings) {
  const auto users = usersIn(system.files);
  const auto groups = groupsIn(system.files);
  if (!users || !groups) {
    const char* path = users ? kGroupFile : kPasswdFile;
    const SystemError& error = users ? groups.error() : users.error();
    findings.add(kUnreadable, path, fill("\"%@\" cannot be read: %@.", {path, error.description()}),
                 "Put it right; without it nobody can log in.");
    return;
  }
  examineServiceAccount(users.value(), groups.value(), findings);
  examineAdmins(system, groups.value(), findings);
  examineComponent(system.instance(), users.value(), findings);
  examineServiceUser(system, users.value(), groups.value(), findings);
}

}  // namespace

const CheckArea kAccountsArea = {"accounts", "the accounts and groups that the service needs", 10, kKinds,
                                 examineAccounts};

}  // namespace tessard
