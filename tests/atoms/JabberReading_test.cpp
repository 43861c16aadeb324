#include "common/Format.h"
#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string element(std::string_view name, std::string_view text) {
  return fill("<%@>%@</%@>", {name, text, name});
}

std::string switchedOff(std::string_view markup) {
  return fill("<!--%@-->", {markup});
}

/// The keys of the settings dictionary, one after the other.
class JabberReading : public JabberTest {
 protected:
  std::optional<Value> read(const Components& components, std::string_view key) {
    load(components);
    return setting(key);
  }
  /// The same with the text inside one component's element `parent`.
  std::optional<Value> readC2sLocal(const std::string& inner, std::string_view key) {
    return read({.c2s = "<local>" + inner + "</local>"}, key);
  }
  std::optional<Value> readS2sLocal(const std::string& inner, std::string_view key) {
    return read({.s2s = "<local>" + inner + "</local>"}, key);
  }
  std::optional<Value> readSecurity(const std::string& inner, std::string_view key) {
    return read({.s2s = "<security>" + inner + "</security>"}, key);
  }
  std::optional<Value> readRouter(const std::string& inner, std::string_view key) {
    return read({.router = inner}, key);
  }
  std::optional<Value> readSqlite(const std::string& inner, std::string_view key) {
    return read({.sm = "<storage><sqlite>" + inner + "</sqlite></storage>"}, key);
  }
};

TEST_F(JabberReading, LoadsThePreferencesOnce) {
  load({});
  owner.preferenceLoads = 0;
  ASSERT_TRUE(atom->readServiceConfiguration());
  EXPECT_EQ(owner.preferenceLoads, 1);
}

TEST_F(JabberReading, CopiesTheJoinedHostsOfThePreferences) {
  owner.preferences = Dictionary{{"hostsCommaDelimitedString", "p.example.com,q.example.com"}};
  EXPECT_EQ(read({}, "hostsCommaDelimitedString"), Value("p.example.com,q.example.com"));
}

TEST_F(JabberReading, KeepsTheJoinedHostsOfThePreferencesWhenTheDomainsDisagree) {
  owner.preferences = Dictionary{{"hostsCommaDelimitedString", "p.example.com"}};
  EXPECT_EQ(readC2sLocal("<id>a.example.com</id>", "hostsCommaDelimitedString"), Value("p.example.com"));
  EXPECT_EQ(setting("hosts"), Value(Array{"a.example.com"}));
}

TEST_F(JabberReading, JoinsTheDomainsWhenThePreferenceIsMissingOrEmpty) {
  const std::string ids = "<id>a.example.com</id><id>b.example.com</id>";
  EXPECT_EQ(readC2sLocal(ids, "hostsCommaDelimitedString"), Value("a.example.com,b.example.com"));
  owner.preferences = Dictionary{{"hostsCommaDelimitedString", ""}};
  EXPECT_EQ(setting("hostsCommaDelimitedString"), Value("a.example.com,b.example.com"));
}

TEST_F(JabberReading, LeavesTheJoinedHostsOutWithoutPreferenceAndDomains) {
  EXPECT_EQ(read({}, "hostsCommaDelimitedString"), std::nullopt);
  EXPECT_EQ(setting("hosts"), std::nullopt);
}

TEST_F(JabberReading, KeepsAnEmptyPreferenceWithoutDomains) {
  owner.preferences = Dictionary{{"hostsCommaDelimitedString", ""}};
  EXPECT_EQ(read({}, "hostsCommaDelimitedString"), Value(""));
}

TEST_F(JabberReading, ListsTheLiveDomainsAsHosts) {
  EXPECT_EQ(
      readC2sLocal("<id>a.example.com</id><!--<id>off.example.com</id>--><id>b.example.com</id>", "hosts"),
      Value(Array{"a.example.com", "b.example.com"}));
}

