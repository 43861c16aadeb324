#include "host/ctl/CtlArguments.h"

#include <algorithm>
#include <cerrno>
#include <map>

#include "common/Format.h"
#include "common/MostLike.h"

namespace tessard {

namespace {

bool takeFlag(CtlArguments& result, const std::string& argument) {
  if (argument == "--json") {
    result.json = true;
  } else if (argument == "--details") {
    result.details = true;
  } else if (argument == "--follow" || argument == "-f") {
    result.follow = true;
  } else if (argument == "--show-secrets") {
    result.showSecrets = true;
  } else if (argument == "--check") {
    result.check = true;
  } else if (argument == "--force") {
    result.force = true;
  } else if (argument == "--list") {
    result.list = true;
  } else if (argument == "--help" || argument == "-h") {
    result.help = true;
  } else if (argument == "--version") {
    result.version = true;
  } else {
    return false;
  }
  return true;
}

bool takeCertificateFile(CtlArguments& result, const std::string& option, const std::string& value) {
  const std::map<std::string, std::optional<std::string>*> places = {
      {"--certificate", &result.certificate},
      {"--key", &result.key},
      {"--chain", &result.chain},
      {"--pkcs12", &result.pkcs12},
      {"--from-certbot", &result.fromCertbot},
      {"--passphrase-file", &result.passPhraseFile},
      {"--passphrase-fd", &result.passPhraseNumber}};
  const auto place = places.find(option);
  if (place == places.end()) return false;
  *place->second = value;
  return true;
}

bool takeValue(CtlArguments& result, const std::string& option, const std::string& value) {
  if (takeCertificateFile(result, option, value)) return true;
  if (option == "--socket") {
    result.socketPath = value;
  } else if (option == "--plugin") {
    result.plugin = value;
  } else if (option == "--file") {
    result.file = value;
  } else if (option == "--format") {
    result.format = value;
  } else if (option == "--only") {
    result.only = value;
  } else if (option == "--timeout") {
    result.timeout = value;
  } else if (option == "--output") {
    result.output = value;
  } else if (option == "--lines" || option == "-n") {
    result.lines = value;
  } else if (option == "--text") {
    result.texts.push_back(value);
  } else if (option == "--component") {
    result.components.push_back(value);
  } else if (option == "--level") {
    result.level = value;
  } else if (option == "--since") {
    result.since = value;
  } else {
    return false;
  }
  return true;
}

bool needsValue(const std::string& option) {
  CtlArguments unused;
  return takeValue(unused, option, "");
}

constexpr const char* kHelp =
    "usage: tessardctl [OPTION]... VERB [ARGUMENT]...\n"
    "Administers the push-notification service through the daemon tessardd.\n"
    "\n"
    "  state [--details]           the state of the service\n"
    "                              tessardctl state --details\n"
    "  start, stop, restart        the service; waits until it is done\n"
    "                              tessardctl restart\n"
    "  settings get [KEY]... [--show-secrets]\n"
    "                              settings, all or the named ones, one KEY=VALUE a line; secrets are left\n"
    "                              out of all, unless they are wanted\n"
    "                              tessardctl settings get jabberdDatabasePath\n"
    "  settings set KEY=VALUE...   changes settings\n"
    "                              tessardctl settings set authLevel=STANDARD "
    "hosts=[a.example,b.example]\n"
    "  settings set --file FILE    the same from a YAML, JSON or property-list dictionary; - is standard "
    "input\n"
    "                              tessardctl --json settings get | tessardctl settings set --file -\n"
    "  settings export [--format yaml|json|plist] [--show-secrets]\n"
    "                              the settings as a file that \"settings apply\" takes\n"
    "                              tessardctl settings export >push.yaml\n"
    "  settings diff FILE          what applying a file would change; exit status 1 when there is something\n"
    "                              tessardctl settings diff push.yaml\n"
    "  settings apply FILE [--check]\n"
    "                              writes what the file wants otherwise than it is; --check only tells\n"
    "                              tessardctl settings apply push.yaml\n"
    "  settings undo [--check]     puts everything back that the last settings write changed; --check only\n"
    "                              tells; undone in turn, the write is made again\n"
    "                              tessardctl settings undo --check\n"
    "  setup                       first-time setup\n"
    "                              tessardctl setup\n"
    "  services list               the client services, one SERVICE HOST [KEY=VALUE]... a line\n"
    "                              tessardctl services list\n"
    "  services add SERVICE HOST [KEY=VALUE]...\n"
    "                              tessardctl services add mail mail.example.com port=993\n"
    "  services remove SERVICE HOST\n"
    "                              tessardctl services remove mail mail.example.com\n"
    "  service-user SERVICE        the account for a service, with its password; made if there is none\n"
    "                              tessardctl service-user calendar\n"
    "  certificate list            the keychain's certificates: digest, end, key, subject, and what "
    "for\n"
    "                              tessardctl certificate list\n"
    "  certificate import FILE     puts in what a PKCS#12 or PEM file holds; asks for its pass phrase, "
    "or\n"
    "                              takes the first line of standard input\n"
    "                              tessardctl certificate import push.p12\n"
    "  certificate set NAME        the push bridge's certificate, by a part of its subject\n"
    "                              tessardctl certificate set push.example.com\n"
    "  certificate clear           takes that back\n"
    "                              tessardctl certificate clear\n"
    "  tls-certificate show        the certificate that clients are shown, on disk and at the service's "
    "ports\n"
    "                              tessardctl tls-certificate show\n"
    "  tls-certificate import --certificate FILE [--key FILE] [--chain FILE]\n"
    "  tls-certificate import --pkcs12 FILE\n"
    "  tls-certificate import --from-certbot DOMAIN|DIRECTORY\n"
    "                              examines a certificate, makes it the one of the service, restarts that, "
    "and\n"
    "                              looks whether clients get it; goes back to the former one otherwise\n"
    "      --check                 only examines it\n"
    "      --force                 takes it without a served domain's name, too\n"
    "      --passphrase-file FILE, --passphrase-fd NUMBER\n"
    "                              where the pass phrase is, on the first line; otherwise it is asked for\n"
    "                              tessardctl tls-certificate import --from-certbot push.example.com\n"
    "  log [--lines N] [--level LEVEL] [--component NAME]... [--text TEXT]... [--since TIME] [--follow]\n"
    "                              what all parts of the service have logged, by time: the newest lines "
    "(100)\n"
    "                              of that level (error, warning, notice, info, debug) and graver, of these\n"
    "                              parts (router, sm, c2s, tessardd, ...), with every TEXT, since a time "
    "(10m,\n"
    "                              2h, 2026-11-21, 10:30); --follow goes on with new ones until Ctrl-C\n"
    "                              tessardctl log --level warning --since 2h\n"
    "  log IDENTIFIER [--lines N] [--text TEXT]... [--follow]\n"
    "                              the newest lines of one log as they stand in it (JABBER_LOG, DAEMON_LOG)\n"
    "                              tessardctl log JABBER_LOG --text c2s --follow\n"
    "  log --list                  the identifiers of the logs and their files\n"
    "                              tessardctl log --list\n"
    "  check [--only AREA[,AREA]...] [--timeout SECONDS]\n"
    "                              everything that is wrong with the service, with a remedy for each; the "
    "time\n"
    "                              is for each area; --list tells the areas\n"
    "                              tessardctl check --only xml,ports\n"
    "  request COMMAND [JSON]      any request, with further entries of its dictionary; prints JSON\n"
    "                              tessardctl request getState '{\"variant\": \"withDetails\"}'\n"
    "  metrics [--output FILE]     what can be measured, in the text format of Prometheus; the file is\n"
    "                              replaced whole and readable by everyone, as its node exporter wants\n"
    "                              tessardctl metrics --output "
    "/var/lib/prometheus/node-exporter/tessard.prom\n"
    "  health                      what the daemon is doing\n"
    "                              tessardctl health\n"
    "\n"
    "Values: true, yes, false, no are booleans; digits are an integer; [a, b] is a list; \"...\" is "
    "text\n"
    "whatever it looks like; KEY+=VALUE, repeated, makes a list; KEY:=JSON takes any JSON value; all "
    "else\n"
    "is text.\n"
    "\n"
    "  --json          one JSON document on standard output: the answer, or {\"error\", \"message\"}\n"
    "  --socket PATH   the daemon's socket (default /run/tessardd/tessardd.sock)\n"
    "  --plugin NAME   the plug-in to ask (default notification)\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 done; 1 \"settings diff\" has found differences, or \"check\" warnings; 2 \"check\" has "
    "found\n"
    "errors; 64 wrong usage; 65 wrong data; 66 a file that cannot be read; 69 the daemon or the\n"
    "service is not available; 70 the request failed; 73 a directory or file could not be made; 74 the "
    "connection\n"
    "or the output broke; 75 busy, try again; 76 an answer that is none; 77 no permission.\n";

constexpr std::string_view kHelpText = kHelp;
constexpr std::size_t kIndent = 2;  // of the lines that begin with a verb

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    lines.push_back(text.substr(0, text.find('\n')));
    text.remove_prefix(std::min(lines.back().size() + 1, text.size()));
  }
  return lines;
}

