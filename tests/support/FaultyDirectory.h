#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/Directory.h"

namespace tessard {

/// Records every call of a directory and makes chosen ones fail. A call that is made to fail does not reach
/// the directory behind. Operations go by the names of their members.
class FaultyDirectory : public Directory {
 public:
  /// The directory behind is borrowed.
  explicit FaultyDirectory(Directory& behind) : behind_(behind) {}

  /// Every call of the operation fails from now on.
  void failAll(const std::string& operation, int error) { faults_[operation] = error; }
  /// Nothing is made to fail any longer.
  void heal() { faults_.clear(); }

  /// The calls as text: the operation and what it was about, "addMemberRecord user group". Passwords are left
  /// out.
  std::vector<std::string> calls;

  Result<std::unique_ptr<DirectoryNode>> nodeWithType(int type) override {
    if (const int error = called("nodeWithType", std::to_string(type))) return SystemError(error);
    auto node = behind_.nodeWithType(type);
    if (!node) return node;
    return std::unique_ptr<DirectoryNode>(std::make_unique<Node>(*this, std::move(node).value()));
  }

  bool getpwnam(std::string_view name) override {
    return called("getpwnam", std::string(name)) == 0 && behind_.getpwnam(name);
  }

 private:
  class Node : public DirectoryNode {
   public:
    Node(FaultyDirectory& directory, std::unique_ptr<DirectoryNode> behind)
        : directory_(directory), behind_(std::move(behind)) {}

    Result<std::vector<DirectoryRecord>> recordsMatching(std::string_view recordType,
                                                         std::string_view attribute, std::string_view value,
                                                         std::size_t maximumResults) override {
      const std::string about = std::string(recordType) + " " + std::string(attribute) + " " +
                                std::string(value) + " " + std::to_string(maximumResults);
      if (const int error = directory_.called("recordsMatching", about)) return SystemError(error);
      return behind_->recordsMatching(recordType, attribute, value, maximumResults);
    }
    Result<DirectoryRecord> createRecordWithRecordType_name_attributes(
        std::string_view recordType, std::string_view name, const Dictionary& attributes) override {
      const int error = directory_.called("createRecordWithRecordType_name_attributes", std::string(name));
      if (error) return SystemError(error);
      return behind_->createRecordWithRecordType_name_attributes(recordType, name, attributes);
    }
    Result<DirectoryRecord> recordWithRecordType_name(std::string_view recordType,
                                                      std::string_view name) override {
      const int error = directory_.called("recordWithRecordType_name", std::string(name));
      if (error) return SystemError(error);
      return behind_->recordWithRecordType_name(recordType, name);
    }
    Result<void> changePassword_toPassword(const DirectoryRecord& user,
                                           std::string_view newPassword) override {
      const int error = directory_.called("changePassword_toPassword", user.recordName);
      if (error) return SystemError(error);
      return behind_->changePassword_toPassword(user, newPassword);
    }
    Result<bool> isMemberRecord(const DirectoryRecord& user, const DirectoryRecord& group) override {
      const int error = directory_.called("isMemberRecord", user.recordName + " " + group.recordName);
      if (error) return SystemError(error);
      return behind_->isMemberRecord(user, group);
    }
    Result<void> addMemberRecord(const DirectoryRecord& user, const DirectoryRecord& group) override {
      const int error = directory_.called("addMemberRecord", user.recordName + " " + group.recordName);
      if (error) return SystemError(error);
      return behind_->addMemberRecord(user, group);
    }

   private:
    FaultyDirectory& directory_;
    std::unique_ptr<DirectoryNode> behind_;
  };

  /// The error that the call is to fail with, or 0.
  int called(const std::string& operation, const std::string& about) {
    calls.push_back(operation + " " + about);
    const auto fault = faults_.find(operation);
    return fault == faults_.end() ? 0 : fault->second;
  }

  Directory& behind_;
  std::map<std::string, int> faults_;
};

}  // namespace tessard
