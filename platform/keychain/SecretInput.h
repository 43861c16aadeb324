#pragma once

#include <optional>
#include <string>

#include "platform/keychain/Secret.h"

namespace tessard {

/// A secret from the person at the terminal, who does not see it while typing, or else the first line of
/// standard input. Absent when there is none or it was called off. A signal that ends the
/// process does so once the terminal shows again what is typed.
std::optional<Secret> readSecret(const std::string& prompt);

/// The first line of an open file; absent when it is empty, longer than any pass phrase, or cannot be read.
std::optional<Secret> readSecretFrom(int descriptor);

}  // namespace tessard
