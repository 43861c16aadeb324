#pragma once

#include <string>
#include <string_view>

#include "common/FileSystem.h"

namespace tessard {

/// The prefix of hashes, such as "$6$", by which crypt(3) tells its methods, of the method that the machine
/// uses for new passwords: what "/etc/pam.d/common-password" tells pam_unix, else ENCRYPT_METHOD of
/// "/etc/login.defs". Empty, which stands for what libcrypt prefers, where neither names one that is still
/// thought safe.
std::string passwordMethod(FileSystem& files);

/// The salted hash of a password. EINVAL for one that is empty or holds a NUL byte, ERANGE for one that is
/// too long.
Result<std::string> hashPassword(std::string_view password, const std::string& method);

}  // namespace tessard
