#include <cerrno>

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kTemporary = kSm + ".tmp";
const std::string kBackup = kSm + ".bak";

/// A component with an unsaved change.
struct ChangedComponent : OneComponent {
  ChangedComponent() : OneComponent("<sm><l><a>1</a></l></sm>") {
    component->setStringValue_forPath_nodeState("2", "sm.l.a", kNodeLive);
    platform.log.clear();
    platform.files.clearCalls();
  }
};

TEST(LoadingAComponent, IsLoggedForDebugging) {
  TestPlatform platform;
  platform.root.write(kSm, "<sm/>");
  const auto sm = Component::componentConfigurationForName_andPath(platform, "sm", kSm);
  EXPECT_THAT(platform.log.messages(),
              ElementsAre(Message{kLogDebug, "componentConfigurationForName: sm, " + kSm},
                          Message{kLogDebug, "loadDocument: sm at path: " + kSm},
                          Message{kLogDebug, "Document loaded: sm.xml"}));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST(LoadingAComponent, AMalformedFileIsReportedAndLeavesNoDocument) {
  TestPlatform platform;
  platform.root.write(kSm, "<sm>");
  const int code = XmlDocument::parse("<sm>").error().code();
  const auto sm = Component::componentConfigurationForName_andPath(platform, "sm", kSm);
  EXPECT_FALSE(sm->configXMLDocument());
  EXPECT_EQ(sm->loadTime(), platform.clock.time);
  const auto lines = platform.log.lines();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0], "tessard_notification[E]: Failed to load component configuration sm.xml (error " +
                          std::to_string(code) + ")");
  EXPECT_EQ(lines[1], "tessard_notification[E]: Load failure configuration file: " + kSm);
  EXPECT_TRUE(lines[2].starts_with("tessard_notification[W]: Reason of the load failure: "));
}

TEST(LoadingAComponent, AFileThatCannotBeReadIsReportedWithItsErrorNumber) {
  TestPlatform platform;
  platform.root.write(kSm, "<sm/>");
  platform.files.failAll("readFile", EACCES);
  const auto sm = Component::componentConfigurationForName_andPath(platform, "sm", kSm);
  EXPECT_FALSE(sm->configXMLDocument());
  EXPECT_TRUE(platform.log.has(kLogError, "Failed to load component configuration sm.xml (error 13)"));
}

TEST(LoadingAComponent, AFileBeyondTheLimitIsRefused) {
  TestPlatform platform;
  platform.root.write(kSm, "<sm>" + std::string(Component::kMaximumFileSize, ' ') + "</sm>");
  const auto sm = Component::componentConfigurationForName_andPath(platform, "sm", kSm);
  EXPECT_FALSE(sm->configXMLDocument());
  EXPECT_TRUE(platform.log.has(kLogError, "Failed to load component configuration sm.xml (error 27)"));
}

TEST(LoadingAComponent, ADocumentTypeDeclarationIsRefused) {
  OneComponent sm("<!DOCTYPE sm [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><sm>&e;</sm>");
  EXPECT_FALSE(sm->configXMLDocument());
}

TEST(LoadingAComponent, AHeldDocumentThatNobodyChangedIsNotReadAgain) {
  OneComponent sm("<sm><l><a>1</a></l></sm>");
  sm->setStringValue_forPath_nodeState("edited", "sm.l.a", kNodeLive);
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "edited");
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.files.calls("readFile"), IsEmpty());
  EXPECT_THAT(sm.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "loadDocument: sm at path: " + kSm}));
}

TEST(LoadingAComponent, AFileModifiedAtExactlyTheLoadTimeCountsAsUnchanged) {
  OneComponent sm("<sm><id>old</id></sm>");
  sm.platform.root.write(kSm, "<sm><id>new</id></sm>");
  sm.platform.root.setModified(kSm, kLongAgo);
  EXPECT_FALSE(sm->documentChangedSinceLastLoad());
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.id"), "old");
}

