#include <sysexits.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <vector>

#include "common/Format.h"
#include "host/ctl/CtlVerbGroups.h"

namespace tessard {

namespace {

constexpr int kWarnings = 1;
constexpr int kErrors = 2;

// Below that the texts stand under their headings and not beside them.
constexpr std::size_t kNarrowestText = 30;
constexpr std::size_t kIndent = 2;

std::string encoded(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (std::isalnum(byte) != 0 || character == ',' || character == '-') {
      result += character;
    } else {
      result += {'%', kDigits[byte >> 4U], kDigits[byte & 15U]};
    }
  }
  return result;
}

// In characters, as far as one takes one column.
std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80; }));
}

// The longest beginning of that width, whole characters.
std::size_t lengthOfWidth(std::string_view text, std::size_t width) {
  std::size_t length = 0;
  while (length < text.size() && widthOf(text.substr(0, length + 1)) <= width) ++length;
  return length;
}

std::vector<std::string> wrapped(const std::string& text, std::size_t width) {
  std::vector<std::string> lines{""};
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    std::string& line = lines.back();
    const std::size_t used = line.empty() ? 0 : widthOf(line) + 1;
    if (used + widthOf(word) <= width) {
      line += (line.empty() ? "" : " ") + std::string(word);
      continue;
    }
    std::string_view left = word;
    if (!line.empty()) lines.emplace_back();
    while (widthOf(left) > width) {
      const std::size_t length = lengthOfWidth(left, width);
      lines.back() = left.substr(0, length);
      lines.emplace_back();
      left.remove_prefix(length);
    }
    lines.back() = left;
  }
  return lines;
}

struct Row {
  std::string area;
  std::string severity;
  std::vector<std::string> texts;  ///< each begins on a line of its own
};

class Table {
 public:
  Table(const CtlOutput& output, const std::vector<Row>& rows)
      : output_(output), columns_(output.columns().value_or(std::numeric_limits<std::size_t>::max())) {
    for (const Row& row : rows) {
      areaWidth_ = std::max(areaWidth_, widthOf(row.area) + kIndent);
      severityWidth_ = std::max(severityWidth_, widthOf(row.severity) + kIndent);
    }
    const std::size_t before = areaWidth_ + severityWidth_;
    isNarrow_ = columns_ < before + kNarrowestText;
    for (const Row& row : rows) print(row);
  }

 private:
  void print(const Row& row) const {
    const std::string area = row.area + std::string(areaWidth_ - widthOf(row.area), ' ');
    const std::string heading = area + row.severity;
    const std::size_t indent = isNarrow_ ? kIndent : areaWidth_ + severityWidth_;
    const std::size_t width = std::max<std::size_t>(columns_, indent + 1) - indent;
    bool isFirst = !isNarrow_;
    if (isNarrow_) output_.line(heading.substr(0, columns_));
    for (const std::string& text : row.texts) {
      for (const std::string& line : wrapped(printable(text), width)) {
        const std::string before = isFirst
                                       ? heading + std::string(severityWidth_ - widthOf(row.severity), ' ')
                                       : std::string(indent, ' ');
        output_.line(before + line);
        isFirst = false;
      }
    }
  }

  const CtlOutput& output_;
  std::size_t columns_;
  std::size_t areaWidth_ = 0;
  std::size_t severityWidth_ = 0;
  bool isNarrow_ = false;
};

std::vector<const Dictionary*> entriesOf(const Dictionary& answer, std::string_view key) {
  std::vector<const Dictionary*> entries;
  const Array* list = answer.arrayFor(key);
  if (!list) return entries;
  for (const Value& value : *list) {
    if (const Dictionary* entry = value.asDictionary()) entries.push_back(entry);
  }
  return entries;
}

std::string counted(std::size_t count, const std::string& what) {
  return fill(count == 1 ? "%lu %@" : "%lu %@s", {count, what});
}

void show(const CtlOutput& output, const Dictionary& answer) {
  const auto findings = entriesOf(answer, "findings");
  std::vector<Row> rows;
  std::array<std::size_t, 3> counts{};
  for (const Dictionary* finding : findings) {
    const std::string severity = textFor(*finding, "severity", "");
    counts[severity == "error" ? 0 : severity == "warning" ? 1 : 2]++;
    rows.push_back({textFor(*finding, "area", ""),
                    severity,
                    {textFor(*finding, "sentence", ""), "-> " + textFor(*finding, "remedy", "")}});
  }
  Table(output, rows);
  const std::string areas = counted(entriesOf(answer, "areas").size(), "area");
  if (findings.empty()) {
    output.line(fill("Nothing is wrong in %@.", {areas}));
  } else {
    output.line(fill("%@, %@, %@ in %@.", {counted(counts[0], "error"), counted(counts[1], "warning"),
                                           counted(counts[2], "notice"), areas}));
  }
}

int listAreas(CtlCall& call) {
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", "/v1/check/areas", "", exitCode);
  if (!answer) return exitCode;
  if (call.output().json()) return call.printEntries(*answer);
  std::vector<Row> rows;
  for (const Dictionary* area : entriesOf(*answer, "areas")) {
    const std::string name = textFor(*area, "name", "");
    // What can be found everywhere is no area.
    if (name != "any") rows.push_back({name, "", {textFor(*area, "examines", "")}});
  }
  Table(call.output(), rows);
  return EX_OK;
}

}  // namespace

int runCheck(CtlCall& call) {
  const CtlArguments& arguments = call.arguments();
  if (arguments.words.size() > 1) return call.usage("\"check\" takes no arguments.");
  if (arguments.list) {
    if (arguments.only || arguments.timeout)
      return call.usage("--list goes with neither --only nor --timeout.");
    return listAreas(call);
  }
  std::string path = "/v1/check";
  if (arguments.only) path += "?only=" + encoded(*arguments.only);
  if (arguments.timeout) path += (arguments.only ? "&timeout=" : "?timeout=") + encoded(*arguments.timeout);
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", path, "", exitCode);
  if (!answer) return exitCode;
  if (call.output().json()) {
    call.output().document(*answer);
  } else {
    show(call.output(), *answer);
  }
  const std::string worst = textFor(*answer, "worst", "none");
  return worst == "error" ? kErrors : worst == "warning" ? kWarnings : EX_OK;
}

}  // namespace tessard
