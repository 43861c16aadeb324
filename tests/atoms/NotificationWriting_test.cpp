#include "tests/atoms/NotificationFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kFile = "/Library/Preferences/com.velto.Beaconry.plist";

class NotificationWriting : public NotificationTest {
 protected:
  void SetUp() override { store(complete()); }
};

TEST_F(NotificationWriting, OnlyTheWritableKeysAreTakenOver) {
  EXPECT_TRUE(write({{"password", "x"}, {"verbose", 1}}));
  EXPECT_EQ(errorCode, 0);
  EXPECT_EQ(stored(), with(complete(), {{"verbose", 1}}));
  EXPECT_FALSE(stored().contains("password"));
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(NotificationWriting, EveryWritableKeyIsStoredAsItCame) {
  const Dictionary wish{{"hide-nodes", true},
                        {"backend", "memory"},
                        {"dbuser", "u"},
                        {"rhost", "127.0.0.2"},
                        {"secret", "s"},
                        {"clusterNodes", Array{"a", "b"}},
                        {"clusterHostname", "c"},
                        {"jid", "j"},
                        {"domain", "d"},
                        {"verbose", "yes"},
                        {"connectAsClient", true},
                        {"korvbridgePort", "99"},
                        {"korvbridgeEnabled", true},
                        {"dbname", "n"},
                        {"rport", 7},
                        {"privilegedUsers", Array{"p"}},
                        {"dbpass", "w"},
                        {"connectToCluster", true}};
  EXPECT_TRUE(write(wish));
  Dictionary expected = complete();
  expected.updateWithDictionary(wish);
  EXPECT_EQ(stored(), expected);
}

TEST_F(NotificationWriting, OtherKeysAreLeftOutWithoutAWord) {
  EXPECT_TRUE(write({{"enableHTTPS", true}, {"authLevel", "STANDARD"}, {"configuredServices", Array{}}}));
  EXPECT_EQ(stored(), complete());
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(NotificationWriting, AnAbsentValueIsSkippedAndTold) {
  SettingsDictionary settings;
  atom->writeValue_forKey_inSettings(nullptr, "verbose", settings);
  EXPECT_TRUE(settings.empty());
  EXPECT_TRUE(debugged("Got empty value for key 'verbose', skipping"));
}

TEST_F(NotificationWriting, TheFileGetsTheServiceAccountAndNoGroupOfItsOwn) {
  write({{"verbose", 1}});
  const auto asked = ownershipsAsked("createFile", kFile + ".tmp");
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(asked[0].owner, 84U);
  EXPECT_EQ(asked[0].group, std::nullopt);
  EXPECT_EQ(asked[0].permissions, 0660U);
  EXPECT_EQ(platform.root.mode(kFile), 0660U);
}

TEST_F(NotificationWriting, AnIncompleteFileIsCompletedAndChanged) {
  store({{"domain", "own.example.com"}});
  EXPECT_TRUE(write({{"verbose", 1}}));
  EXPECT_EQ(stored(), with(complete(), {{"secret", "router-secret"}, {"verbose", 1}}));
}

TEST_F(NotificationWriting, WithoutSettingsTheAnswerIsNoAndTheFileIsOnlyCompleted) {
  platform.root.remove(kFile);
  errorCode = 4711;
  EXPECT_FALSE(atom->writeServiceConfiguration_error(nullptr, errorCode));
  EXPECT_EQ(errorCode, 0);
  EXPECT_EQ(stored().size(), complete().size());
}

TEST_F(NotificationWriting, WithoutADomainNothingIsWrittenAndThatIsTold) {
  platform.root.remove(kFile);
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_TRUE(write({{"verbose", 1}}));
  EXPECT_FALSE(platform.root.exists(kFile));
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("the notification settings are not known and were not written"));
}

TEST_F(NotificationWriting, SettingsThatCannotBeReadFailTheChangesThatTheyBelongTo) {
  platform.files.failPath("readFile", kFile, EIO);
  platform.journal.startRequest();
  platform.journal.begin();
  EXPECT_TRUE(write({{"verbose", 1}}));
  EXPECT_FALSE(platform.journal.end());
  EXPECT_THAT(platform.log.messages(kLogError), testing::Contains(HasSubstr("Input/output error")));
  EXPECT_EQ(stored(), complete());
}

TEST_F(NotificationWriting, AFailedWriteIsAnErrorLineAndTheOldFileStays) {
  platform.files.fillDisk();
  EXPECT_TRUE(write({{"verbose", 1}}));
  EXPECT_EQ(errorCode, 0);
  EXPECT_EQ(stored(), complete());
  EXPECT_THAT(platform.log.messages(kLogError), ElementsAre("notification settings were not saved: \"" +
                                                            kFile + "\" : No space left on device"));
}

TEST_F(NotificationWriting, AttributesThatCannotBeSetAreNoFailureOfAWrite) {
  platform.files.failAll("setOwnership", EPERM);
  EXPECT_TRUE(write({{"verbose", 1}}));
  EXPECT_EQ(*stored().find("verbose"), Value(1));
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(NotificationWriting, TheFirstOfTheCommaSeparatedHostsBecomesTheDomain) {
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", "one.example.com,two.example.com"},
                     {"hosts", Array{"three.example.com"}}}));
  EXPECT_EQ(stored(), with(complete(), {{"domain", "one.example.com"}, {"secret", "router-secret"}}));
}

