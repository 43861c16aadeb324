#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <map>
#include <utility>
#include <vector>

#include "common/Format.h"
#include "host/JsonCodec.h"
#include "host/Rfc3339.h"
#include "host/ctl/CtlLogs.h"
#include "host/ctl/Following.h"
#include "host/ctl/LogLine.h"

namespace tessard {

namespace {

constexpr std::size_t kUsualLines = 100;
constexpr std::size_t kMostLines = 100'000;  // of one request
constexpr std::size_t kMoreAtATime = 8;
constexpr std::int64_t kMostBytes = std::int64_t{4} << 20;
constexpr std::size_t kTimeWidth = 20;
constexpr std::size_t kComponentWidth = 9;
constexpr std::size_t kLevelWidth = 7;

Date now() {
  const auto since1970 = std::chrono::system_clock::now().time_since_epoch();
  return {std::chrono::duration_cast<std::chrono::microseconds>(since1970).count()};
}

// The daemon's own lines stand in one log with those of the programs, and some of them hold the word that
// these are found by: each log is asked for its own alone.
struct Source {
  const char* identifier;
  bool isDaemons;
  std::string position{};
  bool complete = true;
  bool more = false;
  std::optional<Date> oldest{};  // of the last answer
};

std::string padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

/// The lines of all logs, merged.
class MergedLog {
 public:
  MergedLog(CtlCall& call, LogSelection selection, std::size_t wanted)
      : call_(call), selection_(std::move(selection)), wanted_(wanted) {}

  /// Fetches the newest lines, as many as are wanted. Gives the exit code.
  int newest() {
    parts_ = call_.watch().partsByProcess();
    for (std::size_t asked = std::max(2 * wanted_, kUsualLines);; asked *= kMoreAtATime) {
      lines_.clear();
      asked = std::min(asked, kMostLines);
      for (Source& source : sources_) {
        if (const int exitCode = fetch(source, asked); exitCode != EX_OK) return exitCode;
      }
      if (lines_.size() >= wanted_ || asked == kMostLines) break;
      if (std::ranges::all_of(sources_, [this](const Source& each) { return reachesBack(each); })) break;
    }
    merge();
    const std::size_t tooMany = lines_.size() - std::min(wanted_, lines_.size());
    lines_.erase(lines_.begin(), lines_.begin() + static_cast<std::ptrdiff_t>(tooMany));
    return EX_OK;
  }

  /// Fetches what was written since.
  int next() {
    lines_.clear();
    for (Source& source : sources_) {
      if (const int exitCode = fetch(source, std::nullopt); exitCode != EX_OK) return exitCode;
    }
    merge();
    return EX_OK;
  }

  bool isEmpty() const { return lines_.empty(); }
  bool hasMore() const { return std::ranges::any_of(sources_, &Source::more); }

  void print() const {
    for (const LogLine& line : lines_) {
      if (call_.output().json()) {
        call_.output().record(recordOf(line));
      } else {
        call_.output().line(textOf(line), colourOf(line));
      }
    }
  }

 private:
  int fetch(Source& source, std::optional<std::size_t> lines) {
    Dictionary request = {{"command", "tailFile"}, {"identifier", source.identifier}};
    if (lines) {
      request.set("lines", static_cast<std::int64_t>(*lines));
      request.set("bytes", kMostBytes);
    } else {
      request.set("position", source.position);
    }
    const auto& texts = call_.arguments().texts;
    if (!texts.empty()) request.set("withFilters", arrayOf(texts));
    return call_.send(std::move(request), [&](const Dictionary& answer) {
      take(source, answer);
      return EX_OK;
    });
  }

  void take(Source& source, const Dictionary& answer) {
    const std::string reason = textFor(answer, "reason", "");
    source.position = textFor(answer, "position", "");
    source.complete = reason != "lines" && reason != "bytes";
    const Value* more = answer.find("more");
    source.more = more && more->boolValue();
    source.oldest.reset();
    // Both are in one file, which needs to be spoken of once.
    if (source.complete && !source.isDaemons) tellGap(call_, answer);
    const Array* lines = answer.arrayFor("lines");
    if (!lines) return;
    std::optional<Date> before;
    for (const std::string& text : stringsOf(*lines)) {
      LogLine line = parseLogLine(text, now());
      if (!source.oldest) source.oldest = line.time;
      // What has no time belongs where it stands.
      if (!line.time) line.time = before;
      before = line.time;
      if ((line.program == "tessardd") != source.isDaemons) continue;
      nameComponent(line);
      if (selection_.wants(line)) lines_.push_back(std::move(line));
    }
  }

  // Whether there is nothing older that could be wanted.
  bool reachesBack(const Source& source) const {
    return source.complete ||
           (selection_.since && source.oldest &&
            source.oldest->microsecondsSince1970 < selection_.since->microsecondsSince1970);
  }

