#include <gtest/gtest.h>

#include "platform/PosixTasks.h"
#include "platform/keychain/KeychainManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestCertificates.h"

namespace tessard {
namespace {

TEST(Keywarden, ATaskOnAnotherRootIsToldThePassPhraseThatThisRootsKeychainHolds) {
  const ScratchRoot root;
  FakeClock clock;
  const std::string pem = TestCertificate("a").keyPem("secret words");
  root.write("/private/etc/key.pem", pem);
  PosixTasks tasks(root.path(), KEYWARDEN_DIRECTORY);
  const auto ask = [&] {
    return tasks.launch_task("/usr/sbin/keywarden", {TaskArgument::text("--get-private-key-passphrase"),
                                                     TaskArgument::path("/private/etc/key.pem")});
  };
  EXPECT_EQ(ask().status, 66);
  ASSERT_TRUE(KeychainManager(root.path(), clock).setPassPhrase("/etc/key.pem", pem, Secret("secret words")));
  const TaskResult told = ask();
  EXPECT_EQ(told.status, 0) << told.errorText;
  EXPECT_EQ(told.output, "secret words\n");
}

TEST(Keywarden, ARootThatIsNoDirectoryIsToldAndIsNoEmptyKeychain) {
  const ScratchRoot root;
  root.write("/file", "");
  PosixTasks tasks("/", KEYWARDEN_DIRECTORY);
  for (const char* place : {"/nowhere", "/file"}) {
    const TaskResult told = tasks.launch_task(
        "/usr/sbin/keywarden",
        {TaskArgument::text("--root"), TaskArgument::text(root.hostPath(place)), TaskArgument::text("list")});
    EXPECT_EQ(told.status, 66) << place;
    EXPECT_EQ(told.output, "") << place;
    EXPECT_EQ(told.errorText.find("error: " + root.hostPath(place) + " cannot be read: "), 0U)
        << told.errorText;
  }
}

}  // namespace
}  // namespace tessard
