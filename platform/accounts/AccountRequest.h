#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "common/Result.h"

namespace tessard {

/// What is known of a user who is to be made; the rest is the machine's choice.
struct NewUser {
  std::string name;
  std::optional<uid_t> uid{};
  std::optional<std::string> fullName{};
  std::optional<gid_t> gid{};
  std::optional<std::string> shell{};
  std::optional<std::string> home{};
};

/// A change of the accounts, as the daemon asks the program "change_accounts" for it.
struct AccountRequest {
  enum class Kind { addUser, setPasswordHash, addMember };

  Kind kind = Kind::addUser;
  NewUser user{};       ///< for the other kinds its name alone
  std::string hash{};   ///< for `setPasswordHash`
  std::string group{};  ///< for `addMember`
  /// How long to wait for other programs that hold a lock.
  std::chrono::milliseconds patience{};
};

/// The request as text for the program's standard input: arguments and environment could be seen by others.
Result<std::string> textOf(const AccountRequest& request);

/// And back; EINVAL for a text that is no request. Whether names and numbers are good is not looked at.
Result<AccountRequest> accountRequestIn(std::string_view text);

/// What the program answers on its standard output, and back: nothing for success, else the number of the
/// error and its sentence. Absent for what is no answer.
std::string accountAnswerOf(const Result<void>& changed);
std::optional<Result<void>> accountAnswerIn(std::string_view answer);

}  // namespace tessard