TEST_F(JabberReading, TakesTheHostsOfThePreferencesWhenNoDomainIsLive) {
  owner.preferences = Dictionary{{"hosts", Array{"p.example.com", "q.example.com"}}};
  EXPECT_EQ(readC2sLocal("<!--<id>off.example.com</id>-->", "hosts"),
            Value(Array{"p.example.com", "q.example.com"}));
  EXPECT_EQ(setting("hostsCommaDelimitedString"), Value("p.example.com,q.example.com"));
}

TEST_F(JabberReading, AnswersALiveKeyFile) {
  EXPECT_EQ(readC2sLocal("<pemfile>/etc/ssl/key.pem</pemfile>", "sslKeyFile"), Value("/etc/ssl/key.pem"));
}

TEST_F(JabberReading, AnswersNoKeyFileWhenItIsSwitchedOffMissingOrEmpty) {
  for (const char* text : {"<!--<pemfile>/etc/ssl/key.pem</pemfile>-->", "", "<pemfile/>",
                           "<!-- <pemfile>/etc/ssl/key.pem</pemfile> -->",
                           "<!--<pemfile>/off.pem</pemfile>--><pemfile>/second.pem</pemfile>"}) {
    EXPECT_EQ(readC2sLocal(text, "sslKeyFile"), Value("")) << text;
  }
}

TEST_F(JabberReading, AnswersTheFirstOfTwoKeyFiles) {
  EXPECT_EQ(readC2sLocal("<pemfile>/one.pem</pemfile><pemfile>/two.pem</pemfile>", "sslKeyFile"),
            Value("/one.pem"));
}

TEST_F(JabberReading, AnswersALiveCAFile) {
  EXPECT_EQ(readC2sLocal("<cachain>/etc/ssl/ca.pem</cachain>", "sslCAFile"), Value("/etc/ssl/ca.pem"));
}

TEST_F(JabberReading, AnswersNoCAFileWhenItIsSwitchedOffMissingOrEmpty) {
  for (const char* text : {"<!--<cachain>/etc/ssl/ca.pem</cachain>-->", "", "<cachain></cachain>"}) {
    EXPECT_EQ(readC2sLocal(text, "sslCAFile"), Value("")) << text;
  }
  EXPECT_EQ(readC2sLocal("<cachain>/one</cachain><cachain>/two</cachain>", "sslCAFile"), Value("/one"));
}

TEST_F(JabberReading, AnswersEmptyTLSFilesWithoutAnyComponent) {
  EXPECT_EQ(setting("sslKeyFile"), Value(""));
  EXPECT_EQ(setting("sslCAFile"), Value(""));
  EXPECT_EQ(setting("authLevel"), Value("ANYMETHOD"));
}

TEST_F(JabberReading, CopiesPreferencesAsTheyAre) {
  owner.preferences = Dictionary{{"enableAutoBuddy", true},
                                 {"logLevel", "DEBUG"},
                                 {"eventLogArchiveInterval", 9},
                                 {"initialized", "YES"},
                                 {"services", Array{Dictionary{{"name", "mail"}}}},
                                 {"logLevelValues", Array{"NONE"}}};
  load({});
  EXPECT_EQ(setting("enableAutoBuddy"), Value(true));
  EXPECT_EQ(setting("logLevel"), Value("DEBUG"));
  EXPECT_EQ(setting("eventLogArchiveInterval"), Value(9));
  EXPECT_EQ(setting("initialized"), Value("YES"));
  EXPECT_EQ(setting("services"), Value(Array{Dictionary{{"name", "mail"}}}));
  EXPECT_EQ(setting("logLevelValues"), std::nullopt) << "not one of the keys";
}

TEST_F(JabberReading, LeavesPreferencesOutThatAreMissing) {
  load({});
  for (const char* key :
       {"enableAutoBuddy", "logLevel", "eventLogArchiveInterval", "initialized", "services"}) {
    EXPECT_EQ(setting(key), std::nullopt) << key;
  }
  owner.preferences.reset();
  EXPECT_EQ(setting("logLevel"), std::nullopt);
}

