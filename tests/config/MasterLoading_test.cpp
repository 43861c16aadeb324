#include <cerrno>

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/// Debug messages of the components are left out.
std::vector<Message> aboutTheMaster(const RecordingLog& log) {
  std::vector<Message> messages;
  for (const Message& message : log.messages()) {
    const bool component = message.text.starts_with("componentConfigurationForName") ||
                           message.text.starts_with("loadDocument") ||
                           message.text.starts_with("Document loaded");
    if (!component) messages.push_back(message);
  }
  return messages;
}

TEST(MasterConfiguration, KnowsFourComponentNamesInTheirOrder) {
  EXPECT_THAT(Master::componentNames(), ElementsAre("router", "sm", "c2s", "s2s"));
  EXPECT_EQ(&Master::componentNames(), &Master::componentNames());
}

TEST(MasterConfiguration, TheDefaultPathIsThatOfTheService) {
  TestPlatform platform;
  EXPECT_EQ(Master::masterConfiguration(platform)->configPath(),
            "/private/etc/jabberd_notification/jabberd.cfg");
  EXPECT_NE(Master::masterConfiguration(platform), Master::masterConfiguration(platform));
}

TEST(MasterConfiguration, ANewOneIsEmptyAndCleanAndHasReadNothing) {
  OneMaster master("sm @sm.xml\n");
  EXPECT_EQ(master->configPath(), kCfg);
  EXPECT_FALSE(master->loadedConfigPaths());
  EXPECT_THAT(master->loadedComments(), IsEmpty());
  EXPECT_TRUE(master->loadedComponents().empty());
  EXPECT_EQ(master->loadTime(), std::nullopt);
  EXPECT_FALSE(master->configDirty());
  EXPECT_THAT(master.platform.files.calls(), IsEmpty());
}

TEST(MasterConfiguration, EveryPropertyCanBeSet) {
  OneMaster master("");
  master->setConfigPath("/other.cfg");
  ComponentPaths paths;
  paths.add("sm", "/a");
  master->setLoadedConfigPaths(paths);
  master->setLoadedComments({"# c"});
  Master::ComponentLists components;
  components.listFor("sm").emplace_back();
  master->setLoadedComponents(std::move(components));
  master->setLoadTime(FileTime{3, 4});
  master->setConfigDirty(true);
  EXPECT_EQ(master->configPath(), "/other.cfg");
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre("/a"));
  EXPECT_THAT(master->loadedComments(), ElementsAre("# c"));
  EXPECT_EQ(master->loadedComponents().find("sm")->size(), 1U);
  EXPECT_EQ(master->loadTime(), (FileTime{3, 4}));
  EXPECT_TRUE(master->configDirty());
}

TEST(ReadingTheMasterFile, GivesItsLines) {
  OneMaster master("# c\nsm @sm.xml");
  EXPECT_THAT(*master->loadConfigLinesAtPath(kCfg), ElementsAre("# c", "sm " + kSm));
}

TEST(ReadingTheMasterFile, AFailureIsLoggedWithItsNumber) {
  OneMaster master("");
  EXPECT_EQ(master->loadConfigLinesAtPath("/none"), std::nullopt);
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[E]: Failed to load jabberd.cfg (error = 2)",
                          "tessard_notification[W]: Reason of the load failure: No such file or directory"));
}

TEST(ReadingTheMasterFile, TextThatIsNotUtf8IsRefused) {
  OneMaster master("sm /\xff.xml\n");
  EXPECT_EQ(master->loadConfigLinesAtPath(kCfg), std::nullopt);
  EXPECT_TRUE(master.platform.log.has(kLogError,
                                      "Failed to load jabberd.cfg (error = " + std::to_string(EILSEQ) + ")"));
}

TEST(ReadingTheMasterFile, AFileBeyondTheLimitIsRefused) {
  OneMaster master(std::string(Master::kMaximumFileSize + 1, '\n'));
  EXPECT_EQ(master->loadConfigLinesAtPath(kCfg), std::nullopt);
  EXPECT_TRUE(master.platform.log.has(kLogError, "Failed to load jabberd.cfg (error = 27)"));
}

