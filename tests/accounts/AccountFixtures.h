#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "platform/PosixTasks.h"
#include "platform/accounts/LibuserDirectory.h"
#include "tests/support/OwnPrograms.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {

inline constexpr gid_t kShadowGroup = 42;

template <class T>
int codeOf(const Result<T>& result) {
  return result ? 0 : result.error().code();
}

template <class T>
std::string reasonOf(const Result<T>& result) {
  return result ? "" : result.error().description();
}

/// A scratch root with a few accounts, and its directory.
class AccountsTest : public testing::Test {
 protected:
  ScratchRoot root;
  PosixTasks programs{root.path(), ownProgramsDirectory()};
  LibuserDirectory directory{root.path(), programs, std::chrono::seconds(50)};
  std::unique_ptr<DirectoryNode> node = directory.nodeWithType(kODNodeTypeLocalNodes).value();

  AccountsTest() {
    root.write("/etc/passwd",
               "root:x:0:0:root:/root:/bin/sh\n"
               "jabberd:x:84:84:jabberd service:/var/jabberd:/usr/sbin/nologin\n");
    root.write("/etc/shadow", "root:!:20000:0:99999:7:::\njabberd:!:20000:0:99999:7:::\n");
    root.write("/etc/group", "root:x:0:\nstaff:x:20:\nshadow:x:42:\njabberd:x:84:\n");
    root.write("/etc/gshadow", "root:*::\nstaff:*::\nshadow:*::\njabberd:!::\n");
    for (const char* file : {"/etc/shadow", "/etc/gshadow"}) {
      root.setMode(file, 0640);
      if (::geteuid() == 0) {
        EXPECT_EQ(::chown(root.hostPath(file).c_str(), 0, kShadowGroup), 0);
      }
    }
  }

  static Dictionary attributes(const std::string& uid) {
    return {{kODAttributeTypeUniqueID, Array{uid}},
            {kODAttributeTypeFullName, Array{"Notification User"}},
            {kODAttributeTypePrimaryGroupID, Array{"20"}},
            {kODAttributeTypeUserShell, Array{"/usr/bin/false"}},
            {kODAttributeTypeNFSHomeDirectory, Array{"99"}}};
  }

  Result<DirectoryRecord> create(const std::string& name, const Dictionary& given = attributes("250")) {
    return node->createRecordWithRecordType_name_attributes(kODRecordTypeUsers, name, given);
  }
  static DirectoryRecord user(const std::string& name) { return {kODRecordTypeUsers, name}; }
  static DirectoryRecord group(const std::string& name) { return {kODRecordTypeGroups, name}; }

  /// The line of an account file that begins with the name.
  std::string lineOf(const std::string& name, const std::string& file) const {
    const std::string content = "\n" + root.read(file);
    const auto start = content.find("\n" + name + ":");
    if (start == std::string::npos) return "";
    return content.substr(start + 1, content.find('\n', start + 1) - start - 1);
  }
  /// The hash in the shadow file.
  std::string hashOf(const std::string& name) const {
    const std::string line = lineOf(name, "/etc/shadow");
    const auto start = line.find(':') + 1;
    return line.substr(start, line.find(':', start) - start);
  }
  /// Name and content of every file below /etc.
  std::string everything() const {
    std::string all;
    for (const std::string& name : root.list("/etc")) {
      all += name + ":\n";
      struct stat status {};
      if (::lstat(root.hostPath("/etc/" + name).c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        all += root.read("/etc/" + name);
      }
    }
    return all;
  }
};

}  // namespace tessard
