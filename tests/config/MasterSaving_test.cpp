#include <cerrno>

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A loaded master with two components; loading has marked it as changed.
struct LoadedMaster : OneMaster {
  LoadedMaster() : OneMaster("sm @sm.xml\n# after\nrouter @router.xml\n\nnonsense\n# last\n") {
    writeXml("sm.xml", "<sm><l><a>1</a></l></sm>");
    writeXml("router.xml", "<router><l><a>1</a></l></router>");
    platform.clock.time = kFarAhead;
    if (!master->loadAllConfigurations()) throw std::runtime_error("cannot load");
    platform.log.clear();
    platform.files.clearCalls();
  }
  std::string cfg() const { return platform.root.read(kCfg); }
};

const std::string kWritten =
    "# after\n# last\n\n"
    "sm             /private/etc/jabberd_notification/sm.xml\n"
    "router         /private/etc/jabberd_notification/router.xml\n";

TEST(TextOfTheMasterFile, CommentsComeFirstThenAnEmptyLineThenNamesInFifteenColumns) {
  LoadedMaster master;
  std::string text = ">";
  master->copyCachedConfigurationCommentsToString(text);
  EXPECT_EQ(text, "># after\n# last\n\n");
  text = ">";
  master->copyCachedConfigurationPathsToString(text);
  EXPECT_EQ(text, ">" + kWritten.substr(kWritten.find("sm ")));
}

TEST(TextOfTheMasterFile, TheEmptyLineIsThereAlsoWithoutComments) {
  OneMaster master("");
  std::string text;
  master->copyCachedConfigurationCommentsToString(text);
  EXPECT_EQ(text, "\n");
  master->copyCachedConfigurationPathsToString(text);
  EXPECT_EQ(text, "\n");
}

TEST(TextOfTheMasterFile, ANameOfFifteenCharactersFillsItsColumnsAndALongerOneIsLeftOut) {
  OneMaster master("");
  Master::ComponentLists components;
  for (const char* name : {"fifteen-letters", "sixteen--letters"}) {
    components.listFor(name).push_back(
        Component::componentConfigurationForName_andPath(master.platform, "sm", kSm));
  }
  master->setLoadedComponents(std::move(components));
  std::string text;
  master->copyCachedConfigurationPathsToString(text);
  EXPECT_EQ(text, "fifteen-letters" + kSm + "\n");
  EXPECT_TRUE(
      master.platform.log.has(kLogError, "component name too long to be listed: \"sixteen--letters\""));
}

TEST(SavingTheMasterFile, WritesCommentsAndComponentLinesAfterAMereLoad) {
  LoadedMaster master;
  const std::string before = master.cfg();
  master.platform.clock.time = {5000, 7};
  EXPECT_TRUE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), kWritten);
  EXPECT_EQ(master.platform.root.read(kCfg + ".bak"), before);
  EXPECT_FALSE(master.platform.root.exists(kCfg + ".tmp"));
  EXPECT_FALSE(master->configDirty());
  EXPECT_EQ(master->loadTime(), (FileTime{5000, 7}));
  EXPECT_THAT(master.platform.log.messages(), ElementsAre(Message{kLogDebug, "jabberd.cfg saved."}));
}

TEST(SavingTheMasterFile, ASecondSaveWritesNothing) {
  LoadedMaster master;
  ASSERT_TRUE(master->saveMasterConfiguration());
  master.platform.files.clearCalls();
  EXPECT_TRUE(master->saveMasterConfiguration());
  EXPECT_THAT(master.platform.files.calls(), IsEmpty());
}

TEST(SavingTheMasterFile, WhatWasWrittenReadsBackTheSame) {
  LoadedMaster master;
  ASSERT_TRUE(master->saveMasterConfiguration());
  ASSERT_TRUE(master->revertMasterConfiguration());
  ASSERT_TRUE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), kWritten);
}

TEST(SavingTheMasterFile, FileAndBackupBelongToTheServiceAccountAndAreForItAlone) {
  LoadedMaster master;
  master.platform.root.setMode(kCfg, 0644);
  ASSERT_TRUE(master->saveMasterConfiguration());
  for (const std::string& path : {kCfg, kCfg + ".bak"}) {
    const auto file = master.platform.posixFiles.attributes(path);
    ASSERT_TRUE(file);
    EXPECT_EQ(file.value().owner, 84U) << path;
    EXPECT_EQ(file.value().group, 0U) << path;
    EXPECT_EQ(file.value().permissions, 0600U) << path;
  }
}

TEST(SavingTheMasterFile, ABackupThatKeepsItsOwnerIsNoFailure) {
  LoadedMaster master;
  master.platform.files.failAll("setOwnership", EPERM);
  EXPECT_TRUE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), kWritten);
}

TEST(SavingTheMasterFile, AFailedTemporaryWriteIsReportedAndLeavesTheFile) {
  LoadedMaster master;
  const std::string before = master.cfg();
  master.platform.files.fillDisk();
  EXPECT_FALSE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), before);
  EXPECT_TRUE(master->configDirty());
  EXPECT_EQ(master->loadTime(), std::nullopt);
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[E]: error saving configuration file: \"" + kCfg +
                          ".tmp\" : " + SystemError(ENOSPC).description()));
}

