#include "platform/EarlyWriting.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "platform/SystemCalls.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {

namespace {

std::ptrdiff_t entriesIn(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}

class EarlyWritingTest : public testing::Test {
 protected:
  void add(int count) {
    for (int number = 0; number < count; ++number) {
      const std::string path = root.hostPath("/" + std::to_string(made_++));
      const FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
      ASSERT_TRUE(writeAll(file.get(), "content"));
      writing.add(file.get());
    }
  }

  ScratchRoot root;
  EarlyWriting writing;

 private:
  int made_ = 0;
};

TEST_F(EarlyWritingTest, LeavesNoFileOpenAndNoThreadWhenItEnds) {
  const auto files = entriesIn("/proc/self/fd");
  const auto threads = entriesIn("/proc/self/task");
  for (const int count : {1000, 3, 0, 100}) {
    add(count);
    writing.end();
    EXPECT_EQ(entriesIn("/proc/self/fd"), files);
    EXPECT_EQ(entriesIn("/proc/self/task"), threads);
  }
  EXPECT_EQ(root.read("/999"), "content");
}

TEST_F(EarlyWritingTest, NeedsNothingForFewFiles) {
  const auto files = entriesIn("/proc/self/fd");
  const auto threads = entriesIn("/proc/self/task");
  add(20);
  EXPECT_EQ(entriesIn("/proc/self/fd"), files);
  EXPECT_EQ(entriesIn("/proc/self/task"), threads);
}

TEST_F(EarlyWritingTest, KeepsNoMoreThanSomeHundredFilesOpen) {
  const auto files = entriesIn("/proc/self/fd");
  add(3000);
  EXPECT_LE(entriesIn("/proc/self/fd"), files + 600);
}

}  // namespace

}  // namespace tessard
