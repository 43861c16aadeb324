#include "host/ctl/CtlTable.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "common/Text.h"

namespace tessard {

namespace {

// Below that the texts stand under their cells and not beside them.
constexpr std::size_t kNarrowestText = 30;
constexpr std::size_t kIndent = 2;

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

class Table {
 public:
  Table(const CtlOutput& output, const std::vector<CtlRow>& rows)
      : output_(output), columns_(output.columns().value_or(std::numeric_limits<std::size_t>::max())) {
    for (const CtlRow& row : rows) {
      widths_.resize(std::max(widths_.size(), row.cells.size()));
      for (std::size_t index = 0; index < row.cells.size(); ++index) {
        widths_[index] = std::max(widths_[index], widthOf(printable(row.cells[index])) + kIndent);
      }
    }
    for (const std::size_t width : widths_) before_ += width;
    isNarrow_ = columns_ < before_ + kNarrowestText;
  }

  void print(const CtlRow& row) const {
    const std::string heading = isNarrow_ ? "" : headingOf(row);
    const std::size_t indent = isNarrow_ ? kIndent : before_;
    const std::size_t width = std::max<std::size_t>(columns_, indent + 1) - indent;
    bool isFirst = !isNarrow_;
    if (isNarrow_) {
      for (const std::string& line : wrapped(printable(joinedWith(row.cells, " ")), columns_))
        output_.line(line);
    }
    for (const std::string& text : row.texts) {
      for (const std::string& line : wrapped(printable(text), width)) {
        output_.line((isFirst ? heading : std::string(indent, ' ')) + line);
        isFirst = false;
      }
    }
  }

 private:
  std::string headingOf(const CtlRow& row) const {
    std::string heading;
    for (std::size_t index = 0; index < widths_.size(); ++index) {
      const std::string cell = index < row.cells.size() ? printable(row.cells[index]) : "";
      heading += cell + std::string(widths_[index] - widthOf(cell), ' ');
    }
    return heading;
  }

  const CtlOutput& output_;
  std::size_t columns_;
  std::vector<std::size_t> widths_;
  std::size_t before_ = 0;
  bool isNarrow_ = false;
};

}  // namespace

void printTable(const CtlOutput& output, const std::vector<CtlRow>& rows) {
  const Table table(output, rows);
  for (const CtlRow& row : rows) table.print(row);
}

}  // namespace tessard
