#include "config/MasterFileLines.h"

#include <algorithm>

namespace tessard {

namespace {

// Bytes of the newline character at the start of the text; 0 when there is none.
std::size_t newlineLength(std::string_view text) {
  if (text.empty()) return 0;
  if (text.front() >= '\n' && text.front() <= '\r') return 1;
  if (text.starts_with("\u0085")) return 2;
  if (text.starts_with("\u2028") || text.starts_with("\u2029")) return 3;
  return 0;
}

}  // namespace

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t newline = newlineLength(text.substr(at));
    if (newline == 0) {
      ++at;
      continue;
    }
    lines.emplace_back(text.substr(start, at - start));
    at += newline;
    start = at;
  }
  lines.emplace_back(text.substr(start));
  return lines;
}

std::vector<std::string_view> wordsOf(std::string_view line, std::string_view separators) {
  std::vector<std::string_view> words;
  while (true) {
    line.remove_prefix(std::min(line.find_first_not_of(separators), line.size()));
    if (line.empty()) return words;
    words.push_back(line.substr(0, line.find_first_of(separators)));
    line.remove_prefix(words.back().size());
  }
}

bool breaksLine(std::string_view text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte <= ' ' || byte == 0x7f || newlineLength(text.substr(at)) > 0) return true;
  }
  return false;
}

// Comments begin at the line's start, names end at blanks and tabs, but only blanks stand between name and
// path.
std::optional<ListedComponent> listedComponentIn(std::string_view line) {
  if (line.starts_with('#')) return std::nullopt;
  const auto words = wordsOf(line, " ");
  if (words.size() < 2) return std::nullopt;
  const std::string_view kind = words[0];
  if (kind != "router" && kind != "sm" && kind != "s2s" && kind != "c2s") return std::nullopt;
  std::string_view path = words[1];
  if (path.ends_with(';')) path = path.substr(0, path.find(';'));
  return ListedComponent{std::string(kind), std::string(path)};
}

}  // namespace tessard
