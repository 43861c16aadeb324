#include <cerrno>

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kTemplate =
    "<sm>\n  <id>sm</id>\n  <pidfile>old.pid</pidfile>\n  <local>\n    <id>old</id>\n  </local>\n"
    "  <user>kept</user>\n</sm>\n";

/// A loaded and saved master with one session manager and a router.
struct Domains : OneMaster {
  explicit Domains(std::string_view cfg = "router @router.xml\nsm @sm.xml\n") : OneMaster(cfg) {
    writeXml("router.xml", "<router/>");
    writeXml("sm.xml", kTemplate);
    platform.clock.time = kFarAhead;
    if (!master->loadAllConfigurations()) throw std::runtime_error("cannot load");
    master->setConfigDirty(false);
    platform.log.clear();
    platform.files.clearCalls();
  }
  Component* sm(std::size_t index) const { return master->loadedComponentsForName("sm")->at(index).get(); }
  /// Identity, domain and pid file of a session manager.
  std::vector<std::string> identity(std::size_t index) const {
    std::vector<std::string> values;
    for (const char* path : {"sm.id", "sm.local.id", "sm.pidfile"}) {
      values.push_back(sm(index)->getNodeValueForPath(path).value_or("(null)"));
    }
    return values;
  }
  std::vector<std::string> files() const { return platform.root.list(kDirectory); }
  /// The messages that the domain operations log themselves.
  std::vector<std::string> debugLines() const {
    std::vector<std::string> lines;
    for (const std::string& line : platform.log.messages(kLogDebug)) {
      if (line.starts_with("--gen") || line.starts_with("Gen") || line.starts_with("Removed") ||
          line.starts_with("No ")) {
        lines.push_back(line);
      }
    }
    return lines;
  }
};

TEST(PrimaryDomain, GetsTheDomainAndThePidFileAndKeepsItsIdentity) {
  Domains domains;
  EXPECT_TRUE(domains->setPrimarySMDomain("a.example"));
  EXPECT_THAT(domains.identity(0), ElementsAre("sm", "a.example", "/var/run/jabberd_notification/sm.pid"));
  EXPECT_THAT(domains.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "--generating sm.xml for PRIMARY domain: a.example"}));
  EXPECT_FALSE(domains->configDirty());
  EXPECT_THAT(domains.platform.files.changes(), IsEmpty());
}

TEST(PrimaryDomain, SwitchedOffElementsAreSwitchedOnAndMissingOnesMadeBelowALiveParent) {
  Domains domains;
  domains.writeXml("sm.xml", "<sm><!--<pidfile>x</pidfile>--><local/></sm>");
  ASSERT_TRUE(domains->revertMasterConfiguration());
  EXPECT_TRUE(domains->setPrimarySMDomain("a.example"));
  EXPECT_EQ(outline(domains.sm(0)->getRootNode()),
            "<sm><local><id>a.example</id></local>"
            "<pidfile>/var/run/jabberd_notification/sm.pid</pidfile></sm>");
}

TEST(PrimaryDomain, NothingIsMadeWhereTheParentIsMissingOrSwitchedOff) {
  Domains domains;
  domains.writeXml("sm.xml", "<sm><!--<local><id>x</id></local>--></sm>");
  ASSERT_TRUE(domains->revertMasterConfiguration());
  EXPECT_TRUE(domains->setPrimarySMDomain("a.example"));
  EXPECT_EQ(outline(domains.sm(0)->getRootNode()), "<sm><!--<local><id>x</id></local>--></sm>");
}

TEST(SecondaryDomain, GetsACopyOfThePrimarysFileWithItsOwnIdentity) {
  Domains domains;
  EXPECT_TRUE(domains->addSecondarySMDomain("b.example"));
  const std::string path = inDirectory("sm_b.example.xml");
  EXPECT_THAT(domains.listedPaths("sm"), ElementsAre(kSm, path));
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm, path));
  EXPECT_EQ(domains.platform.root.read(path), kTemplate);
  EXPECT_THAT(domains.identity(1),
              ElementsAre("sm_b.example", "b.example", "/var/run/jabberd_notification/sm_b.example.pid"));
  EXPECT_EQ(domains.sm(1)->getNodeValueForPath("sm.user"), "kept");
  EXPECT_TRUE(domains->configDirty());
  EXPECT_TRUE(domains.sm(1)->configDirty());
  EXPECT_EQ(domains.platform.log.messages().front(),
            (Message{kLogDebug, "--generating sm.xml for SECONDARY domain: b.example"}));
  EXPECT_THAT(domains.platform.log.lines(), IsEmpty());
}

