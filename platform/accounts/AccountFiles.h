#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"

namespace tessard {

inline constexpr const char* kPasswdFile = "/etc/passwd";
inline constexpr const char* kShadowFile = "/etc/shadow";
inline constexpr const char* kGroupFile = "/etc/group";
inline constexpr const char* kGroupShadowFile = "/etc/gshadow";

struct UserEntry {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string fullName;
  std::string home;
  std::string shell;
  bool hasShadowPassword = false;  ///< the password's place points to the shadow file
};

struct GroupEntry {
  std::string name;
  gid_t gid = 0;
  std::vector<std::string> members;
};

/// The entries of the account files, in their order, as the C library reads them: what it takes for no entry
/// is left out. Fails where a file cannot be read, a missing one included.
Result<std::vector<UserEntry>> usersIn(FileSystem& files);
Result<std::vector<GroupEntry>> groupsIn(FileSystem& files);

/// The first entry of the name; ENOENT when there is none.
Result<UserEntry> userNamed(FileSystem& files, std::string_view name);
Result<GroupEntry> groupNamed(FileSystem& files, std::string_view name);

/// Whether the shadow file has a line of the name; a missing file has none.
Result<bool> hasShadowLine(FileSystem& files, std::string_view name);

}  // namespace tessard
