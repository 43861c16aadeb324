#include "platform/logs/SystemJournal.h"

#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include "common/Format.h"
#include "platform/logs/LogGathering.h"
#include "platform/logs/LogLines.h"

namespace tessard {

namespace {

constexpr std::string_view kKind = "journal:";
constexpr std::uint64_t kMicrosecondsPerSecond = 1'000'000;

// sd-journal's functions give 0 or a count, or a negative errno.
SystemError journalError(int answer) {
  return SystemError(-answer);
}

std::string timeText(std::uint64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / kMicrosecondsPerSecond);
  std::tm parts{};
  ::gmtime_r(&seconds, &parts);
  std::array<char, 32> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return {text.data(), length};
}

class OpenJournal {
 public:
  static Result<OpenJournal> open() {
    sd_journal* opened = nullptr;
    const int answer = sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM);
    if (answer < 0) return journalError(answer);
    OpenJournal journal(opened);
    if (sd_journal_has_persistent_files(opened) <= 0 && sd_journal_has_runtime_files(opened) <= 0) {
      return SystemError(ENOENT);
    }
    return journal;
  }

  sd_journal* get() const { return journal_.get(); }

  // A process's number means another one after a boot. The boot is that of the newest entry: what /proc calls
  // this one is the computer's, not the container's, where the daemon has a /proc of its own.
  int showOnly(int sender) const {
    sd_journal_seek_tail(get());
    if (const int answer = sd_journal_previous(get()); answer <= 0) return answer;
    std::uint64_t moment = 0;
    sd_id128_t boot{};
    if (const int answer = sd_journal_get_monotonic_usec(get(), &moment, &boot); answer < 0) return answer;
    std::array<char, SD_ID128_STRING_MAX> text{};
    const std::string thisBoot = fill("_BOOT_ID=%@", {sd_id128_to_string(boot, text.data())});
    const std::string process = fill("_PID=%d", {sender});
    const int answer = sd_journal_add_match(get(), thisBoot.data(), thisBoot.size());
    return answer < 0 ? answer : sd_journal_add_match(get(), process.data(), process.size());
  }

  // Of the entry that is the current one.
  std::string line() const {
    std::uint64_t moment = 0;
    if (sd_journal_get_realtime_usec(get(), &moment) < 0) moment = 0;
    const std::string name = field("SYSLOG_IDENTIFIER").value_or(field("_COMM").value_or("unknown"));
    const auto process = field("SYSLOG_PID").has_value() ? field("SYSLOG_PID") : field("_PID");
    return fill("%@ %@ %@%@%@: %@",
                {timeText(moment), field("_HOSTNAME").value_or("localhost"), levelWord(), name,
                 process ? "[" + *process + "]" : "", field("MESSAGE").value_or("")});
  }

  std::string position() const {
    char* cursor = nullptr;
    if (sd_journal_get_cursor(get(), &cursor) < 0) return std::string(kKind);
    const std::unique_ptr<char, decltype(&std::free)> owned(cursor, &std::free);
    return std::string(kKind) + cursor;
  }

 private:
  explicit OpenJournal(sd_journal* journal) : journal_(journal, &sd_journal_close) {}

  std::optional<std::string> field(const std::string& name) const {
    const void* data = nullptr;
    std::size_t length = 0;
    if (sd_journal_get_data(get(), name.c_str(), &data, &length) < 0) return std::nullopt;
    const std::string_view text(static_cast<const char*>(data), length);
    return std::string(text.substr(std::min(name.size() + 1, text.size())));
  }

  // "err " and the like, as syslog calls the levels.
  std::string levelWord() const {
    constexpr std::array<const char*, 8> kWords = {"emerg",   "alert",  "crit", "err",
                                                   "warning", "notice", "info", "debug"};
    const auto level = field("PRIORITY");
    if (!level || level->size() != 1 || level->front() < '0' || level->front() > '7') return "";
    return fill("%@ ", {kWords.at(static_cast<std::size_t>(level->front() - '0'))});
  }

  std::unique_ptr<sd_journal, decltype(&sd_journal_close)> journal_;
};

std::string_view shortened(std::string_view line) {
  return line.substr(0, kLogLineLimit);
}

LogExcerpt newest(const OpenJournal& journal, const LogQuery& query) {
  LogExcerpt excerpt;
  excerpt.position = std::string(kKind);
  LogGathering gathering(query);
  sd_journal_seek_tail(journal.get());
  for (int seen = 0; sd_journal_previous(journal.get()) > 0; ++seen) {
    if (seen == 0) excerpt.position = journal.position();
    if (gathering.isFull()) excerpt.gap = LogGap::lines;
    if (seen == SystemJournal::kSearchedEntries) excerpt.gap = LogGap::search;
    if (excerpt.gap != LogGap::none) break;
    const std::string line = journal.line();
    if (!gathering.wants(shortened(line))) continue;
    if (!gathering.hasRoomFor(shortened(line))) {
      excerpt.gap = LogGap::bytes;
      break;
    }
    gathering.add(shortened(line), line.size() > kLogLineLimit);
  }
  excerpt.lines = gathering.takeReversed();
  return excerpt;
}

// Puts the journal on the entry of the position, so that the next one is the first to be read; whether it is
// still there.
bool seek(const OpenJournal& journal, const std::string& cursor) {
  if (cursor.empty()) return sd_journal_seek_head(journal.get()) >= 0;
  if (sd_journal_seek_cursor(journal.get(), cursor.c_str()) < 0) return false;
  if (sd_journal_next(journal.get()) > 0 && sd_journal_test_cursor(journal.get(), cursor.c_str()) > 0) {
    return true;
  }
  if (sd_journal_previous(journal.get()) <= 0) sd_journal_seek_head(journal.get());
  return false;
}

LogExcerpt since(const OpenJournal& journal, const LogQuery& query) {
  LogExcerpt excerpt;
  excerpt.position = *query.position;
  LogGathering gathering(query);
  if (!seek(journal, query.position->substr(kKind.size()))) excerpt.gap = LogGap::lost;
  for (int seen = 0; sd_journal_next(journal.get()) > 0; ++seen) {
    excerpt.more = gathering.isFull() || seen == SystemJournal::kSearchedEntries;
    if (excerpt.more) break;
    const std::string line = journal.line();
    if (gathering.wants(shortened(line))) {
      excerpt.more = !gathering.hasRoomFor(shortened(line)) && !gathering.isEmpty();
      if (excerpt.more) break;
      gathering.add(shortened(line), line.size() > kLogLineLimit);
    }
    excerpt.position = journal.position();
  }
  excerpt.lines = gathering.take();
  return excerpt;
}

}  // namespace

bool SystemJournal::isPosition(std::string_view position) {
  return position.starts_with(kKind);
}

Result<LogExcerpt> SystemJournal::read(const LogQuery& query) {
  const auto journal = OpenJournal::open();
  if (!journal) return journal.error();
  if (query.sender) {
    if (const int answer = journal.value().showOnly(*query.sender); answer < 0) return journalError(answer);
  }
  if (!query.position || !isPosition(*query.position)) {
    LogExcerpt excerpt = newest(journal.value(), query);
    if (query.position) excerpt.gap = LogGap::lost;
    return excerpt;
  }
  const std::string cursor = query.position->substr(kKind.size());
  if (!cursor.empty() && sd_journal_seek_cursor(journal.value().get(), cursor.c_str()) < 0) {
    return SystemError(ESPIPE);
  }
  return since(journal.value(), query);
}

}  // namespace tessard