TEST(LoadingAComponent, AFileThatIsLaterByOneNanosecondIsReadAgainAndUnsavedChangesAreLost) {
  OneComponent sm("<sm><id>old</id></sm>");
  sm->setStringValue_forPath_nodeState("edited", "sm.id", kNodeLive);
  sm.platform.root.write(kSm, "<sm><id>new</id></sm>");
  sm.platform.root.setModified(kSm, {kLongAgo.seconds, 1});
  sm.platform.clock.time = {2000, 5};
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.id"), "new");
  EXPECT_FALSE(sm->configDirty());
  EXPECT_EQ(sm->loadTime(), (FileTime{2000, 5}));
  EXPECT_THAT(sm.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "loadDocument: sm at path: " + kSm},
                          Message{kLogInfo, "External configuration change detected, re-loading: sm.xml"},
                          Message{kLogError, "changes of \"" + kSm + "\" that were not saved are given up: " +
                                                 changedMeanwhile().description()},
                          Message{kLogDebug, "Document loaded: sm.xml"}));
  EXPECT_THAT(
      sm.platform.log.lines(),
      testing::Contains("tessard_notification[I]: External configuration change detected, re-loading: "
                        "sm.xml"));
}

TEST(LoadingAComponent, AnEarlierModificationTimeCountsAsUnchanged) {
  OneComponent sm("<sm/>");
  sm.platform.root.setModified(kSm, {kLongAgo.seconds - 1, 0});
  EXPECT_FALSE(sm->documentChangedSinceLastLoad());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(LoadingAComponent, TheLoadTimeIsTakenBeforeTheFileIsOpened) {
  TestPlatform platform;
  platform.root.write(kSm, "<sm><id>old</id></sm>");
  platform.clock.time = {5000, 0};
  bool written = false;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call& call) {
    if (call.operation == "readFile" && !written) platform.clock.time = {5001, 0};
  };
  const auto sm = Component::componentConfigurationForName_andPath(platform, "sm", kSm);
  EXPECT_EQ(sm->loadTime(), (FileTime{5000, 0}));
  platform.root.setModified(kSm, {5000, 500});
  EXPECT_TRUE(sm->documentChangedSinceLastLoad());
}

TEST(LoadingAComponent, AFileDatedATickAheadOfTheClockIsNotNewerThanItsLoadAndWhatIsEditedStays) {
  for (const auto& [clock, changed] :
       {std::pair(FileTime{5000, 990'000'000}, false), std::pair(FileTime{5000, 989'000'000}, true),
        std::pair(FileTime{4990, 999'999'999}, true)}) {
    TestPlatform platform;
    platform.root.write(kSm, "<sm><id>old</id></sm>");
    platform.root.setModified(kSm, {5000, 999'999'999});
    platform.clock.time = clock;
    const auto sm = Component::componentConfigurationForName_andPath(platform, "sm", kSm);
    sm->setStringValue_forPath_nodeState("edited", "sm.id", kNodeLive);
    EXPECT_TRUE(sm->loadDocument());
    EXPECT_EQ(sm->getNodeValueForPath("sm.id"), changed ? "old" : "edited") << clock.nanoseconds;
  }
}

TEST(LoadingAComponent, AnExternalChangeThatIsMalformedLeavesNoDocument) {
  OneComponent sm("<sm/>");
  sm.platform.root.write(kSm, "<sm");
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_FALSE(sm->configXMLDocument());
  EXPECT_TRUE(sm->documentChangedSinceLastLoad());
  sm.platform.root.write(kSm, "<sm><id>mended</id></sm>");
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.id"), "mended");
}

TEST(LoadingAComponent, AVanishedFileLeavesTheDocumentUntouched) {
  OneComponent sm("<sm><id>kept</id></sm>");
  sm.platform.root.remove(kSm);
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.id"), "kept");
  EXPECT_TRUE(
      sm.platform.log.has(kLogError, "failed to load: configuration file not found: \"" + kSm + "\""));
  EXPECT_FALSE(sm->documentFileExists());
}

