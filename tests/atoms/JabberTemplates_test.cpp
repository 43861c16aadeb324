#include <unistd.h>

#include <array>
#include <cerrno>
#include <map>
#include <set>

#include "common/XmlDocument.h"
#include "tests/atoms/AtomFixtures.h"
#include "tests/atoms/ProjectPaths.h"
#include "tests/atoms/RealTools.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr std::array<const char*, 5> kTemplates = {"router.xml", "router-users.xml", "sm.xml", "c2s.xml",
                                                   "s2s.xml"};
// The alphabet of passwords, written down here a second time: a J twice, and 28 signs.
const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZJabcdefghijklmnopqrstuvwxyz0123456789" +
                              std::string(R"(`~!#$%^*()-=_+[]\|;':",./?{})");
const std::string kPlain = "<a>@HOSTNAME@ @ROUTERPASSWORD@ @HOSTNAME@ @hostname@ @ROUTERPASSWORD@</a>";

class JabberTemplates : public JabberTest {
 protected:
  void SetUp() override {
    for (const char* name : kTemplates) platform.root.write(inConfig(name), kPlain);
  }
  std::string text(const std::string& name) const { return platform.root.read(inConfig(name)); }
  void expectUntouched() const {
    for (const char* name : kTemplates) EXPECT_EQ(text(name), kPlain) << name;
    EXPECT_THAT(platform.root.list(kConfigDirectory), SizeIs(5)) << "no temporary file is left";
  }
  /// Numbers that draw this text.
  static std::deque<std::uint32_t> drawing(const std::string& wanted) {
    std::deque<std::uint32_t> numbers;
    for (const char c : wanted) numbers.push_back(static_cast<std::uint32_t>(kAlphabet.find(c)));
    return numbers;
  }
};

TEST_F(JabberTemplates, AreFilledWithTheHostNameAndOnePassword) {
  platform.random.next = drawing("abcdefghijklmno");
  EXPECT_TRUE(atom->initializeServiceConfigurations());
  for (const char* name : kTemplates) {
    EXPECT_EQ(text(name),
              "<a>chat.example.com abcdefghijklmno chat.example.com @hostname@ abcdefghijklmno</a>")
        << name;
    EXPECT_EQ(platform.root.mode(inConfig(name)), 0600U) << name;
  }
  EXPECT_EQ(platform.random.drawn, 15) << "one password for all";
  EXPECT_THAT(platform.root.list(kConfigDirectory), SizeIs(5));
  EXPECT_THAT(platform.log.messages(), IsEmpty()) << "and the password in no log";
}

TEST_F(JabberTemplates, BelongToTheServiceAccount) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  EXPECT_TRUE(atom->initializeServiceConfigurations());
  for (const char* name : kTemplates) {
    EXPECT_EQ(platform.root.owner(inConfig(name)), 84U) << name;
    EXPECT_EQ(platform.root.group(inConfig(name)), 0U) << name;
  }
}

TEST_F(JabberTemplates, AreReadAndWrittenInTheirOrder) {
  EXPECT_TRUE(atom->initializeServiceConfigurations());
  std::vector<std::string> read;
  for (const auto& call : platform.files.calls("readFile")) read.push_back(call.path);
  std::vector<std::string> written;
  for (const auto& call : platform.files.calls("createFile")) written.push_back(call.path);
  EXPECT_THAT(read, ElementsAre(inConfig("router.xml"), inConfig("router-users.xml"), inConfig("sm.xml"),
                                inConfig("c2s.xml"), inConfig("s2s.xml")));
  EXPECT_THAT(written, ElementsAre(inConfig("router.xml.tmp"), inConfig("router-users.xml.tmp"),
                                   inConfig("sm.xml.tmp"), inConfig("c2s.xml.tmp"), inConfig("s2s.xml.tmp")));
}

TEST_F(JabberTemplates, AreNeverReadableByOthersWhileTheyHoldThePassword) {
  platform.files.beforeCall = [this](const FaultyFileSystem::Call& call) {
    for (const std::string& name : platform.root.list(kConfigDirectory)) {
      const std::string path = inConfig(name);
      if (platform.root.read(path).find("@ROUTERPASSWORD@") == std::string::npos) {
        EXPECT_EQ(platform.root.mode(path), 0600U) << path << " before " << call.operation;
      }
    }
  };
  EXPECT_TRUE(atom->initializeServiceConfigurations());
}

TEST_F(JabberTemplates, AreAllLeftAsTheyAreWhenOneIsMissing) {
  for (const char* missing : kTemplates) {
    SetUp();
    platform.log.clear();
    platform.root.remove(inConfig(missing));
    EXPECT_FALSE(atom->initializeServiceConfigurations());
    EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "Failed to load " + inConfig(missing) +
                                                                 " (error = No such file or directory)")));
    for (const char* name : kTemplates) {
      if (std::string(name) != missing) {
        EXPECT_EQ(text(name), kPlain) << name;
      }
    }
  }
}

