#include "programs/launcher/LauncherOptions.h"

#include <cerrno>
#include <charconv>
#include <optional>
#include <set>
#include <string_view>

#include "common/Format.h"

namespace tessard {

namespace {

constexpr std::uint32_t kHighestDescriptor = 65535;
constexpr std::uint32_t kLongestStartSeconds = 3600;

std::optional<std::uint32_t> numberIn(std::string_view text, std::uint32_t minimum, std::uint32_t maximum) {
  std::uint32_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, problem] = std::from_chars(text.data(), end, number);
  if (problem != std::errc() || stop != end || number < minimum || number > maximum) return std::nullopt;
  return number;
}

// Nothing, or what is wrong with the value.
std::optional<std::string> apply(LauncherOptions& options, std::string_view name, const std::string& value) {
  if (name == "--config") {
    if (!value.starts_with('/')) return fill("%@ must be an absolute path, not \"%@\"", {name, value});
    options.masterFile = value;
    return std::nullopt;
  }
  const bool isDescriptor = name == "--notify-fd";
  const std::uint32_t minimum = isDescriptor ? 3 : 1;
  const std::uint32_t maximum = isDescriptor ? kHighestDescriptor : kLongestStartSeconds;
  const auto number = numberIn(value, minimum, maximum);
  if (!number) {
    return fill("%@ must be a whole number from %u to %u, not \"%@\"", {name, minimum, maximum, value});
  }
  if (isDescriptor) {
    options.notifyDescriptor = static_cast<int>(*number);
  } else {
    options.startSeconds = *number;
  }
  return std::nullopt;
}

}  // namespace

Result<LauncherOptions> readLauncherOptions(const std::vector<std::string>& arguments) {
  static const std::set<std::string_view> names = {"--config", "--notify-fd", "--start-seconds"};
  LauncherOptions options;
  std::set<std::string_view> seen;
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string& name = arguments[index];
    if (name == "--help" || name == "--version") {
      options.wish = name == "--help" ? LauncherOptions::Wish::help : LauncherOptions::Wish::version;
      return options;
    }
    if (!names.contains(name)) return SystemError(EINVAL, fill("there is no option \"%@\"", {name}));
    if (!seen.insert(name).second) return SystemError(EINVAL, fill("%@ is given twice", {name}));
    if (++index == arguments.size()) return SystemError(EINVAL, fill("%@ needs a value", {name}));
    if (const auto problem = apply(options, name, arguments[index])) return SystemError(EINVAL, *problem);
  }
  return options;
}

std::string launcherHelp() {
  return "usage: jabberd_launcher [OPTION VALUE]...\n"
         "Runs the private jabberd instance: every component that its master file lists, as account 84, and\n"
         "none of them longer than itself. A service manager starts it, as root.\n"
         "\n"
         "  --config FILE       master file (default /private/etc/jabberd_notification/jabberd.cfg)\n"
         "  --notify-fd N       open descriptor that gets a newline when clients can log in; a socket in\n"
         "                      NOTIFY_SOCKET is told too\n"
         "  --start-seconds N   time for the components to come up (default 30)\n"
         "  --help, --version\n"
         "\n"
         "Exit status: 0 stopped by TERM, INT or HUP; 64 wrong use; 69 the start failed; 71 the system\n"
         "refused something; 75 a component ended later, so that it is worth while to start again; 77 not\n"
         "root; 78 a configuration file cannot be used. No component runs after any of them.\n";
}

}  // namespace tessard
