#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

constexpr std::size_t kDomains = 1000;

std::vector<std::string> manyDomains() {
  std::vector<std::string> domains;
  for (std::size_t i = 0; i < kDomains; ++i) domains.push_back("d" + std::to_string(i) + ".example");
  return domains;
}

/// Lets scratch roots be made in memory where the machine has a place for it: flushing thousands of files to
/// a disk is slow, and what is counted here is the same.
struct InMemory {
  InMemory() {
    if (::access("/dev/shm", W_OK | X_OK) != 0) return;
    if (const char* before = std::getenv("TMPDIR")) before_ = before;
    ::setenv("TMPDIR", "/dev/shm", 1);
    changed_ = true;
  }
  InMemory(const InMemory&) = delete;
  InMemory& operator=(const InMemory&) = delete;
  ~InMemory() {
    if (!changed_) return;
    if (before_) {
      ::setenv("TMPDIR", before_->c_str(), 1);
    } else {
      ::unsetenv("TMPDIR");
    }
  }

 private:
  std::optional<std::string> before_;
  bool changed_ = false;
};

/// A master with one session manager, loaded.
struct ManyDomains : private InMemory, OneMaster {
  ManyDomains() : OneMaster("sm @sm.xml\n") {
    writeXml("sm.xml", "<sm><id>sm</id><pidfile/><local><id/></local></sm>");
    platform.clock.time = kFarAhead;
    if (!master->loadAllConfigurations()) throw std::runtime_error("cannot load");
    platform.files.clearCalls();
  }
  std::size_t count(std::string_view operation) const { return platform.files.calls(operation).size(); }
};

TEST(AThousandDomains, AreLaidOutWithOneCopyEachThatNobodyReads) {
  ManyDomains domains;
  domains->setHostDomains(manyDomains());
  EXPECT_EQ(domains.componentPaths("sm").size(), kDomains);
  EXPECT_EQ(domains.count("copyFile"), kDomains - 1);
  EXPECT_EQ(domains.count("readFile"), 0U);
  EXPECT_EQ(domains->knownDocuments().parses(), 1U);
  EXPECT_LE(domains.platform.files.calls().size(), 10 * kDomains);
}

TEST(AThousandDomains, AreSavedWithOneNewFileEachAndNotReadBack) {
  ManyDomains domains;
  domains->setHostDomains(manyDomains());
  domains.platform.files.clearCalls();
  ASSERT_TRUE(domains->saveAllConfigurations());
  EXPECT_EQ(domains.count("createFile"), kDomains + 1);
  EXPECT_EQ(domains.count("flush"), kDomains + 1) << "all in one go, recorded for each";
  EXPECT_EQ(domains.count("exchange"), kDomains + 1);
  EXPECT_EQ(domains.count("syncDirectory"), 1U);
  EXPECT_LE(domains.platform.files.calls().size(), 10 * kDomains);

  for (const auto& component : *domains->loadedComponentsForName("sm")) component->setLoadTime(kLongAgo);
  domains.platform.log.clear();
  domains.platform.files.clearCalls();
  ASSERT_TRUE(domains->loadAllConfigurations());
  EXPECT_EQ(domains.platform.log.messages(kLogInfo).size(), kDomains) << "every file is newer than its load";
  EXPECT_EQ(domains.count("readFile"), 1U) << "the master";
  EXPECT_LE(domains.platform.files.calls().size(), 10 * kDomains);

  domains.platform.files.clearCalls();
  ASSERT_TRUE(domains->revertMasterConfiguration());
  EXPECT_EQ(domains.count("readFile"), kDomains + 1) << "each component once, and the master";
  EXPECT_EQ(domains.listedPaths("sm").size(), kDomains);
}

TEST(AThousandDomains, AreLookedAtOnceEachWhenNothingHasChanged) {
  ManyDomains domains;
  domains->setHostDomains(manyDomains());
  ASSERT_TRUE(domains->saveAllConfigurations());
  ASSERT_TRUE(domains->loadAllConfigurations());
  for (const auto& component : *domains->loadedComponentsForName("sm")) component->setLoadTime(kFarAhead);
  domains.platform.files.clearCalls();
  ASSERT_TRUE(domains->loadAllConfigurations());
  EXPECT_LE(domains.platform.files.calls().size(), kDomains + 2) << "and at the master";
  EXPECT_EQ(domains->knownDocuments().parses(), 1U);
}

TEST(AThousandDomains, AreRemovedWithOneDeletionForEachFileAndBackup) {
  ManyDomains domains;
  domains->setHostDomains(manyDomains());
  ASSERT_TRUE(domains->saveAllConfigurations());
  domains.platform.files.clearCalls();
  domains->setHostDomains({"a.example"});
  EXPECT_EQ(domains.count("remove"), 2 * (kDomains - 1));
  EXPECT_LE(domains.platform.files.calls().size(), 10 * kDomains);
  EXPECT_TRUE(domains.platform.log.has(
      kLogDebug, "Removed 999 secondary SM configuration files and backups (1998 files total)."));
}

}  // namespace
}  // namespace tessard