TEST_F(JabberReading, CallsServerToServerEnabledForAPortThatIsNotZero) {
  EXPECT_EQ(readS2sLocal("<port>5269</port>", "enableXMPP"), Value(true));
  EXPECT_EQ(readS2sLocal("<port> 5269 </port>", "enableXMPP"), Value(true));
  EXPECT_EQ(readS2sLocal("<port>-1</port>", "enableXMPP"), Value(true));
  EXPECT_EQ(readS2sLocal("<port>0</port>", "enableXMPP"), Value(false));
}

TEST_F(JabberReading, CallsServerToServerDisabledForOddPorts) {
  for (const char* text : {"<!--<port>5269</port>-->", "<port/>", "<port>xmpp</port>",
                           "<port>0</port><port>5269</port>", "<!--<port>1</port>--><port>5269</port>"}) {
    EXPECT_EQ(readS2sLocal(text, "enableXMPP"), Value(false)) << text;
    EXPECT_EQ(setting("jabberdS2SPort"), Value(0)) << text;
  }
  EXPECT_EQ(readS2sLocal("", "enableXMPP"), std::nullopt) << "a missing port leaves the key out";
}

TEST_F(JabberReading, AnswersBooleansAndNotNumbersForSwitches) {
  load({.s2s = "<local><port>5269</port></local>"});
  ASSERT_TRUE(setting("enableXMPP"));
  EXPECT_NE(setting("enableXMPP")->asBoolean(), nullptr);
  EXPECT_NE(setting("jabberdS2SPort")->asInteger(), nullptr);
}

TEST_F(JabberReading, ReadsWhetherServersMustEncrypt) {
  EXPECT_EQ(readSecurity("<require_tls>1</require_tls>", "requireSecureS2S"), Value(true));
  EXPECT_EQ(readSecurity("<require_tls>0</require_tls>", "requireSecureS2S"), Value(false));
}

TEST_F(JabberReading, ReadsOddSwitchesAsOffAndMissingOnesNotAtAll) {
  const std::pair<const char*, const char*> switches[] = {{"requireSecureS2S", "require_tls"},
                                                          {"s2sRestrictDomains", "enable_whitelist"}};
  for (const auto& [key, name] : switches) {
    const std::string live = element(name, "1");
    EXPECT_EQ(readSecurity(switchedOff(live), key), Value(false)) << "switched off";
    EXPECT_EQ(readSecurity(element(name, ""), key), Value(false)) << "empty";
    EXPECT_EQ(readSecurity(element(name, "true"), key), Value(false)) << "a word";
    EXPECT_EQ(readSecurity(live + element(name, "0"), key), Value(true)) << "doubled";
    EXPECT_EQ(readSecurity("", key), std::nullopt) << "missing";
  }
}

TEST_F(JabberReading, ReadsWhetherServersAreRestricted) {
  EXPECT_EQ(readSecurity("<enable_whitelist>1</enable_whitelist>", "s2sRestrictDomains"), Value(true));
  EXPECT_EQ(readSecurity("<enable_whitelist>0</enable_whitelist>", "s2sRestrictDomains"), Value(false));
}

TEST_F(JabberReading, ListsTheLiveAllowedDomains) {
  EXPECT_EQ(readSecurity("<whitelist_domain>a.example.com</whitelist_domain>"
                         "<!--<whitelist_domain>off.example.com</whitelist_domain>-->"
                         "<whitelist_domain>b.example.com</whitelist_domain>",
                         "s2sAllowedDomains"),
            Value(Array{"a.example.com", "b.example.com"}));
}

TEST_F(JabberReading, TakesTheAllowedDomainsOfThePreferencesWhenNoneIsLive) {
  EXPECT_EQ(readSecurity("", "s2sAllowedDomains"), std::nullopt);
  owner.preferences = Dictionary{{"s2sAllowedDomains", Array{"p.example.com"}}};
  EXPECT_EQ(setting("s2sAllowedDomains"), Value(Array{"p.example.com"}));
  EXPECT_EQ(readSecurity("<!--<whitelist_domain>off.example.com</whitelist_domain>-->", "s2sAllowedDomains"),
            Value(Array{"p.example.com"}));
  owner.preferences = Dictionary{{"s2sAllowedDomains", Array{}}};
  EXPECT_EQ(setting("s2sAllowedDomains"), Value(Array{})) << "an empty list is a list";
}

