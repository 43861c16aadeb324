#include "common/Format.h"
#include "tests/atoms/NotificationFixtures.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using NotificationReading = NotificationTest;

const std::string kFile = "/Library/Preferences/com.velto.Beaconry.plist";

TEST_F(NotificationReading, TheShippedDefaultsHaveEveryKeyThatIsNotFilledInLater) {
  const Dictionary shipped = defaults();
  std::vector<std::string> keys;
  for (const DictionaryEntry& entry : shipped) keys.push_back(entry.key);
  EXPECT_THAT(keys, testing::UnorderedElementsAre(
                        "jid", "connectAsClient", "privilegedUsers", "korvbridgeEnabled", "korvbridgePort",
                        "enableHTTPS", "hide-nodes", "backend", "dbuser", "dbpass", "dbname", "rhost",
                        "rport", "verbose", "clusterNodes", "clusterHostname", "connectToCluster"));
  EXPECT_TRUE(shipped.stringFor("jid") && !shipped.stringFor("jid")->empty());
  for (const char* off : {"connectAsClient", "korvbridgeEnabled", "enableHTTPS"}) {
    const Value* value = shipped.find(off);
    ASSERT_TRUE(value && value->asBoolean()) << off;
    EXPECT_FALSE(*value->asBoolean()) << off;
  }
  EXPECT_EQ(*shipped.find("backend"), Value("pgsql"));
  EXPECT_EQ(*shipped.find("rhost"), Value("127.0.0.1"));
  EXPECT_EQ(*shipped.find("rport"), Value(5347));
  EXPECT_TRUE(shipped.arrayFor("privilegedUsers"));
}

TEST_F(NotificationReading, TheFirstReadMakesTheFileOfDefaultsSecretAndDomain) {
  const auto settings = atom->dictionaryFromSettingsFile();
  ASSERT_TRUE(settings);
  EXPECT_EQ(*settings, with(defaults(), {{"secret", "router-secret"}, {"domain", "served.example.com"}}));
  EXPECT_EQ(stored(), *settings);
  EXPECT_THAT(owner.domainsAsked, ElementsAre("jabberd"));
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(NotificationReading, TheFileIsMadeForTheServiceAccountAndItsGroupIsLeftAsItComes) {
  atom->dictionaryFromSettingsFile();
  const auto asked = ownershipsAsked("createFile", kFile + ".tmp");
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(asked[0].owner, 84U);
  EXPECT_EQ(asked[0].group, std::nullopt);
  EXPECT_EQ(asked[0].permissions, 0660U);
  EXPECT_EQ(platform.root.mode(kFile), 0660U);
  EXPECT_FALSE(platform.root.exists(kFile + ".tmp"));
  EXPECT_FALSE(platform.root.exists(kFile + ".bak"));
}

TEST_F(NotificationReading, TheSecretIsReadableByNobodyElseAtAnyMoment) {
  int looked = 0;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call&) {
    for (const std::string& path : {kFile, kFile + ".tmp"}) {
      if (!platform.root.exists(path)) continue;
      ++looked;
      EXPECT_EQ(platform.root.mode(path) & 07U, 0U) << path;
    }
  };
  atom->dictionaryFromSettingsFile();
  atom->updateConfigFile("new.example.com");
  EXPECT_GT(looked, 4);
}

TEST_F(NotificationReading, AFileThatLacksOnlyTheSecretGainsItAndIsRewritten) {
  Dictionary settings = complete();
  settings.remove("secret");
  settings.set("verbose", 3);
  store(settings);
  const auto read = atom->dictionaryFromSettingsFile();
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, with(settings, {{"secret", "router-secret"}}));
  EXPECT_EQ(stored(), *read);
  EXPECT_THAT(owner.domainsAsked, IsEmpty());
}

TEST_F(NotificationReading, AFileThatLacksOnlyTheDomainGainsIt) {
  Dictionary settings = complete();
  settings.remove("domain");
  store(settings);
  EXPECT_EQ(*atom->dictionaryFromSettingsFile(), with(settings, {{"domain", "served.example.com"}}));
  EXPECT_EQ(*stored().find("domain"), Value("served.example.com"));
  EXPECT_EQ(*stored().find("secret"), Value("own-secret"));
}

TEST_F(NotificationReading, ACompleteFileIsLeftAlone) {
  store(complete());
  EXPECT_EQ(*atom->dictionaryFromSettingsFile(), complete());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(platform.files.calls("readFile"), testing::SizeIs(2));  // nothing of the router's
  EXPECT_THAT(owner.domainsAsked, IsEmpty());
}

