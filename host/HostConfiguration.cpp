#include "host/HostConfiguration.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <variant>

#include "common/Format.h"

namespace tessard {

namespace {

using TextMember = std::string HostConfiguration::*;
using NumberMember = std::uint32_t HostConfiguration::*;

enum class Content { absolutePath, name, number, portMapping, serviceManager };

struct Setting {
  std::string_view key;
  Content content;
  std::variant<TextMember, NumberMember> member;
  std::uint32_t minimum = 0;
  std::uint32_t maximum = 0;
  bool inFile = true;
};

constexpr std::uint32_t kDaySeconds = 86'400;

const std::array<Setting, 17> kSettings = {{
    {"root", Content::absolutePath, &HostConfiguration::root, 0, 0, false},
    {"config", Content::absolutePath, &HostConfiguration::configurationFile, 0, 0, false},
    {"socket", Content::absolutePath, &HostConfiguration::socketPath},
    {"admin-group", Content::name, &HostConfiguration::adminGroup},
    {"bundles", Content::absolutePath, &HostConfiguration::bundlesDirectory},
    {"programs", Content::absolutePath, &HostConfiguration::programsDirectory},
    {"service-manager", Content::serviceManager, &HostConfiguration::serviceManager},
    {"s6-scan-directory", Content::absolutePath, &HostConfiguration::s6ScanDirectory},
    {"port-mapping", Content::portMapping, &HostConfiguration::portMapping},
    {"idle-seconds", Content::number, &HostConfiguration::idleSeconds, 0, kDaySeconds},
    {"request-seconds", Content::number, &HostConfiguration::requestSeconds, 1, kDaySeconds},
    {"queue-seconds", Content::number, &HostConfiguration::queueSeconds, 0, kDaySeconds},
    {"connections", Content::number, &HostConfiguration::maximumConnections, 2, 512},
    {"user-connections", Content::number, &HostConfiguration::maximumUserConnections, 1, 512},
    {"root-connections", Content::number, &HostConfiguration::rootConnections, 1, 511},
    {"user-mebibytes", Content::number, &HostConfiguration::userMebibytes, 1, 1024},
    {"network-quiet-seconds", Content::number, &HostConfiguration::networkQuietSeconds, 0, kDaySeconds},
}};

const Setting* settingFor(std::string_view key) {
  for (const Setting& setting : kSettings) {
    if (setting.key == key) return &setting;
  }
  return nullptr;
}

std::optional<std::string> apply(HostConfiguration& configuration, const Setting& setting,
                                 const std::string& value) {
  if (setting.content == Content::number) {
    std::uint32_t number = 0;
    const char* end = value.data() + value.size();
    const auto [stop, problem] = std::from_chars(value.data(), end, number);
    if (problem != std::errc() || stop != end || number < setting.minimum || number > setting.maximum) {
      return fill("\"%@\" must be a whole number from %u to %u, not \"%@\"",
                  {setting.key, setting.minimum, setting.maximum, value});
    }
    configuration.*std::get<NumberMember>(setting.member) = number;
    return std::nullopt;
  }
  if (value.empty()) return fill("\"%@\" needs a value", {setting.key});
  if (setting.content == Content::absolutePath && value.front() != '/') {
    return fill("\"%@\" must be an absolute path, not \"%@\"", {setting.key, value});
  }
  if (setting.content == Content::serviceManager && value != "systemd" && value != "s6" && value != "none") {
    return fill("\"%@\" must be systemd, s6 or none, not \"%@\"", {setting.key, value});
  }
  if (setting.content == Content::portMapping && value != "off" && value != "natpmp" && value != "upnp" &&
      value != "auto") {
    return fill("\"%@\" must be off, natpmp, upnp or auto, not \"%@\"", {setting.key, value});
  }
  configuration.*std::get<TextMember>(setting.member) = value;
  return std::nullopt;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::string> applyLine(HostConfiguration& configuration, std::string_view line,
                                     std::set<std::string_view>& seen) {
  const auto equals = line.find('=');
  if (equals == std::string_view::npos) return "a line must have the form \"key = value\"";
  const std::string_view key = trimmed(line.substr(0, equals));
  const Setting* setting = settingFor(key);
  if (!setting || !setting->inFile) return fill("there is no setting \"%@\"", {key});
  if (!seen.insert(setting->key).second) return fill("the setting \"%@\" is doubled", {key});
  return apply(configuration, *setting, std::string(trimmed(line.substr(equals + 1))));
}

struct Option {
  const Setting* setting;
  std::string value;
};

struct Options {
  std::vector<Option> given;
  CommandLineWish wish = CommandLineWish::run;
};

Result<Options> readOptions(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string& argument = arguments[index];
    if (argument == "--help" || argument == "--version") {
      options.wish = argument == "--help" ? CommandLineWish::help : CommandLineWish::version;
      return options;
    }
    const auto equals = argument.find('=');
    const Setting* setting = argument.starts_with("--")
                                 ? settingFor(std::string_view(argument).substr(
                                       2, equals == std::string::npos ? equals : equals - 2))
                                 : nullptr;
    if (!setting) return SystemError(EINVAL, fill("there is no option \"%@\" (see --help)", {argument}));
    if (equals != std::string::npos) {
      options.given.push_back({setting, argument.substr(equals + 1)});
    } else if (++index < arguments.size()) {
      options.given.push_back({setting, arguments[index]});
    } else {
      return SystemError(EINVAL, fill("the option \"%@\" needs a value", {argument}));
    }
  }
  return options;
}

std::optional<std::string> applyOptions(HostConfiguration& configuration, const Options& options) {
  for (const Option& option : options.given) {
    if (auto problem = apply(configuration, *option.setting, option.value)) return problem;
  }
  return std::nullopt;
}

Result<void> applyFile(HostConfiguration& configuration, const std::string& path, bool mayBeMissing) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    if (mayBeMissing && errno == ENOENT) return {};
    const SystemError reason = SystemError::last();
    return SystemError(reason.code(), fill("cannot read %@: %@", {path, reason.description()}));
  }
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (file.bad()) return SystemError(EIO, fill("cannot read %@", {path}));
  return applyConfigurationText(configuration, text, path);
}

}  // namespace

