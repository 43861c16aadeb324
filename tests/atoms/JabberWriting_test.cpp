#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const Components kComponents = {
    .c2s =
        "<local><id realm='x'>old.example.com</id><port>1</port><ssl-port>2</ssl-port>"
        "<pemfile>/old.pem</pemfile><cachain>/old-ca.pem</cachain></local>"
        "<authreg><mechanisms><traditional><plain/><!--<cram-md5/>--></traditional>"
        "<sasl><!--<gssapi/>--><plain/><!--<digest-md5/>--></sasl></mechanisms>"
        "<ssl-mechanisms><traditional><!--<plain/>--></traditional><sasl><!--<plain/>--></sasl>"
        "</ssl-mechanisms></authreg>",
    .s2s =
        "<local><port>3</port><pemfile>/old.pem</pemfile><cachain>/old-ca.pem</cachain></local>"
        "<security><require_tls>0</require_tls><enable_whitelist>0</enable_whitelist>"
        "<whitelist_domain>old.example.com</whitelist_domain></security>",
    .sm =
        "<velto_notification_component_addr>old</velto_notification_component_addr>"
        "<storage><sqlite><dbname>/old.db</dbname></sqlite></storage>",
    .router =
        "<message_logging_enabled>0</message_logging_enabled><message_logging_dir>/old</message_logging_dir>"
        "<message_logging_roll_days>1</message_logging_roll_days>"
        "<filter_muc_messages_from>old</filter_muc_messages_from>",
};

class JabberWriting : public JabberTest {
 protected:
  void SetUp() override { load(kComponents); }

  /// The preferences as they were saved last.
  const Dictionary& lastSaved() {
    if (owner.saved.empty()) owner.saved.emplace_back();
    return owner.saved.back();
  }
  std::optional<Value> savedValue(std::string_view key) {
    const Value* value = lastSaved().find(key);
    return value ? std::optional(*value) : std::nullopt;
  }
  std::vector<std::string> dirtyComponents() const {
    std::vector<std::string> names;
    for (const char* name : {"c2s", "s2s", "sm", "router"}) {
      if (owner.master->defaultComponentForName(name)->configDirty()) names.emplace_back(name);
    }
    return names;
  }
};

TEST_F(JabberWriting, OfNothingChangesNoFileAndSavesWhatIsThere) {
  EXPECT_TRUE(write({}));
  EXPECT_EQ(errorCode, 0);
  EXPECT_THAT(dirtyComponents(), IsEmpty());
  ASSERT_THAT(owner.saved, SizeIs(1));
  EXPECT_EQ(lastSaved(), atom->readServiceConfiguration());
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
  EXPECT_THAT(platform.log.lines(), IsEmpty());
  EXPECT_TRUE(debugged("authLevelVal = (null)"));
}

TEST_F(JabberWriting, OfAbsentSettingsIsWritingOfNothing) {
  EXPECT_TRUE(atom->writeServiceConfiguration_error(nullptr, errorCode));
  EXPECT_EQ(errorCode, 0);
  EXPECT_THAT(dirtyComponents(), IsEmpty());
  EXPECT_THAT(owner.saved, SizeIs(1));
}

TEST_F(JabberWriting, SavesNoComponentFile) {
  platform.files.clearCalls();
  EXPECT_TRUE(write({{"hosts", Array{"a.example.com"}}, {"jabberdClientPortTLS", 5218}}));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(dirtyComponents(), ElementsAre("c2s", "sm", "router"));
}

TEST_F(JabberWriting, PutsTheJoinedHostsIntoAllThreePlaces) {
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", "a.example.com,b.example.com"}}));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("a.example.com", "b.example.com"));
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "pubsub.a.example.com");
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.a.example.com");
  EXPECT_EQ(savedValue("hosts"), Value(Array{"a.example.com", "b.example.com"}));
  EXPECT_EQ(savedValue("hostsCommaDelimitedString"), Value("a.example.com,b.example.com"));
}

