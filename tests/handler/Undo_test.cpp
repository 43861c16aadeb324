#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kC2S = kConfigDirectory + "c2s.xml";

/// Requests as the host carries them out, each with its journal.
struct UndoSettings : Handled {
  UndoSettings() {
    initialise();
    jabber->settings = SettingsDictionary{{"a", 1}};
    jabber->whileWriting = [this] {
      handler->serviceWrangler()->masterConfig()->setStringValue_forPath(port, "c2s.local.port");
    };
  }

  std::optional<Dictionary> request(const char* command, const Dictionary& content = {}) {
    platform.journal.startRequest();
    auto answer = handler->operationForCommand(command)(content);
    platform.journal.finishRequest(false);
    platform.journal.tidyUp();
    return answer;
  }
  void write(const std::string& newPort) {
    port = newPort;
    request("writeSettings", {{"configuration", Dictionary{{"logLevel", "ALL"}}}});
    platform.log.clear();
  }
  std::string portInFile() const {
    for (const char* each : {"5218", "1111", "2222"}) {
      if (platform.root.read(kC2S).find(each) != std::string::npos) return each;
    }
    return "another";
  }

  std::string port;
};

TEST_F(UndoSettings, PutsBackWhatTheLastWriteChangedAndTellsIt) {
  write("1111");
  ASSERT_EQ(portInFile(), "1111");
  const auto answer = request("undoSettings");
  EXPECT_EQ(portInFile(), "5218");
  ASSERT_TRUE(answer);
  EXPECT_THAT(keysOf(*answer), ElementsAre("configuration", "readStatus", "files", "needsRecycleOrRestart"));
  EXPECT_THAT(stringsOf(*answer->arrayFor("files")), Contains("/etc/jabberd_notification/c2s.xml"));
  EXPECT_THAT(platform.log.messages(kLogError), IsEmpty());
}

TEST_F(UndoSettings, IsWhatIsInMemoryToo) {
  write("1111");
  request("undoSettings");
  int state = 0;
  EXPECT_EQ(
      handler->serviceWrangler()->masterConfig()->getStringValueForPath_nodeState("c2s.local.port", state),
      "5218");
  write("2222");
  EXPECT_EQ(portInFile(), "2222");
}

TEST_F(UndoSettings, MakesTheWriteAgainWhenItIsUndone) {
  write("1111");
  request("undoSettings");
  request("undoSettings");
  EXPECT_EQ(portInFile(), "1111");
}

TEST_F(UndoSettings, IsRefusedWhereNothingWasWritten) {
  EXPECT_EQ(request("undoSettings"), (Dictionary{{"error", "NOTHING_TO_UNDO_ERR"}}));
  EXPECT_EQ(request("readFormerSettings"), (Dictionary{{"error", "NOTHING_TO_UNDO_ERR"}}));
  EXPECT_TRUE(platform.log.has(kLogError, "there is no settings write to be undone"));
}

TEST_F(UndoSettings, IsRefusedOverAnEditWithTheNameOfTheFile) {
  write("1111");
  platform.root.write(kC2S, "<c2s><local><port>2222</port></local></c2s>");
  const Dictionary refusal = {{"error", "CHANGED_SINCE_ERR"},
                              {"files", Array{"/etc/jabberd_notification/c2s.xml"}}};
  for (const char* command : {"undoSettings", "readFormerSettings"}) {
    EXPECT_EQ(request(command), refusal);
    EXPECT_TRUE(platform.log.has(
        kLogError, "\"/etc/jabberd_notification/c2s.xml\" has been changed since the settings were written"));
  }
  EXPECT_EQ(portInFile(), "2222");
}

TEST_F(UndoSettings, SkipsRequestsThatAreNoSettingsWrites) {
  write("1111");
  request("addService", {{"service", "calendar"}, {"hostName", "a.example.com"}});
  EXPECT_EQ(request("undoSettings")->find("error"), nullptr);
  EXPECT_EQ(portInFile(), "5218");
}

TEST_F(UndoSettings, TellsWhatCannotBeDoneAndChangesNothing) {
  write("1111");
  request("undoSettings");
  platform.log.clear();
  platform.files.failAll("syncDirectory", EIO);
  EXPECT_EQ(request("undoSettings"), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
  EXPECT_TRUE(platform.log.has(kLogError, "the changes of the request cannot be kept: Input/output error"));
  platform.files.heal();
  EXPECT_EQ(portInFile(), "5218");
}

TEST_F(UndoSettings, CanBeLookedAtWithoutAChange) {
  write("1111");
  const auto answer = request("readFormerSettings");
  ASSERT_TRUE(answer);
  EXPECT_THAT(keysOf(*answer), ElementsAre("configuration", "files"));
  EXPECT_EQ(portInFile(), "1111");
}

TEST_F(UndoSettings, IsAChangeAndALookAtItIsNone) {
  EXPECT_TRUE(handler->commandChangesState("undoSettings"));
  EXPECT_FALSE(handler->commandChangesState("readFormerSettings"));
}

}  // namespace
}  // namespace tessard