TEST(SecondaryDomain, TheCopyIsTakenFromTheDiskNotFromTheEditedTree) {
  Domains domains;
  domains->setStringValue_forPath("edited", "sm.user");
  domains->addSecondarySMDomain("b.example");
  EXPECT_EQ(domains.sm(1)->getNodeValueForPath("sm.user"), "kept");
}

TEST(SecondaryDomain, AFileThatIsThereKeepsItsContent) {
  Domains domains;
  domains.writeXml("sm_b.example.xml", "<sm><id/><local/><user>theirs</user></sm>");
  domains->addSecondarySMDomain("b.example");
  EXPECT_EQ(domains.sm(1)->getNodeValueForPath("sm.user"), "theirs");
  EXPECT_EQ(domains.sm(1)->getNodeValueForPath("sm.local.id"), "b.example");
  EXPECT_THAT(domains.platform.files.calls("remove"), IsEmpty());
}

TEST(SecondaryDomain, ACopyThatIsEditedBeforeItIsLoadedIsRead) {
  for (const bool inPlace : {true, false}) {
    Domains domains;
    const std::string path = inDirectory("sm_b.example.xml");
    bool edited = false;
    domains.platform.files.beforeCall = [&](const FaultyFileSystem::Call& call) {
      if (edited || call.operation != "attributes" || call.path != path) return;
      edited = true;
      if (!inPlace) domains.platform.root.remove(path);
      domains.writeXml("sm_b.example.xml", "<sm><id/><local/><user>theirs</user></sm>");
    };
    domains->addSecondarySMDomain("b.example");
    EXPECT_EQ(domains.sm(1)->getNodeValueForPath("sm.user"), "theirs");
  }
}

TEST(SecondaryDomain, ADanglingLinkInTheWayIsRemoved) {
  Domains domains;
  domains.platform.root.makeLink(inDirectory("sm_b.example.xml"), "/nowhere");
  domains->addSecondarySMDomain("b.example");
  EXPECT_EQ(domains.platform.root.read(inDirectory("sm_b.example.xml")), kTemplate);
  EXPECT_FALSE(domains.platform.root.exists("/nowhere"));
}

TEST(SecondaryDomain, AFailedCopyIsIgnoredAndLeavesAComponentWithoutADocument) {
  Domains domains;
  domains.platform.files.failAll("copyFile", ENOSPC);
  EXPECT_TRUE(domains->addSecondarySMDomain("b.example"));
  ASSERT_THAT(domains.componentPaths("sm"), SizeIs(2));
  EXPECT_FALSE(domains.sm(1)->configXMLDocument());
  EXPECT_TRUE(domains.platform.log.has(kLogError, "failed to load: configuration file not found: \"" +
                                                      inDirectory("sm_b.example.xml") + "\""));
}

TEST(SecondaryDomain, ANameThatCannotBePartOfAFileNameIsRefused) {
  Domains domains;
  const std::vector<std::string> before = domains.files();
  const std::vector<std::string> refused = {
      "../../../etc/evil",  "a/b", "/", "", "a\nrouter /x", "a b", std::string("a\0", 2), "\xff.example",
      std::string(245, 'a')};
  for (const std::string& name : refused) {
    EXPECT_TRUE(domains->addSecondarySMDomain(name));
    EXPECT_TRUE(domains.platform.log.has(kLogError, "domain \"" + name + "\" cannot name a file, left out"));
  }
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm));
  EXPECT_THAT(domains.listedPaths("sm"), ElementsAre(kSm));
  EXPECT_EQ(domains.files(), before);
  EXPECT_THAT(domains.platform.files.changes(), IsEmpty());
  EXPECT_FALSE(domains->configDirty());
}

TEST(SecondaryDomain, TheLongestNameThatAFileNameHoldsCanBeSavedWithItsSuffixes) {
  Domains domains;
  const std::string name(244, 'a');
  domains->addSecondarySMDomain(name);
  ASSERT_THAT(domains.componentPaths("sm"), SizeIs(2));
  EXPECT_TRUE(domains.sm(1)->saveDocument());
  EXPECT_TRUE(domains.platform.root.exists(inDirectory("sm_" + name + ".xml.bak")));
}

TEST(NoPrimary, IsAnErrorLineAndNothingElse) {
  Domains domains("router @router.xml\n");
  const std::vector<std::string> before = domains.files();
  EXPECT_EQ(domains->getPrimarySMComponent(), nullptr);
  EXPECT_TRUE(domains->setPrimarySMDomain("a.example"));
  EXPECT_TRUE(domains->addSecondarySMDomain("b.example"));
  domains->setHostDomains({"a.example", "b.example"});
  EXPECT_THAT(domains.platform.log.lines(),
              ElementsAre("tessard_notification[E]: no primary session manager is configured for domain "
                          "\"a.example\"",
                          "tessard_notification[E]: no primary session manager is configured for domain "
                          "\"b.example\"",
                          "tessard_notification[E]: no primary session manager is configured, domains not "
                          "set"));
  EXPECT_EQ(domains.files(), before);
  EXPECT_FALSE(domains->configDirty());
  EXPECT_EQ(domains->loadedComponentsForName("sm"), nullptr);
}