TEST(LoadingAComponent, AFileWhoseTimeCannotBeReadCountsAsUnchanged) {
  OneComponent sm("<sm/>");
  sm.platform.files.failAll("attributes", EIO);
  EXPECT_FALSE(sm->documentChangedSinceLastLoad());
}

TEST(LoadingAComponent, WithoutADocumentTheFileCountsAsChangedWithoutAMessage) {
  OneComponent sm("not XML");
  EXPECT_TRUE(sm->documentChangedSinceLastLoad());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, ACleanOneWritesNothing) {
  OneComponent sm("<sm/>");
  EXPECT_TRUE(sm->saveDocument());
  EXPECT_THAT(sm.platform.files.calls(), IsEmpty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, TheNewFileTakesTheNameAndTheOldOneStaysAsBackup) {
  ChangedComponent sm;
  const std::string before = sm.file();
  EXPECT_TRUE(sm->saveDocument());
  EXPECT_EQ(outlineOfText(sm.file()), "<sm><l><a>2</a></l></sm>");
  EXPECT_EQ(sm.platform.root.read(kBackup), before);
  EXPECT_THAT(sm.platform.root.list(kDirectory), ElementsAre("sm.xml", "sm.xml.bak"));
  EXPECT_FALSE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "sm configuration saved: " + kSm + "."}));
}

TEST(SavingAComponent, TheNewFileBelongsToTheServiceAccountAndIsForItAlone) {
  ChangedComponent sm;
  sm.platform.root.setMode(kSm, 0644);
  ASSERT_TRUE(sm->saveDocument());
  const auto file = sm.platform.posixFiles.attributes(kSm);
  ASSERT_TRUE(file);
  EXPECT_EQ(file.value().owner, 84U);
  EXPECT_EQ(file.value().group, 0U);
  EXPECT_EQ(file.value().permissions, 0600U);
  EXPECT_EQ(sm.platform.root.mode(kBackup), 0644U);
}

TEST(SavingAComponent, OwnerAndPermissionsAreThereBeforeTheFileTakesTheName) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  const auto made = sm.platform.files.calls("createFile");
  ASSERT_THAT(made, SizeIs(1));
  EXPECT_EQ(made[0].path, kTemporary);
  EXPECT_EQ(made[0].ownership.owner, kServiceAccountOwner);
  EXPECT_EQ(made[0].ownership.group, kConfigurationFileGroup);
  EXPECT_EQ(made[0].ownership.permissions, kConfigurationFilePermissions);
  const auto changes = sm.platform.files.changes();
  EXPECT_EQ(changes.at(0), "createFile " + kTemporary);
  EXPECT_EQ(changes.at(1), "flush " + kTemporary);
  EXPECT_EQ(changes.at(2), "exchange " + kTemporary + " " + kSm);
}

TEST(SavingAComponent, AnOlderBackupIsReplaced) {
  ChangedComponent sm;
  const std::string before = sm.file();
  sm.platform.root.write(kBackup, "older");
  EXPECT_TRUE(sm->saveDocument());
  EXPECT_EQ(sm.platform.root.read(kBackup), before);
}

TEST(SavingAComponent, ASecondSaveWritesNothing) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  sm.platform.files.clearCalls();
  EXPECT_TRUE(sm->saveDocument());
  EXPECT_THAT(sm.platform.files.calls(), IsEmpty());
}

