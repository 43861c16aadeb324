#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <set>

#include "common/Format.h"
#include "common/Text.h"
#include "config/JabberPaths.h"
#include "config/MasterFileLines.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"
#include "host/check/JabberdElements.h"

namespace tessard {

namespace {

constexpr FindingKind kMaster = {"master-unreadable", Severity::error};
constexpr FindingKind kStrayLine = {"master-stray-line", Severity::warning};
constexpr FindingKind kComponents = {"component-count", Severity::error};
constexpr FindingKind kUnreadable = {"component-unreadable", Severity::error};
constexpr FindingKind kMalformed = {"xml-malformed", Severity::error};
constexpr FindingKind kWrongRoot = {"xml-wrong-root", Severity::error};
constexpr FindingKind kMissing = {"element-missing", Severity::error};
constexpr FindingKind kUnread = {"element-unread", Severity::notice};
constexpr FindingKind kVariable = {"unknown-variable", Severity::error};
constexpr FindingKind kPlaceholder = {"placeholder-left", Severity::error};
constexpr FindingKind kFlag = {"flag-misread", Severity::warning};
constexpr FindingKind kDomainBlanks = {"domain-blanks", Severity::error};
constexpr FindingKind kNoManager = {"domain-without-session-manager", Severity::error};
constexpr FindingKind kNoDomain = {"session-manager-without-domain", Severity::warning};
constexpr FindingKind kWhitelist = {"whitelist-empty", Severity::warning};
constexpr FindingKind kStarttls = {"starttls-misread", Severity::warning};
constexpr FindingKind kSavedChats = {"saved-chats-ineffective", Severity::warning};
constexpr FindingKind kLogins = {"no-login-possible", Severity::warning};
constexpr std::array kKinds = {kMaster,    kStrayLine, kComponents, kUnreadable,  kMalformed,  kWrongRoot,
                               kMissing,   kUnread,    kVariable,   kPlaceholder, kFlag,       kDomainBlanks,
                               kNoManager, kNoDomain,  kWhitelist,  kStarttls,    kSavedChats, kLogins};

constexpr const char* kKeytab = "/etc/krb5.keytab";

void examineMaster(const Instance& instance, Findings& findings) {
  const std::string path = inConfiguration(kMasterFileName);
  if (instance.masterProblem) {
    findings.add(kMaster, path,
                 fill("The list of components \"%@\" cannot be read: %@.",
                      {path, instance.masterProblem->description()}),
                 "Put it back from a backup; without it nothing can be started or set.");
    return;
  }
  for (const std::string& line : instance.strayLines) {
    findings.add(
        kStrayLine, path,
        fill("The line \"%@\" of \"%@\" lists no component (router, sm, c2s or s2s, blanks, and a path) "
             "and is passed over.",
             {line.substr(0, 80), path}),
        "Correct it, or begin it with \"#\".");
  }
  for (const char* kind : {"router", "c2s", "s2s", "sm"}) {
    const std::size_t count = instance.all(kind).size();
    const bool isRight = std::string_view(kind) == "sm" ? count > 0 : count == 1;
    if (isRight) continue;
    findings.add(kComponents, path,
                 fill("\"%@\" lists %lu components of the kind \"%@\" and should list %@.",
                      {path, count, kind, std::string_view(kind) == "sm" ? "one for each domain" : "one"}),
                 "Correct the lines; each has a kind, blanks, and the path of its file.");
  }
}

bool examineForm(const InstanceComponent& component, Findings& findings) {
  if (component.unreadable) {
    findings.add(kUnreadable, component.path,
                 fill("\"%@\" cannot be read, so the component does not start: %@.",
                      {component.path, component.unreadable->description()}),
                 "Put the file back from a backup, or take its line out of the master file.");
  } else if (component.malformed) {
    findings.add(kMalformed, component.path,
                 fill("\"%@\" is not well-formed XML, so the component does not start: %@.",
                      {component.path, component.malformed->description()}),
                 fill("Correct the place, or put back what \"%@.bak\" holds.", {component.path}));
  } else if (component.root().name() != component.kind) {
    findings.add(kWrongRoot, component.path,
                 fill("The outermost element of \"%@\" is <%@> and should be <%@>.",
                      {component.path, component.root().name(), component.kind}),
                 "Put the right file in its place, or correct the master file.");
  } else {
    return true;
  }
  return false;
}

struct UnreadElement {
  std::string path;  ///< of the first file
  std::size_t files = 0;
};
using UnreadElements = std::map<std::pair<std::string, std::string>, UnreadElement>;

void gatherUnread(const InstanceComponent& component, const XmlNode& node, const std::string& path,
                  std::set<std::string>& unread) {
  for (XmlNode child = node.firstChild(); child; child = child.nextSibling()) {
    if (!child.isElement()) continue;
    const std::string its = path.empty() ? std::string(child.name()) : fill("%@.%@", {path, child.name()});
    if (!isElementRead(component.kind, its)) {
      unread.insert(its);
    } else {
      gatherUnread(component, child, its, unread);
    }
  }
}

void examineElements(const InstanceComponent& component, UnreadElements& unread, Findings& findings) {
  for (const std::string_view needed : neededElements(component.kind)) {
    if (component.has(needed)) continue;
    if (needed == "storage.sqlite.dbname" && component.textAt("storage.driver") != "sqlite") continue;
    findings.add(kMissing, component.path,
                 fill("\"%@\" has no element %@.%@, which the component needs.",
                      {component.path, component.kind, needed}),
                 fill("Add it, or switch it on where it stands as a comment; the file as it comes is in "
                      "/usr/share/tessardd/templates/%@.xml.",
                      {component.kind}));
  }
  std::set<std::string> own;
  gatherUnread(component, component.root(), "", own);
  for (const std::string& path : own) {
    UnreadElement& element = unread[{component.kind, path}];
    if (element.files++ == 0) element.path = component.path;
  }
}

void reportUnread(const UnreadElements& unread, Findings& findings) {
  for (const auto& [name, element] : unread) {
    const std::string more = element.files > 1 ? fill(" and in %lu other files", {element.files - 1}) : "";
    findings.add(
        kUnread, element.path,
        fill("The element %@.%@ in \"%@\"%@ has no effect: the installed jabberd2 reads none of that name.",
             {name.first, name.second, element.path, more}),
        "Look for a mistyped name, or for an element that stands in the wrong place; remove it otherwise.");
  }
}

// What a text or an attribute holds that jabberd2 would expand, or that setup should have replaced.
void examineText(const InstanceComponent& component, const std::string& text, const std::string& where,
                 bool isSetUp, Findings& findings) {
  if (text.find("${") != std::string::npos) {
    findings.add(
        kVariable, component.path,
        fill("The value of %@ in \"%@\" holds \"${\", by which jabberd2 means a variable; one that it does "
             "not know keeps the component from starting.",
             {where, component.path}),
        "Write the value out.");
  }
  if (isSetUp && (text.find("@HOSTNAME@") != std::string::npos)) {
    findings.add(
        kPlaceholder, component.path,
        fill("The value of %@ in \"%@\" is still the placeholder of the template.", {where, component.path}),
        "Put in this machine's name.");
  }
}

void examineTexts(const InstanceComponent& component, const XmlNode& node, const std::string& path,
                  bool isSetUp, Findings& findings) {
  bool hasElements = false;
  for (XmlNode child = node.firstChild(); child; child = child.nextSibling()) {
    if (!child.isElement()) continue;
    hasElements = true;
    examineTexts(component, child, fill("%@.%@", {path, child.name()}), isSetUp, findings);
  }
  if (!hasElements) examineText(component, node.stringValue(), path, isSetUp, findings);
  for (const auto& [name, value] : node.attributes()) {
    examineText(component, value, fill("%@@%@", {path, name}), isSetUp, findings);
  }
}

bool isNumber(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// jabberd2 takes the number at the beginning, and an empty element for 1.
void examineFlag(const InstanceComponent& component, std::string_view path, Findings& findings) {
  for (const std::string& text : component.textsAt(path)) {
    if (isNumber(text)) continue;
    findings.add(kFlag, component.path,
                 fill("%@.%@ in \"%@\" is \"%@\", which jabberd2 takes for %@: it knows numbers alone.",
                      {component.kind, path, component.path, text, text.empty() ? "on" : "off"}),
                 "Write 1 for on, or 0 for off.");
  }
}

void examineS2s(const InstanceComponent& s2s, Findings& findings) {
  examineFlag(s2s, "security.require_tls", findings);
  examineFlag(s2s, "security.enable_whitelist", findings);
  const std::string flag = s2s.textAt("security.enable_whitelist");
  const bool isOn =
      s2s.has("security.enable_whitelist") && (flag.empty() || flag.find_first_of("123456789") == 0);
  if (!isOn || s2s.has("security.whitelist_domain")) return;
  findings.add(kWhitelist, "s2sAllowedDomains",
               "Only listed domains may exchange messages with this server (s2sRestrictDomains), and none is "
               "listed: no other server can.",
               "tessardctl settings set s2sAllowedDomains=[...], or s2sRestrictDomains=false");
}

void examineLogins(CheckedSystem& system, const InstanceComponent& c2s, Findings& findings) {
  const bool hasPlain =
      c2s.has("authreg.mechanisms.sasl.plain") || c2s.has("authreg.ssl-mechanisms.sasl.plain") ||
      c2s.has("authreg.mechanisms.traditional.plain") || c2s.has("authreg.ssl-mechanisms.traditional.plain");
  const bool hasTickets = c2s.has("authreg.mechanisms.sasl.gssapi") && system.files.exists(kKeytab);
  if (c2s.textAt("authreg.module") != "pipe" || hasPlain || hasTickets) return;
  findings.add(
      kLogins, "authLevel",
      fill("Nobody can log in: passwords are checked by the machine's accounts, for which a client must send "
           "them, and the mechanism \"plain\" is off; for GSSAPI there is no \"%@\".",
           {kKeytab}),
      "tessardctl settings set authLevel=STANDARD");
}

void examineC2s(const InstanceComponent& c2s, Findings& findings) {
  for (const XmlNode& id : c2s.elementsAt("local.id")) {
    const auto starttls = id.attribute("require-starttls");
    if (!starttls || *starttls == "true" || *starttls == "1") continue;
    findings.add(
        kStarttls, id.stringValue(),
        fill(
            "require-starttls of the domain \"%@\" is \"%@\"; jabberd2 requires encryption whatever it says.",
            {id.stringValue(), *starttls}),
        "Remove the attribute where encryption is not to be required.");
  }
}

void examineRouter(const InstanceComponent& router, Findings& findings) {
  const std::string flag = router.textAt("message_logging_enabled");
  int on = 0;
  std::from_chars(flag.data(), flag.data() + flag.size(), on);
  if (on == 0 || router.has("message_logging.enabled")) return;
  findings.add(
      kSavedChats, "enableSavedChats",
      "Saved chats are on (enableSavedChats) and nothing is saved: the installed jabberd2 router reads "
      "message_logging/enabled and message_logging/file, and not router.message_logging_enabled, "
      "message_logging_dir and message_logging_roll_days.",
      fill("tessardctl settings set enableSavedChats=false; or add "
           "<message_logging><enabled/><file>PATH</file>"
           "</message_logging> to \"%@\" by hand.",
           {router.path}));
}

void examineDomains(const Instance& instance, Findings& findings) {
  std::set<std::string> managed;
  bool isComplete = true;
  for (const InstanceComponent* sm : instance.all("sm")) {
    isComplete = isComplete && sm->document;
    for (const std::string& domain : sm->textsAt("local.id")) managed.insert(domain);
  }
  std::set<std::string> served;
  for (const std::string& domain : instance.domains()) {
    served.insert(domain);
    if (trimmed(domain, " \t\r\n") != domain) {
      findings.add(
          kDomainBlanks, domain,
          fill("The domain \"%@\" in c2s.local.id has blanks around it, which count for jabberd2: nobody "
               "finds it.",
               {domain}),
          "tessardctl settings set hosts=[...] with the domains as they are meant.");
    }
    if (!isComplete || managed.contains(domain)) continue;
    findings.add(
        kNoManager, domain,
        fill("The domain \"%@\" is served to clients and has no session manager, so nobody can log in "
             "there.",
             {domain}),
        "tessardctl settings set hosts=[...] with all domains, and restart: tessardctl restart");
  }
  if (served.empty()) return;
  for (const std::string& domain : managed) {
    if (served.contains(domain)) continue;
    findings.add(
        kNoDomain, domain,
        fill("A session manager is there for the domain \"%@\", which is not served to clients.", {domain}),
        "tessardctl settings set hosts=[...] with all domains, and restart: tessardctl restart");
  }
}

void examineXml(CheckedSystem& system, Findings& findings) {
  const Instance& instance = system.instance();
  examineMaster(instance, findings);
  UnreadElements unread;
  for (const InstanceComponent& component : instance.components) {
    if (!examineForm(component, findings)) continue;
    examineElements(component, unread, findings);
    examineTexts(component, component.root(), component.kind, instance.isSetUp(), findings);
    if (component.kind == "s2s") examineS2s(component, findings);
    if (component.kind == "c2s") {
      examineC2s(component, findings);
      examineLogins(system, component, findings);
    }
    if (component.kind == "router") examineRouter(component, findings);
  }
  reportUnread(unread, findings);
  examineDomains(instance, findings);
}

}  // namespace

const CheckArea kXmlArea = {"xml", "what jabberd2 reads of its configuration, and what has no effect there",
                            10, kKinds, examineXml};

}  // namespace tessard