TEST_F(JabberWriting, PutsTheListOfHostsIntoAllThreePlaces) {
  EXPECT_TRUE(write({{"hosts", Array{"c.example.com", "d.example.com"}}}));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("c.example.com", "d.example.com"));
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "pubsub.c.example.com");
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.c.example.com");
  EXPECT_EQ(savedValue("hosts"), Value(Array{"c.example.com", "d.example.com"}));
  EXPECT_EQ(savedValue("hostsCommaDelimitedString"), Value("c.example.com,d.example.com"));
}

TEST_F(JabberWriting, PrefersTheJoinedHostsToTheList) {
  EXPECT_TRUE(write({{"hosts", Array{"ignored.example.com"}},
                     {"hostsCommaDelimitedString", "a.example.com,b.example.com"}}));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("a.example.com", "b.example.com"));
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "pubsub.a.example.com");
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.a.example.com");
  EXPECT_EQ(savedValue("hosts"), Value(Array{"a.example.com", "b.example.com"}));
}

TEST_F(JabberWriting, SplitsTheJoinedHostsWithoutTrimming) {
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", "a.example.com, b.example.com,"}}));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("a.example.com", " b.example.com", ""));
}

TEST_F(JabberWriting, RefusesAnEmptyListOfHostsBeforeAnythingIsChanged) {
  EXPECT_FALSE(write({{"hosts", Array{}}, {"sslCAFile", "/ca.pem"}, {"jabberdClientPortTLS", 9}}));
  EXPECT_EQ(errorCode, 0);
  EXPECT_THAT(dirtyComponents(), IsEmpty());
  EXPECT_THAT(owner.saved, IsEmpty());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "the list of hosts is empty: nothing was changed")));
}

TEST_F(JabberWriting, LeavesTheDomainsAloneWhenNoHostsCome) {
  EXPECT_TRUE(write({{"jabberdClientPortTLS", 9}}));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("old.example.com"));
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "old");
  EXPECT_EQ(savedValue("hosts"), Value(Array{"old.example.com"}));
  EXPECT_EQ(savedValue("hostsCommaDelimitedString"), Value("old.example.com"));
}

TEST_F(JabberWriting, PutsTheCAFileWhereClientsAndServersLook) {
  EXPECT_TRUE(write({{"sslCAFile", "/ca.pem"}}));
  EXPECT_EQ(liveAt("c2s.local.cachain"), "/ca.pem");
  EXPECT_EQ(liveAt("s2s.local.cachain"), "/ca.pem");
  EXPECT_TRUE(debugged("set-xml: caFilePath = /ca.pem"));
  EXPECT_EQ(attributesAt("c2s.local.id").size(), 1U) << "without hosts and key file the attributes stay";
  EXPECT_EQ(savedValue("sslCAFile"), Value("/ca.pem"));
}

TEST_F(JabberWriting, EmptiesAndSwitchesTheCAFileOff) {
  EXPECT_TRUE(write({{"sslCAFile", ""}}));
  EXPECT_THAT(allAt("c2s.local.cachain"), ElementsAre("off:<cachain/>"));
  EXPECT_THAT(allAt("s2s.local.cachain"), ElementsAre("off:<cachain/>"));
  EXPECT_TRUE(debugged("set-xml: caFilePath = "));
  EXPECT_TRUE(write({{"sslCAFile", "/new.pem"}})) << "and it can come back";
  EXPECT_THAT(allAt("c2s.local.cachain"), ElementsAre("/new.pem"));
  EXPECT_THAT(allAt("s2s.local.cachain"), ElementsAre("/new.pem"));
}

