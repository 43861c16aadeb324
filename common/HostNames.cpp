#include "common/HostNames.h"

#include <algorithm>
#include <string_view>

namespace tessard {

namespace {

constexpr std::size_t kLongestName = 253;
constexpr std::size_t kLongestLabel = 63;

bool isLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isLabel(std::string_view label) {
  if (label.empty() || label.size() > kLongestLabel) return false;
  if (label.front() == '-' || label.back() == '-') return false;
  return std::ranges::all_of(label, [](char c) { return isLetterOrDigit(c) || c == '-'; });
}

}  // namespace

bool isHostName(std::string_view text) {
  if (text.size() > kLongestName) return false;
  while (true) {
    const std::size_t dot = text.find('.');
    if (!isLabel(text.substr(0, dot))) return false;
    if (dot == std::string_view::npos) return true;
    text.remove_prefix(dot + 1);
  }
}

}  // namespace tessard
