#include "host/Requester.h"

#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace tessard {

std::string userNameOf(uid_t user) {
  constexpr std::size_t kMost = std::size_t{1} << 20;
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  while (getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < kMost) {
    buffer.resize(buffer.size() * 2);
  }
  return found ? found->pw_name : "";
}

}  // namespace tessard