TEST_F(NotificationReading, ACompleteFileWithKeysOfItsOwnIsLeftAlone) {
  const Dictionary settings = with(complete(), {{"password", "p"}, {"own", 1}});
  store(settings);
  EXPECT_EQ(*atom->dictionaryFromSettingsFile(), settings);
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationReading, TheFilesValuesWinOverDefaults) {
  store({{"rport", 1}, {"password", "p"}, {"jid", "other"}});
  const auto read = atom->dictionaryFromSettingsFile();
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, with(defaults(), {{"rport", 1},
                                     {"password", "p"},
                                     {"jid", "other"},
                                     {"secret", "router-secret"},
                                     {"domain", "served.example.com"}}));
  EXPECT_EQ(stored(), *read);
}

TEST_F(NotificationReading, WithoutAListOfDomainsTheHostsNameIsTaken) {
  owner.domains.reset();
  EXPECT_EQ(*atom->dictionaryFromSettingsFile()->find("domain"), Value("chat.example.com"));
}

TEST_F(NotificationReading, WithoutDomainsAndHostNameThereIsNothingAndNothingIsWritten) {
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_FALSE(atom->dictionaryFromSettingsFile());
  EXPECT_FALSE(atom->readServiceConfiguration());
  const std::string warning = "Unable to determine jabber domain for dictionaryFromSettingsFile";
  EXPECT_THAT(shown(), ElementsAre(warning, warning));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationReading, AnEmptyListOfDomainsFailsAndDoesNotFallThroughToTheHost) {
  owner.domains = Lines{};
  EXPECT_FALSE(atom->dictionaryFromSettingsFile());
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("the jabberd service has no domain for the notification service"));
  EXPECT_THAT(platform.log.messages(kLogWarning), IsEmpty());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationReading, AFileWithADomainNeedsNoList) {
  owner.domains = Lines{};
  owner.hostDomain.reset();
  store({{"domain", "own.example.com"}});
  EXPECT_EQ(*atom->dictionaryFromSettingsFile()->find("domain"), Value("own.example.com"));
}

TEST_F(NotificationReading, WithoutTheDefaultsFileTheRestIsStillThere) {
  platform.root.remove(kNotificationDefaultConfigFilePath);
  EXPECT_EQ(*atom->dictionaryFromSettingsFile(),
            (Dictionary{{"secret", "router-secret"}, {"domain", "served.example.com"}}));
  EXPECT_THAT(shown(), ElementsAre("tessard_notification: Couldn't find defaults file"));
  EXPECT_EQ(platform.log.lines().front(),
            "tessard_notification[E]: tessard_notification: Couldn't find defaults file");
}

TEST_F(NotificationReading, MalformedDefaultsCountAsMissing) {
  platform.root.write(kNotificationDefaultConfigFilePath, "<plist>");
  EXPECT_EQ(atom->dictionaryFromSettingsFile()->size(), 2U);
  EXPECT_THAT(shown(), ElementsAre("tessard_notification: Couldn't find defaults file"));
}

TEST_F(NotificationReading, ARouterWithoutASecretLeavesTheSecretOut) {
  writeRouter("<ip>127.0.0.1</ip>");
  const auto settings = atom->dictionaryFromSettingsFile();
  ASSERT_TRUE(settings);
  EXPECT_FALSE(settings->contains("secret"));
  EXPECT_EQ(*settings, with(defaults(), {{"domain", "served.example.com"}}));
  EXPECT_EQ(stored(), *settings);
}

TEST_F(NotificationReading, TheSecretIsThatOfTheFileOnDisk) {
  EXPECT_EQ(atom->getSecret(), "router-secret");
  const std::string router = "/private/etc/jabberd_notification/router.xml";
  platform.root.write(router, "<router><local><secret>changed</secret></local></router>");
  platform.root.setModified(router, {4000000000, 0});
  EXPECT_EQ(atom->getSecret(), "changed");
}

TEST_F(NotificationReading, WithoutAMasterConfigurationThereIsNoSecret) {
  owner.master.reset();
  EXPECT_EQ(atom->getSecret(), std::nullopt);
  atom->setServiceOwner(nullptr);
  EXPECT_EQ(atom->getSecret(), std::nullopt);
}

TEST_F(NotificationReading, AnAtomWithoutAnOwnerReadsNothing) {
  atom->setServiceOwner(nullptr);
  EXPECT_FALSE(atom->dictionaryFromSettingsFile());
  EXPECT_THAT(shown(), ElementsAre("Unable to determine jabber domain for dictionaryFromSettingsFile"));
}

