#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

/// Types of records, and the attributes that users have. Values are arrays of strings.
inline constexpr const char* kODRecordTypeUsers = "dsRecTypeStandard:Users";
inline constexpr const char* kODRecordTypeGroups = "dsRecTypeStandard:Groups";
inline constexpr const char* kODAttributeTypeUniqueID = "dsAttrTypeStandard:UniqueID";
inline constexpr const char* kODAttributeTypeFullName = "dsAttrTypeStandard:RealName";
inline constexpr const char* kODAttributeTypePrimaryGroupID = "dsAttrTypeStandard:PrimaryGroupID";
inline constexpr const char* kODAttributeTypeUserShell = "dsAttrTypeStandard:UserShell";
inline constexpr const char* kODAttributeTypeNFSHomeDirectory = "dsAttrTypeStandard:NFSHomeDirectory";

/// The node with the users and groups of this machine itself.
inline constexpr int kODNodeTypeLocalNodes = 0x2200;

/// A user or group that a node has found or made.
struct DirectoryRecord {
  std::string recordType;
  std::string recordName;
  bool operator==(const DirectoryRecord&) const = default;
};

/// Records of users and groups. Every change is on disk before it is reported, and either whole or not done.
/// A name that the account files cannot hold - empty, with a colon, a line break or another control
/// character, a slash, or a leading hyphen among others - fails with EINVAL. EACCES or EPERM where this
/// process may not, EBUSY where another program has the account files locked for too long.
class DirectoryNode {
 public:
  virtual ~DirectoryNode() = default;

  /// The records, at most `maximumResults`, whose attribute has exactly the value.
  virtual Result<std::vector<DirectoryRecord>> recordsMatching(std::string_view recordType,
                                                               std::string_view attribute,
                                                               std::string_view value,
                                                               std::size_t maximumResults) = 0;

  /// A new user that cannot log in until it is given a password. Attributes that are not named get what the
  /// machine gives to new users; no home directory is made. EEXIST when the name is taken.
  virtual Result<DirectoryRecord> createRecordWithRecordType_name_attributes(
      std::string_view recordType, std::string_view name, const Dictionary& attributes) = 0;

  /// ENOENT when there is none.
  virtual Result<DirectoryRecord> recordWithRecordType_name(std::string_view recordType,
                                                            std::string_view name) = 0;

  /// Gives a user a password, whatever the old one was, hashed as this machine hashes new passwords.
  virtual Result<void> changePassword_toPassword(const DirectoryRecord& user,
                                                 std::string_view newPassword) = 0;

  /// Also true for the user's primary group.
  virtual Result<bool> isMemberRecord(const DirectoryRecord& user, const DirectoryRecord& group) = 0;

  virtual Result<void> addMemberRecord(const DirectoryRecord& user, const DirectoryRecord& group) = 0;
};

/// The accounts below one system root.
class Directory {
 public:
  virtual ~Directory() = default;

  /// A node of the default session. Nothing is locked until it is asked for something.
  virtual Result<std::unique_ptr<DirectoryNode>> nodeWithType(int type) = 0;

  /// Whether the password database knows a user of that name: on the running system everything that
  /// getpwnam(3) asks, below another root the account files.
  virtual bool getpwnam(std::string_view name) = 0;
};

}  // namespace tessard
