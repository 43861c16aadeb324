#include <unistd.h>

#include "tests/atoms/AtomFixtures.h"
#include "tests/atoms/RealTools.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::Pair;

const std::string kPackaged = "/etc/jabberd2/";

/// The component files of the jabberd2 package, as they are installed.
class PackagedFiles : public JabberTest {
 protected:
  void SetUp() override {
    for (const char* name : {"router.xml", "sm.xml", "c2s.xml", "s2s.xml"}) {
      if (::access((kPackaged + name).c_str(), R_OK) != 0)
        GTEST_SKIP() << kPackaged << name << " is not there";
      platform.root.write(inConfig(name), machineFile(kPackaged + name));
    }
    writeMasterFile();
    reload();
    grantAccess();
  }
  std::string text(const std::string& name) const { return platform.root.read(inConfig(name)); }
};

TEST_F(PackagedFiles, AreRead) {
  const auto settings = atom->readServiceConfiguration();
  ASSERT_TRUE(settings);
  EXPECT_EQ(setting("authLevel"), Value("ANYMETHOD"));
  EXPECT_EQ(setting("jabberdClientPortTLS"), Value(5222));
  EXPECT_EQ(setting("jabberdS2SPort"), Value(5269));
  EXPECT_EQ(setting("enableXMPP"), Value(true));
  EXPECT_EQ(setting("sslKeyFile"), Value("")) << "it stands in a comment with blanks around it";
  EXPECT_EQ(setting("enableSavedChats"), std::nullopt);
  EXPECT_FALSE(atom->getServiceDomains().value_or(Lines{}).empty());
}

TEST_F(PackagedFiles, TakeTheSettingsThatTheyHaveElementsFor) {
  platform.tasks.on("/usr/sbin/keywarden", {0, "geheim\n", ""});
  platform.root.write("/key.pem", "a key");
  EXPECT_TRUE(write({{"hosts", Array{"a.example.com", "b.example.com"}},
                     {"sslKeyFile", "/key.pem"},
                     {"sslCAFile", "/ca.pem"},
                     {"authLevel", "STANDARD"},
                     {"jabberdClientPortTLS", 5218},
                     {"jabberdClientPortSSL", 5219},
                     {"jabberdS2SPort", 5268},
                     {"requireSecureS2S", true},
                     {"s2sRestrictDomains", true},
                     {"s2sAllowedDomains", Array{"c.example.com"}},
                     {"jabberdDatabasePath", "/new.db"}}));
  saveAndReload();
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("a.example.com", "b.example.com"));
  EXPECT_THAT(attributesAt("c2s.local.id", 1),
              ElementsAre(Pair("require-starttls", "true"), Pair("pemfile", "/key.pem"),
                          Pair("private-key-password", "geheim"), Pair("cachain", "/ca.pem")));
  EXPECT_EQ(liveAt("c2s.local.private_key_password"), "geheim");
  EXPECT_EQ(liveAt("s2s.local.private_key_password"), "geheim");
  EXPECT_EQ(setting("sslKeyFile"), Value("/key.pem"));
  EXPECT_EQ(setting("sslCAFile"), Value("/ca.pem"));
  EXPECT_EQ(setting("jabberdClientPortTLS"), Value(5218));
  EXPECT_EQ(setting("jabberdClientPortSSL"), Value(5219));
  EXPECT_EQ(setting("jabberdS2SPort"), Value(5268));
  EXPECT_EQ(setting("requireSecureS2S"), Value(true));
  EXPECT_EQ(setting("s2sRestrictDomains"), Value(true));
  EXPECT_EQ(setting("s2sAllowedDomains"), Value(Array{"c.example.com"}));
  EXPECT_EQ(setting("jabberdDatabasePath"), Value("/new.db"));
  EXPECT_EQ(setting("authLevel"), Value("STANDARD"));
}

TEST_F(PackagedFiles, AreNotGivenElementsBelowTheRootThatTheyLack) {
  const std::string router = text("router.xml");
  const std::string sm = text("sm.xml");
  EXPECT_TRUE(write({{"enableSavedChats", true},
                     {"savedChatsLocation", "/var/chats"},
                     {"savedChatsArchiveInterval", 3},
                     {"hosts", Array{"a.example.com"}}}));
  saveAndReload();
  EXPECT_EQ(text("router.xml"), router) << "byte for byte";
  EXPECT_EQ(text("sm.xml"), sm);
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("a.example.com"));
}

TEST_F(PackagedFiles, ComeBackFromEveryAuthenticationLevel) {
  for (const char* level : {"STANDARD", "KERBEROS", "ANYMETHOD", "STANDARD", "ANYMETHOD", "KERBEROS"}) {
    EXPECT_TRUE(write({{"authLevel", level}}));
    saveAndReload();
    EXPECT_EQ(setting("authLevel"), Value(level));
  }
}

TEST_F(PackagedFiles, AreSwitchedToTLSAndBack) {
  platform.tasks.on("/usr/sbin/keywarden", {0, "", ""});
  platform.root.write("/key.pem", "a key");
  EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}, {"sslCAFile", "/ca.pem"}}));
  saveAndReload();
  EXPECT_THAT(attributesAt("c2s.local.id"), Contains(Pair("require-starttls", "true")));
  EXPECT_TRUE(write({{"sslKeyFile", ""}, {"sslCAFile", ""}}));
  saveAndReload();
  EXPECT_EQ(setting("sslKeyFile"), Value(""));
  EXPECT_EQ(setting("sslCAFile"), Value(""));
  EXPECT_THAT(attributesAt("c2s.local.id"),
              AllOf(Not(Contains(Pair("require-starttls", testing::_))),
                    Not(Contains(Pair("pemfile", testing::_))), Not(Contains(Pair("cachain", testing::_)))));
  EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}}));
  saveAndReload();
  EXPECT_EQ(setting("sslKeyFile"), Value("/key.pem"));
}

TEST_F(PackagedFiles, FollowTheHost) {
  EXPECT_TRUE(write({{"hosts", Array{"old.example.com"}}}));
  atom->handleChangeIPRequest(
      NetworkChangeContext::fromEvent({{"oldHost", "old.example.com"}, {"newHost", "new.example.com"}}));
  saveAndReload();
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("new.example.com"));
  atom->handleNetworkChanged(NetworkChangeContext::fromEvent(
      {{"hasHostChanged", true}, {"hasValidNetworkConfiguration", true}, {"newHost", "newest.example.com"}}));
  saveAndReload();
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("newest.example.com"));
}

}  // namespace
}  // namespace tessard
