#include "platform/accounts/LibuserDirectory.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "common/Format.h"
#include "platform/accounts/AccountFiles.h"
#include "platform/accounts/AccountNames.h"
#include "platform/accounts/PasswordHash.h"

namespace tessard {

namespace {

constexpr std::size_t kPasswdBufferLimit = 1024UL * 1024;

SystemError refused(std::string_view what, std::string_view why) {
  return SystemError(EINVAL, fill("%@ %@", {what, why}));
}

Result<void> checkedName(std::string_view name) {
  if (isAccountName(name)) return {};
  return SystemError(EINVAL, "the name is not one that a user or group can have");
}

/// An attribute's value as it is in a user's entry; absent for attributes that users do not have.
std::optional<std::string> attributeOf(const UserEntry& user, std::string_view attribute) {
  if (attribute == kODAttributeTypeUniqueID) return std::to_string(user.uid);
  if (attribute == kODAttributeTypeFullName) return user.fullName;
  if (attribute == kODAttributeTypePrimaryGroupID) return std::to_string(user.gid);
  if (attribute == kODAttributeTypeUserShell) return user.shell;
  if (attribute == kODAttributeTypeNFSHomeDirectory) return user.home;
  return std::nullopt;
}

std::optional<std::string> attributeOf(const GroupEntry& group, std::string_view attribute) {
  if (attribute == kODAttributeTypePrimaryGroupID) return std::to_string(group.gid);
  return std::nullopt;
}

template <class Entry>
Result<std::vector<DirectoryRecord>> matching(const Result<std::vector<Entry>>& entries,
                                              std::string_view recordType, std::string_view attribute,
                                              std::string_view value, std::size_t maximumResults) {
  if (!entries) return entries.error();
  std::vector<DirectoryRecord> records;
  for (const Entry& entry : entries.value()) {
    if (records.size() >= maximumResults) break;
    if (attributeOf(entry, attribute) == value) records.push_back({std::string(recordType), entry.name});
  }
  return records;
}

/// The one string that an attribute's array holds.
Result<std::string> onlyValueOf(const DictionaryEntry& attribute) {
  const Array* values = attribute.value.asArray();
  const auto text = values && values->size() == 1 ? values->front().stringValue() : std::nullopt;
  if (!text) return refused(attribute.key, "is not an array of one string");
  if (!isAccountText(*text)) return refused(attribute.key, "holds characters that an account cannot have");
  return *text;
}

Result<void> takeAttribute(const DictionaryEntry& attribute, NewUser& user) {
  const auto value = onlyValueOf(attribute);
  if (!value) return value.error();
  const std::string& key = attribute.key;
  const bool isNumber = key == kODAttributeTypeUniqueID || key == kODAttributeTypePrimaryGroupID;
  const auto number = accountNumber(value.value());
  if (isNumber && !number) return refused(key, "is not a number of a user or group");
  if (key == kODAttributeTypeUniqueID) {
    user.uid = *number;
  } else if (key == kODAttributeTypePrimaryGroupID) {
    user.gid = *number;
  } else if (key == kODAttributeTypeFullName) {
    user.fullName = value.value();
  } else if (key == kODAttributeTypeUserShell) {
    user.shell = value.value();
  } else if (key == kODAttributeTypeNFSHomeDirectory) {
    user.home = value.value();
  } else {
    return refused(key, "is not an attribute of users");
  }
  return {};
}

class LocalNode : public DirectoryNode {
 public:
  LocalNode(FileSystem& files, const AccountProgram& changes) : files_(files), changes_(changes) {}

  Result<std::vector<DirectoryRecord>> recordsMatching(std::string_view recordType,
                                                       std::string_view attribute, std::string_view value,
                                                       std::size_t maximumResults) override {
    if (recordType == kODRecordTypeUsers) {
      return matching(usersIn(files_), recordType, attribute, value, maximumResults);
    }
    if (recordType == kODRecordTypeGroups) {
      return matching(groupsIn(files_), recordType, attribute, value, maximumResults);
    }
    return refused(recordType, "is not a type of records");
  }