TEST_F(JabberWriting, SwitchesTheMechanismsOfEachLevel) {
  struct Level {
    const char* word;
    std::vector<int> states;
  };
  // gssapi, cram-md5, plain, sasl plain, digest-md5, encrypted plain, encrypted sasl plain
  const Level levels[] = {{"STANDARD", {1, 1, 0, 0, 1, 1, 1}},  {"KERBEROS", {1, 0, 0, 0, 0, 0, 0}},
                          {"ANYMETHOD", {1, 1, 1, 1, 1, 0, 0}}, {"KERBEROS", {1, 0, 0, 0, 0, 0, 0}},
                          {"kerberos", {1, 1, 1, 1, 1, 0, 0}},  {"STANDARD", {1, 1, 0, 0, 1, 1, 1}},
                          {"anything", {1, 1, 1, 1, 1, 0, 0}},  {"", {1, 1, 1, 1, 1, 0, 0}}};
  for (const Level& level : levels) {
    ASSERT_TRUE(write({{"authLevel", level.word}}));
    EXPECT_TRUE(debugged(std::string("authLevelVal = ") + level.word));
    const std::vector<int> states = {stateAt("c2s.authreg.mechanisms.sasl.gssapi"),
                                     stateAt("c2s.authreg.mechanisms.traditional.cram-md5"),
                                     stateAt("c2s.authreg.mechanisms.traditional.plain"),
                                     stateAt("c2s.authreg.mechanisms.sasl.plain"),
                                     stateAt("c2s.authreg.mechanisms.sasl.digest-md5"),
                                     stateAt("c2s.authreg.ssl-mechanisms.traditional.plain"),
                                     stateAt("c2s.authreg.ssl-mechanisms.sasl.plain")};
    EXPECT_EQ(states, level.states) << level.word;
  }
}

TEST_F(JabberWriting, SetsTheMechanismsInTheirOrder) {
  load(
      {.c2s =
           "<authreg><mechanisms><sasl><digest-md5/><plain/><!--<gssapi/>--></sasl></mechanisms></authreg>"});
  EXPECT_TRUE(write({{"authLevel", "KERBEROS"}}));
  std::string order;
  for (const XmlNode& node : owner.master->getNodesForPath_withAttributes("c2s.authreg.mechanisms.sasl", {})
                                 ->front()
                                 .node.children()) {
    if (node.isElement()) order += "<" + std::string(node.name()) + "/> ";
    if (node.isComment()) order += "off:" + node.stringValue() + " ";
  }
  EXPECT_EQ(order, "<gssapi/> off:<plain/> off:<digest-md5/> ") << "each goes to the end when it is switched";
}

TEST_F(JabberWriting, LeavesTheMechanismsAloneWhenNoLevelComes) {
  EXPECT_TRUE(write({{"jabberdClientPortTLS", 9}}));
  EXPECT_EQ(stateAt("c2s.authreg.mechanisms.sasl.gssapi"), 0);
  EXPECT_TRUE(debugged("authLevelVal = (null)"));
}

TEST_F(JabberWriting, WritesPorts) {
  EXPECT_TRUE(
      write({{"jabberdClientPortTLS", 5218}, {"jabberdClientPortSSL", "5219"}, {"jabberdS2SPort", 5269.0}}));
  EXPECT_EQ(liveAt("c2s.local.port"), "5218");
  EXPECT_EQ(liveAt("c2s.local.ssl-port"), "5219");
  EXPECT_EQ(liveAt("s2s.local.port"), "5269");
}

TEST_F(JabberWriting, LetsTheServerSwitchWinOverTheServerPort) {
  EXPECT_TRUE(write({{"enableXMPP", false}, {"jabberdS2SPort", 5269}}));
  EXPECT_EQ(liveAt("s2s.local.port"), "0");
  EXPECT_TRUE(write({{"enableXMPP", true}, {"jabberdS2SPort", 5269}}));
  EXPECT_EQ(liveAt("s2s.local.port"), "5268");
}

TEST_F(JabberWriting, WritesTheServerSwitchAsAPort) {
  EXPECT_TRUE(write({{"enableXMPP", true}}));
  EXPECT_EQ(liveAt("s2s.local.port"), "5268");
  EXPECT_TRUE(write({{"enableXMPP", "NO"}}));
  EXPECT_EQ(liveAt("s2s.local.port"), "0");
}

