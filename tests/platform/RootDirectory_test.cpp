#include "platform/RootDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/RestlessDirectory.h"

namespace tessard {
namespace {

constexpr int kOpens = 20'000;

TEST(RootDirectories, OpenFilesBehindLinksWhateverOthersRenameMeanwhile) {
  const ScratchRoot root;
  root.write("/lib/file", "content");
  root.makeDirectory("/share/deep");
  root.makeLink("/share/deep/link", "../../lib");
  const RestlessDirectory other(root);
  int failed = 0;
  for (int count = 0; count < kOpens; ++count) {
    if (!openBelowRoot(root.path(), "/share/deep/link/file", O_PATH)) ++failed;
  }
  EXPECT_EQ(failed, 0);
}

TEST(RootDirectories, TellWhyAFileCannotBeOpened) {
  const ScratchRoot root;
  const auto missing = openBelowRoot(root.path(), "/nothing", O_PATH);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code(), ENOENT);
  EXPECT_FALSE(openBelowRoot(root.path() + "/nothing", "/nothing", O_PATH));
}

}  // namespace
}  // namespace tessard
