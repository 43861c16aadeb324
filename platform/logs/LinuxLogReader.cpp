#include "platform/logs/LinuxLogReader.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "common/Format.h"
#include "platform/logs/LogGathering.h"
#include "platform/logs/LogLines.h"
#include "platform/logs/LogPosition.h"
#include "platform/logs/RotatedLog.h"
#include "platform/logs/SystemJournal.h"

namespace tessard {

namespace {

constexpr std::string_view kSystemLog = "/var/log/system.log";

std::vector<std::string> senderFilter(const LogQuery& query) {
  if (!query.sender) return {};
  return {fill("[%d]: ", {*query.sender})};
}

// One query about a file and what became of its older content.
class FileQuery {
 public:
  FileQuery(int root, const LogQuery& query, std::uint64_t searchedBytes)
      : root_(root),
        query_(query),
        unpacked_{searchedBytes},
        read_{searchedBytes},
        gathering_(query, senderFilter(query)) {}

  LogExcerpt newest(const LogFile& file) {
    LogExcerpt excerpt;
    excerpt.position = LogPosition::in(file, file.size()).text();
    RotatedLog rotated(root_, query_.path, &file, unpacked_);
    const LogFile* current = &file;
    while (current && excerpt.gap == LogGap::none) {
      excerpt.gap = gatherBackwards(*current);
      if (excerpt.gap == LogGap::none) current = rotated.next();
    }
    if (rotated.failed()) excerpt.gap = unpacked_.exhausted ? LogGap::search : LogGap::unreadable;
    excerpt.lines = gathering_.takeReversed();
    return excerpt;
  }

  /// `file` is null while a rotation has not made a new one. ENOENT when nothing of the log is found.
  Result<LogExcerpt> since(const LogPosition& position, const LogFile* file) {
    RotatedLog rotated(root_, query_.path, file, unpacked_);
    // From the one that holds the position to the newest.
    std::vector<const LogFile*> files;
    const LogFile* found = find(position, file, rotated);
    LogExcerpt excerpt;
    if (!found) {
      if (!file) return SystemError(ENOENT);
      excerpt.gap = LogGap::lost;
      files = {file};
    } else {
      if (file) files.push_back(file);
      for (const auto& older : rotated.files()) files.push_back(older.get());
      files.erase(std::ranges::find(files, found) + 1, files.end());
      std::ranges::reverse(files);
    }
    gatherForwards(files, found ? position.offset() : 0, excerpt);
    excerpt.lines = gathering_.take();
    return excerpt;
  }

 private:
  static const LogFile* find(const LogPosition& position, const LogFile* file, RotatedLog& rotated) {
    const LogFile* candidate = file ? file : rotated.next();
    while (candidate && !position.isIn(*candidate)) candidate = rotated.next();
    return candidate;
  }

  LogGap gatherBackwards(const LogFile& file) {
    LogLines lines(file, read_, file.size());
    while (lines.cursor() > 0) {
      if (gathering_.isFull()) return LogGap::lines;
      const auto line = lines.previous();
      if (!line) return read_.exhausted ? LogGap::search : LogGap::unreadable;
      if (!gathering_.wants(line->text)) continue;
      if (!gathering_.hasRoomFor(line->text)) return LogGap::bytes;
      gathering_.add(line->text, line->cut);
    }
    return LogGap::none;
  }

  void gatherForwards(const std::vector<const LogFile*>& files, std::uint64_t offset, LogExcerpt& excerpt) {
    for (const LogFile* file : files) {
      const bool isLast = file == files.back();
      LogLines lines(*file, read_, offset);
      offset = gatherForwards(lines, *file, isLast, excerpt);
      excerpt.position = LogPosition::in(*file, offset).text();
      if (excerpt.more || excerpt.gap == LogGap::unreadable) return;
      offset = 0;
    }
  }

  // Gives the offset up to which the file is dealt with.
  std::uint64_t gatherForwards(LogLines& lines, const LogFile& file, bool isLast, LogExcerpt& excerpt) {
    while (lines.cursor() < file.size()) {
      const std::uint64_t done = lines.cursor();
      if (gathering_.isFull()) {
        excerpt.more = true;
        return done;
      }
      const auto line = lines.next();
      if (!line) {
        excerpt.more = read_.exhausted;
        if (!read_.exhausted) excerpt.gap = LogGap::unreadable;
        return done;
      }
      // It may be half of what is being written; a whole line is hardly that long.
      if (!line->terminated && isLast && !line->cut) return done;
      if (!gathering_.wants(line->text)) continue;
      if (!gathering_.hasRoomFor(line->text) && !gathering_.isEmpty()) {
        excerpt.more = true;
        return done;
      }
      gathering_.add(line->text, line->cut);
    }
    return lines.cursor();
  }

  int root_;
  const LogQuery& query_;
  LogMeter unpacked_;
  LogMeter read_;
  LogGathering gathering_;
};

}  // namespace

LinuxLogReader::LinuxLogReader(const std::string& root, std::uint64_t searchedBytes)
    : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      hasJournal_(root == "/"),
      searchedBytes_(searchedBytes) {
  if (!root_) rootError_ = errno;
}

Result<LogExcerpt> LinuxLogReader::read(const LogQuery& query) {
  if (!root_) return SystemError(rootError_);
  std::optional<LogPosition> position;
  if (query.position && !SystemJournal::isPosition(*query.position)) {
    position = LogPosition::parse(*query.position);
    if (!position) return SystemError(ESPIPE);
  }
  const auto file = LogFile::open(root_.get(), query.path);
  if (!file && file.error().code() != ENOENT) return file.error();
  FileQuery search(root_.get(), query, searchedBytes_);
  if (position) {
    auto excerpt = search.since(*position, file ? &file.value() : nullptr);
    if (excerpt || !hasJournal_ || query.path != kSystemLog) return excerpt;
  }
  if (!file && hasJournal_ && query.path == kSystemLog) return SystemJournal::read(query);
  if (!file) return file.error();
  LogExcerpt excerpt = search.newest(file.value());
  // The position is one in the journal, which a file has replaced.
  if (query.position) excerpt.gap = LogGap::lost;
  return excerpt;
}

}  // namespace tessard
