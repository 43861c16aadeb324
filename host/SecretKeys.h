#pragma once

#include <string_view>

namespace tessard {

/// Whether what stands under a key is not to be shown or logged: the key speaks of a secret, a password, a
/// pass phrase or a private key ("secret", "dbpass", "userPassword").
bool speaksOfSecret(std::string_view key);

}  // namespace tessard
