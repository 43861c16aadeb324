#include "platform/HostsTable.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "common/Text.h"

namespace tessard {

namespace {

// Tables of blocked names, a common use of the file, reach some megabytes.
constexpr std::size_t kHostsSizeLimit = std::size_t{16} * 1024 * 1024;
constexpr std::string_view kBlanks = " \t\r\f\v";

std::optional<std::string_view> takeWord(std::string_view& line) {
  const std::size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return std::nullopt;
  line.remove_prefix(begin);
  const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
  line.remove_prefix(word.size());
  return word;
}

}  // namespace

bool sameHostName(std::string_view first, std::string_view second) {
  return std::ranges::equal(first, second,
                            [](char a, char b) { return asciiLowercase(a) == asciiLowercase(b); });
}

bool HostsEntry::lists(std::string_view name) const {
  return std::ranges::any_of(names, [&](const std::string& own) { return sameHostName(own, name); });
}

std::vector<HostsEntry> parseHostsTable(std::string_view content) {
  std::vector<HostsEntry> entries;
  while (!content.empty()) {
    const std::size_t end = content.find('\n');
    std::string_view line = content.substr(0, end);
    content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);

    line = line.substr(0, line.find('#'));
    const auto address = takeWord(line);
    if (!address) continue;
    HostsEntry entry{std::string(*address), {}};
    while (const auto name = takeWord(line)) entry.names.emplace_back(*name);
    if (!entry.names.empty()) entries.push_back(std::move(entry));
  }
  return entries;
}

Result<std::vector<HostsEntry>> readHostsTable(FileSystem& files) {
  const Result<std::string> content = files.readFile("/etc/hosts", kHostsSizeLimit);
  if (content) return parseHostsTable(content.value());
  if (content.error().code() == ENOENT) return std::vector<HostsEntry>{};
  return content.error();
}

}  // namespace tessard