TEST_F(JabberWriting, WritesSwitchesAsDigits) {
  EXPECT_TRUE(write({{"requireSecureS2S", true}, {"s2sRestrictDomains", 1}, {"enableSavedChats", "YES"}}));
  EXPECT_EQ(liveAt("s2s.security.require_tls"), "1");
  EXPECT_EQ(liveAt("s2s.security.enable_whitelist"), "1");
  EXPECT_EQ(liveAt("router.message_logging_enabled"), "1");
  EXPECT_TRUE(write({{"requireSecureS2S", false}, {"s2sRestrictDomains", 0}, {"enableSavedChats", "NO"}}));
  EXPECT_EQ(liveAt("s2s.security.require_tls"), "0");
  EXPECT_EQ(liveAt("s2s.security.enable_whitelist"), "0");
  EXPECT_EQ(liveAt("router.message_logging_enabled"), "0");
}

TEST_F(JabberWriting, ReplacesTheAllowedDomains) {
  EXPECT_TRUE(write({{"s2sAllowedDomains", Array{"a.example.com", "b.example.com"}}}));
  EXPECT_THAT(allAt("s2s.security.whitelist_domain"), ElementsAre("a.example.com", "b.example.com"));
  EXPECT_TRUE(write({{"s2sAllowedDomains", Array{}}}));
  EXPECT_THAT(allAt("s2s.security.whitelist_domain"), IsEmpty());
  EXPECT_EQ(savedValue("s2sAllowedDomains"), Value(Array{}));
}

TEST_F(JabberWriting, WritesTheDatabasePathAndTheArchiveInterval) {
  EXPECT_TRUE(write({{"jabberdDatabasePath", "/new.db"}, {"savedChatsArchiveInterval", 30}}));
  EXPECT_EQ(liveAt("sm.storage.sqlite.dbname"), "/new.db");
  EXPECT_EQ(liveAt("router.message_logging_roll_days"), "30");
}

TEST_F(JabberWriting, SwitchesElementsOnThatItGivesAValue) {
  load({.c2s = "<local><!--<ssl-port>1</ssl-port>--></local>",
        .sm = "<storage><sqlite><!--<dbname>/off.db</dbname>--></sqlite></storage>"});
  EXPECT_TRUE(write({{"jabberdClientPortSSL", 5219}, {"jabberdDatabasePath", "/on.db"}}));
  EXPECT_THAT(allAt("c2s.local.ssl-port"), ElementsAre("5219"));
  EXPECT_THAT(allAt("sm.storage.sqlite.dbname"), ElementsAre("/on.db"));
}

TEST_F(JabberWriting, MakesOneMissingElementButNothingBelowMissingParents) {
  load({.c2s = "<local/>", .sm = "<storage/>"});
  EXPECT_TRUE(write({{"jabberdClientPortTLS", 5218},
                     {"jabberdDatabasePath", "/new.db"},
                     {"requireSecureS2S", true},
                     {"enableSavedChats", true},
                     {"hosts", Array{"a.example.com"}},
                     {"authLevel", "STANDARD"}}));
  EXPECT_EQ(liveAt("c2s.local.port"), "5218");
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("a.example.com"));
  for (const char* missing : {"sm.storage.sqlite.dbname", "sm.storage.sqlite", "s2s.security.require_tls",
                              "s2s.security", "router.message_logging_enabled", "c2s.authreg",
                              "sm.velto_notification_component_addr", "router.filter_muc_messages_from"}) {
    EXPECT_EQ(stateAt(missing), kNodeNotFound) << missing;
  }
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(JabberWriting, MakesAMissingSavedChatsDirectoryUsable) {
  grantAccess();
  EXPECT_TRUE(write({{"savedChatsLocation", "/var/chats"}, {"savedChatsArchiveInterval", 3}}));
  EXPECT_EQ(errorCode, 0);
  EXPECT_EQ(liveAt("router.message_logging_dir"), "/var/chats");
  EXPECT_EQ(liveAt("router.message_logging_roll_days"), "3");
  EXPECT_EQ(platform.root.mode("/var/chats"), 0750U);
  ASSERT_THAT(platform.tasks.calls, SizeIs(1));
  EXPECT_THAT(platform.tasks.calls[0].arguments,
              ElementsAre(TaskArgument::text("84"), TaskArgument::path("/var/chats")));
  EXPECT_TRUE(debugged("directory configured correctly: '/var/chats'"));
}

