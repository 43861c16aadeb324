#include "platform/logs/LogPosition.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "common/Format.h"
#include "common/Text.h"

namespace tessard {

namespace {

constexpr std::string_view kKind = "file";
constexpr std::uint64_t kDigested = 512;  // holds the moment of a line, so that no two logs agree in it

// FNV-1a: against chance, not against anybody.
std::uint64_t digestOf(std::string_view bytes) {
  std::uint64_t digest = 14695981039346656037U;
  for (const char byte : bytes) {
    digest ^= static_cast<unsigned char>(byte);
    digest *= 1099511628211U;
  }
  return digest;
}

// Of fewer bytes where the file has become shorter.
std::uint64_t digestAt(const LogFile& file, std::uint64_t begin, std::uint64_t end) {
  std::array<char, kDigested> bytes{};
  const auto got = file.readAt(begin, bytes.data(), static_cast<std::size_t>(end - begin));
  return digestOf({bytes.data(), got ? got.value() : 0});
}

std::uint64_t digestOfBeginning(const LogFile& file, std::uint64_t offset) {
  return digestAt(file, 0, std::min(offset, kDigested));
}

std::uint64_t digestBefore(const LogFile& file, std::uint64_t offset) {
  return digestAt(file, offset - std::min(offset, kDigested), offset);
}

bool parseNumber(std::string_view text, std::uint64_t& number) {
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
  return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

}  // namespace

LogPosition LogPosition::in(const LogFile& file, std::uint64_t offset) {
  LogPosition position;
  position.device_ = file.device();
  position.inode_ = file.inode();
  position.offset_ = offset;
  position.beginning_ = digestOfBeginning(file, offset);
  position.before_ = digestBefore(file, offset);
  return position;
}

std::optional<LogPosition> LogPosition::parse(std::string_view text) {
  const auto parts = componentsOf(text, ':');
  LogPosition position;
  const std::array<std::uint64_t*, 5> numbers = {&position.device_, &position.inode_, &position.offset_,
                                                 &position.beginning_, &position.before_};
  if (parts.size() != numbers.size() + 1 || parts.front() != kKind) return std::nullopt;
  for (std::size_t index = 0; index < numbers.size(); ++index) {
    if (!parseNumber(parts[index + 1], *numbers[index])) return std::nullopt;
  }
  return position;
}

std::string LogPosition::text() const {
  return fill("%@:%@:%@:%@:%@:%@", {kKind, device_, inode_, offset_, beginning_, before_});
}

bool LogPosition::isIn(const LogFile& file) const {
  if (offset_ > file.size()) return false;
  if (offset_ == 0) return file.device() == device_ && file.inode() == inode_;
  return digestOfBeginning(file, offset_) == beginning_ && digestBefore(file, offset_) == before_;
}

}  // namespace tessard
