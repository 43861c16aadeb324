#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "common/Keychain.h"
#include "platform/OwnerMap.h"

namespace tessard {

/// Whether the access says who is meant: every subject is a process of the known version, told by its user,
/// its group or both.
bool isMeaningful(const SecAccess& access);

/// Whether an entry lets a process of these ids do anything with the item. The map tells which ids of this
/// machine the ids of the entries stand for.
bool allows(const SecAccess& access, uid_t user, gid_t group, const OwnerMap& owners);

/// The access as text, as it is stored, and back; absent for a text that is none.
std::string accessText(const SecAccess& access);
std::optional<SecAccess> parseAccess(std::string_view text);

}  // namespace tessard