TEST_F(JabberTemplates, AreAllLeftAsTheyAreWhenOneIsNoText) {
  platform.root.write(inConfig("s2s.xml"), "<a>\xff@HOSTNAME@</a>");
  EXPECT_FALSE(atom->initializeServiceConfigurations());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "Failed to load " + inConfig("s2s.xml") + " (error = not UTF-8 text)")));
  EXPECT_EQ(text("router.xml"), kPlain);
  EXPECT_EQ(text("s2s.xml"), "<a>\xff@HOSTNAME@</a>");
}

TEST_F(JabberTemplates, AreAllLeftAsTheyAreWhenOneCannotBeRead) {
  platform.files.failPath("readFile", "s2s.xml", EIO);
  EXPECT_FALSE(atom->initializeServiceConfigurations());
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "Failed to load " + inConfig("s2s.xml") +
                                                               " (error = Input/output error)")));
  expectUntouched();
}

TEST_F(JabberTemplates, AreNotFilledWithoutAHostName) {
  owner.hostDomain.reset();
  EXPECT_FALSE(atom->initializeServiceConfigurations());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "cannot fill the component templates: the host name is not known")));
  expectUntouched();
  atom->setServiceOwner(nullptr);
  EXPECT_FALSE(atom->initializeServiceConfigurations());
}

TEST_F(JabberTemplates, AreLeftWholeWhenTheDiskIsFull) {
  platform.files.fillDisk();
  EXPECT_FALSE(atom->initializeServiceConfigurations());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "error saving configuration file: \"" + inConfig("router.xml") +
                                         "\" : No space left on device")));
  expectUntouched();
}

TEST_F(JabberTemplates, StayDoneUpToTheOneThatCannotBeWritten) {
  platform.files.failPath("createFile", "sm.xml.tmp", EDQUOT);
  EXPECT_FALSE(atom->initializeServiceConfigurations());
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "error saving configuration file: \"" + inConfig("sm.xml") +
                                         "\" : Disk quota exceeded")));
  EXPECT_THAT(text("router.xml"), Not(HasSubstr("@ROUTERPASSWORD@")));
  EXPECT_THAT(text("router-users.xml"), Not(HasSubstr("@ROUTERPASSWORD@")));
  for (const char* name : {"sm.xml", "c2s.xml", "s2s.xml"}) EXPECT_EQ(text(name), kPlain) << name;
}

TEST_F(JabberTemplates, LogThatTheyCouldNotBeGivenAwayAndGoOn) {
  platform.files.failAll("setOwnership", EPERM);
  EXPECT_TRUE(atom->initializeServiceConfigurations());
  const std::string line = whole("E", "setting permissions of config failed: 'Operation not permitted'");
  EXPECT_THAT(platform.log.lines(), ElementsAre(line, line, line, line, line));
  for (const char* name : kTemplates) EXPECT_THAT(text(name), Not(HasSubstr("@ROUTERPASSWORD@"))) << name;
}

TEST_F(JabberTemplates, KeepTheirContentInASecondRun) {
  ASSERT_TRUE(atom->initializeServiceConfigurations());
  std::map<std::string, std::string> first;
  for (const char* name : kTemplates) {
    first[name] = text(name);
    platform.root.setModified(inConfig(name), {1000, 0});
    platform.root.setMode(inConfig(name), 0644);
  }
  owner.hostDomain = "other.example.com";
  platform.files.clearCalls();
  EXPECT_TRUE(atom->initializeServiceConfigurations());
  for (const char* name : kTemplates) {
    EXPECT_EQ(text(name), first[name]) << name;
    EXPECT_EQ(platform.root.modified(inConfig(name)), (FileTime{1000, 0})) << "not even written";
    EXPECT_EQ(platform.root.mode(inConfig(name)), 0600U) << name;
  }
  EXPECT_THAT(platform.files.changes(), SizeIs(5)) << "ownership and permissions alone";
  EXPECT_THAT(platform.files.calls("setOwnership"), SizeIs(5));
}

TEST_F(JabberTemplates, ThatComeWithTheProductAreFilledCompletely) {
  for (const char* name : kTemplates) {
    platform.root.write(inConfig(name), machineFile(templatesDirectory() + "/" + name));
  }
  platform.root.write(inConfig("jabberd.cfg"), machineFile(templatesDirectory() + "/jabberd.cfg"));
  ASSERT_TRUE(atom->initializeServiceConfigurations());
  for (const char* name : kTemplates) {
    EXPECT_THAT(text(name), AllOf(Not(HasSubstr("@HOSTNAME@")), Not(HasSubstr("@ROUTERPASSWORD@")))) << name;
    const auto parsed = XmlDocument::parse(text(name));
    EXPECT_TRUE(parsed) << name << ": " << parsed.error().description();
  }
  reload();
  const std::string password = liveAt("router.local.secret").value_or("");
  EXPECT_THAT(password, SizeIs(15));
  for (const char* path : {"sm.router.pass", "c2s.router.pass", "s2s.router.pass"}) {
    EXPECT_EQ(liveAt(path), password) << path;
  }
  EXPECT_THAT(text("router-users.xml"), HasSubstr("<secret>" + password + "</secret>"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("chat.example.com"));
  EXPECT_EQ(liveAt("sm.local.id"), "chat.example.com");
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "pubsub.chat.example.com");
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.chat.example.com");
}