  void merge() {
    std::ranges::stable_sort(
        lines_, {}, [](const LogLine& line) { return line.time.value_or(Date{}).microsecondsSince1970; });
    // A number that is not known yet is that of a program which was started since.
    const bool isNew = std::ranges::any_of(lines_, [this](const LogLine& line) {
      return line.component == "sm" && line.process && !parts_.contains(*line.process);
    });
    if (!isNew) return;
    parts_.merge(call_.watch().partsByProcess());
    for (LogLine& line : lines_) nameComponent(line);
  }

  // All session managers call themselves the same; whose domain is whose the launcher tells.
  void nameComponent(LogLine& line) const {
    const auto part = line.process ? parts_.find(*line.process) : parts_.end();
    if (part != parts_.end() && part->second.starts_with(line.component + "_")) line.component = part->second;
  }

  static Dictionary recordOf(const LogLine& line) {
    Dictionary record;
    if (line.time) record.set("time", formatRfc3339(*line.time));
    if (!line.component.empty()) record.set("component", line.component);
    if (line.process) record.set("process", *line.process);
    if (line.level) record.set("level", nameOf(*line.level));
    record.set("message", line.message);
    return record;
  }

  static std::string textOf(const LogLine& line) {
    constexpr std::size_t kToTheSecond = 19;
    const std::string time = line.time ? formatRfc3339(*line.time).substr(0, kToTheSecond) + "Z" : "-";
    return fill("%@ %@ %@ %@",
                {padded(time, kTimeWidth), padded(line.component, kComponentWidth),
                 padded(std::string(line.level ? nameOf(*line.level) : "-"), kLevelWidth), line.message});
  }

  static CtlOutput::Colour colourOf(const LogLine& line) {
    if (line.level == LogLevel::error) return CtlOutput::Colour::red;
    if (line.level == LogLevel::warning) return CtlOutput::Colour::yellow;
    return line.level == LogLevel::debug ? CtlOutput::Colour::grey : CtlOutput::Colour::none;
  }

  CtlCall& call_;
  const LogSelection selection_;
  const std::size_t wanted_;
  std::array<Source, 2> sources_ = {Source{"JABBER_LOG", false}, Source{"DAEMON_LOG", true}};
  std::vector<LogLine> lines_;
  std::map<int, std::string> parts_;
};

int follow(CtlCall& call, MergedLog& log) {
  Following following;
  call.outlastDaemon([&] { return following.pause(); });
  bool goesOn = following.write([&] { log.print(); });
  while (goesOn && following.hasReader() && (log.hasMore() || following.pause())) {
    if (const int exitCode = log.next(); exitCode != EX_OK) return exitCode;
    if (following.hasReader() && !log.isEmpty()) goesOn = following.write([&] { log.print(); });
  }
  if (!following.hasReader()) _exit(EX_OK);
  return EX_OK;
}

// A sentence when the options cannot be read.
std::optional<std::string> readSelection(const CtlArguments& arguments, LogSelection& selection,
                                         std::size_t& lines) {
  if (arguments.level) {
    selection.level = logLevelNamed(*arguments.level);
    if (!selection.level) {
      return fill("--level must be error, warning, notice, info or debug, not \"%@\".", {*arguments.level});
    }
  }
  if (arguments.since) {
    selection.since = parseSince(*arguments.since, now());
    if (!selection.since) return fill("--since cannot be \"%@\".", {*arguments.since});
    lines = kMostLines;
  }
  selection.components = arguments.components;
  if (!arguments.lines) return std::nullopt;
  const std::string& text = *arguments.lines;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), lines);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size() || lines > kMostLines) {
    return fill("--lines must be a number from 0 to %lu.", {kMostLines});
  }
  return std::nullopt;
}

}  // namespace

void tellGap(const CtlCall& call, const Dictionary& answer) {
  static const std::map<std::string, std::string> sentences = {
      {"bytes", "Older lines are left out; the answer would be too large."},
      {"search", "Only the end of the log was looked through, as it is very large."},
      {"unreadable", "An older file of the log cannot be read."},
      {"lost", "The log was rotated meanwhile; lines may be missing here."},
  };
  const auto found = sentences.find(textFor(answer, "reason", ""));
  if (found != sentences.end()) call.output().message("warning", found->second);
}

int allLogs(CtlCall& call) {
  LogSelection selection;
  std::size_t lines = kUsualLines;
  if (const auto problem = readSelection(call.arguments(), selection, lines)) return call.usage(*problem);
  MergedLog log(call, std::move(selection), lines);
  if (const int exitCode = log.newest(); exitCode != EX_OK) return exitCode;
  if (call.arguments().follow) return follow(call, log);
  if (log.isEmpty()) call.output().note("There is no such line.");
  log.print();
  return EX_OK;
}

}  // namespace tessard
