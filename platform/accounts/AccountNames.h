#pragma once

#include <sys/types.h>

#include <optional>
#include <string_view>

namespace tessard {

/// Whether the account files can hold the name of a user or group and every program takes it for one: at most
/// 31 letters, digits, dots, underscores and hyphens of ASCII, neither hyphen nor dot first, and no number.
bool isAccountName(std::string_view name);

/// Whether a field of the account files can hold the text: UTF-8 without colons and control characters.
bool isAccountText(std::string_view text);

/// The number of a user or group as the account files write it: digits alone, no zero in front, and not the
/// one that stands for "none".
std::optional<id_t> accountNumber(std::string_view text);

}  // namespace tessard