Result<void> applyConfigurationText(HostConfiguration& configuration, std::string_view text,
                                    const std::string& sourceName) {
  HostConfiguration changed = configuration;
  std::set<std::string_view> seen;
  int number = 0;
  while (!text.empty()) {
    ++number;
    const auto end = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    if (auto problem = applyLine(changed, line, seen)) {
      return SystemError(EBADMSG, fill("%@, line %d: %@", {sourceName, number, *problem}));
    }
  }
  configuration = changed;
  return {};
}

Result<CommandLine> readCommandLine(const std::vector<std::string>& arguments) {
  auto options = readOptions(arguments);
  if (!options) return options.error();
  CommandLine result;
  result.wish = options.value().wish;
  if (result.wish != CommandLineWish::run) return result;
  HostConfiguration& configuration = result.configuration;
  if (auto problem = applyOptions(configuration, options.value())) return SystemError(EINVAL, *problem);
  const bool fileIsNamed = configuration.configurationFile != HostConfiguration().configurationFile;
  const std::string file = fileIsNamed || configuration.root == "/"
                               ? configuration.configurationFile
                               : configuration.root + configuration.configurationFile;
  if (auto read = applyFile(configuration, file, !fileIsNamed); !read) return read.error();
  // Once more: an option wins over the file.
  if (auto problem = applyOptions(configuration, options.value())) return SystemError(EINVAL, *problem);
  return result;
}

std::string daemonHelp() {
  return "usage: tessardd [OPTION]...\n"
         "Serves administration requests over a Unix socket.\n"
         "\n"
         "  --root DIR             system root that every other path is below (default /)\n"
         "  --config FILE          configuration file (default ROOT/etc/tessardd/tessardd.conf)\n"
         "  --socket PATH          socket (default /run/tessardd/tessardd.sock)\n"
         "  --admin-group NAME     group whose members may send requests (default tessard-admin)\n"
         "  --bundles DIR          plug-in bundles (default /usr/share/tessardd/bundles)\n"
         "  --programs DIR         programs that come with the daemon, a path of the machine itself\n"
         "                         (default /usr/libexec/tessardd)\n"
         "  --service-manager NAME what starts and stops the services: systemd, s6 or none (default systemd\n"
         "                         where it runs and the root is /, none otherwise)\n"
         "  --s6-scan-directory DIR\n"
         "                         directory that s6-svscan watches (default /run/service)\n"
         "  --port-mapping METHOD  how the gateway is asked to forward port 5268 to this machine while the\n"
         "                         services run: natpmp, upnp, auto (natpmp, else upnp) or off; only where "
         "the\n"
         "                         root is / (default off: nothing is sent)\n"
         "  --idle-seconds N       time without requests until idle work, 0 for never (default 60)\n"
         "  --request-seconds N    time for a client to send a request or take an answer (default 30)\n"
         "  --queue-seconds N      time that a request may wait for another one to end (default 120)\n"
         "  --connections N        connections at a time (default 64)\n"
         "  --user-connections N   of them, those of one user other than root (default 16)\n"
         "  --root-connections N   of them, those that are kept for root (default 8)\n"
         "  --user-mebibytes N     memory for the requests and answers of one user other than root (default "
         "4)\n"
         "  --network-quiet-seconds N\n"
         "                         the plug-ins are told of changes of the host's name and addresses once "
         "there\n"
         "                         were none for this time, 0 for never (default 2)\n"
         "  --help, --version\n"
         "\n"
         "The configuration file has lines such as \"idle-seconds = 60\" with the names of the options\n"
         "(without root and config). Options win over the file.\n"
         "Example: tessardd --root /srv/scratch --idle-seconds 0\n";
}

}  // namespace tessard