TEST_F(JabberWriting, StopsWithThirteenWhenTheSavedChatsDirectoryIsUnusable) {
  grantAccess(1);
  EXPECT_FALSE(write({{"jabberdClientPortTLS", 9},
                      {"enableSavedChats", true},
                      {"savedChatsLocation", "/var/chats"},
                      {"savedChatsArchiveInterval", 3}}));
  EXPECT_EQ(errorCode, 13);
  EXPECT_EQ(liveAt("c2s.local.port"), "9") << "earlier keys are written, and reverted by the coordinator";
  EXPECT_EQ(liveAt("router.message_logging_enabled"), "1");
  EXPECT_EQ(liveAt("router.message_logging_dir"), "/var/chats");
  EXPECT_EQ(liveAt("router.message_logging_roll_days"), "1") << "later keys are not";
  EXPECT_THAT(owner.saved, IsEmpty());
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "inaccessible directory: /var/chats")));
}

TEST_F(JabberWriting, StopsWithThirteenWhenTheAccessToolIsMissing) {
  EXPECT_FALSE(write({{"savedChatsLocation", "/var/chats"}}));
  EXPECT_EQ(errorCode, 13);
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "failed to find bundle with requested identifier"),
                                                whole("E", "inaccessible directory: /var/chats")));
}

TEST_F(JabberWriting, SavesTheCompleteMergedSettings) {
  owner.preferences =
      Dictionary{{"logLevel", "ALL"}, {"initialized", true}, {"logLevelValues", Array{"NONE"}}};
  EXPECT_TRUE(write({{"logLevel", "DEBUG"}, {"jabberdClientPortTLS", 5218}, {"private", "kept"}}));
  ASSERT_THAT(owner.saved, SizeIs(1));
  EXPECT_EQ(lastSaved(), (Dictionary{{"hosts", Array{"old.example.com"}},
                                     {"hostsCommaDelimitedString", "old.example.com"},
                                     {"sslKeyFile", "/old.pem"},
                                     {"sslCAFile", "/old-ca.pem"},
                                     {"authLevel", "ANYMETHOD"},
                                     {"enableXMPP", true},
                                     {"requireSecureS2S", false},
                                     {"s2sRestrictDomains", false},
                                     {"s2sAllowedDomains", Array{"old.example.com"}},
                                     {"logLevel", "DEBUG"},
                                     {"enableSavedChats", false},
                                     {"savedChatsLocation", "/old"},
                                     {"savedChatsArchiveInterval", 1},
                                     {"initialized", true},
                                     {"jabberdDatabasePath", "/old.db"},
                                     {"jabberdClientPortTLS", 5218},
                                     {"jabberdClientPortSSL", 2},
                                     {"jabberdS2SPort", 3},
                                     {"private", "kept"}}));
}

TEST_F(JabberWriting, SavesThePreferencesAfterTheDocumentsAreChanged) {
  struct Watching : RecordingOwner {
    using RecordingOwner::RecordingOwner;
    std::optional<std::string> lastValueWhenSaved;
    bool savePreferences(const Dictionary& changed) override {
      int state = kNodeNotFound;
      lastValueWhenSaved = master->getStringValueForPath_nodeState("router.message_logging_roll_days", state);
      return RecordingOwner::savePreferences(changed);
    }
  } watching(platform);
  ASSERT_TRUE(watching.master->loadAllConfigurations());
  atom->setServiceOwner(&watching);
  EXPECT_TRUE(write({{"savedChatsArchiveInterval", 30}}));
  EXPECT_EQ(watching.lastValueWhenSaved, "30");
}

TEST_F(JabberWriting, SucceedsAlsoWhenThePreferencesCannotBeSaved) {
  struct Failing : RecordingOwner {
    using RecordingOwner::RecordingOwner;
    bool savePreferences(const Dictionary& /*changed*/) override { return false; }
  } failing(platform);
  atom->setServiceOwner(&failing);
  EXPECT_TRUE(write({{"logLevel", "ALL"}}));
}

