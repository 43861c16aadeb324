#include "common/Result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace tessard {
namespace {

TEST(SystemError, IsDescribedByTheSystem) {
  EXPECT_EQ(SystemError(ENOENT).description(), "No such file or directory");
  EXPECT_EQ(SystemError(EACCES).code(), EACCES);
}

TEST(SystemError, ATextOfItsOwnWins) {
  const SystemError error(0, "line 3 is malformed");
  EXPECT_EQ(error.description(), "line 3 is malformed");
  EXPECT_EQ(error.code(), 0);
}

TEST(SystemError, LastIsWhatErrnoSays) {
  errno = EISDIR;
  EXPECT_EQ(SystemError::last().code(), EISDIR);
  EXPECT_EQ(SystemError::last().description(), "Is a directory");
}

TEST(Result, HoldsAValueOrAnError) {
  const Result<std::string> good("text");
  EXPECT_TRUE(good.ok());
  EXPECT_TRUE(static_cast<bool>(good));
  EXPECT_EQ(good.value(), "text");
  const Result<std::string> bad(SystemError(EIO));
  EXPECT_FALSE(bad.ok());
  EXPECT_EQ(bad.error().code(), EIO);
}

TEST(Result, GivesItsValueAway) {
  Result<std::unique_ptr<int>> result(std::make_unique<int>(7));
  *result.value() = 8;
  const std::unique_ptr<int> taken = std::move(result).value();
  EXPECT_EQ(*taken, 8);
}

TEST(ResultOfNothing, IsGoodUntilItHasAnError) {
  const Result<void> good;
  EXPECT_TRUE(good.ok());
  const Result<void> bad(SystemError(ENOSPC));
  EXPECT_FALSE(static_cast<bool>(bad));
  EXPECT_EQ(bad.error().description(), "No space left on device");
}

}  // namespace
}  // namespace tessard