TEST_F(JabberTemplates, ThatComeWithTheProductTakeEveryWrittenSetting) {
  for (const char* name : {"router.xml", "router-users.xml", "sm.xml", "c2s.xml", "s2s.xml", "jabberd.cfg"}) {
    platform.root.write(inConfig(name), machineFile(templatesDirectory() + "/" + name));
  }
  ASSERT_TRUE(atom->initializeServiceConfigurations());
  reload();
  grantAccess();
  platform.tasks.on("/usr/sbin/keywarden", {0, "geheim\n", ""});
  platform.root.write("/key.pem", "a key");
  const SettingsDictionary wanted{{"hosts", Array{"a.example.com", "b.example.com"}},
                                  {"sslKeyFile", "/key.pem"},
                                  {"sslCAFile", "/ca.pem"},
                                  {"authLevel", "STANDARD"},
                                  {"jabberdS2SPort", 5268},
                                  {"jabberdClientPortTLS", 5218},
                                  {"jabberdClientPortSSL", 5219},
                                  {"enableXMPP", true},
                                  {"requireSecureS2S", true},
                                  {"s2sRestrictDomains", true},
                                  {"s2sAllowedDomains", Array{"c.example.com"}},
                                  {"jabberdDatabasePath", "/new.db"},
                                  {"enableSavedChats", true},
                                  {"savedChatsLocation", "/var/chats"},
                                  {"savedChatsArchiveInterval", 30}};
  EXPECT_TRUE(write(wanted));
  saveAndReload();
  const auto read = atom->readServiceConfiguration();
  for (const DictionaryEntry& entry : wanted) EXPECT_EQ(setting(entry.key), entry.value) << entry.key;
  EXPECT_EQ(liveAt("s2s.local.private_key_password"), "geheim");
  EXPECT_EQ(attributesAt("c2s.local.id", 1).size(), 4U);
}

TEST_F(JabberTemplates, GetPasswordsOfFifteenCharactersOfTheAlphabet) {
  ASSERT_EQ(kAlphabet.size(), 91U);
  std::set<char> seen;
  for (int i = 0; i < 2000; ++i) {
    const std::string password = atom->newRandomPassword();
    ASSERT_THAT(password, SizeIs(15));
    ASSERT_EQ(password.find_first_not_of(kAlphabet), std::string::npos) << password;
    seen.insert(password.begin(), password.end());
  }
  EXPECT_THAT(seen, SizeIs(90)) << "every sign, the J being there twice";
}

TEST_F(JabberTemplates, GetTheCharactersAtTheRemaindersOfTheNumbers) {
  for (std::uint32_t first = 0; first < 91; ++first) {
    platform.random.next.assign(15, first + 91 * 1000);
    const std::string password = atom->newRandomPassword();
    EXPECT_EQ(password, std::string(15, kAlphabet[first])) << first;
  }
  EXPECT_EQ(platform.random.drawn, 91 * 15);
  platform.random.next.assign(15, 4294967295U);
  EXPECT_EQ(atom->newRandomPassword(), std::string(15, kAlphabet[4294967295U % 91]));
}

TEST_F(JabberTemplates, GetNoPasswordThatJabberdWouldExpand) {
  platform.random.next = drawing(
      "abc${defghijklm"
      "$${{}}$$$$$$$$$"
      "good$password{}");
  EXPECT_EQ(atom->newRandomPassword(), "good$password{}");
  EXPECT_EQ(platform.random.drawn, 45);
  platform.random.next = drawing(
      "abcdefghijklm${"
      "abcdefghijklmn$");
  EXPECT_EQ(atom->newRandomPassword(), "abcdefghijklmn$") << "at the very end too";
}

TEST_F(JabberTemplates, GetPasswordsWhoseCharactersAreSpreadAsTheAlphabetSays) {
  constexpr int kDraws = 1000000;
  std::map<char, int> counts;
  int characters = 0;
  while (characters < kDraws) {
    for (const char c : atom->newRandomPassword()) {
      ++counts[c];
      ++characters;
    }
  }
  // One password in six hundred holds "${" and is drawn again, which makes those two signs rarer by about a
  // hundredth: that adds about 2 to the distance.
  double distance = 0;
  for (const auto& [character, count] : counts) {
    const double expected = characters * (character == 'J' ? 2.0 : 1.0) / 91.0;
    distance += (count - expected) * (count - expected) / expected;
  }
  // The 0.9999 quantile of chi-squared with 89 degrees of freedom. The generator's seed is fixed.
  EXPECT_LT(distance, 147.4);
  EXPECT_NEAR(counts['J'] / (characters / 91.0), 2.0, 0.06);
  EXPECT_NEAR(counts['K'] / (characters / 91.0), 1.0, 0.05);
}

}  // namespace
}  // namespace tessard
