#pragma once

#include <chrono>
#include <set>
#include <string>

#include "common/FileSystem.h"
#include "platform/FileDescriptor.h"
#include "programs/accounts/LibuserSession.h"

namespace tessard {

/// Changes of the account files below one system root. Each is on disk when it is reported. A crash at any
/// instant leaves every file whole, the old or the new one; a user is there, for whoever reads the files,
/// only when its shadow line is too; and what is left over is out of the way of the next change. Names and
/// texts must have been checked. One in a process, used on one thread.
class AccountChanges {
 public:
  AccountChanges(std::string root, FileSystem& files, std::chrono::milliseconds patience);

  /// EEXIST when the name or the number is taken.
  Result<void> addUser(const NewUser& user);
  Result<void> setPasswordHash(const std::string& user, const std::string& hash);
  Result<void> addMember(const std::string& group, const std::string& user);

 private:
  /// The directory of the account files, kept open, and what libuser is told about it.
  struct Workplace {
    FileDescriptor directory;
    FileDescriptor loginDefinitions;
    FileDescriptor newUserDefaults;
    LibuserSession::Places places;

    Result<void> flush() const;
  };

  Result<Workplace> prepare();
  Result<void> checkFiles(int directory) const;
  Result<void> ensureShadowFile();
  Result<std::set<uid_t>> numbersBesides(const NewUser& user);
  Result<void> removeOrphan(const Workplace& place, const std::string& user);

  std::string root_;
  FileSystem& files_;
  std::chrono::milliseconds patience_;
};

}  // namespace tessard
