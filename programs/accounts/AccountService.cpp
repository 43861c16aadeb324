#include "programs/accounts/AccountService.h"

#include <cerrno>

#include "platform/PosixFileSystem.h"
#include "platform/accounts/AccountRequest.h"
#include "programs/accounts/AccountChanges.h"

namespace tessard {

Result<void> changeAccounts(const std::string& root, std::string_view request) {
  const auto asked = accountRequestIn(request);
  if (!asked) return asked.error();
  const AccountRequest& change = asked.value();
  PosixFileSystem files(root);
  AccountChanges accounts(root, files, change.patience);
  switch (change.kind) {
    case AccountRequest::Kind::addUser:
      return accounts.addUser(change.user);
    case AccountRequest::Kind::setPasswordHash:
      return accounts.setPasswordHash(change.user.name, change.hash);
    case AccountRequest::Kind::addMember:
      return accounts.addMember(change.group, change.user.name);
  }
  return SystemError(EINVAL);
}

}  // namespace tessard
