#include "common/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/RecordingLog.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Logging : testing::Test {
  RecordingLog log;
  Object object{log};

  std::string onlyLine() const {
    EXPECT_EQ(log.writes().size(), 1U);
    return log.writes().empty() ? "" : log.writes().front().text;
  }
};

TEST_F(Logging, InfoLinesCarryAnI) {
  object.logInfo_source("message", "");
  EXPECT_EQ(onlyLine(), "tessard_notification[I]: message");
}

TEST_F(Logging, NoticeLinesCarryAnN) {
  object.logNotice_source("message", "");
  EXPECT_EQ(onlyLine(), "tessard_notification[N]: message");
}

TEST_F(Logging, WarningLinesCarryAW) {
  object.logWarning_source("message", "");
  EXPECT_EQ(onlyLine(), "tessard_notification[W]: message");
}

TEST_F(Logging, ErrorLinesCarryAnE) {
  object.logError_source("message", "");
  EXPECT_EQ(onlyLine(), "tessard_notification[E]: message");
}

TEST_F(Logging, DebugLinesAreDiscardedOnceTheObserverHasSeenThem) {
  object.logDebug_source("message", "");
  EXPECT_THAT(log.writes(), IsEmpty());
  EXPECT_THAT(log.messages(), ElementsAre(RecordingLog::Message{kLogDebug, "message"}));
}

TEST_F(Logging, EveryNumberHasItsLetter) {
  const std::pair<int, char> letters[] = {{0, 'I'}, {1, 'N'}, {2, 'W'},  {3, 'E'},
                                          {4, 'D'}, {5, 'I'}, {-1, 'I'}, {99, 'I'}};
  for (const auto& [level, letter] : letters) {
    log.clear();
    object.logMessage_level_source("message", level, "");
    EXPECT_EQ(onlyLine(), std::string("tessard_notification[") + letter + "]: message");
    EXPECT_THAT(log.messages(), ElementsAre(RecordingLog::Message{level, "message"}));
  }
}

TEST_F(Logging, EveryLineGoesOutWithOnePriorityAndTheFormatForAText) {
  for (int level = -1; level <= 5; ++level) object.logMessage_level_source("100% %s %@", level, "");
  ASSERT_EQ(log.writes().size(), 7U);
  for (const auto& line : log.writes()) {
    EXPECT_EQ(line.priority, 13);
    EXPECT_EQ(line.format, "%s");
    EXPECT_THAT(line.text, testing::EndsWith("]: 100% %s %@"));
  }
}

TEST_F(Logging, TheSourceIsIgnored) {
  object.logError_source("message", "somewhere");
  EXPECT_EQ(onlyLine(), "tessard_notification[E]: message");
}

TEST_F(Logging, TheObserverSeesPlainMessagesOfAllLevelsInOrder) {
  object.logInfo_source("a", "");
  object.logNotice_source("b", "");
  object.logWarning_source("c", "");
  object.logError_source("d", "");
  object.logDebug_source("e", "");
  using Message = RecordingLog::Message;
  EXPECT_THAT(log.messages(), ElementsAre(Message{0, "a"}, Message{1, "b"}, Message{2, "c"}, Message{3, "d"},
                                          Message{4, "e"}));
}

TEST(LoggingWithoutObserver, WritesTheSameLines) {
  RecordingLog recorder;
  Log log{recorder, nullptr};
  const Object object(log);
  object.logDebug_source("unseen", "");
  object.logWarning_source("seen", "");
  EXPECT_THAT(recorder.lines(), ElementsAre("tessard_notification[W]: seen"));
  EXPECT_THAT(recorder.messages(), IsEmpty());
}

TEST(LoggingWithoutObserver, AnObserverMayComeLater) {
  RecordingLog recorder;
  Log log{recorder, nullptr};
  const Object object(log);
  log.observer = &recorder;
  object.logDebug_source("seen", "");
  EXPECT_THAT(recorder.messages(kLogDebug), ElementsAre("seen"));
}

}  // namespace
}  // namespace tessard
