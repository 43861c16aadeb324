#include "platform/keychain/KeychainStore.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "platform/keychain/KeychainManager.h"
#include "platform/keychain/SqliteKeychain.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestCertificates.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kCanary = "canary-of-a-secret-7c1f";

// Runs the work in a process of its own; its exit status, or -1 when it did not end by itself.
pid_t started(const std::function<int()>& work) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(work());
  return child;
}
int statusOf(pid_t child) {
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

struct Stores : testing::Test {
  ScratchRoot root;
  FakeClock clock;
  KeychainManager manager{root.path(), clock};

  KeychainResult<void> keep(const std::string& account, const std::string& content) const {
    auto store = KeychainStore::openToChange(root.path());
    if (!store) return store.error();
    const auto known = store.value().passwordOf(account);
    if (!known) return known.error();
    if (known.value()) {
      if (auto set = store.value().setContent(*known.value(), content); !set) return set;
    } else if (auto added = store.value().addPassword({0, account, "", "x"}, content); !added) {
      return added.error();
    }
    return store.value().commit();
  }
  KeychainResult<std::string> kept(const std::string& account) const {
    auto store = KeychainStore::openToRead(root.path());
    if (!store) return store.error();
    if (!store.value()) return KeychainError{KeychainProblem::notFound, "no store"};
    const auto known = store.value()->passwordOf(account);
    if (!known) return known.error();
    if (!known.value()) return KeychainError{KeychainProblem::notFound, "no account"};
    const auto content = store.value()->contentOf(*known.value());
    if (!content) return content.error();
    return std::string(content.value().view());
  }
  std::string bytes(const char* path) const { return root.read(path); }
  // What reading and changing fail with; both leave the files as they are.
  KeychainProblem refusal() const {
    const auto before = [this] {
      std::string all;
      for (const std::string& name : root.list(kKeychainDirectory)) {
        std::error_code ignored;
        const std::string path = std::string(kKeychainDirectory) + "/" + name;
        if (std::filesystem::is_regular_file(root.hostPath(path), ignored)) all += name + root.read(path);
      }
      return all;
    };
    const std::string content = before();
    const auto read = kept("a");
    const auto changed = keep("a", "new");
    EXPECT_TRUE(before() == content) << "a file has changed";
    EXPECT_FALSE(read);
    EXPECT_FALSE(changed);
    if (read || changed) return KeychainProblem::notFound;
    EXPECT_EQ(read.error().problem, changed.error().problem)
        << read.error().text << "; " << changed.error().text;
    EXPECT_FALSE(read.error().text.empty());
    return read.error().problem;
  }
  void statement(const std::string& text) const {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(root.hostPath(kKeychainStore).c_str(), &database), SQLITE_OK);
    char* problem = nullptr;
    EXPECT_EQ(sqlite3_exec(database, text.c_str(), nullptr, nullptr, &problem), SQLITE_OK) << problem;
    sqlite3_close(database);
  }
};

TEST_F(Stores, TheKeyOfAnotherKeychainIsRefused) {
  ASSERT_TRUE(keep("a", "old"));
  const std::string key = bytes(kKeychainKey);
  root.remove(kKeychainKey);
  root.write(kKeychainKey, std::string(32, 'k'));
  root.setMode(kKeychainKey, 0400);
  EXPECT_EQ(refusal(), KeychainProblem::wrongKey);
  root.remove(kKeychainKey);
  root.write(kKeychainKey, key.substr(1));
  root.setMode(kKeychainKey, 0400);
  EXPECT_EQ(refusal(), KeychainProblem::wrongKey);
  root.remove(kKeychainKey);
  root.write(kKeychainKey, key);
  root.setMode(kKeychainKey, 0400);
  EXPECT_EQ(kept("a").value(), "old");
}

TEST_F(Stores, AMissingKeyFileIsNotMadeAnewBesideAStore) {
  ASSERT_TRUE(keep("a", "old"));
  root.remove(kKeychainKey);
  EXPECT_EQ(refusal(), KeychainProblem::keyMissing);
  EXPECT_FALSE(root.exists(kKeychainKey));
}

TEST_F(Stores, WhatIsNoKeychainIsRefusedAndLeftAsItIs) {
  ASSERT_TRUE(keep("a", "old"));
  const std::string good = bytes(kKeychainStore);
  for (const std::string& content :
       {std::string(), std::string("no database at all"), std::string(8192, '\0'), good.substr(0, 4096),
        good.substr(0, good.size() - 4096)}) {
    root.write(kKeychainStore, content);
    EXPECT_EQ(refusal(), KeychainProblem::damaged) << content.size();
  }
  root.remove(kKeychainStore);
  statement("CREATE TABLE somebody_elses (x)");
  root.setMode(kKeychainStore, 0600);
  EXPECT_EQ(refusal(), KeychainProblem::damaged);
}

