#include "platform/LinuxProcesses.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace tessard {

namespace {

constexpr std::size_t kPidFileLimit = 64;
// Longer than any file that is read here as a whole; of a command line the beginning is enough.
constexpr std::size_t kProcFileLimit = 1'048'576;

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// Files of /proc have no size, and are read in one go where possible so that their content belongs together.
std::optional<std::string> readProcFile(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  std::string content;
  std::array<char, 16384> buffer{};
  ssize_t got = 0;
  while (content.size() < kProcFileLimit) {
    got = ::read(file, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    content.append(buffer.data(), static_cast<std::size_t>(got));
  }
  ::close(file);
  if (got < 0) return std::nullopt;  // ESRCH: ended while it was read
  return content;
}

// A whole text of decimal digits as a number.
template <class Number>
std::optional<Number> wholeNumber(std::string_view text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// What follows "Key:" and blanks on a line of its own.
std::string_view fieldOf(std::string_view content, std::string_view key) {
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    std::string_view line = content.substr(0, end);
    content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
    if (!line.starts_with(key)) continue;
    line.remove_prefix(key.size());
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    return line;
  }
  return {};
}

std::string_view fieldAt(std::string_view fields, std::size_t index) {
  while (true) {
    const std::size_t end = fields.find(' ');
    if (index == 0) return fields.substr(0, end);
    if (end == std::string_view::npos) return {};
    fields.remove_prefix(end + 1);
    --index;
  }
}

std::string_view withoutLineEnd(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

std::string firstWordOf(std::string_view text) {
  const auto isPart = [](char character) { return std::isalnum(static_cast<unsigned char>(character)) != 0; };
  return {text.begin(), std::ranges::find_if_not(text, isPart)};
}

}  // namespace

LinuxProcesses::LinuxProcesses(FileSystem& files, std::string procPath)
    : files_(files), procPath_(std::move(procPath)) {}

pid_t LinuxProcesses::pid_from_file(std::string_view path) {
  const Result<std::string> content = files_.readFile(path, kPidFileLimit);
  if (!content) return 0;
  return wholeNumber<pid_t>(withoutLineEnd(content.value())).value_or(0);
}

int LinuxProcesses::get_service_state_from_pid_file(std::string_view path) {
  const pid_t number = pid_from_file(path);
  const std::string pid = std::to_string(number);
  if (number <= 0 || !isLive(pid)) return 0;
  const std::string word = firstWordOf(lastPathComponent(path));
  const auto names = namesOf(pid);
  const bool isItsOwn = std::ranges::any_of(
      names, [&](const std::string& name) { return name.find(word) != std::string::npos; });
  return isItsOwn ? 1 : 0;
}

bool LinuxProcesses::isLive(const std::string& pid) const {
  const auto status = readProcFile(procPath_ + "/" + pid + "/status");
  if (!status) return false;
  const std::string_view state = fieldOf(*status, "State:");
  // /proc answers for the ids of threads too, although it does not list them.
  return fieldOf(*status, "Tgid:") == pid && !state.empty() && state.front() != 'Z' && state.front() != 'X';
}

std::array<std::string, 2> LinuxProcesses::namesOf(const std::string& pid) const {
  const std::string directory = procPath_ + "/" + pid;
  const std::string kernelName = readProcFile(directory + "/comm").value_or("");
  const std::string commandLine = readProcFile(directory + "/cmdline").value_or("");
  const std::string program = commandLine.substr(0, commandLine.find('\0'));
  return {std::string(withoutLineEnd(kernelName)), program.substr(program.rfind('/') + 1)};
}

bool LinuxProcesses::goesByName(const std::string& pid, std::string_view name) const {
  const auto names = namesOf(pid);
  return std::ranges::find(names, name) != names.end();
}

int LinuxProcesses::ec_is_daemon_running(std::string_view name, std::int32_t& count) {
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(procPath_.c_str()));
  if (!directory) return -1;
  std::int32_t found = 0;
  while (true) {
    errno = 0;
    const dirent* entry = ::readdir(directory.get());
    if (!entry) break;
    const std::string pid = entry->d_name;
    if (!wholeNumber<pid_t>(pid) || name.empty()) continue;
    if (goesByName(pid, name) && isLive(pid)) ++found;
  }
  if (errno != 0) return -1;
  count = found;
  return 0;
}

std::int64_t LinuxProcesses::start_time_in_seconds(pid_t pid) {
  if (pid <= 0) return 0;
  const auto stat = readProcFile(procPath_ + "/" + std::to_string(pid) + "/stat");
  const auto machine = readProcFile(procPath_ + "/stat");
  if (!stat || !machine) return 0;
  // The name, in parentheses, may itself hold blanks and parentheses; the state, field 3, follows its last
  // one.
  const std::size_t nameEnd = stat->rfind(") ");
  if (nameEnd == std::string::npos) return 0;
  const std::string_view fromState = std::string_view(*stat).substr(nameEnd + 2);
  const auto startTicks = wholeNumber<std::int64_t>(fieldAt(fromState, 22 - 3));
  const auto bootTime = wholeNumber<std::int64_t>(fieldOf(*machine, "btime"));
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  if (!startTicks || !bootTime || ticksPerSecond <= 0) return 0;
  return *bootTime + *startTicks / ticksPerSecond;
}

}  // namespace tessard