TEST_F(NotificationReading, AnUnreadableFileBeginsAnewAndIsKeptAsTheBackup) {
  const std::string mistake = "<plist><dict><key>password</key><string>precious</string>";
  platform.root.write(kFile, mistake);
  platform.root.setMode(kFile, 0600);
  const auto settings = atom->dictionaryFromSettingsFile();
  ASSERT_TRUE(settings);
  EXPECT_EQ(*settings, with(defaults(), {{"secret", "router-secret"}, {"domain", "served.example.com"}}));
  EXPECT_EQ(stored(), *settings);
  EXPECT_EQ(platform.root.mode(kFile), 0660U);
  EXPECT_EQ(platform.root.read(kFile + ".bak"), mistake);
  EXPECT_EQ(platform.root.mode(kFile + ".bak"), 0600U);
  EXPECT_THAT(shown(), ElementsAre(StartsWith("the notification settings cannot be read and begin anew, what "
                                              "was there is kept in \"" +
                                              kFile + ".bak\": ")));
}

TEST_F(NotificationReading, AnUnreadableFileThatCannotBeReplacedStays) {
  platform.root.write(kFile, "rubbish");
  platform.files.fillDisk();
  EXPECT_TRUE(atom->dictionaryFromSettingsFile());
  EXPECT_EQ(platform.root.read(kFile), "rubbish");
  EXPECT_THAT(platform.log.messages(kLogWarning).back(),
              AllOf(StartsWith("notification settings were not saved: \"" + kFile + "\" : "),
                    HasSubstr("No space left on device")));
}

TEST_F(NotificationReading, AFileThatCannotBeWrittenIsToldAndTheSettingsAreReadAllTheSame) {
  platform.files.fillDisk();
  EXPECT_EQ(atom->dictionaryFromSettingsFile()->size(), defaults().size() + 2);
  EXPECT_THAT(shown(), ElementsAre(HasSubstr("notification settings were not saved")));
  EXPECT_FALSE(platform.root.exists(kFile));
}

TEST_F(NotificationReading, TheServicesSettingsHaveTheClientServicesWithThem) {
  const Array services{Dictionary{{"service", "mail"}, {"hostName", "mail.example.com"}}};
  platform.root.write(
      kBundleConfigFilePath,
      serializePropertyList(Dictionary{{"services", services}, {"initialized", true}}).value());
  EXPECT_EQ(*atom->readServiceConfiguration(), with(defaults(), {{"secret", "router-secret"},
                                                                 {"domain", "served.example.com"},
                                                                 {"configuredServices", services}}));
  EXPECT_FALSE(stored().contains("configuredServices"));
}

TEST_F(NotificationReading, WithoutAListTheClientServicesAreAnEmptyDictionary) {
  const auto missing = atom->readServiceConfiguration();
  ASSERT_TRUE(missing && missing->dictionaryFor("configuredServices"));
  EXPECT_TRUE(missing->dictionaryFor("configuredServices")->empty());
  platform.root.write(kBundleConfigFilePath,
                      serializePropertyList(Dictionary{{"initialized", true}}).value());
  const auto without = atom->readServiceConfiguration();
  ASSERT_TRUE(without && without->dictionaryFor("configuredServices"));
  EXPECT_TRUE(without->dictionaryFor("configuredServices")->empty());
}

TEST_F(NotificationReading, SettingsThatAnEditorMayJustBeWritingDoNotBeginAnew) {
  platform.root.write(kNotificationConfigFilePath, "");
  platform.clock.setToMachine();
  EXPECT_FALSE(atom->readServiceConfiguration());
  EXPECT_EQ(platform.root.read(kNotificationConfigFilePath), "");
  platform.clock.advance(60);
  EXPECT_TRUE(atom->readServiceConfiguration());
  EXPECT_EQ(stored().size(), complete().size());
}

TEST_F(NotificationReading, DefaultsThatCannotBeReadForTheMomentAreReportedWithTheReason) {
  platform.files.failPath("readFile", kNotificationDefaultConfigFilePath, EMFILE);
  EXPECT_TRUE(atom->readServiceConfiguration());
  EXPECT_THAT(shown(), testing::Contains(fill("Reason: \"%@\" : Too many open files",
                                              {kNotificationDefaultConfigFilePath})));
}

TEST_F(NotificationReading, SettingsThatCannotBeReadForTheMomentDoNotBeginAnew) {
  store(complete());
  platform.files.failPath("readFile", "com.velto.Beaconry.plist", EMFILE);
  EXPECT_FALSE(atom->readServiceConfiguration());
  const std::string error = fill("the notification settings cannot be read: \"%@\" : Too many open files",
                                 {kNotificationConfigFilePath});
  EXPECT_TRUE(platform.log.has(kLogError, error));
  EXPECT_TRUE(write({{"verbose", true}}));
  EXPECT_EQ(stored(), complete());
  platform.files.heal();
  EXPECT_TRUE(write({{"verbose", true}}));
  EXPECT_EQ(stored(), with(complete(), {{"verbose", true}}));
}

}  // namespace
}  // namespace tessard