TEST(LoadingTheMasterFile, KeepsCommentsAndPathsInTheirOrder) {
  OneMaster master("# one\n\nsm @sm.xml\n#two\n  # none\nrouter   @router.xml\nsm @sm_b.xml\nmu @mu.xml\n");
  bool reread = false;
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_TRUE(reread);
  EXPECT_THAT(master->loadedComments(), ElementsAre("# one", "#two"));
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre(kSm, inDirectory("sm_b.xml")));
  EXPECT_THAT(master.listedPaths("router"), ElementsAre(inDirectory("router.xml")));
  EXPECT_EQ(master->loadedConfigPathsForName("mu"), nullptr);
  EXPECT_THAT(master.platform.log.messages(), IsEmpty());
  EXPECT_FALSE(master->configDirty());
}

TEST(LoadingTheMasterFile, ANameStandingAloneIsReportedAndDropped) {
  OneMaster master("sm\nrouter @router.xml\n");
  bool reread = false;
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_EQ(master->loadedConfigPathsForName("sm"), nullptr);
  EXPECT_THAT(master.listedPaths("router"), SizeIs(1));
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[E]: Found invalid jabberd.cfg entry (line ignored): \"sm\""));
}

TEST(LoadingTheMasterFile, ALineOfATabIsDroppedWithBothWarnings) {
  OneMaster master("sm\t@sm.xml\nsm @sm_b.xml\n");
  bool reread = false;
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre(inDirectory("sm_b.xml")));
  EXPECT_EQ(master.platform.log.messages(kLogWarning).size(), 2U);
}

TEST(LoadingTheMasterFile, LosesSemicolonsFurtherPathsAndDoubledPaths) {
  OneMaster master("sm @sm.xml;\nsm @a.xml @b.xml\nsm @sm.xml\n");
  ASSERT_TRUE(master->loadAllConfigurations());
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre(kSm, inDirectory("a.xml")));
  EXPECT_THAT(master.componentPaths("sm"), ElementsAre(kSm, inDirectory("a.xml")));
}

TEST(LoadingTheMasterFile, LinesThatEndInTwoCharactersAreReadAsWell) {
  OneMaster master("# c\r\nsm @sm.xml\r\n");
  bool reread = false;
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_THAT(master->loadedComments(), ElementsAre("# c"));
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre(kSm));
}

TEST(LoadingTheMasterFile, AMissingFileIsAWarningAndAFailure) {
  OneMaster master("");
  master.platform.root.remove(kCfg);
  bool reread = true;
  EXPECT_FALSE(master->loadMasterConfiguration(reread));
  EXPECT_FALSE(reread);
  EXPECT_FALSE(master->loadAllConfigurations());
  EXPECT_EQ(master.platform.log.lines().front(),
            "tessard_notification[W]: configuration file not found: \"" + kCfg + "\"");
}

TEST(LoadingTheMasterFile, AFileThatIsLoadedIsNotReadAgain) {
  OneMaster master("sm @sm.xml\n");
  bool reread = false;
  ASSERT_TRUE(master->loadMasterConfiguration(reread));
  master.writeCfg("sm @other.xml\n");
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_FALSE(reread);
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre(kSm));
}

TEST(LoadingTheMasterFile, AnUnreadableFileLeavesTheModelUnchanged) {
  OneMaster master("# c\nsm @sm.xml\n");
  ASSERT_TRUE(master->loadAllConfigurations());
  const Component* sm = master->getPrimarySMComponent();
  master->setLoadTime(FileTime{1, 0});
  master.platform.files.failPath("readFile", "jabberd.cfg", EACCES);
  EXPECT_FALSE(master->loadAllConfigurations());
  EXPECT_EQ(master->getPrimarySMComponent(), sm);
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre(kSm));
  EXPECT_THAT(master->loadedComments(), ElementsAre("# c"));
  master.platform.files.heal();
  bool reread = false;
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_TRUE(reread);
}

TEST(LoadingTheMasterFile, OnlyATimeStrictlyAfterTheLastSaveIsAChange) {
  OneMaster master("sm @sm.xml\n");
  bool reread = false;
  ASSERT_TRUE(master->loadMasterConfiguration(reread));
  master->setLoadTime(kLongAgo);
  master.platform.root.setModified(kCfg, kLongAgo);
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_FALSE(reread);
  master.platform.root.setModified(kCfg, {kLongAgo.seconds, 1});
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_TRUE(reread);
  EXPECT_THAT(
      master.platform.log.messages(),
      ElementsAre(Message{kLogDebug, "Detected master configuration changed, re-loading jabberd.cfg"}));
}

