#include "programs/accounts/LibuserSession.h"

#include <fcntl.h>
#include <libuser/entity.h>
#include <libuser/error.h>
#include <libuser/prompt.h>
#include <libuser/user.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/Format.h"
#include "common/Text.h"
#include "platform/FileDescriptor.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr const char* kLockedPassword = "!";
constexpr const char* kPasswordInShadow = "x";

const char* modulesFor(LibuserSession::Files files) {
  switch (files) {
    case LibuserSession::Files::shadowAlone:
      return "shadow";
    case LibuserSession::Files::passwdAlone:
      return "files";
    default:
      return "shadow files";
  }
}

struct FreeEntity {
  void operator()(lu_ent* entity) const { lu_ent_free(entity); }
};
using Entity = std::unique_ptr<lu_ent, FreeEntity>;

Entity newEntity() {
  return Entity(lu_ent_new());
}

/// The library's error, owned, with a code of the system's.
class Problem {
 public:
  Problem() = default;
  Problem(const Problem&) = delete;
  Problem& operator=(const Problem&) = delete;
  ~Problem() {
    if (error_) lu_error_free(&error_);
  }

  lu_error** out() { return &error_; }

  /// Files are called by their names, not by the descriptor of their directory.
  SystemError in(const std::string& directory) const {
    const char* sentence = error_ && error_->string ? error_->string : "libuser gives no reason";
    return SystemError(code(), replacingAll(sentence, directory, "/etc"));
  }

 private:
  int code() const {
    if (!error_) return EIO;
    switch (error_->code) {
      case lu_error_privilege:
        return EPERM;
      case lu_error_access_denied:
        return EACCES;
      case lu_error_name_bad:
      case lu_error_id_bad:
      case lu_error_invalid_attribute_value:
        return EINVAL;
      case lu_error_name_used:
      case lu_error_id_used:
        return EEXIST;
      case lu_error_lock:
        return EBUSY;
      default:
        return EIO;
    }
  }

  lu_error* error_ = nullptr;
};

/// libuser takes its settings only from a file that an environment variable of the process names, read once
/// at the start of a session. The file is in memory and is written anew for each.
class Settings {
 public:
  static const Settings& ofThisProcess() {
    static const Settings settings;
    return settings;
  }

  Result<void> write(const std::string& text) const {
    if (!file_) return SystemError(problem_);
    if (ftruncate(file_.get(), 0) != 0) return SystemError::last();
    if (lseek(file_.get(), 0, SEEK_SET) != 0) return SystemError::last();
    return writeAll(file_.get(), text);
  }

 private:
  Settings() : file_(memfd_create("libuser.conf", MFD_CLOEXEC)) {
    if (!file_) problem_ = errno;
    const std::string path = "/proc/self/fd/" + std::to_string(file_.get());
    if (file_ && setenv("LIBUSER_CONF", path.c_str(), 1) != 0) {
      problem_ = errno;
      file_.close();
    }
  }

  FileDescriptor file_;
  int problem_ = 0;
};

std::string settingsFor(const LibuserSession::Places& places) {
  std::string text;
  if (!places.loginDefinitions.empty() || !places.newUserDefaults.empty()) text += "[import]\n";
  if (!places.loginDefinitions.empty()) text += "login_defs = " + places.loginDefinitions + "\n";
  if (!places.newUserDefaults.empty()) text += "default_useradd = " + places.newUserDefaults + "\n";
  for (const char* module : {"files", "shadow"}) {
    text += fill("[%@]\ndirectory = %@\nnonroot = yes\n", {module, places.directory});
  }
  return text;
}

/// There is nobody to ask.
gboolean refuseToPrompt(lu_prompt* /*prompts*/, int /*count*/, gpointer /*data*/, lu_error** /*error*/) {
  return FALSE;
}

}  // namespace

void LibuserSession::End::operator()(lu_context* context) const {
  lu_end(context);
}

LibuserSession::LibuserSession(Context context, std::string directory)
    : context_(std::move(context)), directory_(std::move(directory)) {}

