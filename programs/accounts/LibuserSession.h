#pragma once

#include <sys/types.h>

#include <memory>
#include <set>
#include <string>

#include "common/Result.h"
#include "platform/accounts/AccountRequest.h"

struct lu_context;
struct lu_ent;

namespace tessard {

/// libuser at work on the account files of one directory. It replaces each file in one step, flushed to disk,
/// with the owner and mode that it had. Used on one thread; only one session at a time may be started.
class LibuserSession {
 public:
  /// Which files are changed. The shadow files come first everywhere, so that nobody sees a user without its
  /// shadow line.
  enum class Files { all, shadowAlone, passwdAlone };

  struct Places {
    std::string directory;  ///< of the account files
    /// What the machine's own tools begin a new user with; empty where there is no such file.
    std::string loginDefinitions;
    std::string newUserDefaults;
  };

  /// Changes the environment of the process, by which libuser is led.
  static Result<LibuserSession> start(const Places& places, Files files);

  /// A number that is not given is one that neither the machine nor `taken` has.
  Result<void> addUser(const NewUser& user, const std::set<uid_t>& taken);
  /// For `Files::shadowAlone`: takes a line away that no user belongs to.
  Result<void> removeShadowLine(const std::string& user);
  /// For `Files::shadowAlone`, so that no hash goes where everybody can read it.
  Result<void> setPasswordHash(const std::string& user, uid_t uid, const std::string& hash);
  /// For `Files::passwdAlone`: the user's password is in the shadow file.
  Result<void> pointToShadow(const std::string& user);
  Result<void> addMember(const std::string& group, const std::string& user);

 private:
  struct End {
    void operator()(lu_context* context) const;
  };
  using Context = std::unique_ptr<lu_context, End>;

  LibuserSession(Context context, std::string directory);

  Context context_;
  std::string directory_;
};

}  // namespace tessard