TEST_F(JabberReading, ReadsWhetherChatsAreSaved) {
  EXPECT_EQ(readRouter("<message_logging_enabled>1</message_logging_enabled>", "enableSavedChats"),
            Value(true));
  EXPECT_EQ(readRouter("<message_logging_enabled>0</message_logging_enabled>", "enableSavedChats"),
            Value(false));
  EXPECT_EQ(readRouter("<!--<message_logging_enabled>1</message_logging_enabled>-->", "enableSavedChats"),
            Value(false));
  EXPECT_EQ(readRouter("<message_logging_enabled/>", "enableSavedChats"), Value(false));
  EXPECT_EQ(readRouter("", "enableSavedChats"), std::nullopt);
}

TEST_F(JabberReading, ReadsWhereChatsAreSaved) {
  EXPECT_EQ(readRouter("<message_logging_dir>/chats</message_logging_dir>", "savedChatsLocation"),
            Value("/chats"));
  EXPECT_EQ(readRouter("<message_logging_dir/>", "savedChatsLocation"), Value(""));
  EXPECT_EQ(readRouter("<message_logging_dir>/1</message_logging_dir><message_logging_dir>/2"
                       "</message_logging_dir>",
                       "savedChatsLocation"),
            Value("/1"));
  EXPECT_EQ(readRouter("", "savedChatsLocation"), std::nullopt);
}

TEST_F(JabberReading, ReportsASwitchedOffLocationAsTheTextOfItsComment) {
  EXPECT_EQ(readRouter("<!--<message_logging_dir>/chats</message_logging_dir>-->", "savedChatsLocation"),
            Value("<message_logging_dir>/chats</message_logging_dir>"));
}

TEST_F(JabberReading, ReadsAfterHowManyDaysChatsAreArchived) {
  const char* key = "savedChatsArchiveInterval";
  EXPECT_EQ(readRouter("<message_logging_roll_days>14</message_logging_roll_days>", key), Value(14));
  for (const char* text : {"", "<message_logging_roll_days/>",
                           "<message_logging_roll_days>often"
                           "</message_logging_roll_days>",
                           "<!--<message_logging_roll_days>14</message_logging_roll_days>-->"}) {
    EXPECT_EQ(readRouter(text, key), Value(0)) << text;
  }
}

TEST_F(JabberReading, ReadsTheDatabasePath) {
  EXPECT_EQ(readSqlite("<dbname>/db/one.db</dbname>", "jabberdDatabasePath"), Value("/db/one.db"));
  EXPECT_EQ(readSqlite("<dbname/>", "jabberdDatabasePath"), Value(""));
  EXPECT_EQ(readSqlite("<!--<dbname>/db/one.db</dbname>-->", "jabberdDatabasePath"),
            Value("<dbname>/db/one.db</dbname>"));
  EXPECT_EQ(readSqlite("<dbname>/1</dbname><dbname>/2</dbname>", "jabberdDatabasePath"), Value("/1"));
  EXPECT_EQ(readSqlite("", "jabberdDatabasePath"), std::nullopt);
}

TEST_F(JabberReading, ReadsTheDatabasePathOfTheFirstStorageThatHasOne) {
  load({.sm = "<storage/><storage><sqlite/></storage><storage><sqlite><dbname>/third</dbname></sqlite></"
              "storage>"});
  EXPECT_EQ(setting("jabberdDatabasePath"), Value("/third"));
}

TEST_F(JabberReading, ReadsThePortsOfClients) {
  const std::pair<const char*, const char*> ports[] = {{"jabberdClientPortTLS", "port"},
                                                       {"jabberdClientPortSSL", "ssl-port"}};
  for (const auto& [key, name] : ports) {
    const std::string live = element(name, "5218");
    EXPECT_EQ(readC2sLocal(live, key), Value(5218)) << name;
    EXPECT_EQ(readC2sLocal(element(name, "\n  5218 tcp"), key), Value(5218)) << name;
    EXPECT_EQ(readC2sLocal(switchedOff(live), key), Value(0)) << name;
    EXPECT_EQ(readC2sLocal(element(name, ""), key), Value(0)) << name;
    EXPECT_EQ(readC2sLocal("", key), Value(0)) << name;
    EXPECT_EQ(readC2sLocal(element(name, "1") + live, key), Value(1)) << name;
  }
}