Result<LibuserSession> LibuserSession::start(const Places& places, Files files) {
  // A process with borrowed rights would be given the machine's settings, and so the machine's accounts.
  if (getuid() != geteuid() || getgid() != getegid()) return SystemError(EPERM);
  const auto written = Settings::ofThisProcess().write(settingsFor(places));
  if (!written) return written.error();
  Problem problem;
  const char* modules = modulesFor(files);
  Context context(lu_start(nullptr, lu_user, modules, modules, refuseToPrompt, nullptr, problem.out()));
  if (!context) return problem.in(places.directory);
  return LibuserSession(std::move(context), places.directory);
}

Result<void> LibuserSession::addUser(const NewUser& user, const std::set<uid_t>& taken) {
  const Entity entity = newEntity();
  if (!lu_user_default(context_.get(), user.name.c_str(), FALSE, entity.get())) {
    return SystemError(EIO, "libuser has no defaults for a user");
  }
  // libuser knows which are free on this machine, not below another root.
  id_t uid = user.uid.value_or(lu_ent_get_first_id(entity.get(), LU_UIDNUMBER));
  while (!user.uid && taken.contains(uid)) ++uid;
  lu_ent_set_id(entity.get(), LU_UIDNUMBER, uid);
  if (user.gid) lu_ent_set_id(entity.get(), LU_GIDNUMBER, *user.gid);
  if (user.fullName) lu_ent_set_string(entity.get(), LU_GECOS, user.fullName->c_str());
  if (user.home) lu_ent_set_string(entity.get(), LU_HOMEDIRECTORY, user.home->c_str());
  if (user.shell) lu_ent_set_string(entity.get(), LU_LOGINSHELL, user.shell->c_str());
  lu_ent_set_string(entity.get(), LU_SHADOWPASSWORD, kLockedPassword);
  Problem problem;
  if (!lu_user_add(context_.get(), entity.get(), problem.out())) return problem.in(directory_);
  return {};
}

Result<void> LibuserSession::removeShadowLine(const std::string& user) {
  const Entity entity = newEntity();
  if (!lu_user_default(context_.get(), user.c_str(), FALSE, entity.get())) {
    return SystemError(EIO, "libuser has no defaults for a user");
  }
  Problem problem;
  if (!lu_user_delete(context_.get(), entity.get(), problem.out())) return problem.in(directory_);
  return {};
}

Result<void> LibuserSession::setPasswordHash(const std::string& user, uid_t uid, const std::string& hash) {
  const Entity entity = newEntity();
  Problem lookup;
  if (!lu_user_lookup_name(context_.get(), user.c_str(), entity.get(), lookup.out())) {
    return SystemError(ENOENT, fill("there is no user \"%@\"", {user}));
  }
  // The shadow file has no numbers, and libuser changes no user without one.
  lu_ent_set_id_current(entity.get(), LU_UIDNUMBER, uid);
  lu_ent_set_id(entity.get(), LU_UIDNUMBER, uid);
  Problem problem;
  if (!lu_user_setpass(context_.get(), entity.get(), hash.c_str(), TRUE, problem.out())) {
    return problem.in(directory_);
  }
  return {};
}

Result<void> LibuserSession::pointToShadow(const std::string& user) {
  const Entity entity = newEntity();
  Problem lookup;
  if (!lu_user_lookup_name(context_.get(), user.c_str(), entity.get(), lookup.out())) {
    return SystemError(ENOENT, fill("there is no user \"%@\"", {user}));
  }
  lu_ent_set_string(entity.get(), LU_USERPASSWORD, kPasswordInShadow);
  Problem problem;
  if (!lu_user_modify(context_.get(), entity.get(), problem.out())) return problem.in(directory_);
  return {};
}

Result<void> LibuserSession::addMember(const std::string& group, const std::string& user) {
  const Entity entity = newEntity();
  Problem lookup;
  if (!lu_group_lookup_name(context_.get(), group.c_str(), entity.get(), lookup.out())) {
    return SystemError(ENOENT, fill("there is no group \"%@\"", {group}));
  }
  GValue member = G_VALUE_INIT;
  g_value_init(&member, G_TYPE_STRING);
  g_value_set_string(&member, user.c_str());
  lu_ent_add(entity.get(), LU_MEMBERNAME, &member);
  g_value_unset(&member);
  Problem problem;
  if (!lu_group_modify(context_.get(), entity.get(), problem.out())) return problem.in(directory_);
  return {};
}

}  // namespace tessard
