#include "platform/RootDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

constexpr int kOpens = 20'000;

TEST(RootDirectories, OpenFilesBehindLinksWhateverOthersRenameMeanwhile) {
  const ScratchRoot root;
  root.write("/lib/file", "content");
  root.makeDirectory("/share/deep");
  root.makeLink("/share/deep/link", "../../lib");
  root.makeDirectory("/other");
  std::atomic<bool> done = false;
  std::thread renaming([&] {
    const std::string one = root.hostPath("/other");
    const std::string another = root.hostPath("/another");
    while (!done) {
      std::rename(one.c_str(), another.c_str());
      std::rename(another.c_str(), one.c_str());
    }
  });
  int failed = 0;
  for (int count = 0; count < kOpens; ++count) {
    if (!openBelowRoot(root.path(), "/share/deep/link/file", O_PATH)) ++failed;
  }
  done = true;
  renaming.join();
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