TEST(LoadingTheMasterFile, AnEditWhileChangesAreMadeGivesThemUp) {
  OneMaster master("sm @sm.xml\n");
  bool reread = false;
  ASSERT_TRUE(master->loadMasterConfiguration(reread));
  master->setLoadTime(kLongAgo);
  master.platform.journal.startRequest();
  ChangeSet changes(master.platform.journal);
  master.writeCfg("sm @sm.xml\nc2s @c2s.xml\n");
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_TRUE(reread);
  EXPECT_TRUE(master.platform.log.has(kLogError, "changes that were not saved are given up: \"" + kCfg +
                                                     "\" : " + changedMeanwhile().description()));
  EXPECT_FALSE(changes.end());
}

TEST(LoadingTheMasterFile, AFileWhoseTimeCannotBeReadCountsAsUnchanged) {
  OneMaster master("sm @sm.xml\n");
  bool reread = false;
  ASSERT_TRUE(master->loadMasterConfiguration(reread));
  master->setLoadTime(kLongAgo);
  master.platform.files.failAll("attributes", EIO);
  EXPECT_TRUE(master->loadMasterConfiguration(reread));
  EXPECT_FALSE(reread);
}

TEST(LoadingEverything, MakesOneComponentForEachListedFileAndMarksTheMaster) {
  OneMaster master("router @router.xml\nsm @sm.xml\nsm @sm_b.xml\n");
  master.writeXml("router.xml", "<router><id>r</id></router>");
  master.writeXml("sm.xml", "<sm><id>1</id></sm>");
  master.writeXml("sm_b.xml", "<sm><id>2</id></sm>");
  master.platform.clock.time = kFarAhead;
  EXPECT_TRUE(master->loadAllConfigurations());
  EXPECT_TRUE(master->configDirty());
  EXPECT_THAT(master.componentPaths("sm"), ElementsAre(kSm, inDirectory("sm_b.xml")));
  EXPECT_EQ(master->defaultComponentForName("sm")->getNodeValueForPath("sm.id"), "1");
  EXPECT_EQ(master->defaultComponentForName("router")->getNodeValueForPath("router.id"), "r");
  EXPECT_THAT(master.platform.files.calls("readFile"), SizeIs(4));
  EXPECT_THAT(aboutTheMaster(master.platform.log), IsEmpty());
}

TEST(LoadingEverything, AMissingComponentFileStillGivesAComponent) {
  OneMaster master("sm @sm.xml\n");
  EXPECT_TRUE(master->loadAllConfigurations());
  ASSERT_NE(master->defaultComponentForName("sm"), nullptr);
  EXPECT_FALSE(master->defaultComponentForName("sm")->configXMLDocument());
}

TEST(LoadingEverything, ANameWithoutAClassIsLeftOutWithAnError) {
  // Two words for the type of the line, but the blank comes only after the second.
  OneMaster master("sm\tx @sm.xml\nsm @sm.xml\n");
  EXPECT_TRUE(master->loadAllConfigurations());
  EXPECT_NE(master->loadedConfigPathsForName("sm\tx"), nullptr);
  EXPECT_EQ(master->loadedComponentsForName("sm\tx"), nullptr);
  EXPECT_THAT(master.platform.log.messages(kLogError), testing::Contains("Error creating new component"));
}

TEST(LoadingEverything, AgainReReadsOnlyComponentsThatWereChangedOutside) {
  OneMaster master("sm @sm.xml\ns2s @s2s.xml\n");
  master.writeXml("sm.xml", "<sm><id>1</id></sm>");
  master.writeXml("s2s.xml", "<s2s><id>1</id></s2s>");
  master.platform.root.setModified(kSm, kLongAgo);
  master.platform.root.setModified(inDirectory("s2s.xml"), kLongAgo);
  ASSERT_TRUE(master->loadAllConfigurations());
  const Component* sm = master->defaultComponentForName("sm");
  master->setConfigDirty(false);
  master.platform.files.clearCalls();
  master.writeXml("s2s.xml", "<s2s><id>2</id></s2s>");
  EXPECT_TRUE(master->loadAllConfigurations());
  EXPECT_EQ(master->defaultComponentForName("sm"), sm);
  EXPECT_EQ(master->defaultComponentForName("s2s")->getNodeValueForPath("s2s.id"), "2");
  ASSERT_THAT(master.platform.files.calls("readFile"), SizeIs(1));
  EXPECT_EQ(master.platform.files.calls("readFile")[0].path, inDirectory("s2s.xml"));
  EXPECT_FALSE(master->configDirty());
}

