#include <regex.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>
#include <memory>

#include "common/Format.h"
#include "common/Text.h"
#include "config/JabberPaths.h"
#include "config/NotificationPlaces.h"
#include "host/check/CheckAreas.h"
#include "host/check/ReadOnlyDatabase.h"

namespace tessard {

namespace {

constexpr FindingKind kMissing = {"database-missing", Severity::error};
constexpr FindingKind kOwner = {"database-owner", Severity::error};
constexpr FindingKind kOpenToAll = {"database-open-to-others", Severity::warning};
constexpr FindingKind kDamaged = {"database-damaged", Severity::error};
constexpr FindingKind kTables = {"database-tables-missing", Severity::error};
constexpr FindingKind kNotExamined = {"database-not-examined", Severity::notice};
constexpr std::array kKinds = {kMissing, kOwner, kOpenToAll, kDamaged, kTables, kNotExamined};

// Session managers wait two seconds for a reader to end before a write of theirs fails.
constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::size_t kScriptLimit = std::size_t{1024} * 1024;

// Path -> the script that its tables were made with.
std::map<std::string, std::string> databasesOf(const Instance& instance) {
  std::map<std::string, std::string> databases;
  for (const InstanceComponent* sm : instance.all("sm")) {
    const std::string path = sm->textAt("storage.sqlite.dbname");
    if (sm->textAt("storage.driver") == "sqlite" && path.starts_with('/')) {
      databases[path] = kJabberDatabaseScript;
    }
  }
  for (const NotificationDatabase& database : kNotificationDatabases)
    databases[database.path] = database.script;
  return databases;
}

// The names of the tables that a script makes, in small letters.
std::vector<std::string> tablesOf(CheckedSystem& system, const std::string& script) {
  constexpr const char* kTable =
      "create[[:space:]]+table[[:space:]]+(if[[:space:]]+not[[:space:]]+exists[[:space:]]+)?[\"`'[]?"
      "([[:alnum:]_-]+)";
  std::vector<std::string> tables;
  const auto text = system.files.readFile(script, kScriptLimit);
  regex_t compiled{};
  if (!text || ::regcomp(&compiled, kTable, REG_EXTENDED | REG_ICASE) != 0) return tables;
  const std::unique_ptr<regex_t, void (*)(regex_t*)> table(&compiled, ::regfree);
  std::array<regmatch_t, 3> found{};
  for (const char* at = text.value().c_str(); ::regexec(table.get(), at, found.size(), found.data(), 0) == 0;
       at += found[0].rm_eo) {
    tables.push_back(asciiLowercase({at + found[2].rm_so, at + found[2].rm_eo}));
  }
  return tables;
}

void examineRights(const std::string& path, const FileAttributes& is, Findings& findings) {
  const bool isUsable =
      is.owner == kJabberUserID && (is.permissions & S_IRUSR) != 0 && (is.permissions & S_IWUSR) != 0;
  if (!isUsable) {
    findings.add(
        kOwner, path,
        fill(
            "The database \"%@\" (owner %u, mode %o) cannot be read and written by the service's account %u.",
            {path, is.owner, is.permissions, kJabberUserID}),
        fill("chown %u %@ and chmod u+rw %@", {kJabberUserID, path, path}));
  }
  if ((is.permissions & S_IRWXO) == 0) return;
  findings.add(
      kOpenToAll, path,
      fill("Everybody on this machine may open the database \"%@\" (mode %o), which holds people's messages.",
           {path, is.permissions}),
      fill("chmod o= %@", {path}));
}

void notExamined(const std::string& path, Findings& findings) {
  findings.add(
      kNotExamined, path,
      fill("The database \"%@\" is in use or too large to be examined without holding up those who write to "
           "it.",
           {path}),
      fill("Stop the service (tessardctl stop), and check again; or: sqlite3 %@ 'PRAGMA quick_check'",
           {path}));
}

void damaged(const std::string& path, const std::string& how, Findings& findings) {
  findings.add(kDamaged, path, fill("The database \"%@\" is damaged: %@.", {path, how}),
               fill("Stop the service, and put the file back from a backup, or save what can be read: "
                    "sqlite3 %@ .recover",
                    {path}));
}

// "a \"b\"" of what SQLite says over several lines.
std::string inOneLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

void examineContent(CheckedSystem& system, const std::string& path, const std::string& script,
                    Findings& findings) {
  const auto place = system.machinePathOf(path);
  auto database =
      place ? ReadOnlyDatabase::open(place.value(), kPatience) : Result<ReadOnlyDatabase>(place.error());
  const auto tables = database ? database.value().tables() : Result<std::set<std::string>>(database.error());
  if (!tables) {
    if (tables.error().code() != 0) return notExamined(path, findings);
    return damaged(path, inOneLine(tables.error().description()), findings);
  }
  std::vector<std::string> missing;
  for (const std::string& table : tablesOf(system, script)) {
    if (!tables.value().contains(table)) missing.push_back(table);
  }
  if (!missing.empty()) {
    findings.add(
        kTables, path,
        fill("The database \"%@\" lacks the tables %@ of \"%@\".", {path, joinedWith(missing, ", "), script}),
        fill("Stop the service, move the file away, and make it anew: tessardctl setup; or add the tables: "
             "sqlite3 %@ < %@",
             {path, script}));
  }
  const auto damage = database.value().damage();
  if (damage && !damage.value().empty()) return damaged(path, inOneLine(damage.value()), findings);
  if (damage) return;
  if (damage.error().code() != 0) return notExamined(path, findings);
  damaged(path, inOneLine(damage.error().description()), findings);
}

void examineDatabases(CheckedSystem& system, Findings& findings) {
  if (!system.instance().isSetUp()) return;
  for (const auto& [path, script] : databasesOf(system.instance())) {
    const auto attributes = system.files.attributes(path);
    if (!attributes || attributes.value().kind != FileAttributes::Kind::regular ||
        attributes.value().size == 0) {
      findings.add(kMissing, path,
                   fill("The database \"%@\" is not there, or is no file with anything in it.", {path}),
                   "Put it back from a backup, or have an empty one made: tessardctl setup");
      continue;
    }
    examineRights(path, attributes.value(), findings);
    examineContent(system, path, script, findings);
  }
}

}  // namespace

const CheckArea kDatabasesArea = {"databases", "owners, tables and soundness of the databases", 20, kKinds,
                                  examineDatabases};

}  // namespace tessard