TEST_F(JabberReading, ReadsThePortOfServers) {
  EXPECT_EQ(readS2sLocal("<port>5269</port>", "jabberdS2SPort"), Value(5269));
  EXPECT_EQ(readS2sLocal("<port>0</port>", "jabberdS2SPort"), Value(0));
  EXPECT_EQ(readS2sLocal("", "jabberdS2SPort"), Value(0));
}

constexpr const char* kMechanismElements[] = {"<plain/>",      "<cram-md5/>", "<gssapi/>", "<plain/>",
                                              "<digest-md5/>", "<plain/>",    "<plain/>"};

/// A c2s file in which exactly the mechanisms of the set are live; the others are switched off.
std::string authregOf(unsigned set) {
  const auto one = [&](std::size_t bit) {
    const char* const text = kMechanismElements[bit];
    return (set & (1U << bit)) != 0 ? std::string(text) : switchedOff(text);
  };
  return fill(
      "<authreg><mechanisms><traditional>%@%@</traditional><sasl>%@%@%@</sasl></mechanisms>"
      "<ssl-mechanisms><sasl>%@</sasl><traditional>%@</traditional></ssl-mechanisms></authreg>",
      {one(0), one(1), one(2), one(3), one(4), one(5), one(6)});
}

TEST_F(JabberReading, NamesTheAuthenticationLevelOfTwoExactSetsOnly) {
  for (unsigned set = 0; set < 128; ++set) {
    const std::string expected = set == 118 ? "STANDARD" : set == 4 ? "KERBEROS" : "ANYMETHOD";
    ASSERT_EQ(read({.c2s = authregOf(set)}, "authLevel"), Value(expected)) << set;
  }
}

TEST_F(JabberReading, CountsMissingMechanismsAsOff) {
  EXPECT_EQ(read({.c2s = "<authreg><mechanisms><sasl><gssapi/></sasl></mechanisms></authreg>"}, "authLevel"),
            Value("KERBEROS"));
  EXPECT_EQ(read({.c2s = "<authreg/>"}, "authLevel"), Value("ANYMETHOD"));
}

TEST_F(JabberReading, CountsAMechanismByItsFirstElement) {
  EXPECT_EQ(
      read({.c2s = "<authreg><mechanisms><sasl><!--<gssapi/>--><gssapi/></sasl></mechanisms></authreg>"},
           "authLevel"),
      Value("ANYMETHOD"));
  EXPECT_EQ(read({.c2s = "<authreg><mechanisms><sasl><gssapi/><gssapi/></sasl></mechanisms></authreg>"},
                 "authLevel"),
            Value("KERBEROS"));
}

std::vector<std::string> keysOf(const Dictionary& dictionary) {
  std::vector<std::string> keys;
  for (const DictionaryEntry& entry : dictionary) keys.push_back(entry.key);
  return keys;
}

const Components kEverything = {
    .c2s = "<local><id>a.example.com</id><port>5218</port></local>",
    .s2s =
        "<local><port>5269</port></local><security><require_tls>1</require_tls>"
        "<enable_whitelist>1</enable_whitelist><whitelist_domain>b.example.com</whitelist_domain></security>",
    .sm = "<storage><sqlite><dbname>/db</dbname></sqlite></storage>",
    .router =
        "<message_logging_enabled>1</message_logging_enabled><message_logging_dir>/chats"
        "</message_logging_dir>",
};