bool beginsEntry(std::string_view line) {
  return line.size() > kIndent && line.starts_with("  ") && line[kIndent] >= 'a' && line[kIndent] <= 'z';
}

// The verbs that a line of the help is about: "start, stop, restart", "settings get", "log".
std::vector<std::string_view> verbsOf(std::string_view line) {
  line.remove_prefix(kIndent);
  std::vector<std::string_view> verbs;
  constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz-";
  for (;;) {
    std::size_t end = line.find_first_not_of(kLetters);
    if (end == std::string_view::npos) end = line.size();
    std::size_t second = end + 1;
    while (second < line.size() && kLetters.find(line[second]) != std::string_view::npos) ++second;
    const bool hasSecond = line.substr(end).starts_with(' ') && second > end + 1 && line[end + 1] != '-' &&
                           (second == line.size() || line[second] == ' ');
    if (hasSecond) verbs.push_back(line.substr(0, second));
    verbs.push_back(line.substr(0, end));
    if (!line.substr(end).starts_with(", ")) return verbs;
    line.remove_prefix(end + 2);
  }
}

std::vector<std::string_view> optionsInHelp() {
  std::vector<std::string_view> options;
  for (std::size_t at = kHelpText.find("--"); at != std::string_view::npos; at = kHelpText.find("--", at)) {
    const std::size_t end = kHelpText.find_first_not_of("abcdefghijklmnopqrstuvwxyz-", at);
    options.push_back(kHelpText.substr(at, end - at));
    at = end;
  }
  return options;
}

