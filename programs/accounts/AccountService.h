#pragma once

#include <string>
#include <string_view>

#include "common/Result.h"

namespace tessard {

/// Makes the change that the text asks for, in the form of `AccountRequest`, of the account files below the
/// root, a path of the machine.
Result<void> changeAccounts(const std::string& root, std::string_view request);

}  // namespace tessard
