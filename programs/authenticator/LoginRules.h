#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// What the machine says of one of its accounts.
struct LocalAccount {
  std::string name;
  uid_t user = 0;
  std::vector<gid_t> groups;
};

/// The account of exactly that name; empty when there is none. Fails when the accounts cannot be read.
Result<std::optional<LocalAccount>> localAccount(const std::string& name);

/// What the machine says about who may log in.
struct LoginRules {
  uid_t firstPerson = 1000;          ///< accounts of people begin there (UID_MIN in /etc/login.defs)
  std::optional<gid_t> accessGroup;  ///< of "com.velto.access_all_services", else of "com.velto.access_chat"
};

/// Read afresh, so that a change counts at once.
LoginRules loginRules();

/// UID_MIN of a text as in /etc/login.defs; empty when it names none.
std::optional<uid_t> firstPersonIn(const std::string& loginDefinitions);

/// Why that account may not log in, whatever its password; empty when it may. Root never may. Where there is
/// an access group, its members may and nobody else; otherwise people may, and the service user
/// "com.velto.notificationuser", but none of the machine's own accounts.
std::optional<std::string> refusalOf(const LocalAccount& account, const LoginRules& rules);

}  // namespace tessard