TEST(SavingAComponent, WithoutADocumentItFailsWithoutAMessage) {
  ChangedComponent sm;
  sm->setConfigXMLDocument(std::nullopt);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_THAT(sm.platform.files.calls(), IsEmpty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, ATreeThatCannotBeWrittenAsXmlFailsAndLeavesTheFile) {
  ChangedComponent sm;
  const std::string before = sm.file();
  sm->getRootNode().append(XmlNode::makeElement("not a name", "x"));
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(sm.file(), before);
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.files.calls(), IsEmpty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, AFailedTemporaryWriteLeavesFileAndBackupUntouched) {
  ChangedComponent sm;
  const std::string before = sm.file();
  sm.platform.root.write(kBackup, "older");
  sm.platform.files.fillDisk();
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(sm.file(), before);
  EXPECT_EQ(sm.platform.root.read(kBackup), "older");
  EXPECT_FALSE(sm.platform.root.exists(kTemporary));
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(
      sm.platform.log.lines(),
      ElementsAre("tessard_notification[W]: Reason of the save failure: No space left on device",
                  "tessard_notification[E]: error saving configuration file: \"" + kTemporary + "\""));
}

TEST(SavingAComponent, AFailedExchangeLeavesTheFileAndKeepsTheNewContentInTheTemporary) {
  ChangedComponent sm;
  const std::string before = sm.file();
  sm.platform.files.failAll("exchange", EXDEV);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(sm.file(), before);
  EXPECT_EQ(outlineOfText(sm.platform.root.read(kTemporary)), "<sm><l><a>2</a></l></sm>");
  EXPECT_FALSE(sm.platform.root.exists(kBackup));
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, WhenTheBackupCannotBeKeptTheOldFileComesBack) {
  ChangedComponent sm;
  const std::string before = sm.file();
  sm.platform.root.write(kBackup, "older");
  sm.platform.files.failAll("rename", EIO);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(sm.file(), before);
  EXPECT_EQ(sm.platform.root.read(kBackup), "older");
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, WhenEvenTheOldFileCannotComeBackAnErrorTellsWhereItIs) {
  ChangedComponent sm;
  const std::string before = sm.file();
  sm.platform.files.failAll("rename", EIO);
  sm.platform.files.failNth("exchange", 2, EIO);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(outlineOfText(sm.file()), "<sm><l><a>2</a></l></sm>");
  EXPECT_EQ(sm.platform.root.read(kTemporary), before);
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.lines(),
              ElementsAre("tessard_notification[E]: previous version could not be kept as backup, it is left "
                          "in \"" +
                          kTemporary + "\""));
}

TEST(SavingAComponent, WithoutAFileUnderTheRealNameTheNewContentStaysInTheTemporary) {
  ChangedComponent sm;
  sm.platform.root.remove(kSm);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_THAT(sm.platform.root.list(kDirectory), ElementsAre("sm.xml.tmp"));
  EXPECT_EQ(outlineOfText(sm.platform.root.read(kTemporary)), "<sm><l><a>2</a></l></sm>");
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

TEST(SavingAComponent, WhatSomebodyElseHasWrittenMeanwhileIsKeptAndReported) {
  ChangedComponent sm;
  sm.platform.root.write(kSm, "<sm>by hand</sm>");
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(sm.file(), "<sm>by hand</sm>");
  EXPECT_THAT(sm.platform.root.list(kDirectory), ElementsAre("sm.xml"));
  EXPECT_TRUE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.messages(kLogError),
              ElementsAre("\"" + kSm + "\" is not saved: " + changedMeanwhile().description()));
}

TEST(SavingAComponent, WhatSomebodyElseHasWrittenUponTheLastSaveIsKept) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  sm.platform.root.write(kSm, "<sm>by hand</sm>");
  sm->setStringValue_forPath_nodeState("3", "sm.l.a", kNodeLive);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_EQ(sm.file(), "<sm>by hand</sm>");
}

TEST(SavingAComponent, AFailureCanBeMadeGoodByTheNextSave) {
  ChangedComponent sm;
  sm.platform.files.failNth("exchange", 1, EIO);
  EXPECT_FALSE(sm->saveDocument());
  EXPECT_TRUE(sm->saveDocument());
  EXPECT_EQ(outlineOfText(sm.file()), "<sm><l><a>2</a></l></sm>");
  EXPECT_THAT(sm.platform.root.list(kDirectory), ElementsAre("sm.xml", "sm.xml.bak"));
}

TEST(SavingAComponent, DoesNotSetTheLoadTime) {
  ChangedComponent sm;
  sm.platform.clock.time = {5000, 0};
  ASSERT_TRUE(sm->saveDocument());
  EXPECT_EQ(sm->loadTime(), kLongAgo);
}