TEST_F(Stores, AStoreOfALaterVersionIsRefused) {
  ASSERT_TRUE(keep("a", "old"));
  statement("PRAGMA user_version = 2");
  EXPECT_EQ(refusal(), KeychainProblem::newer);
}

TEST_F(Stores, RightsForOthersAreRefused) {
  ASSERT_TRUE(keep("a", "old"));
  for (const auto& [path, good, bad] :
       {std::tuple{kKeychainKey, 0400, 0440}, std::tuple{kKeychainKey, 0400, 0404},
        std::tuple{kKeychainStore, 0600, 0640}, std::tuple{kKeychainStore, 0600, 0602},
        std::tuple{kKeychainDirectory, 0700, 0710}}) {
    root.setMode(path, static_cast<mode_t>(bad));
    EXPECT_EQ(refusal(), KeychainProblem::unsafe) << path;
    root.setMode(path, static_cast<mode_t>(good));
  }
  EXPECT_EQ(kept("a").value(), "old");
}

TEST_F(Stores, FilesOfAnotherUserAreRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  ASSERT_TRUE(keep("a", "old"));
  for (const char* path : {kKeychainKey, kKeychainStore, kKeychainDirectory}) {
    ASSERT_EQ(::chown(root.hostPath(path).c_str(), 4711, 0), 0);
    EXPECT_EQ(refusal(), KeychainProblem::unsafe) << path;
    ASSERT_EQ(::chown(root.hostPath(path).c_str(), 0, 0), 0);
  }
}

TEST_F(Stores, LinksInThePlacesOfItsFilesAreNotFollowed) {
  ASSERT_TRUE(keep("a", "old"));
  for (const char* path : {kKeychainKey, kKeychainStore}) {
    std::filesystem::rename(root.hostPath(path), root.hostPath("/etc/elsewhere"));
    root.makeLink(path, root.hostPath("/etc/elsewhere"));
    EXPECT_EQ(refusal(), KeychainProblem::unsafe) << path;
    root.remove(path);
    std::filesystem::rename(root.hostPath("/etc/elsewhere"), root.hostPath(path));
  }
  std::filesystem::rename(root.hostPath(kKeychainDirectory), root.hostPath("/var/elsewhere"));
  root.makeLink(kKeychainDirectory, "/var/elsewhere");
  EXPECT_EQ(kept("a").error().problem, KeychainProblem::unsafe);
  EXPECT_EQ(keep("a", "new").error().problem, KeychainProblem::unsafe);
}

TEST_F(Stores, ASealedValueOpensInItsOwnPlaceAlone) {
  ASSERT_TRUE(keep("a", "of a"));
  ASSERT_TRUE(keep("b", "of b"));
  statement(
      "UPDATE generic_password SET sealed = (SELECT sealed FROM generic_password WHERE account = 'b')"
      " WHERE account = 'a'");
  EXPECT_EQ(kept("a").error().problem, KeychainProblem::damaged);
  EXPECT_EQ(kept("b").value(), "of b");
  statement("UPDATE generic_password SET access = 'y' WHERE account = 'b'");
  EXPECT_EQ(kept("b").error().problem, KeychainProblem::damaged);
}

TEST_F(Stores, WhatAnInterruptedMakingLeftIsNotInTheWay) {
  root.makeDirectory(kKeychainDirectory);
  root.setMode(kKeychainDirectory, 0700);
  for (const char* name : {"/keychain.db.new", "/keychain.db.new-journal", "/keychain.key.new"}) {
    root.write(std::string(kKeychainDirectory) + name, "half of it");
  }
  EXPECT_EQ(kept("a").error().problem, KeychainProblem::notFound);
  ASSERT_TRUE(keep("a", "new"));
  EXPECT_EQ(kept("a").value(), "new");
  EXPECT_THAT(root.list(kKeychainDirectory), testing::ElementsAre("keychain.db", "keychain.key"));
}

TEST_F(Stores, ProcessesThatMakeTheStoreAtTheSameTimeAgreeOnIt) {
  for (int round = 0; round < 5; ++round) {
    std::vector<pid_t> children;
    for (int number = 0; number < 4; ++number) {
      children.push_back(started([&] { return keep("account " + std::to_string(number), "x") ? 0 : 1; }));
    }
    for (const pid_t child : children) EXPECT_EQ(statusOf(child), 0);
    EXPECT_EQ(manager.passwordAccounts().value().size(), 4U);
    root.remove(kKeychainDirectory);
  }
}