TEST_F(JabberReading, AnswersTheKeysInTheirOrder) {
  owner.preferences = Dictionary{{"services", Array{}},     {"initialized", true},
                                 {"logLevel", "ALL"},       {"eventLogArchiveInterval", 7},
                                 {"enableAutoBuddy", true}, {"hostsCommaDelimitedString", "a.example.com"}};
  load(kEverything);
  EXPECT_THAT(
      keysOf(*atom->readServiceConfiguration()),
      ElementsAre("hostsCommaDelimitedString", "hosts", "sslKeyFile", "sslCAFile", "authLevel",
                  "enableAutoBuddy", "enableXMPP", "requireSecureS2S", "s2sRestrictDomains",
                  "s2sAllowedDomains", "logLevel", "eventLogArchiveInterval", "enableSavedChats",
                  "savedChatsLocation", "savedChatsArchiveInterval", "initialized", "services",
                  "jabberdDatabasePath", "jabberdClientPortTLS", "jabberdClientPortSSL", "jabberdS2SPort"));
}

TEST_F(JabberReading, PutsTheJoinedHostsAfterTheHostsWhenNoPreferenceHasThem) {
  load(kEverything);
  const auto keys = keysOf(*atom->readServiceConfiguration());
  EXPECT_EQ(keys[0], "hosts");
  EXPECT_EQ(keys[1], "hostsCommaDelimitedString");
}

TEST_F(JabberReading, AnswersTheKeysThatAreAlwaysThereWithoutFilesAndPreferences) {
  owner.preferences.reset();
  const auto settings = atom->readServiceConfiguration();
  ASSERT_TRUE(settings);
  EXPECT_THAT(keysOf(*settings),
              ElementsAre("sslKeyFile", "sslCAFile", "authLevel", "savedChatsArchiveInterval",
                          "jabberdClientPortTLS", "jabberdClientPortSSL", "jabberdS2SPort"));
}

TEST_F(JabberReading, AnswersWithoutMasterConfigurationAndWithoutOwner) {
  owner.master.reset();
  EXPECT_EQ(setting("authLevel"), Value("ANYMETHOD"));
  EXPECT_EQ(atom->getServiceDomains(), std::nullopt);
  atom->setServiceOwner(nullptr);
  EXPECT_EQ(setting("authLevel"), Value("ANYMETHOD"));
  EXPECT_EQ(atom->getServiceDomains(), std::nullopt);
  EXPECT_EQ(atom->determineDatabasePath(), "/private/var/jabberd/sqlite/jabberd2_notification.db");
}

TEST_F(JabberReading, ChangesNothing) {
  load(kEverything);
  static_cast<void>(atom->readServiceConfiguration());
  for (const char* name : {"c2s", "s2s", "sm", "router"}) {
    EXPECT_FALSE(owner.master->defaultComponentForName(name)->configDirty()) << name;
  }
  EXPECT_THAT(owner.saved, IsEmpty());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(JabberReading, AnswersTheServedDomainsInTheirOrder) {
  load({.c2s = "<local><id>z.example.com</id><id/><id>a.example.com</id></local>"});
  EXPECT_THAT(atom->getServiceDomains().value(), ElementsAre("z.example.com", "", "a.example.com"));
}

TEST_F(JabberReading, AnswersNoDomainsWithoutDomainsAndPreference) {
  load({});
  EXPECT_EQ(atom->getServiceDomains(), std::nullopt);
  EXPECT_EQ(atom->getS2SAllowedDomains(), std::nullopt);
  owner.preferences = Dictionary{{"hosts", "not a list"}, {"s2sAllowedDomains", 1}};
  EXPECT_EQ(atom->getServiceDomains(), std::nullopt);
  EXPECT_EQ(atom->getS2SAllowedDomains(), std::nullopt);
}

TEST_F(JabberReading, NamesTheSystemLogAndArchivesNothing) {
  EXPECT_EQ(atom->getServiceLogPaths(), (Dictionary{{"JABBER_LOG", "/var/log/system.log"}}));
  EXPECT_FALSE(atom->archiveServiceLogs());
  EXPECT_EQ(atom->getServiceFirstDomain(), std::nullopt);
  EXPECT_EQ(atom->getServiceConnectedUserNames(), std::nullopt);
}

}  // namespace
}  // namespace tessard