TEST(NoPrimary, SecondariesAloneAreNotDeletedByAChangeOfDomains) {
  Domains domains("sm @sm_b.example.xml\n");
  domains.writeXml("sm_b.example.xml", kTemplate);
  ASSERT_TRUE(domains->revertMasterConfiguration());
  domains->setHostDomains({"a.example"});
  EXPECT_TRUE(domains.platform.root.exists(inDirectory("sm_b.example.xml")));
  EXPECT_THAT(domains.componentPaths("sm"), SizeIs(1));
  EXPECT_TRUE(
      domains.platform.log.has(kLogError, "no primary session manager is configured, domains not set"));
}

TEST(NoPrimary, APrimaryWithoutAPathHasNoDirectoryForSecondaries) {
  Domains domains;
  domains->getPrimarySMComponent()->setConfigPath(std::nullopt);
  EXPECT_TRUE(domains->addSecondarySMDomain("b.example"));
  EXPECT_TRUE(domains.platform.log.has(kLogError,
                                       "no primary session manager is configured for domain \"b.example\""));
  EXPECT_THAT(domains.platform.files.changes(), IsEmpty());
}

TEST(HostDomains, OneNameRewritesThePrimaryOnly) {
  Domains domains;
  domains->setHostDomains({"a.example"});
  EXPECT_THAT(domains.identity(0), ElementsAre("sm", "a.example", "/var/run/jabberd_notification/sm.pid"));
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm));
  EXPECT_THAT(domains.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "No secondary SM configurations to remove."},
                          Message{kLogDebug, "Generating new sm*.xml for 1 domain(s)."},
                          Message{kLogDebug, "--generating sm.xml for PRIMARY domain: a.example"}));
}

TEST(HostDomains, OneNameRemovesEverySecondaryFileAndBackup) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example", "c.example"});
  ASSERT_TRUE(domains->saveAllConfigurations());
  domains.platform.root.write(inDirectory("sm_b.example.xml.tmp"), "kept");
  domains.platform.log.clear();
  domains->setHostDomains({"d.example"});
  EXPECT_THAT(domains.files(), ElementsAre("jabberd.cfg", "jabberd.cfg.bak", "router.xml", "sm.xml",
                                           "sm.xml.bak", "sm_b.example.xml.tmp"));
  EXPECT_THAT(domains.debugLines(),
              ElementsAre("Removed 2 secondary SM configuration files and backups (4 files total).",
                          "Removed 2 secondary SM entries from jabberd.cfg.",
                          "Generating new sm*.xml for 1 domain(s).",
                          "--generating sm.xml for PRIMARY domain: d.example"));
  EXPECT_TRUE(domains->configDirty());
}

TEST(HostDomains, TheFirstNameIsThePrimarysAndEveryOtherOneGetsASecondary) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example", "c.example"});
  EXPECT_THAT(domains.componentPaths("sm"),
              ElementsAre(kSm, inDirectory("sm_b.example.xml"), inDirectory("sm_c.example.xml")));
  EXPECT_THAT(domains.identity(0), ElementsAre("sm", "a.example", "/var/run/jabberd_notification/sm.pid"));
  EXPECT_THAT(domains.identity(2),
              ElementsAre("sm_c.example", "c.example", "/var/run/jabberd_notification/sm_c.example.pid"));
  EXPECT_THAT(domains.debugLines(), ElementsAre("No secondary SM configurations to remove.",
                                                "Generating new sm*.xml for 3 domain(s).",
                                                "--generating sm.xml for PRIMARY domain: a.example",
                                                "--generating sm.xml for SECONDARY domain: b.example",
                                                "--generating sm.xml for SECONDARY domain: c.example"));
}

TEST(HostDomains, ASaveWritesTheSecondariesAndTheirLines) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example"});
  ASSERT_TRUE(domains->saveAllConfigurations());
  EXPECT_EQ(domains.platform.root.read(kCfg), "\nrouter         " + inDirectory("router.xml") +
                                                  "\nsm             " + kSm + "\nsm             " +
                                                  inDirectory("sm_b.example.xml") + "\n");
  EXPECT_EQ(outlineOfText(domains.platform.root.read(inDirectory("sm_b.example.xml"))),
            "<sm><id>sm_b.example</id><pidfile>/var/run/jabberd_notification/sm_b.example.pid</pidfile>"
            "<local><id>b.example</id></local><user>kept</user></sm>");
}