std::string noOption(const std::string& argument) {
  const auto meant = mostLike(argument.substr(0, argument.find('=')), optionsInHelp());
  return fill("There is no option \"%@\"%@.",
              {argument, meant ? fill("; \"%@\" may be meant", {*meant}) : ""});
}

}  // namespace

Result<CtlArguments> parseCtlArguments(const std::vector<std::string>& arguments, bool& json) {
  json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
  CtlArguments result;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string& argument = arguments[index];
    if (argument == "--") {
      result.words.insert(result.words.end(), arguments.begin() + static_cast<std::ptrdiff_t>(index) + 1,
                          arguments.end());
      break;
    }
    if (!argument.starts_with('-') || argument == "-") {
      result.words.push_back(argument);
      continue;
    }
    const auto equals = argument.find('=');
    if (equals != std::string::npos &&
        takeValue(result, argument.substr(0, equals), argument.substr(equals + 1))) {
      continue;
    }
    if (takeFlag(result, argument)) continue;
    if (!needsValue(argument)) return SystemError(EINVAL, noOption(argument));
    if (++index == arguments.size()) {
      return SystemError(EINVAL, fill("The option \"%@\" needs a value.", {argument}));
    }
    takeValue(result, argument, arguments[index]);
  }
  return result;
}

std::vector<std::string_view> ctlVerbs() {
  std::vector<std::string_view> all;
  for (const std::string_view line : linesOf(kHelpText)) {
    if (!beginsEntry(line)) continue;
    for (const std::string_view verb : verbsOf(line)) all.push_back(verb);
  }
  return all;
}

std::string ctlHelp(const std::vector<std::string>& words) {
  if (words.empty()) return kHelp;
  const std::string two = words.size() > 1 ? fill("%@ %@", {words[0], words[1]}) : words[0];
  const auto verbs = ctlVerbs();
  const std::string wanted = std::ranges::find(verbs, two) == verbs.end() ? words[0] : two;
  std::string found;
  bool isWanted = false;
  for (const std::string_view line : linesOf(kHelpText)) {
    if (beginsEntry(line)) {
      isWanted = std::ranges::any_of(verbsOf(line), [&](std::string_view verb) { return verb == wanted; });
    } else if (line.empty()) {
      isWanted = false;
    }
    if (isWanted) found.append(line).append(1, '\n');
  }
  return found.empty() ? kHelp : found;
}

}  // namespace tessard