  Result<DirectoryRecord> createRecordWithRecordType_name_attributes(std::string_view recordType,
                                                                     std::string_view name,
                                                                     const Dictionary& attributes) override {
    if (recordType != kODRecordTypeUsers) return refused(recordType, "cannot be created");
    if (const auto checked = checkedName(name); !checked) return checked.error();
    NewUser user{.name = std::string(name)};
    for (const DictionaryEntry& attribute : attributes) {
      if (const auto taken = takeAttribute(attribute, user); !taken) return taken.error();
    }
    if (const auto added = changes_.addUser(user); !added) return added.error();
    return DirectoryRecord{std::string(recordType), user.name};
  }

  Result<DirectoryRecord> recordWithRecordType_name(std::string_view recordType,
                                                    std::string_view name) override {
    if (const auto checked = checkedName(name); !checked) return checked.error();
    if (recordType == kODRecordTypeUsers) {
      if (const auto user = userNamed(files_, name); !user) return user.error();
    } else if (recordType == kODRecordTypeGroups) {
      if (const auto group = groupNamed(files_, name); !group) return group.error();
    } else {
      return refused(recordType, "is not a type of records");
    }
    return DirectoryRecord{std::string(recordType), std::string(name)};
  }

  Result<void> changePassword_toPassword(const DirectoryRecord& user, std::string_view newPassword) override {
    if (user.recordType != kODRecordTypeUsers) return refused(user.recordType, "has no passwords");
    if (auto checked = checkedName(user.recordName); !checked) return checked;
    const auto hash = hashPassword(newPassword, passwordMethod(files_));
    if (!hash) return hash.error();
    return changes_.setPasswordHash(user.recordName, hash.value());
  }

  Result<bool> isMemberRecord(const DirectoryRecord& user, const DirectoryRecord& group) override {
    const auto account = userNamed(files_, user.recordName);
    if (!account) return account.error();
    const auto entry = groupNamed(files_, group.recordName);
    if (!entry) return entry.error();
    return entry.value().gid == account.value().gid ||
           std::ranges::find(entry.value().members, user.recordName) != entry.value().members.end();
  }

  Result<void> addMemberRecord(const DirectoryRecord& user, const DirectoryRecord& group) override {
    for (const std::string_view name : {user.recordName, group.recordName}) {
      if (auto checked = checkedName(name); !checked) return checked;
    }
    const auto member = isMemberRecord(user, group);
    if (!member) return member.error();
    return member.value() ? Result<void>() : changes_.addMember(group.recordName, user.recordName);
  }

 private:
  FileSystem& files_;
  AccountProgram changes_;
};

}  // namespace

LibuserDirectory::LibuserDirectory(std::string root, Tasks& tasks, std::chrono::milliseconds patience)
    : root_(std::move(root)), files_(root_), changes_(tasks, patience) {}

Result<std::unique_ptr<DirectoryNode>> LibuserDirectory::nodeWithType(int type) {
  if (type != kODNodeTypeLocalNodes)
    return SystemError(EINVAL, fill("there are no nodes of type %d", {type}));
  return std::unique_ptr<DirectoryNode>(std::make_unique<LocalNode>(files_, changes_));
}

bool LibuserDirectory::getpwnam(std::string_view name) {
  if (root_ != "/") return isAccountName(name) && userNamed(files_, name).ok();
  // Further parts of the system would see what stands before it alone.
  if (name.find('\0') != std::string_view::npos) return false;
  std::string buffer(1024, '\0');
  passwd entry{};
  passwd* found = nullptr;
  const std::string wanted(name);
  while (getpwnam_r(wanted.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kPasswdBufferLimit) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr;
}

}  // namespace tessard
