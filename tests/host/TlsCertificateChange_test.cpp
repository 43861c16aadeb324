#include "host/TlsCertificateChange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "common/DurableReplace.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kSettings = "/private/etc/jabberd_notification/settings";
constexpr const char* kBackup = "/private/etc/jabberd_notification/tls-certificate.pem.bak";

// A plug-in whose service starts as long as it may.
class ScriptedService : public PluginRequestHandler {
 public:
  explicit ScriptedService(Platform& platform) : PluginRequestHandler(platform), platform_(platform) {}

  std::string keyFile = "/private/etc/former.pem";
  bool takesSettings = true;
  bool runs = true;
  int startsLeft = 100;  ///< so often it starts; then no more
  std::vector<std::string> did;

  Operation operationForCommand(std::string_view command) override {
    return [this, command = std::string(command)](const Dictionary& request) {
      return answer(command, request);
    };
  }
  bool commandChangesState(std::string_view /*command*/) override { return true; }
  int doIdleAtCount(int /*count*/) override { return 0; }
  void didReceiveNetworkChangedNotification(const NetworkChangeContext& /*context*/) override {}

 private:
  Dictionary answer(const std::string& command, const Dictionary& request) {
    if (command == "getState") return {{"jabberdState", runs ? "RUNNING" : "STOPPED"}};
    if (command == "setState") {
      did.emplace_back("restart");
      runs = startsLeft-- > 0;
      return {{"state", runs ? "RUNNING" : "STOPPED"}};
    }
    const std::string* wanted = request.dictionaryFor("configuration")->stringFor("sslKeyFile");
    did.push_back("set " + *wanted);
    if (takesSettings) {
      keyFile = *wanted;
      ChangeSet changes(platform_.changes);
      EXPECT_TRUE(writeAtomically(platform_.files, kSettings, keyFile, {}));
      EXPECT_TRUE(changes.endUndoably());
    } else {
      logError_source("the settings are written in stone", "");
    }
    return {{"configuration", Dictionary{{"sslKeyFile", keyFile}}}};
  }

  Platform& platform_;
};

struct TlsCertificateChanges : testing::Test {
  TestPlatform platform;
  ScriptedService handler{platform};
  RequestExecutor executor{platform, platform.journal};

  TlsCertificateChanges() { platform.root.makeDirectory("/private/etc/jabberd_notification"); }

  TlsCertificateOutcome change(const std::string& pem) {
    const TlsService service{&handler, {"example.org"}, handler.keyFile, "", {}};
    return TlsCertificateChange(platform, executor, service).make(pem, "");
  }
  std::string content() const { return platform.root.read(kTlsCertificateFile); }
};

TEST_F(TlsCertificateChanges, AServiceThatRunsIsRestartedOnceItsSettingsNameTheFile) {
  const auto outcome = change("new");
  EXPECT_FALSE(outcome.failure);
  EXPECT_TRUE(outcome.changed && outcome.running && outcome.restarted);
  EXPECT_THAT(handler.did, ElementsAre(std::string("set ") + kTlsCertificateFile, "restart"));
  EXPECT_EQ(content(), "new");
  EXPECT_EQ(platform.root.mode(kTlsCertificateFile), 0640U);
}

TEST_F(TlsCertificateChanges, NobodyElseMayEverReadTheFile) {
  platform.root.write(kTlsCertificateFile, "old");
  platform.root.setMode(kTlsCertificateFile, 0644);
  mode_t seen = 0;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call& /*call*/) {
    const std::string temporary = std::string(kTlsCertificateFile) + ".tmp";
    if (platform.root.exists(temporary) && platform.root.read(temporary) == "new") {
      seen |= platform.root.mode(temporary);
    }
  };
  EXPECT_FALSE(change("new").failure);
  EXPECT_EQ(seen, 0640U);
  platform.files.beforeCall = nullptr;
  platform.root.setMode(kTlsCertificateFile, 0644);
  EXPECT_FALSE(change("new").failure);
  EXPECT_EQ(platform.root.mode(kTlsCertificateFile), 0640U);
}

TEST_F(TlsCertificateChanges, AServiceThatDoesNotRunIsNotStarted) {
  handler.runs = false;
  const auto outcome = change("new");
  EXPECT_FALSE(outcome.failure);
  EXPECT_FALSE(outcome.running || outcome.restarted);
  EXPECT_EQ(handler.did.size(), 1U);
}

TEST_F(TlsCertificateChanges, WhatIsThereAlreadyRestartsNothing) {
  ASSERT_FALSE(change("new").failure);
  handler.did.clear();
  const auto outcome = change("new");
  EXPECT_FALSE(outcome.changed || outcome.restarted);
  EXPECT_THAT(handler.did, ElementsAre(std::string("set ") + kTlsCertificateFile));
  EXPECT_FALSE(platform.root.exists(kBackup));
}

