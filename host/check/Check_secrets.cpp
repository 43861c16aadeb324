#include <array>
#include <map>

#include "common/Format.h"
#include "config/LiveElements.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"

namespace tessard {

namespace {

constexpr FindingKind kMissing = {"secret-missing", Severity::error};
constexpr FindingKind kPlaceholder = {"secret-placeholder", Severity::error};
constexpr FindingKind kDiffers = {"secret-differs", Severity::error};
constexpr FindingKind kUnknownUser = {"router-user-unknown", Severity::error};
constexpr FindingKind kWeak = {"secret-weak", Severity::warning};
constexpr FindingKind kUsers = {"router-users-unreadable", Severity::error};
constexpr std::array kKinds = {kMissing, kPlaceholder, kDiffers, kUnknownUser, kWeak, kUsers};

constexpr std::size_t kUsersLimit = std::size_t{1024} * 1024;
constexpr std::size_t kShortest = 8;

using Users = std::map<std::string, std::string>;

// Name -> password of those who may join the router; absent when that has been told to be unknown.
std::optional<Users> routerUsers(CheckedSystem& system, const std::string& path, Findings& findings) {
  const auto text = system.files.readFile(path, kUsersLimit);
  const auto document = text ? XmlDocument::parse(text.value()) : Result<XmlDocument>(text.error());
  if (!document) {
    findings.add(kUsers, path,
                 fill("\"%@\", which lists who may join the router, cannot be read: %@.",
                      {path, document.error().description()}),
                 "Put it right, or put it back from a backup; the router does not start without it.");
    return std::nullopt;
  }
  Users users;
  for (const XmlNode& user : liveElementsAt(document.value().root(), "user")) {
    users[liveTextAt(user, "name")] = liveTextAt(user, "secret");
  }
  return users;
}

// False when there is nothing to compare.
bool isUsable(const std::string& secret, const std::string& subject, const std::string& what, bool isSetUp,
              Findings& findings) {
  if (secret.empty()) {
    findings.add(kMissing, subject, fill("%@ is missing, so nobody can join the router by it.", {what}),
                 "Give every component the same secret, and restart: tessardctl restart");
    return false;
  }
  if (secret == "@ROUTERPASSWORD@") {
    if (isSetUp) {
      findings.add(kPlaceholder, subject,
                   fill("%@ is still the placeholder of the template, which everybody knows.", {what}),
                   "Give every component the same secret, and restart: tessardctl restart");
    }
    return false;
  }
  return true;
}

void examineComponent(const InstanceComponent& component, const std::optional<Users>& users, bool isSetUp,
                      Findings& findings) {
  const std::string pass = component.textAt("router.pass");
  const std::string name = component.textAt("router.user");
  if (!isUsable(pass, component.path, fill("The router password (router/pass) in \"%@\"", {component.path}),
                isSetUp, findings)) {
    return;
  }
  if (!users) return;
  const auto user = users->find(name);
  if (user == users->end()) {
    findings.add(
        kUnknownUser, component.path,
        fill("\"%@\" joins the router as \"%@\", whom the router's list of users does not have.",
             {component.path, name}),
        "Add the user to the list, or give the component the name of one that is there (router/user).");
  } else if (user->second != pass) {
    findings.add(
        kDiffers, component.path,
        fill("The router password (router/pass) in \"%@\" is not the one that the router has for \"%@\".",
             {component.path, name}),
        "Copy the password from the router's list of users, and restart: tessardctl restart");
  }
}

void examineSettings(CheckedSystem& system, const std::string& secret, Findings& findings) {
  const Instance& instance = system.instance();
  if (!instance.settings) return;
  const std::string* found = instance.settings->stringFor("secret");
  const std::string own = found ? *found : "";
  if (!isUsable(own, kNotificationSettingsFile, "The publish-subscribe component's \"secret\"",
                instance.isSetUp(), findings)) {
    return;
  }
  if (own == secret) return;
  findings.add(
      kDiffers, kNotificationSettingsFile,
      "The publish-subscribe component's \"secret\" is not the router's (router.local.secret).",
      "Give it the router's: tessardctl settings set --file - with {\"secret\": ...} on standard input, "
      "and restart.");
}

void examineSecrets(CheckedSystem& system, Findings& findings) {
  const Instance& instance = system.instance();
  const InstanceComponent* router = instance.first("router");
  if (!router) return;  // which is told elsewhere
  const bool isSetUp = instance.isSetUp();
  const std::string secret = router->textAt("local.secret");
  if (isUsable(secret, router->path, fill("The router's secret (local/secret) in \"%@\"", {router->path}),
               isSetUp, findings)) {
    examineSettings(system, secret, findings);
    if (secret.size() < kShortest) {
      findings.add(kWeak, router->path,
                   fill("The router's secret (local/secret) in \"%@\" is shorter than %u characters.",
                        {router->path, kShortest}),
                   "Give the router and the publish-subscribe component a longer one.");
    }
  }
  const std::string path = router->textAt("local.users");
  const auto users = path.empty() ? std::nullopt : routerUsers(system, path, findings);
  for (const InstanceComponent& component : instance.components) {
    if (component.kind != "router" && component.document)
      examineComponent(component, users, isSetUp, findings);
  }
}

}  // namespace

const CheckArea kSecretsArea = {"secrets", "passwords by which the components join the router", 10, kKinds,
                                examineSecrets};

}  // namespace tessard
