#pragma once

#include <sys/types.h>

#include <string>

namespace tessard {

/// Who sent a request, as the kernel recorded it when the client connected. Root and no process where that is
/// not known. The process may have ended since, and its number may be another one's.
struct Requester {
  uid_t user = 0;
  pid_t process = 0;
};

/// The name of an account of this machine; empty when there is none with that id.
std::string userNameOf(uid_t user);

}  // namespace tessard
