#include "tests/support/TestPlatform.h"

#include <unistd.h>

namespace tessard {

OwnerMap ownersForTests() {
  OwnerMap map;
  if (::geteuid() == 0) return map;
  for (const uid_t user : {0U, 84U}) map.users[user] = ::geteuid();
  for (const gid_t group : {0U, 1U, 80U, 84U}) map.groups[group] = ::getegid();
  return map;
}

TestPlatform::TestPlatform()
    : posixFiles(root.path(), ownersForTests()), sqliteKeychain(root.path(), ownersForTests()) {}

}  // namespace tessard
