#include "host/ProcessLog.h"

#include <gmock/gmock.h>

#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ProcessLog : public testing::Test {
 protected:
  std::vector<std::string> linesIn(const std::string& text, pid_t pid, std::size_t count = 5) {
    root.write("/system.log", text);
    return lastLogLinesOf(pid, count, root.path() + "/system.log");
  }

  ScratchRoot root;
};

TEST_F(ProcessLog, HasTheLinesOfThatProcessAlone) {
  EXPECT_THAT(linesIn("one[12]: a\ntwo[123]: b\none[12]: c\nthree[1]: about [12] d\n", 12),
              ElementsAre("one[12]: a", "one[12]: c"));
}

TEST_F(ProcessLog, HasTheLastLinesOldestFirst) {
  EXPECT_THAT(linesIn("x[1]: a\nx[1]: b\nx[1]: c\nx[2]: d\n", 1, 2), ElementsAre("x[1]: b", "x[1]: c"));
}

TEST_F(ProcessLog, TakesALastLineWithoutItsEndAndSkipsEmptyOnes) {
  EXPECT_THAT(linesIn("\n\nx[1]: a\n\nx[1]: b", 1), ElementsAre("x[1]: a", "x[1]: b"));
  EXPECT_THAT(linesIn("", 1), IsEmpty());
  EXPECT_THAT(linesIn("\n", 1), IsEmpty());
}

TEST_F(ProcessLog, LooksThroughTheEndOfALargeLogOnlyAndNeverShowsHalfALine) {
  std::string text;
  while (text.size() < 300'000) text += "x[1]: " + std::string(94, 'a') + "\n";
  const auto lines = linesIn(text, 1, 100'000);
  EXPECT_THAT(lines, SizeIs(testing::AllOf(testing::Gt(2000U), testing::Lt(300'000U / 101))));
  EXPECT_THAT(lines, testing::Each(SizeIs(100)));
}

TEST_F(ProcessLog, IsEmptyForNoProcess) {
  EXPECT_THAT(linesIn("x[0]: a\nx[-1]: b\n", 0), IsEmpty());
  EXPECT_THAT(linesIn("x[0]: a\nx[-1]: b\n", -1), IsEmpty());
}

TEST_F(ProcessLog, GoesToTheJournalWhereThereIsNoFileAndFindsNothingOfAProcessThatNeverWas) {
  EXPECT_THAT(lastLogLinesOf(4'194'304, 5, root.path() + "/none"), IsEmpty());
}

}  // namespace
}  // namespace tessard
