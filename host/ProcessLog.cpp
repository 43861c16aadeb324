#include "host/ProcessLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string_view>

#include "common/Format.h"
#include "platform/FileDescriptor.h"

namespace tessard {

namespace {

constexpr off_t kEndOfFile = off_t{256} * 1024;

using Journal = std::unique_ptr<sd_journal, decltype(&sd_journal_close)>;

std::optional<std::string> endOf(const std::string& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat attributes {};
  if (!file || ::fstat(file.get(), &attributes) != 0 || !S_ISREG(attributes.st_mode)) return std::nullopt;
  const off_t start = std::max<off_t>(0, attributes.st_size - kEndOfFile);
  std::string text(static_cast<std::size_t>(attributes.st_size - start), '\0');
  const ssize_t length = ::pread(file.get(), text.data(), text.size(), start);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  if (start > 0) text.erase(0, text.find('\n') + 1);
  return text;
}

std::vector<std::string> fromText(std::string_view text, pid_t pid, std::size_t count) {
  const std::string sender = fill("[%d]: ", {pid});
  std::vector<std::string> lines;
  while (!text.empty() && lines.size() < count) {
    if (text.ends_with('\n')) text.remove_suffix(1);
    const auto begin = text.rfind('\n') + 1;  // 0 where there is none
    const std::string_view line = text.substr(begin);
    if (line.find(sender) != std::string_view::npos) lines.emplace_back(line);
    text = text.substr(0, begin);
  }
  std::ranges::reverse(lines);
  return lines;
}

std::vector<std::string> fromJournal(pid_t pid, std::size_t count) {
  sd_journal* opened = nullptr;
  if (sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM) < 0) return {};
  const Journal journal(opened, &sd_journal_close);
  // The number was another process's before the last boot.
  sd_id128_t boot{};
  std::array<char, SD_ID128_STRING_MAX> bootText{};
  if (sd_id128_get_boot(&boot) < 0) return {};
  const std::string thisBoot = fill("_BOOT_ID=%@", {sd_id128_to_string(boot, bootText.data())});
  const std::string match = fill("_PID=%d", {pid});
  if (sd_journal_add_match(journal.get(), match.data(), match.size()) < 0 ||
      sd_journal_add_match(journal.get(), thisBoot.data(), thisBoot.size()) < 0 ||
      sd_journal_seek_tail(journal.get()) < 0) {
    return {};
  }
  std::vector<std::string> lines;
  while (lines.size() < count && sd_journal_previous(journal.get()) > 0) {
    constexpr std::string_view kField = "MESSAGE=";
    const void* data = nullptr;
    std::size_t length = 0;
    if (sd_journal_get_data(journal.get(), "MESSAGE", &data, &length) < 0) continue;
    const std::string_view field(static_cast<const char*>(data), length);
    lines.emplace_back(field.substr(std::min(kField.size(), field.size())));
  }
  std::ranges::reverse(lines);
  return lines;
}

}  // namespace

std::vector<std::string> lastLogLinesOf(pid_t pid, std::size_t count, const std::string& file) {
  if (pid <= 0) return {};
  if (const auto text = endOf(file)) return fromText(*text, pid, count);
  return fromJournal(pid, count);
}

}  // namespace tessard