TEST(SavingTheMasterFile, AFailedExchangeLeavesTheFileAndTheNewContentInTheTemporary) {
  LoadedMaster master;
  const std::string before = master.cfg();
  master.platform.files.failAll("exchange", EIO);
  EXPECT_FALSE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), before);
  EXPECT_EQ(master.platform.root.read(kCfg + ".tmp"), kWritten);
  EXPECT_TRUE(master->configDirty());
  EXPECT_THAT(master.platform.log.messages(), IsEmpty());
}

TEST(SavingTheMasterFile, WhenTheBackupCannotBeKeptTheOldFileComesBack) {
  LoadedMaster master;
  const std::string before = master.cfg();
  master.platform.files.failAll("rename", EIO);
  EXPECT_FALSE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), before);
  EXPECT_FALSE(master.platform.root.exists(kCfg + ".bak"));
  EXPECT_TRUE(master->configDirty());
  EXPECT_THAT(master.platform.log.messages(), IsEmpty());
}

TEST(SavingTheMasterFile, WhenEvenTheOldFileCannotComeBackAnErrorTellsWhereItIs) {
  LoadedMaster master;
  const std::string before = master.cfg();
  master.platform.files.failAll("rename", EIO);
  master.platform.files.failNth("exchange", 2, EIO);
  EXPECT_FALSE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), kWritten);
  EXPECT_EQ(master.platform.root.read(kCfg + ".tmp"), before);
  EXPECT_TRUE(master->configDirty());
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[E]: previous version could not be kept as backup, it is left "
                          "in \"" +
                          kCfg + ".tmp\""));
}

TEST(SavingTheMasterFile, WhatSomebodyElseHasWrittenMeanwhileIsKeptAndReported) {
  LoadedMaster master;
  master.writeCfg("# by hand\n");
  EXPECT_FALSE(master->saveMasterConfiguration());
  EXPECT_EQ(master.cfg(), "# by hand\n");
  EXPECT_FALSE(master.platform.root.exists(kCfg + ".tmp"));
  EXPECT_TRUE(master->configDirty());
  EXPECT_THAT(master.platform.log.messages(kLogError),
              ElementsAre("\"" + kCfg + "\" is not saved: " + changedMeanwhile().description()));
}

TEST(SavingTheMasterFile, WithoutAFileToReplaceItFailsAndTheContentStaysInTheTemporary) {
  LoadedMaster master;
  master.platform.root.remove(kCfg);
  EXPECT_FALSE(master->saveMasterConfiguration());
  EXPECT_FALSE(master.platform.root.exists(kCfg));
  EXPECT_EQ(master.platform.root.read(kCfg + ".tmp"), kWritten);
  EXPECT_THAT(master.platform.log.messages(), IsEmpty());
}

TEST(SavingTheMasterFile, AfterASaveTouchingTheFileRebuildsEveryComponent) {
  LoadedMaster master;
  master.followMachineClock();
  ASSERT_TRUE(master->saveMasterConfiguration());
  master->setStringValue_forPath("unsaved", "router.l.a");
  ASSERT_TRUE(master->loadAllConfigurations());
  int state = kNodeNotFound;
  EXPECT_EQ(master->getStringValueForPath_nodeState("router.l.a", state), "unsaved");
  master.platform.root.setModified(kCfg, {master->loadTime()->seconds + 1, 0});
  master.platform.log.clear();
  ASSERT_TRUE(master->loadAllConfigurations());
  EXPECT_EQ(master->getStringValueForPath_nodeState("router.l.a", state), "1");
  EXPECT_TRUE(master->configDirty());
  EXPECT_TRUE(
      master.platform.log.has(kLogDebug, "Detected master configuration changed, re-loading jabberd.cfg"));
}

TEST(SavingTheMasterFile, ItsOwnSaveIsNoChangeOfTheFile) {
  LoadedMaster master;
  master.followMachineClock();
  ASSERT_TRUE(master->saveMasterConfiguration());
  bool reread = true;
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_FALSE(reread);
}

TEST(SavingTheMasterFile, AFileDatedATickAheadOfTheClockIsStillItsOwnSave) {
  LoadedMaster master;
  const auto dateTheFile = [&](const FaultyFileSystem::Call& call) {
    if (call.operation == "setOwnership") master.platform.root.setModified(kCfg, {5000, 999'999'999});
  };
  for (const auto& [clock, changed] :
       {std::pair(FileTime{5000, 990'000'000}, false), std::pair(FileTime{5000, 989'000'000}, true),
        std::pair(FileTime{4990, 999'999'999}, true)}) {
    master->setConfigDirty(true);
    master.platform.clock.time = clock;
    master.platform.files.beforeCall = dateTheFile;
    ASSERT_TRUE(master->saveMasterConfiguration());
    master.platform.files.beforeCall = nullptr;
    bool reread = false;
    EXPECT_TRUE(master->loadMasterConfiguration(reread));
    EXPECT_EQ(reread, changed) << clock.nanoseconds;
  }
}