TEST_F(NotificationWriting, TheFirstOfTheHostsBecomesTheDomain) {
  EXPECT_TRUE(write({{"hosts", Array{"three.example.com", "four.example.com"}}}));
  EXPECT_EQ(*stored().find("domain"), Value("three.example.com"));
}

TEST_F(NotificationWriting, AnEmptyListOfHostsChangesNoDomain) {
  EXPECT_TRUE(write({{"hosts", Array{}}, {"verbose", 1}}));
  EXPECT_EQ(stored(), with(complete(), {{"verbose", 1}}));
  EXPECT_FALSE(debugged("configuring config file for host=\"\""));
}

TEST_F(NotificationWriting, AFirstHostThatIsNoTextChangesNoDomain) {
  EXPECT_TRUE(write({{"hosts", Array{Array{}}}}));
  EXPECT_EQ(stored(), complete());
}

TEST_F(NotificationWriting, ADomainThatIsWrittenWinsOverTheHosts) {
  EXPECT_TRUE(write({{"hosts", Array{"three.example.com"}}, {"domain", "wanted.example.com"}}));
  EXPECT_EQ(*stored().find("domain"), Value("wanted.example.com"));
}

TEST_F(NotificationWriting, AHostWithoutASettingsFileIsTakenFromTheDomainList) {
  platform.root.remove(kFile);
  EXPECT_TRUE(write({{"hosts", Array{"three.example.com"}}}));
  EXPECT_TRUE(debugged("Unable to find config file for Beaconry, cannot udpate"));
  EXPECT_EQ(*stored().find("domain"), Value("served.example.com"));
}

// --- A new host ---

using NotificationHost = NotificationWriting;

TEST_F(NotificationHost, IsWrittenWithTheRoutersSecretAndNothingElse) {
  store({{"domain", "old.example.com"}, {"own", 1}});
  EXPECT_TRUE(atom->updateConfigFile("new.example.com"));
  EXPECT_EQ(stored(), (Dictionary{{"domain", "new.example.com"}, {"own", 1}, {"secret", "router-secret"}}));
  EXPECT_TRUE(debugged("configuring config file for host=\"new.example.com\""));
  EXPECT_THAT(platform.log.messages(kLogInfo),
              ElementsAre("Notification config file successfully modified."));
  EXPECT_EQ(platform.log.lines().back(),
            "tessard_notification[I]: Notification config file successfully modified.");
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(NotificationHost, GivesTheFileTheServiceAccountAndGroupZero) {
  atom->updateConfigFile("new.example.com");
  for (const auto& asked :
       {ownershipsAsked("createFile", kFile + ".tmp"), ownershipsAsked("setOwnership", kFile)}) {
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].owner, 84U);
    EXPECT_EQ(asked[0].group, 0U);
    EXPECT_EQ(asked[0].permissions, 0660U);
  }
}

TEST_F(NotificationHost, ThatIsAbsentDoesNothing) {
  EXPECT_FALSE(atom->updateConfigFile(std::nullopt));
  EXPECT_THAT(platform.files.calls(), IsEmpty());
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(NotificationHost, WithoutASettingsFileIsOnlyADebugLine) {
  platform.root.remove(kFile);
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_THAT(platform.log.messages(),
              ElementsAre(RecordingLog::Message{kLogDebug,
                                                "Unable to find config file for Beaconry, cannot udpate"}));
  EXPECT_FALSE(platform.root.exists(kFile));
}

TEST_F(NotificationHost, WithoutARouterSecretChangesNothing) {
  writeRouter("");
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_EQ(stored(), complete());
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("Beaconry data init failed: could not get router config data"));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationHost, ThatCannotBeWrittenIsToldWithItsReasonAndLeavesTheFile) {
  platform.files.fillDisk();
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_EQ(stored(), complete());
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre(HasSubstr("No space left on device"),
                          "Beaconry config file modification failed! reason: Beaconry config modification "
                          "error"));
  EXPECT_THAT(platform.log.messages(kLogWarning),
              ElementsAre("Beaconry may not be reachable from chat clients due to error."));
  EXPECT_THAT(platform.log.messages(kLogInfo), IsEmpty());
}

