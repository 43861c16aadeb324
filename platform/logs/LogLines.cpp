#include "platform/logs/LogLines.h"

#include <algorithm>

#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr std::uint64_t kBlock = std::uint64_t{64} * 1024;

// A longer line is read forwards in pieces, so that every query gets on.
constexpr std::uint64_t kPiece = std::uint64_t{1024} * 1024;

constexpr char32_t kFirstControlPicture = 0x2400;
constexpr char32_t kDeletePicture = 0x2421;
constexpr char32_t kReplacement = 0xfffd;
constexpr const char* kEllipsis = "\u2026";

char32_t shown(char32_t point) {
  if (point == U'\t') return point;
  if (point < U' ') return kFirstControlPicture + point;
  if (point == 0x7f) return kDeletePicture;
  // Terminals obey these too; and XML knows no such characters.
  if (point < 0xa0 && point >= 0x80) return kReplacement;
  if (point == 0xfffe || point == 0xffff) return kReplacement;
  return point;
}

// The cut may have gone through the last character.
std::string_view withoutHalfACharacter(std::string_view text) {
  constexpr std::size_t kLongestCharacter = 4;
  const auto isInner = [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) == 0x80U; };
  std::size_t length = 1;
  while (length < std::min(kLongestCharacter, text.size()) && isInner(text[text.size() - length])) ++length;
  const std::string_view rest = text.substr(0, text.size() - std::min(length, text.size()));
  return isUtf8(text.substr(rest.size())) ? text : rest;
}

}  // namespace

bool LogLines::load(std::uint64_t begin, std::uint64_t end) {
  if (!meter_.take(end - begin)) return false;
  block_.resize(static_cast<std::size_t>(end - begin));
  const auto got = file_.readAt(begin, block_.data(), block_.size());
  // A file that has become shorter meanwhile has nothing there any more.
  const bool whole = got && got.value() == block_.size();
  if (!whole) block_.clear();
  blockBegin_ = begin;
  return whole;
}

std::optional<std::uint64_t> LogLines::beginningOfLine(std::uint64_t end) {
  while (end > 0) {
    if (!holds(end - 1) && !load((end - 1) / kBlock * kBlock, end)) return std::nullopt;
    const std::string_view before = std::string_view(block_).substr(0, end - blockBegin_);
    const auto found = before.rfind('\n');
    if (found != std::string_view::npos) return blockBegin_ + found + 1;
    end = blockBegin_;
  }
  return 0;
}

// Of the line, or of its first piece.
std::optional<std::uint64_t> LogLines::endOfLine(std::uint64_t begin) {
  const std::uint64_t end = std::min(begin + kPiece, file_.size());
  while (begin < end) {
    if (!holds(begin) && !load(begin, std::min(begin + kBlock, file_.size()))) return std::nullopt;
    const auto found = block_.find('\n', begin - blockBegin_);
    if (found != std::string::npos) return blockBegin_ + found;
    begin = blockBegin_ + block_.size();
  }
  return begin;
}

std::optional<LogLine> LogLines::line(std::uint64_t begin, std::uint64_t end, bool terminated) {
  LogLine line;
  line.size = end - begin + (terminated ? 1 : 0);
  line.cut = end - begin > kLogLineLimit;
  line.terminated = terminated;
  const std::uint64_t length = std::min<std::uint64_t>(end - begin, kLogLineLimit);
  if (length == 0) return line;
  if (holds(begin) && holds(begin + length - 1)) {
    line.text = std::string_view(block_).substr(begin - blockBegin_, length);
    return line;
  }
  if (!meter_.take(length)) return std::nullopt;
  straddling_.resize(length);
  const auto got = file_.readAt(begin, straddling_.data(), length);
  if (!got || got.value() < length) return std::nullopt;
  line.text = straddling_;
  return line;
}

std::optional<LogLine> LogLines::previous() {
  if (cursor_ == 0) return std::nullopt;
  if (!holds(cursor_ - 1) && !load((cursor_ - 1) / kBlock * kBlock, cursor_)) return std::nullopt;
  const bool terminated = block_[cursor_ - 1 - blockBegin_] == '\n';
  const std::uint64_t end = cursor_ - (terminated ? 1 : 0);
  const auto begin = beginningOfLine(end);
  if (!begin) return std::nullopt;
  auto found = line(*begin, end, terminated);
  if (found) cursor_ = *begin;
  return found;
}

std::optional<LogLine> LogLines::next() {
  if (cursor_ >= file_.size()) return std::nullopt;
  const std::uint64_t begin = cursor_;
  const auto end = endOfLine(begin);
  if (!end) return std::nullopt;
  const bool terminated = holds(*end) && block_[*end - blockBegin_] == '\n';
  auto found = line(begin, *end, terminated);
  if (found) cursor_ = *end + (terminated ? 1 : 0);
  return found;
}

std::string shownLine(std::string_view text, bool cut) {
  if (!cut && text.ends_with('\r')) text.remove_suffix(1);
  // What a program writes on at its old offset when its log was emptied begins after a hole.
  text.remove_prefix(std::min(text.find_first_not_of('\0'), text.size()));
  if (cut) text = withoutHalfACharacter(text);
  std::string result;
  for (const char32_t point : decodeUtf8(text)) appendUtf8(result, shown(point));
  if (cut) result += kEllipsis;
  return result;
}

}  // namespace tessard
