#include "platform/journal/JournalNames.h"

#include <array>
#include <charconv>
#include <climits>

#include "common/Format.h"
#include "common/Text.h"

namespace tessard {

namespace {

constexpr char kMirrorSign = '+';
constexpr std::array<std::string_view, 2> kSuffixesBeside = {".tmp", ".bak"};

std::optional<unsigned> numberIn(std::string_view text, int base) {
  unsigned number = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::vector<std::string> mirrorNamesOf(std::string_view path) {
  std::vector<std::string> names;
  for (const std::string& name : componentsOf(path, '/')) {
    if (!name.empty()) names.push_back(kMirrorSign + name);
  }
  return names;
}

std::string nameOfMirror(std::string_view mirrorName) {
  return std::string(mirrorName.substr(mirrorName.starts_with(kMirrorSign) ? 1 : 0));
}

std::vector<std::string> namesBeside(std::string_view name) {
  std::vector<std::string> names;
  for (const std::string_view suffix : kSuffixesBeside) {
    if (name.size() + suffix.size() <= NAME_MAX) names.emplace_back(name).append(suffix);
  }
  return names;
}

std::string_view fileBeside(std::string_view name) {
  for (const std::string_view suffix : kSuffixesBeside) {
    if (name.size() > suffix.size() && name.ends_with(suffix)) {
      return name.substr(0, name.size() - suffix.size());
    }
  }
  return {};
}

std::string attributesNameOf(uid_t owner, gid_t group, mode_t permissions) {
  return fill("%u.%u.%o", {owner, group, permissions});
}

std::optional<NotedAttributes> attributesIn(std::string_view name) {
  const auto parts = componentsOf(name, '.');
  if (parts.size() != 3) return std::nullopt;
  const auto owner = numberIn(parts[0], 10);
  const auto group = numberIn(parts[1], 10);
  const auto permissions = numberIn(parts[2], 8);
  if (!owner || !group || !permissions || *permissions > 07777U) return std::nullopt;
  return NotedAttributes{*owner, *group, *permissions};
}

}  // namespace tessard