TEST(LoadingEverything, ReadsAgainWhatWasPutBackSince) {
  OneMaster master("sm @sm.xml\n");
  master.writeXml("sm.xml", "<sm><id>old</id></sm>");
  for (const std::string& path : {kCfg, kSm}) master.platform.root.setModified(path, kLongAgo);
  auto& journal = master.platform.journal;
  master.platform.clock.time = kFarAhead;
  ASSERT_TRUE(master->loadAllConfigurations());
  journal.startRequest();
  master->setStringValue_forPath("new", "sm.id");
  ASSERT_TRUE(master->saveAllConfigurations());
  EXPECT_FALSE(journal.finishRequest(true));
  ASSERT_TRUE(master->loadAllConfigurations());
  int state = kNodeNotFound;
  EXPECT_EQ(master->getStringValueForPath_nodeState("sm.id", state), "old");
  master.platform.files.clearCalls();
  ASSERT_TRUE(master->loadAllConfigurations());
  EXPECT_THAT(master.platform.files.calls("readFile"), IsEmpty());
}

TEST(LoadingEverything, AMasterThatListsNothingLoadsNothing) {
  OneMaster master("# nothing yet\n");
  EXPECT_TRUE(master->loadAllConfigurations());
  EXPECT_TRUE(master->loadedComponents().empty());
  EXPECT_FALSE(master->configDirty());
}

TEST(Reverting, MakesEveryComponentAnewAndLosesUnsavedChanges) {
  OneMaster master("sm @sm.xml\n");
  master.writeXml("sm.xml", "<sm><id>1</id></sm>");
  ASSERT_TRUE(master->loadAllConfigurations());
  master->setStringValue_forPath("edited", "sm.id");
  master->cacheNewComponentForName_andPath("sm", inDirectory("sm_b.xml"));
  EXPECT_TRUE(master->revertMasterConfiguration());
  int state = kNodeNotFound;
  EXPECT_EQ(master->getStringValueForPath_nodeState("sm.id", state), "1");
  EXPECT_THAT(master.componentPaths("sm"), ElementsAre(kSm));
  EXPECT_FALSE(master->defaultComponentForName("sm")->configDirty());
}

TEST(Reverting, FailsWhenTheMasterFileIsGone) {
  OneMaster master("sm @sm.xml\n");
  ASSERT_TRUE(master->loadAllConfigurations());
  master.platform.root.remove(kCfg);
  EXPECT_FALSE(master->revertMasterConfiguration());
}

TEST(Caching, APathIsListedOnceAndDoesNotMarkTheMaster) {
  OneMaster master("");
  bool reread = false;
  ASSERT_TRUE(master->loadMasterConfiguration(reread));
  master->cachePathConfig({"sm", "/a"});
  master->cachePathConfig({"sm", "/b"});
  master->cachePathConfig({"sm", "/a"});
  master->cachePathConfig({"c2s", "/a"});
  EXPECT_THAT(master.listedPaths("sm"), ElementsAre("/a", "/b"));
  EXPECT_THAT(master.listedPaths("c2s"), ElementsAre("/a"));
  EXPECT_FALSE(master->configDirty());
}

TEST(Caching, BeforeTheFileWasReadAPathIsNotListed) {
  OneMaster master("");
  master->cachePathConfig({"sm", "/a"});
  EXPECT_FALSE(master->loadedConfigPaths());
}

TEST(Caching, ANewComponentIsAppendedAndMarksTheMaster) {
  OneMaster master("");
  master.writeXml("sm.xml", "<sm/>");
  Component* made = master->cacheNewComponentForName_andPath("sm", kSm);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(master->loadedComponentsForName("sm")->front().get(), made);
  EXPECT_TRUE(made->configXMLDocument());
  EXPECT_TRUE(master->configDirty());
}

TEST(Caching, AnUnknownNameGivesNoComponentAndAnError) {
  OneMaster master("");
  EXPECT_EQ(master->cacheNewComponentForName_andPath("mu", "/mu.xml"), nullptr);
  EXPECT_FALSE(master->configDirty());
  EXPECT_TRUE(master->loadedComponents().empty());
  EXPECT_THAT(master.platform.log.lines(),
              ElementsAre("tessard_notification[E]: Error creating new component"));
}

}  // namespace
}  // namespace tessard