TEST_F(Stores, ChangesOfSeveralProcessesAreAllKept) {
  constexpr int kChanges = 8;
  std::vector<pid_t> children;
  for (int number = 0; number < 4; ++number) {
    children.push_back(started([&] {
      for (int change = 0; change < kChanges; ++change) {
        if (!keep(std::to_string(number) + "/" + std::to_string(change), "x")) return 1;
      }
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(statusOf(child), 0);
  EXPECT_EQ(manager.passwordAccounts().value().size(), 4U * kChanges);
}

TEST_F(Stores, AKillAtAnyMomentLeavesTheOldOrTheNewContentWhole) {
  std::mt19937 random(20261121);  // NOLINT(cert-msc51-cpp): the same moments in every run
  std::uniform_int_distribution<useconds_t> moments(0, 30'000);
  // Also while the store is made for the first time.
  for (int round = 0; round < 40; ++round) {
    if (round % 4 == 0) root.remove(kKeychainDirectory);
    int told[2];
    ASSERT_EQ(::pipe2(told, O_CLOEXEC), 0);
    const pid_t child = started([&] {
      for (int number = 1;; ++number) {
        if (!keep("a", std::string(20'000, 'c') + std::to_string(number))) return 1;
        if (::write(told[1], &number, sizeof number) != sizeof number) return 1;
      }
    });
    ::close(told[1]);
    ::usleep(moments(random));
    ::kill(child, SIGKILL);
    ASSERT_EQ(statusOf(child), -1);
    int last = 0;
    while (::read(told[0], &last, sizeof last) == sizeof last) {
    }
    ::close(told[0]);
    const auto content = kept("a");
    if (!content) {
      ASSERT_EQ(content.error().problem, KeychainProblem::notFound) << content.error().text;
      ASSERT_EQ(last, 0);
    } else if (last > 0) {
      const int number = std::stoi(content.value().substr(20'000));
      EXPECT_TRUE(number == last || number == last + 1) << number << " after " << last;
    }
    ASSERT_TRUE(keep("b", "goes on"));
  }
}

TEST_F(Stores, AFullAndAReadOnlyDiskAreSaidToBeSoAndNothingIsLost) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can mount";
  const int status = statusOf(started([&] {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return 100;
    const std::string place = root.hostPath("/var");
    if (::mount("none", place.c_str(), "tmpfs", 0, "size=200k") != 0) return 100;
    if (!keep("a", "old")) return 1;
    const auto full = keep("a", std::string(150'000, 'x'));
    if (full || full.error().problem != KeychainProblem::full) return 2;
    if (kept("a").value() != "old") return 3;
    if (::mount("none", place.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=200k") != 0) return 101;
    const auto changed = keep("a", "new");
    if (changed || changed.error().problem != KeychainProblem::readOnly) return 4;
    return kept("a").value() == "old" ? 0 : 5;
  }));
  if (status == 100) GTEST_SKIP() << "no mount namespace to be had";
  EXPECT_EQ(status, 0);
}

TEST_F(Stores, NoSecretStandsInTheClearInAnyFile) {
  const std::string canary = kCanary;
  const TestCertificate made("holder");
  SqliteKeychain keychain(root.path(), ownersForTests());
  keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
  const AclSubject self{.mask = CSSM_ACL_MATCH_UID};
  const SecAccess access = SecAccessCreateFromOwnerAndACL({self}, {{self, false, {}}});
  ASSERT_EQ(keychain.SecKeychainItemCreateFromContent({"label", "account"}, canary, access).status,
            errSecSuccess);
  ASSERT_TRUE(manager.setPassPhrase("/k.pem", made.keyPem(canary), Secret(canary)));
  const Secret phrase(canary);
  ASSERT_TRUE(manager.importFile(made.pkcs12(canary), &phrase, true));
  ASSERT_TRUE(manager.removePassPhrase("/k.pem").value());
  const std::string key = made.keyBytes();
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root.path())) {
    if (!entry.is_regular_file()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(file)), {});
    EXPECT_THAT(content, Not(HasSubstr(canary))) << entry.path();
    // The private number stands at byte 36 of PKCS#8 for this curve.
    EXPECT_THAT(content, Not(HasSubstr(key.substr(36, 32)))) << entry.path();
  }
}

}  // namespace
}  // namespace tessard
