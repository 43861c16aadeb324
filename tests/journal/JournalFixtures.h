#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <map>
#include <string>

#include "common/DurableReplace.h"
#include "tests/support/TestPlatform.h"

namespace tessard {

inline const FileOwnership kOwnership{84, 0, 0600};

/// The process can open nothing as long as this is there.
class NoMoreFiles {
 public:
  NoMoreFiles() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit none = before_;
    none.rlim_cur = 0;
    ::setrlimit(RLIMIT_NOFILE, &none);
  }
  NoMoreFiles(const NoMoreFiles&) = delete;
  NoMoreFiles& operator=(const NoMoreFiles&) = delete;
  ~NoMoreFiles() { ::setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

// A request on files that are there, and what they and all others were before it.
class JournalTest : public testing::Test {
 protected:
  TestPlatform platform;
  ScratchRoot& root = platform.root;
  FaultyFileSystem& disk = platform.files;
  JournalingFileSystem& files = platform.journal;

  JournalTest() {
    root.write("/etc/a", "old a");
    root.setMode("/etc/a", 0640);
    root.write("/etc/a.bak", "older a");
    root.write("/etc/b", "old b");
    root.makeLink("/etc/link", "a");
    root.write("/var/c", "old c");
  }

  /// Name, kind, mode and content of everything but the journal.
  std::map<std::string, std::string> everything() const {
    std::map<std::string, std::string> found;
    namespace fs = std::filesystem;
    for (const auto& entry : fs::recursive_directory_iterator(root.path())) {
      const std::string path = entry.path().string().substr(root.path().size());
      if (path.starts_with("/Library")) continue;
      std::string is = std::to_string(static_cast<unsigned>(root.mode(path))) + " ";
      if (entry.is_symlink()) {
        is = "link to " + fs::read_symlink(entry.path()).string();
      } else if (entry.is_regular_file()) {
        is += root.read(path);
      }
      found[path] = is;
    }
    return found;
  }

  /// Every kind of change once.
  void changeEverything() {
    ASSERT_EQ(replaceKeepingBackup(files, "/private/etc/a", "new a", kOwnership).outcome,
              ReplaceOutcome::replaced);
    ASSERT_TRUE(writeAtomically(files, "/etc/made", "made", kOwnership));
    ASSERT_TRUE(files.remove("/etc/b"));
    ASSERT_TRUE(files.copyFile("/etc/a", "/etc/b"));
    ASSERT_TRUE(files.remove("/etc/link"));
    ASSERT_TRUE(files.createDirectory("/var/x/y", {std::nullopt, std::nullopt, 0750}, true));
    ASSERT_TRUE(files.createFile("/var/x/y/inside", "inside", {}, Flush::later));
    ASSERT_TRUE(files.setOwnership("/var/c", {std::nullopt, std::nullopt, 0604}));
    ASSERT_TRUE(files.rename("/var/c", "/var/moved"));
  }
};

}  // namespace tessard
