#include "platform/LinuxHostNames.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/HostsTable.h"

namespace tessard {

namespace {

constexpr std::size_t kHostNameFileLimit = 65536;
constexpr std::string_view kBlanks = " \t\r\f\v";

bool isUsableName(std::string_view name) {
  return isHostName(name) && !sameHostName(name, "localhost") && !sameHostName(name, "localhost.localdomain");
}

bool isQualified(std::string_view name) {
  return name.find('.') != std::string_view::npos;
}

std::string_view trimmed(std::string_view line) {
  const std::size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(kBlanks) - begin + 1);
}

std::string_view firstEntry(std::string_view content) {
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    const std::string_view line = trimmed(content.substr(0, end));
    if (!line.empty() && line.front() != '#') return line;
    content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
  }
  return {};
}

}  // namespace

std::string runningHostName() {
  std::array<char, 256> name{};  // Linux holds names to 64 bytes
  if (::gethostname(name.data(), name.size() - 1) != 0) return {};
  return name.data();
}

LinuxHostNames::LinuxHostNames(FileSystem& files, std::function<std::string()> runningName)
    : files_(files), runningName_(std::move(runningName)) {}

Result<std::optional<std::string>> LinuxHostNames::configuredName() {
  const Result<std::string> content = files_.readFile("/etc/hostname", kHostNameFileLimit);
  if (!content) {
    if (content.error().code() == ENOENT) return std::optional<std::string>();
    return content.error();
  }
  const std::string name(firstEntry(content.value()));
  if (!isUsableName(name)) return std::optional<std::string>();
  const Result<std::string> full = completed(name);
  if (!full) return full.error();
  return std::optional<std::string>(full.value());
}

std::optional<std::string> LinuxHostNames::storedName() {
  const std::string name = runningName_();
  if (!isUsableName(name)) return std::nullopt;
  const Result<std::string> full = completed(name);
  return full ? full.value() : name;
}

Result<std::string> LinuxHostNames::completed(const std::string& name) {
  if (isQualified(name)) return name;
  const auto table = readHostsTable(files_);
  if (!table) return table.error();
  for (const HostsEntry& entry : table.value()) {
    if (!entry.lists(name)) continue;
    const auto full = std::ranges::find_if(
        entry.names, [](const std::string& other) { return isQualified(other) && isUsableName(other); });
    if (full != entry.names.end()) return *full;
  }
  return name;
}

}  // namespace tessard