TEST(ReloadingAfterASave, IsReportedAsAChangeButReadsAndParsesNothing) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  const XmlNode root = sm->getRootNode();
  sm.platform.log.clear();
  sm.platform.files.clearCalls();
  sm.platform.clock.setToMachine();
  sm.platform.clock.time.seconds += 1;
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_THAT(sm.platform.files.calls("readFile"), IsEmpty());
  EXPECT_EQ(sm->getRootNode(), root);
  EXPECT_EQ(sm->loadTime(), sm.platform.clock.time);
  EXPECT_THAT(sm.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "loadDocument: sm at path: " + kSm},
                          Message{kLogInfo, "External configuration change detected, re-loading: sm.xml"},
                          Message{kLogDebug, "Document loaded: sm.xml"}));
}

TEST(ReloadingAfterASave, ReadsTheFileAsLongAsAnEditMightBearTheSameTime) {
  constexpr std::int64_t kTick = 10'000'000;
  for (const std::int64_t nanoseconds : {std::int64_t{0}, kTick, kTick + 1}) {
    ChangedComponent sm;
    ASSERT_TRUE(sm->saveDocument());
    const FileTime made = sm.platform.files.attributes(kSm).value().modified;
    sm.platform.clock.time = {made.seconds, made.nanoseconds + nanoseconds};
    sm.platform.files.clearCalls();
    ASSERT_TRUE(sm->loadDocument());
    EXPECT_THAT(sm.platform.files.calls("readFile"), SizeIs(nanoseconds > kTick ? 0 : 1)) << nanoseconds;
  }
}

TEST(ReloadingAfterASave, ReadsAFileOfTheSameLengthThatWasEditedInItsPlace) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  std::string edited = sm.file();
  edited[edited.find('2')] = '7';
  sm.platform.root.write(kSm, edited);
  sm.platform.root.setModified(kSm, {sm.platform.root.modified(kSm).seconds + 1, 0});
  sm.platform.clock.setToMachine();
  sm.platform.clock.time.seconds += 60;
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "7");
}

TEST(ReloadingAfterASave, ReadsAFileThatSomebodyElseHasReplacedSince) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  sm.platform.root.write(kSm, "<sm><l><a>theirs</a></l></sm>");
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "theirs");
}

TEST(ReloadingAfterASave, ReadsAFileThatOnlyHasAnotherTime) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  sm.platform.root.setModified(kSm, {kLongAgo.seconds + 1, 0});
  sm.platform.files.clearCalls();
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_THAT(sm.platform.files.calls("readFile"), SizeIs(1));
}

TEST(ReloadingAfterASave, DiscardsChangesThatWereMadeSince) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  sm->setStringValue_forPath_nodeState("3", "sm.l.a", kNodeLive);
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "2");
  EXPECT_FALSE(sm->configDirty());
}

TEST(ReloadingAfterASave, DiscardsANodeThatWasReplacedWithoutMarkingTheTree) {
  ChangedComponent sm;
  ASSERT_TRUE(sm->saveDocument());
  int state = kNodeNotFound;
  sm->replaceNode_withNode(sm->getNodeForPath_nodeState("sm.l.a", state), XmlNode());
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "2");
}

TEST(ReloadingAfterASave, ReadsTheFileWhenTheSavedOneCouldNotBeLookedAt) {
  ChangedComponent sm;
  // Once it has its name.
  sm.platform.files.beforeCall = [&](const FaultyFileSystem::Call& call) {
    if (call.operation == "rename") sm.platform.files.failAll("attributes", EIO);
  };
  ASSERT_TRUE(sm->saveDocument());
  sm.platform.files.heal();
  sm.platform.files.clearCalls();
  EXPECT_TRUE(sm->loadDocument());
  EXPECT_THAT(sm.platform.files.calls("readFile"), SizeIs(1));
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "2");
}

}  // namespace
}  // namespace tessard
