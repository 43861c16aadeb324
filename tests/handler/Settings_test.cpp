#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const Dictionary kNothingRead{{"configuration", Dictionary{}}, {"readStatus", 0}};
const Dictionary kNothingWritten{
    {"configuration", Dictionary{}}, {"readStatus", 0}, {"writeStatus", 0}, {"needsRecycleOrRestart", true}};
const Dictionary kInvalid{{"error", "INVALID_ARG_ERR"}};

struct ReadSettings : Handled {
  ReadSettings() {
    jabber->settings = SettingsDictionary{{"a", 1}, {"b", "x"}};
    notification->settings = SettingsDictionary{{"b", "y"}, {"c", Array{}}};
  }
  Value read(const Dictionary& request) {
    const auto answer = handler->readSettingsWithRequest(request);
    const Value* configuration = answer ? answer->find("configuration") : nullptr;
    return configuration ? *configuration : Value("missing");
  }
  static Dictionary parameters(const Value& value) {
    return {{"optionalArguments", Dictionary{{"parameters", value}}}};
  }
};

TEST_F(ReadSettings, GivesTheSettingsOfAllServicesAndAStatus) {
  initialise();
  const auto answer = handler->readSettingsWithRequest({});
  EXPECT_EQ(answer, (Dictionary{{"configuration", Dictionary{{"a", 1}, {"b", "y"}, {"c", Array{}}}},
                                {"readStatus", 0}}));
  EXPECT_THAT(keysOf(*answer), ElementsAre("configuration", "readStatus"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(ReadSettings, GivesTheChosenSettingsOnly) {
  initialise();
  EXPECT_EQ(read(parameters(Array{"c", "a"})), Value(Dictionary{{"a", 1}, {"c", Array{}}}));
  EXPECT_EQ(read(parameters(Array{})), Value(Dictionary{}));
}

TEST_F(ReadSettings, LeavesOutChosenSettingsThatNobodyGives) {
  initialise();
  EXPECT_EQ(read(parameters(Array{"unknown", "a"})), Value(Dictionary{{"a", 1}}));
}

TEST_F(ReadSettings, GivesAllWhereTheChoiceIsNoList) {
  initialise();
  const Value all(Dictionary{{"a", 1}, {"b", "y"}, {"c", Array{}}});
  EXPECT_EQ(read(parameters("a")), all);
  EXPECT_EQ(read({{"optionalArguments", Array{"a"}}}), all);
  EXPECT_EQ(read({{"optionalArguments", Dictionary{}}}), all);
  EXPECT_EQ(read({{"parameters", Array{"a"}}}), all);
}

TEST_F(ReadSettings, GivesNoneWhenServiceDataIsNotInitialized) {
  EXPECT_EQ(handler->readSettingsWithRequest({}), kNothingRead);
  EXPECT_EQ(handler->readSettingsWithRequest(parameters(Array{"a"})), kNothingRead);
  EXPECT_FALSE(did("jabberd readServiceConfiguration"));
}

TEST_F(ReadSettings, GivesAnEmptyAnswerWhenNoServiceHasAny) {
  initialise();
  jabber->settings.reset();
  notification->settings.reset();
  EXPECT_EQ(handler->readSettingsWithRequest({}), Dictionary{});
  EXPECT_EQ(handler->readSettingsWithRequest(parameters(Array{"a"})), Dictionary{});
}

TEST_F(ReadSettings, ComesFromTheServicesOfTheirOwnInTheEnd) {
  finishSetup();
  const auto real = Handler::init(platform);
  real->serviceWrangler()->setPreferenceValue_forKey(true, "initialized");
  platform.root.write("/private/var/jabberd/sqlite/jabberd2_notification.db", "");
  for (const char* file : {"/var/db/idavoll/pubsub.db", "/var/db/idavoll/items.db"}) {
    platform.root.write(file, "nodes");
  }
  for (const char* directory :
       {"/private/var/run/jabberd_notification", "/var/log/idavoll", "/var/db/korvbridge"}) {
    platform.root.makeDirectory(directory);
  }
  platform.root.write("/Library/Preferences/com.velto.Beaconry.plist",
                      serializePropertyList(Dictionary{{"jid", "pubsub"}}).value());
  const auto answer =
      real->readSettingsWithRequest(parameters(Array{"hosts", "jabberdS2SPort", "authLevel"}));
  EXPECT_EQ(answer, (Dictionary{{"configuration", Dictionary{{"hosts", Array{"chat.example.com"}},
                                                             {"jabberdS2SPort", 5268},
                                                             {"authLevel", "ANYMETHOD"}}},
                                {"readStatus", 0}}));
}

struct WriteRequest : Handled {
  Dictionary write(const Value& configuration) {
    return handler->writeSettingsWithRequest({{"configuration", configuration}});
  }
  bool wrote() const { return did("jabberd writeServiceConfiguration"); }
};

TEST_F(WriteRequest, IsAnsweredWithTheSettingsAsTheyStandAfterwards) {
  initialise();
  jabber->settings = SettingsDictionary{{"logLevel", "ALL"}};
  jabber->whileWriting = [this] { jabber->settings->set("logLevel", "DEBUG"); };
  const Dictionary answer = write(Dictionary{{"logLevel", "DEBUG"}});
  EXPECT_EQ(answer, (Dictionary{{"configuration", Dictionary{{"logLevel", "DEBUG"}}},
                                {"readStatus", 0},
                                {"writeStatus", 0},
                                {"needsRecycleOrRestart", true}}));
  EXPECT_THAT(keysOf(answer),
              ElementsAre("configuration", "readStatus", "writeStatus", "needsRecycleOrRestart"));
  EXPECT_THAT(jabber->written, ElementsAre(SettingsDictionary{{"logLevel", "DEBUG"}}));
}

TEST_F(WriteRequest, NotesEveryEntryForDebugging) {
  initialise();
  write(Dictionary{{"logLevel", "ALL"}, {"s2sAllowedDomains", Array{"a", "b"}}});
  EXPECT_THAT(debugLines(), Contains("Attribute Dict: key: logLevel, value: ALL"));
  EXPECT_THAT(debugLines(), Contains("Attribute Dict: key: s2sAllowedDomains, value: (\n    a,\n    b\n)"));
  EXPECT_EQ(debugLines().back(), "readSettingsWithRequest: returned OK.");
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(WriteRequest, MayChooseTheSettingsOfTheAnswer) {
  initialise();
  jabber->settings = SettingsDictionary{{"a", 1}, {"b", 2}};
  const Dictionary answer =
      handler->writeSettingsWithRequest({{"configuration", Dictionary{{"logLevel", "ALL"}}},
                                         {"optionalArguments", Dictionary{{"parameters", Array{"b"}}}}});
  EXPECT_EQ(*answer.find("configuration"), Value(Dictionary{{"b", 2}}));
  EXPECT_TRUE(wrote());
}

TEST_F(WriteRequest, IsAnsweredWithoutSettingsWhenNoServiceHasAny) {
  initialise();
  EXPECT_EQ(write(Dictionary{}), (Dictionary{{"writeStatus", 0}, {"needsRecycleOrRestart", true}}));
}

TEST_F(WriteRequest, WritesNothingWhenServiceDataIsNotInitialized) {
  EXPECT_EQ(write(Dictionary{{"logLevel", "ALL"}}), kNothingWritten);
  EXPECT_EQ(write(Dictionary{{"changeip", Dictionary{{"newHost", "a"}}}}), kNothingWritten);
  EXPECT_FALSE(wrote());
  EXPECT_FALSE(did("jabberd handleChangeIPRequest"));
  EXPECT_FALSE(debugged("Attribute Dict: key: logLevel, value: ALL"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(WriteRequest, AConfigurationThatIsNoDictionaryIsTreatedAsAbsent) {
  initialise();
  for (const Value& configuration : {Value("logLevel"), Value(Array{"logLevel"}), Value(7)}) {
    jabber->written.clear();
    const Dictionary answer = write(configuration);
    EXPECT_EQ(*answer.find("writeStatus"), Value(0));
    EXPECT_EQ(*answer.find("needsRecycleOrRestart"), Value(true));
    EXPECT_THAT(jabber->written, ElementsAre(std::nullopt));
    EXPECT_THAT(notification->written, Not(IsEmpty()));
  }
  jabber->written.clear();
  handler->writeSettingsWithRequest({});
  EXPECT_THAT(jabber->written, ElementsAre(std::nullopt));
}

TEST_F(WriteRequest, AnUnusableDirectoryIsStatus13AndNeedsNoRestart) {
  initialise();
  jabber->writes = false;
  jabber->writeError = 13;
  jabber->settings = SettingsDictionary{{"a", 1}};
  const Dictionary answer = write(Dictionary{{"logLevel", "ALL"}});
  EXPECT_EQ(answer,
            (Dictionary{{"configuration", Dictionary{{"a", 1}}}, {"readStatus", 0}, {"writeStatus", 13}}));
  EXPECT_THAT(keysOf(answer), ElementsAre("configuration", "readStatus", "writeStatus"));
}

TEST_F(WriteRequest, AnyOtherStatusIsAnErrorLineAndNoStatus) {
  initialise();
  jabber->settings = SettingsDictionary{{"a", 1}};
  for (const int status : {1, -1, 12, 100005}) {
    platform.log.clear();
    jabber->writes = false;
    jabber->writeError = status;
    EXPECT_EQ(write(Dictionary{}), (Dictionary{{"configuration", Dictionary{{"a", 1}}}, {"readStatus", 0}}));
    EXPECT_THAT(platform.log.lines(),
                ElementsAre("tessard_notification[E]: ERROR - unexpected writeStatus (" +
                            std::to_string(status) + "): fix the switch statement!"));
  }
}

TEST_F(WriteRequest, ARefusalWithoutAStatusCountsAsWritten) {
  initialise();
  jabber->writes = false;
  EXPECT_EQ(*write(Dictionary{}).find("writeStatus"), Value(0));
}

TEST_F(WriteRequest, AChangeOfAddressIsCarriedOutAlone) {
  initialise();
  jabber->domains = std::vector<std::string>{"chat.example.com"};
  const Dictionary change{{"oldHost", "chat.example.com"}, {"newHost", "new.example.com"}};
  const Dictionary answer = write(Dictionary{{"logLevel", "ALL"}, {"changeip", change}});
  EXPECT_EQ(answer, (Dictionary{{"writeStatus", 0}, {"needsRecycleOrRestart", true}}));
  EXPECT_FALSE(wrote());
  ASSERT_EQ(jabber->changeIPRequests.size(), 1U);
  EXPECT_EQ(jabber->changeIPRequests[0].newHost(), "new.example.com");
  EXPECT_EQ(jabber->changeIPRequests[0].changeInfo(), change);
  EXPECT_THAT(platform.root.read(kConfigDirectory + "sm.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_EQ(platform.log.lines().front(), "tessard_notification[N]: Processing changeip request.");
  EXPECT_THAT(platform.log.messages(kLogWarning), IsEmpty());
  EXPECT_THAT(platform.log.messages(kLogError), IsEmpty());
  EXPECT_TRUE(
      debugged("changeip args: {\n    oldHost = \"chat.example.com\";\n    newHost = "
               "\"new.example.com\";\n}."));
  EXPECT_FALSE(debugged("Attribute Dict: key: logLevel, value: ALL"));
}

TEST_F(WriteRequest, BesideAChangeOfAddressOtherSettingsAreNotEvenLookedAt) {
  initialise();
  write(Dictionary{{"jabberdS2SPort", 0.5}, {"changeip", Dictionary{{"newAddress", "192.0.2.1"}}}});
  EXPECT_TRUE(did("jabberd handleChangeIPRequest"));
}

/// A configuration that is refused, and the line that tells why.
struct Refusal {
  Dictionary configuration;
  const char* line;
};

const Refusal kRefusals[] = {
    {{{"jabberdS2SPort", 52.5}},
     "tessard_notification[E]: settings refused: \"jabberdS2SPort\" must be a port number from 0 to 65535"},
    {{{"sslKeyFile", Array{"/a"}}},
     "tessard_notification[E]: settings refused: \"sslKeyFile\" must be a path of at most 4095 bytes "
     "without \"${\" and placeholders, which would be replaced"},
    {{{"hosts", Array{"!!"}}}, "tessard_notification[E]: settings refused: \"hosts\" names no host"},
    {{{"logLevel", "\x01"}},
     "tessard_notification[E]: settings refused: \"logLevel\" holds characters that no configuration file "
     "can "
     "hold"},
    {{{"changeip", Dictionary{{"newHost", "bad name"}}}},
     "tessard_notification[E]: settings refused: \"newHost\" is not a host name: \"bad name\""},
    {{{"changeip", Dictionary{}}},
     "tessard_notification[E]: settings refused: neither \"newHost\" nor \"newAddress\" is given"},
};

TEST_F(WriteRequest, AValueThatDoesNotFitItsKeyIsRefusedBeforeAnythingIsReadOrChanged) {
  initialise();
  for (const Refusal& refusal : kRefusals) {
    forget();
    EXPECT_EQ(write(refusal.configuration), kInvalid);
    EXPECT_THAT(platform.log.lines(), ElementsAre(refusal.line));
    EXPECT_THAT(platform.files.calls(), IsEmpty());
    EXPECT_THAT(journal, IsEmpty());
  }
}

TEST_F(WriteRequest, IsRefusedAlsoWhenServiceDataIsNotInitialized) {
  EXPECT_EQ(write(kRefusals[0].configuration), kInvalid);
  EXPECT_THAT(platform.files.calls(), IsEmpty());
}

/// A handler that cannot read settings.
class UnreadableHandler : public Handler {
 public:
  using Handler::Handler;
  std::optional<Dictionary> readSettingsWithRequest(const Dictionary& /*request*/) override {
    return std::nullopt;
  }
};

struct WriteRequestWithoutReading : HandledBy<UnreadableHandler> {};

TEST_F(WriteRequestWithoutReading, IsAnError) {
  initialise();
  EXPECT_EQ(handler->writeSettingsWithRequest({}), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
  EXPECT_EQ(debugLines().back(), "ERROR - readSettingsWithRequest: returned NIL.");
  EXPECT_TRUE(did("jabberd writeServiceConfiguration"));
}

struct InitialSetup : Handled {};

TEST_F(InitialSetup, NeedsNoMarkerAndIsAnsweredWithTheState) {
  EXPECT_EQ(handler->initialSetupWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_EQ(debugLines().front(), "Handling initialSetupWithRequest.");
  EXPECT_EQ(storedPreference("initialized"), Value(true));
  EXPECT_FALSE(platform.root.exists(kHostMarker));
}

TEST_F(InitialSetup, MayBeAnsweredWithDetails) {
  EXPECT_GT(handler->initialSetupWithRequest({{"variant", "withDetails"}}).size(), 1U);
}

TEST_F(InitialSetup, MakesTheDataThatServicesLack) {
  jabber->ready = false;
  notification->ready = false;
  handler->initialSetupWithRequest({});
  EXPECT_TRUE(did("jabberd initServiceData"));
  EXPECT_TRUE(did("Notification initServiceData"));
}

TEST_F(InitialSetup, MakesNothingWhenServiceDataIsInitialized) {
  initialise();
  EXPECT_EQ(handler->initialSetupWithRequest({}), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_FALSE(debugged("Successfully initialized all service data"));
  EXPECT_EQ(storedPreference("initialized"), Value(true));
}

TEST_F(InitialSetup, IsAnErrorWhenServiceDataCannotBeMade) {
  notification->ready = false;
  notification->initialises = false;
  EXPECT_EQ(handler->initialSetupWithRequest({}), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
  EXPECT_EQ(storedPreference("initialized"), Value(false));
}

TEST_F(InitialSetup, IsAnErrorWithoutAHostName) {
  loseTheHostName();
  EXPECT_EQ(handler->initialSetupWithRequest({}), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(InitialSetup, IsAnErrorWhenTheMarkCannotBeKept) {
  platform.files.fillDisk();
  EXPECT_EQ(handler->initialSetupWithRequest({}), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
}

}  // namespace
}  // namespace tessard
