#pragma once

#include <chrono>

#include "common/Tasks.h"
#include "platform/accounts/AccountRequest.h"

namespace tessard {

/// Changes of the account files, each made by a process of its own: libuser, which makes them, ends its
/// process when one failure follows another. Such an end is an error here (EIO, with what the process said
/// last); locks that it leaves are out of the way of the next change. Each change is on disk when it is
/// reported.
class AccountProgram {
 public:
  /// `tasks` is borrowed. A change waits so long for other programs that hold a lock.
  AccountProgram(Tasks& tasks, std::chrono::milliseconds patience);

  /// Names and texts must have been checked. EEXIST when the user's name or number is taken.
  Result<void> addUser(const NewUser& user);
  Result<void> setPasswordHash(const std::string& user, const std::string& hash);
  Result<void> addMember(const std::string& group, const std::string& user);

 private:
  Result<void> make(AccountRequest request);

  Tasks& tasks_;
  std::chrono::milliseconds patience_;
};

}  // namespace tessard