TEST_F(NotificationHost, IsNotForgottenWhereTheSettingsFileCannotBeLookedAt) {
  platform.files.failPath("attributes", kFile, EIO);
  platform.journal.startRequest();
  platform.journal.begin();
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_FALSE(platform.journal.end());
  EXPECT_THAT(platform.log.messages(kLogError), testing::Contains("notification settings were not saved: \"" +
                                                                  kFile + "\" : Input/output error"));
}

TEST_F(NotificationHost, WhoseAttributesCannotBeSetIsPutBackWithTheChangesThatItBelongsTo) {
  platform.files.failAll("setOwnership", EIO);
  platform.journal.startRequest();
  platform.journal.begin();
  EXPECT_TRUE(atom->updateConfigFile("new.example.com"));
  EXPECT_FALSE(platform.journal.end());
  EXPECT_EQ(stored(), complete());
}

TEST_F(NotificationHost, DoesNotReplaceAFileThatCannotBeRead) {
  platform.root.write(kFile, "rubbish");
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_EQ(platform.root.read(kFile), "rubbish");
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre(HasSubstr(kFile), StartsWith("Beaconry config file modification failed!")));
}

TEST_F(NotificationHost, TellsAttributesThatCannotBeSetAndIsWrittenAllTheSame) {
  platform.files.failAll("setOwnership", EPERM);
  EXPECT_TRUE(atom->updateConfigFile("new.example.com"));
  EXPECT_EQ(*stored().find("domain"), Value("new.example.com"));
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("setting permissions of config failed: 'Operation not permitted'"));
  EXPECT_THAT(platform.log.messages(kLogInfo), IsEmpty());
}

TEST_F(NotificationHost, AReasonOfFailureIsAnErrorAndAWarning) {
  atom->logConfigCreationError("because");
  EXPECT_THAT(
      platform.log.lines(),
      ElementsAre("tessard_notification[E]: Beaconry config file modification failed! reason: because",
                  "tessard_notification[W]: Beaconry may not be reachable from chat clients due to "
                  "error."));
}

// --- The lock ---

TEST_F(NotificationWriting, ThereIsNeitherLockNorCacheUnlessSomebodySetsThem) {
  EXPECT_EQ(atom->settingsDictLock(), nullptr);
  EXPECT_FALSE(atom->hostCache());
  write({{"hosts", Array{"three.example.com"}}});
  atom->readServiceConfiguration();
  EXPECT_EQ(atom->settingsDictLock(), nullptr);
  EXPECT_FALSE(atom->hostCache());
}

TEST_F(NotificationWriting, TearingDownClearsLockAndCache) {
  atom->setSettingsDictLock(std::make_unique<std::mutex>());
  atom->setHostCache(Dictionary{{"a", 1}});
  atom->dealloc();
  EXPECT_EQ(atom->settingsDictLock(), nullptr);
  EXPECT_FALSE(atom->hostCache());
}

TEST_F(NotificationWriting, ALockIsHeldWhileTheFileIsRewrittenAndFreeAfterwardsOnEveryWayOut) {
  atom->setSettingsDictLock(std::make_unique<std::mutex>());
  std::mutex& lock = *atom->settingsDictLock();
  const auto isFree = [&] {
    const bool taken = lock.try_lock();
    if (taken) lock.unlock();
    return taken;
  };
  int held = 0;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call& call) {
    if (call.operation != "exchange") return;
    ++held;
    EXPECT_FALSE(isFree());
  };
  EXPECT_TRUE(write({{"hosts", Array{"three.example.com"}}, {"verbose", 1}}));
  EXPECT_EQ(held, 2);
  EXPECT_TRUE(isFree());
  EXPECT_FALSE(atom->writeServiceConfiguration_error(nullptr, errorCode));
  EXPECT_TRUE(isFree());
  EXPECT_TRUE(atom->readServiceConfiguration());
  EXPECT_TRUE(isFree());
  platform.files.fillDisk();
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_TRUE(isFree());
  platform.files.heal();
  writeRouter("");
  EXPECT_FALSE(atom->updateConfigFile("new.example.com"));
  EXPECT_TRUE(isFree());
}

}  // namespace
}  // namespace tessard
