#include "platform/keychain/AccessList.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "common/Text.h"

namespace tessard {

namespace {

constexpr unsigned kKnownParts = CSSM_ACL_MATCH_UID | CSSM_ACL_MATCH_GID;

bool isMeaningful(const AclSubject& subject) {
  return subject.type == AclSubjectType::CSSM_ACL_SUBJECT_TYPE_PROCESS &&
         subject.version == CSSM_ACL_PROCESS_SELECTOR_CURRENT_VERSION && subject.mask != 0 &&
         (subject.mask & ~kKnownParts) == 0;
}

template <class Map>
auto mapped(const Map& map, typename Map::key_type id) {
  const auto found = map.find(id);
  return found == map.end() ? id : found->second;
}

bool matches(const AclSubject& subject, uid_t user, gid_t group, const OwnerMap& owners) {
  if (!isMeaningful(subject)) return false;
  if ((subject.mask & CSSM_ACL_MATCH_UID) != 0 && mapped(owners.users, subject.uid) != user) return false;
  return (subject.mask & CSSM_ACL_MATCH_GID) == 0 || mapped(owners.groups, subject.gid) == group;
}

// One line for each: version, parts, user, group, delegation, and of an entry how much it authorises.
std::string lineOf(const AclSubject& subject, bool delegate) {
  std::string line;
  for (const std::uint32_t number : {std::uint32_t{subject.version}, std::uint32_t{subject.mask}, subject.uid,
                                     subject.gid, std::uint32_t{delegate}}) {
    if (!line.empty()) line += ' ';
    line += std::to_string(number);
  }
  return line;
}

constexpr std::size_t kNumbers = 6;

// The numbers of a line: those of `lineOf`, and one more.
std::optional<std::array<std::uint32_t, kNumbers>> numbersOf(const std::string& line) {
  const auto words = componentsOf(line, ' ');
  if (words.size() != kNumbers) return std::nullopt;
  std::array<std::uint32_t, kNumbers> numbers{};
  for (std::size_t index = 0; index < kNumbers; ++index) {
    const std::string& word = words[index];
    const auto [rest, error] = std::from_chars(word.data(), word.data() + word.size(), numbers[index]);
    if (error != std::errc() || rest != word.data() + word.size()) return std::nullopt;
  }
  if (numbers[0] > 0xffff || numbers[1] > 0xffff || numbers[4] > 1) return std::nullopt;
  return numbers;
}

AclSubject subjectOf(const std::array<std::uint32_t, kNumbers>& numbers) {
  return {.version = static_cast<std::uint16_t>(numbers[0]),
          .mask = static_cast<std::uint16_t>(numbers[1]),
          .uid = numbers[2],
          .gid = numbers[3]};
}

}  // namespace

bool isMeaningful(const SecAccess& access) {
  return isMeaningful(access.owner.subject) && std::ranges::all_of(access.entries, [](const AclEntry& entry) {
           return isMeaningful(entry.subject);
         });
}

bool allows(const SecAccess& access, uid_t user, gid_t group, const OwnerMap& owners) {
  return std::ranges::any_of(access.entries, [&](const AclEntry& entry) {
    return !entry.authorizations.empty() && matches(entry.subject, user, group, owners);
  });
}

std::string accessText(const SecAccess& access) {
  std::string text = lineOf(access.owner.subject, access.owner.delegate) + " 0";
  for (const AclEntry& entry : access.entries) {
    text += "\n" + lineOf(entry.subject, entry.delegate) + (entry.authorizations.empty() ? " 0" : " 1");
  }
  return text;
}

std::optional<SecAccess> parseAccess(std::string_view text) {
  const auto lines = componentsOf(text, '\n');
  SecAccess access;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    const auto numbers = numbersOf(lines[index]);
    if (!numbers) return std::nullopt;
    const bool delegate = (*numbers)[4] == 1;
    if (index == 0) {
      access.owner = {subjectOf(*numbers), delegate};
      continue;
    }
    AclEntry entry{subjectOf(*numbers), delegate, {}};
    if ((*numbers)[5] != 0) entry.authorizations = {AclAuthorization::CSSM_ACL_AUTHORIZATION_ANY};
    access.entries.push_back(entry);
  }
  return access;
}

}  // namespace tessard