TEST_F(TlsCertificateChanges, ADiskThatTakesNothingLeavesAllAsItIs) {
  platform.root.write(kTlsCertificateFile, "old");
  for (const char* operation : {"createFile", "flush", "exchange", "syncDirectory"}) {
    platform.files.failAll(operation, ENOSPC);
    const auto outcome = change("new");
    ASSERT_TRUE(outcome.failure) << operation;
    EXPECT_EQ(outcome.failure->id, "cannot-write");
    EXPECT_THAT(outcome.failure->sentence, HasSubstr("Nothing is changed."));
    platform.files.heal();
    EXPECT_EQ(content(), "old") << operation;
    EXPECT_THAT(handler.did, ElementsAre());
  }
}

TEST_F(TlsCertificateChanges, SettingsThatCannotBeChangedBringTheFormerFileBack) {
  platform.root.write(kTlsCertificateFile, "old");
  handler.takesSettings = false;
  const auto outcome = change("new");
  ASSERT_TRUE(outcome.failure);
  EXPECT_EQ(outcome.failure->id, "not-set");
  EXPECT_THAT(outcome.failure->sentence, HasSubstr("the settings are written in stone"));
  EXPECT_FALSE(outcome.changed || outcome.restarted);
  EXPECT_EQ(content(), "old");
}

TEST_F(TlsCertificateChanges, AFirstFileIsGoneAgainWhenTheServiceDoesNotStartWithIt) {
  handler.startsLeft = 0;
  const auto outcome = change("new");
  ASSERT_TRUE(outcome.failure);
  EXPECT_EQ(outcome.failure->id, "not-restarted");
  EXPECT_THAT(outcome.failure->sentence,
              HasSubstr("are back, but the service does not start with them either."));
  EXPECT_FALSE(outcome.running || outcome.changed);
  EXPECT_FALSE(platform.root.exists(kTlsCertificateFile));
  EXPECT_EQ(handler.keyFile, "/private/etc/former.pem");
  EXPECT_THAT(handler.did, ElementsAre(std::string("set ") + kTlsCertificateFile, "restart",
                                       "set /private/etc/former.pem", "restart"));
}

TEST_F(TlsCertificateChanges, AfterwardsTheSettingsCanBeUndone) {
  ASSERT_FALSE(change("new").failure);
  platform.journal.tidyUp();
  EXPECT_EQ(platform.journal.lastChange().state, LastChange::State::undoable);
}

TEST_F(TlsCertificateChanges, OnceTakenBackItLeavesNoChangeWhoseUndoWouldNameAFileThatIsGone) {
  handler.startsLeft = 0;
  ASSERT_TRUE(change("new").failure);
  platform.journal.tidyUp();
  EXPECT_EQ(platform.journal.lastChange().state, LastChange::State::none);
}

TEST_F(TlsCertificateChanges, WhereTheSettingsNamedTheFileBeforeWhatCouldBeUndoneStillCan) {
  ASSERT_FALSE(change("new").failure);
  handler.startsLeft = 0;
  ASSERT_TRUE(change("newer").failure);
  platform.journal.tidyUp();
  EXPECT_EQ(platform.journal.lastChange().state, LastChange::State::undoable);
}

TEST_F(TlsCertificateChanges, WhereNothingWasSetWhatCouldBeUndoneStillCan) {
  ASSERT_FALSE(change("new").failure);
  handler.takesSettings = false;
  handler.keyFile = "/private/etc/former.pem";
  ASSERT_TRUE(change("newer").failure);
  platform.journal.tidyUp();
  EXPECT_EQ(platform.journal.lastChange().state, LastChange::State::undoable);
}

TEST_F(TlsCertificateChanges, TheFormerFileIsBackWithItsOwnModeWhenTheServiceDoesNotStart) {
  platform.root.write(kTlsCertificateFile, "old");
  platform.root.setMode(kTlsCertificateFile, 0600);
  handler.startsLeft = 0;
  ASSERT_TRUE(change("new").failure);
  EXPECT_EQ(content(), "old");
  EXPECT_EQ(platform.root.mode(kTlsCertificateFile), 0600U);
}

TEST_F(TlsCertificateChanges, WhereTheWayBackIsBlockedThatIsTold) {
  platform.root.write(kTlsCertificateFile, "old");
  handler.startsLeft = 0;
  bool back = false;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call& /*call*/) {
    if (!handler.did.empty() && handler.did.back() == "restart" && !back) {
      back = true;
      platform.files.failAll("rename", EIO);
    }
  };
  const auto outcome = change("new");
  ASSERT_TRUE(outcome.failure);
  EXPECT_TRUE(outcome.changed);
  EXPECT_THAT(outcome.failure->sentence, HasSubstr("The former file could not be put back: "));
  EXPECT_THAT(outcome.failure->sentence, HasSubstr(kBackup));
  EXPECT_EQ(platform.root.read(kBackup), "old");
}

}  // namespace
}  // namespace tessard