TEST_F(JabberWriting, WithoutMasterConfigurationSavesThePreferencesAlone) {
  owner.master.reset();
  EXPECT_TRUE(write({{"hosts", Array{"a.example.com"}}, {"authLevel", "STANDARD"}, {"enableXMPP", true}}));
  EXPECT_EQ(savedValue("authLevel"), Value("STANDARD"));
  atom->setServiceOwner(nullptr);
  EXPECT_TRUE(write({{"hosts", Array{"a.example.com"}}}));
}

TEST_F(JabberWriting, RefusesTextThatXMLCannotHold) {
  EXPECT_TRUE(write({{"jabberdDatabasePath", "/a\x01.db"}}));
  EXPECT_EQ(liveAt("sm.storage.sqlite.dbname"), "/old.db");
  EXPECT_THAT(platform.log.lines(), SizeIs(1));
}

TEST_F(JabberWriting, KeepsMarkupInValuesAsText) {
  const std::string path = "/a<b>&\"'--c/-.db";
  EXPECT_TRUE(write({{"jabberdDatabasePath", path}}));
  saveAndReload();
  EXPECT_EQ(setting("jabberdDatabasePath"), Value(path));
}

struct RoundTrip {
  const char* key;
  Value value;
};

void PrintTo(const RoundTrip& trip, std::ostream* out) {
  *out << trip.key << " = " << trip.value.description();
}

class EverySetting : public JabberWriting, public testing::WithParamInterface<RoundTrip> {};

TEST_P(EverySetting, IsReadBackFromTheSavedFilesAsItWasWritten) {
  grantAccess();
  const auto& [key, value] = GetParam();
  EXPECT_TRUE(write({{key, value}}));
  saveAndReload();
  EXPECT_EQ(setting(key), value);
  for (const DictionaryEntry& entry : lastSaved()) EXPECT_EQ(setting(entry.key), entry.value) << entry.key;
}

INSTANTIATE_TEST_SUITE_P(
    ThatCanBeWritten, EverySetting,
    testing::Values(RoundTrip{"hostsCommaDelimitedString", "a.example.com,b.example.com"},
                    RoundTrip{"hosts", Array{"a.example.com", "b.example.com"}},
                    RoundTrip{"sslKeyFile", "/key.pem"}, RoundTrip{"sslKeyFile", ""},
                    RoundTrip{"sslCAFile", "/ca.pem"}, RoundTrip{"sslCAFile", ""},
                    RoundTrip{"authLevel", "STANDARD"}, RoundTrip{"authLevel", "KERBEROS"},
                    RoundTrip{"authLevel", "ANYMETHOD"}, RoundTrip{"enableAutoBuddy", true},
                    RoundTrip{"requireSecureS2S", true}, RoundTrip{"requireSecureS2S", false},
                    RoundTrip{"s2sRestrictDomains", true},
                    RoundTrip{"s2sAllowedDomains", Array{"z.example.com"}}, RoundTrip{"logLevel", "DEBUG"},
                    RoundTrip{"eventLogArchiveInterval", 3}, RoundTrip{"enableSavedChats", true},
                    RoundTrip{"savedChatsLocation", "/var/chats"}, RoundTrip{"savedChatsArchiveInterval", 90},
                    RoundTrip{"initialized", true}, RoundTrip{"services", Array{"a"}},
                    RoundTrip{"jabberdDatabasePath", "/new.db"}, RoundTrip{"jabberdClientPortTLS", 5218},
                    RoundTrip{"jabberdClientPortSSL", 5219}));

TEST_F(JabberWriting, OfTheServerSwitchAndPortIsReadBackFromTheOnePortThatBothAre) {
  EXPECT_TRUE(write({{"enableXMPP", true}}));
  saveAndReload();
  EXPECT_EQ(setting("enableXMPP"), Value(true));
  EXPECT_EQ(setting("jabberdS2SPort"), Value(5268));
  EXPECT_TRUE(write({{"jabberdS2SPort", 0}}));
  saveAndReload();
  EXPECT_EQ(setting("enableXMPP"), Value(false));
}

}  // namespace
}  // namespace tessard