TEST(HostDomains, TheSameListTwiceGivesTheSameResult) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example"});
  ASSERT_TRUE(domains->saveAllConfigurations());
  const std::vector<std::string> paths = domains.componentPaths("sm");
  const std::vector<std::string> identity = domains.identity(1);
  domains->setHostDomains({"a.example", "b.example"});
  EXPECT_EQ(domains.componentPaths("sm"), paths);
  EXPECT_EQ(domains.listedPaths("sm"), paths);
  EXPECT_EQ(domains.identity(1), identity);
}

TEST(HostDomains, AnEmptyListLeavesThePrimaryUnchanged) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example"});
  domains->setHostDomains({});
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm));
  EXPECT_EQ(domains.sm(0)->getNodeValueForPath("sm.local.id"), "a.example");
  EXPECT_TRUE(domains.platform.log.has(kLogDebug, "Generating new sm*.xml for 0 domain(s)."));
}

TEST(HostDomains, DoubledNamesAreNotFiltered) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example", "b.example"});
  const std::string path = inDirectory("sm_b.example.xml");
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm, path, path));
  EXPECT_THAT(domains.listedPaths("sm"), ElementsAre(kSm, path));
}

TEST(HostDomains, ADomainWhoseNameEndsInSmSurvivesRemoval) {
  Domains domains;
  domains->setHostDomains({"a.example", "prism"});
  const std::string survivor = inDirectory("sm_prism.xml");
  ASSERT_THAT(domains.componentPaths("sm"), ElementsAre(kSm, survivor));
  domains->setConfigDirty(false);
  EXPECT_TRUE(domains->removeAllSecondarySMConfigurations());
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm, survivor));
  EXPECT_TRUE(domains.platform.root.exists(survivor));
  EXPECT_FALSE(domains->configDirty());
}

TEST(RemovingSecondaries, WithoutAnyIsLoggedAndDoesNotMarkTheMaster) {
  Domains domains;
  EXPECT_TRUE(domains->removeAllSecondarySMConfigurations());
  EXPECT_THAT(domains.platform.log.messages(),
              ElementsAre(Message{kLogDebug, "No secondary SM configurations to remove."}));
  EXPECT_FALSE(domains->configDirty());
  EXPECT_THAT(domains.platform.files.changes(), IsEmpty());
}

TEST(RemovingSecondaries, CountsOnlyFilesThatWereDeleted) {
  Domains domains;
  domains->setHostDomains({"a.example", "b.example", "c.example"});
  domains.platform.root.remove(inDirectory("sm_b.example.xml"));
  domains.platform.files.failPath("remove", "sm_c.example.xml", EBUSY);
  domains.platform.log.clear();
  EXPECT_TRUE(domains->removeAllSecondarySMConfigurations());
  EXPECT_THAT(domains.debugLines(),
              ElementsAre("Removed 2 secondary SM configuration files and backups (0 files total).",
                          "Removed 2 secondary SM entries from jabberd.cfg."));
  EXPECT_THAT(domains.componentPaths("sm"), ElementsAre(kSm));
}

TEST(RemovingSecondaries, AListedPathWithoutAComponentIsTakenFromTheList) {
  Domains domains;
  domains->cachePathConfig({"sm", "/gone/sm_x.xml"});
  EXPECT_TRUE(domains->removeAllSecondarySMConfigurations());
  EXPECT_THAT(domains.listedPaths("sm"), ElementsAre(kSm));
  EXPECT_THAT(domains.debugLines(),
              ElementsAre("Removed 0 secondary SM configuration files and backups (0 files total).",
                          "Removed 1 secondary SM entries from jabberd.cfg."));
  EXPECT_TRUE(domains->configDirty());
}

TEST(RemovingSecondaries, APathCanBeListedAgainAfterwards) {
  Domains domains;
  domains->cachePathConfig({"sm", "/x/sm_x.xml"});
  domains->removeAllSecondarySMConfigurations();
  domains->cachePathConfig({"sm", "/x/sm_x.xml"});
  EXPECT_THAT(domains.listedPaths("sm"), ElementsAre(kSm, "/x/sm_x.xml"));
}

TEST(RemovingSecondaries, BeforeALoadThereIsNothingToRemove) {
  OneMaster master("sm @sm_b.xml\n");
  EXPECT_TRUE(master->removeAllSecondarySMConfigurations());
  EXPECT_FALSE(master->configDirty());
}

}  // namespace
}  // namespace tessard
