#include "platform/SystemSyslog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace tessard {
namespace {

TEST(SystemSyslogTest, StandardErrorIsTheJournalOnlyWhereTheServiceManagerNamedThatVeryFile) {
  ::unsetenv("JOURNAL_STREAM");
  EXPECT_FALSE(standardErrorIsJournal());
  struct stat status {};
  ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
  const std::string device = std::to_string(status.st_dev);
  ::setenv("JOURNAL_STREAM", (device + ":" + std::to_string(status.st_ino)).c_str(), 1);
  EXPECT_TRUE(standardErrorIsJournal());
  // Inherited from a service, with standard error led elsewhere.
  for (const std::string& other : {device + ":" + std::to_string(status.st_ino + 1), device, std::string()}) {
    ::setenv("JOURNAL_STREAM", other.c_str(), 1);
    EXPECT_FALSE(standardErrorIsJournal()) << other;
  }
  ::unsetenv("JOURNAL_STREAM");
}

}  // namespace
}  // namespace tessard