TEST(SavingTheMasterFile, AComponentThatCouldNotBeMadeVanishesFromTheFile) {
  OneMaster master("sm\tx @other.xml\nsm @sm.xml\n");
  ASSERT_TRUE(master->loadAllConfigurations());
  ASSERT_TRUE(master->saveMasterConfiguration());
  EXPECT_EQ(master.platform.root.read(kCfg), "\nsm             " + kSm + "\n");
}

TEST(SavingEverything, WritesTheChangedComponentsAndTheMaster) {
  LoadedMaster master;
  master->setStringValue_forPath("2", "sm.l.a");
  EXPECT_TRUE(master->saveAllConfigurations());
  EXPECT_EQ(outlineOfText(master.platform.root.read(kSm)), "<sm><l><a>2</a></l></sm>");
  EXPECT_EQ(master.cfg(), kWritten);
  EXPECT_THAT(master.platform.root.list(kDirectory),
              ElementsAre("jabberd.cfg", "jabberd.cfg.bak", "router.xml", "sm.xml", "sm.xml.bak"));
}

TEST(SavingEverything, AFailedComponentIsReportedAndTheRestIsSavedAllTheSame) {
  LoadedMaster master;
  master->setStringValue_forPath("2", "sm.l.a");
  master->setStringValue_forPath("2", "router.l.a");
  master.platform.files.failPath("createFile", "sm.xml.tmp", ENOSPC);
  EXPECT_TRUE(master->saveAllConfigurations());
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[W]: Reason of the save failure: No space left on device",
                          "tessard_notification[E]: error saving configuration file: \"" + kSm + ".tmp\"",
                          "tessard_notification[E]: error saving configuration file: \"" + kSm + "\""));
  EXPECT_EQ(outlineOfText(master.platform.root.read(kSm)), "<sm><l><a>1</a></l></sm>");
  EXPECT_EQ(outlineOfText(master.platform.root.read(inDirectory("router.xml"))),
            "<router><l><a>2</a></l></router>");
  EXPECT_EQ(master.cfg(), kWritten);
}

TEST(SavingEverything, GivesTheResultOfTheMasterFile) {
  LoadedMaster master;
  master->setStringValue_forPath("2", "sm.l.a");
  master.platform.files.failPath("createFile", "jabberd.cfg.tmp", ENOSPC);
  EXPECT_FALSE(master->saveAllConfigurations());
  EXPECT_EQ(outlineOfText(master.platform.root.read(kSm)), "<sm><l><a>2</a></l></sm>");
}

TEST(SavingEverything, TellsWhyFilesCouldNotChangeNames) {
  LoadedMaster master;
  master->setStringValue_forPath("2", "sm.l.a");
  master.platform.files.failAll("exchange", ENOSPC);
  EXPECT_FALSE(master->saveAllConfigurations());
  const std::string reason = "tessard_notification[W]: Reason of the save failure: No space left on device";
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[E]: error saving configuration file: \"" + kSm + "\"", reason,
                          reason));
}

TEST(SavingEverything, FailsTheChangesWhenAComponentCouldNotBeReadForTheMoment) {
  LoadedMaster master;
  master.platform.files.failPath("readFile", "sm.xml", EMFILE);
  ASSERT_TRUE(master->revertMasterConfiguration());
  master.platform.journal.startRequest();
  ChangeSet changes(master.platform.journal);
  EXPECT_TRUE(master->saveAllConfigurations());
  EXPECT_TRUE(master.platform.log.has(kLogError, "error saving configuration file: \"" + kSm + "\""));
  EXPECT_FALSE(changes.end());
}

TEST(SavingEverything, OnlyComponentsWhoseNameIsListedAreSaved) {
  LoadedMaster master;
  master->setStringValue_forPath("2", "sm.l.a");
  master->setLoadedConfigPaths(ComponentPaths());
  EXPECT_TRUE(master->saveAllConfigurations());
  EXPECT_EQ(outlineOfText(master.platform.root.read(kSm)), "<sm><l><a>1</a></l></sm>");
  master->setLoadedConfigPaths(std::nullopt);
  EXPECT_TRUE(master->saveAllConfigurations());
  EXPECT_EQ(outlineOfText(master.platform.root.read(kSm)), "<sm><l><a>1</a></l></sm>");
}

TEST(SavingEverything, AListedNameWithoutComponentsIsPassedOver) {
  OneMaster master("sm\tx @other.xml\nsm @sm.xml\n");
  master.writeXml("sm.xml", "<sm><l><a>1</a></l></sm>");
  ASSERT_TRUE(master->loadAllConfigurations());
  master->setStringValue_forPath("2", "sm.l.a");
  EXPECT_TRUE(master->saveAllConfigurations());
  EXPECT_EQ(outlineOfText(master.platform.root.read(kSm)), "<sm><l><a>2</a></l></sm>");
}

}  // namespace
}  // namespace tessard
