#include "common/FileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "platform/PosixFileSystem.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

class LookingForAFile : public testing::Test {
 protected:
  ScratchRoot root;
  PosixFileSystem posix{root.path()};
  FaultyFileSystem files{posix};

  LookingForAFile() { root.write("/etc/a", "a"); }
};

TEST_F(LookingForAFile, FindsWhatIsThereAndMissesWhatIsNot) {
  root.makeLink("/etc/dangling", "nothing");
  EXPECT_TRUE(isThere(files, "/etc/a").value());
  EXPECT_TRUE(isThere(files, "/etc").value());
  for (const char* path : {"/etc/b", "/none/at/all", "/etc/a/below", "/etc/dangling"}) {
    EXPECT_FALSE(isThere(files, path).value()) << path;
  }
}

TEST_F(LookingForAFile, DoesNotTakeForMissingWhatCannotBeLookedAt) {
  for (const int error : {EIO, EMFILE, EACCES}) {
    files.heal();
    files.failAll("attributes", error);
    EXPECT_EQ(isThere(files, "/etc/a").error().code(), error);
    EXPECT_EQ(isThere(files, "/etc/b").error().code(), error);
  }
}

}  // namespace
}  // namespace tessard
