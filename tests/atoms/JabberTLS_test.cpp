#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

const std::string kKeychainTool = "/usr/sbin/keywarden";

class JabberTLS : public JabberTest {
 protected:
  void SetUp() override {
    load({.c2s = "<local><id realm=''>a.example.com</id><id>b.example.com</id>"
                 "<!--<id>off.example.com</id>--><!--<pemfile>/off.pem</pemfile>--></local>",
          .s2s = "<local><port>1</port></local>"});
    platform.root.write("/key.pem", "a key");
  }

  void keyHasPassPhrase(const std::string& output) { platform.tasks.on(kKeychainTool, {0, output, ""}); }
  void keyHasNoPassPhrase() { platform.tasks.on(kKeychainTool, {0, "", ""}); }
  void switchAllOn() {
    keyHasPassPhrase("geheim\n");
    ASSERT_TRUE(write({{"sslKeyFile", "/key.pem"}, {"sslCAFile", "/ca.pem"}}));
    platform.log.clear();
    platform.tasks.calls.clear();
  }
};

TEST_F(JabberTLS, SetsKeyFileAndPassPhraseForClientsAndServers) {
  keyHasPassPhrase("geheim\n");
  atom->setSSLKeyFilePath("/key.pem");
  EXPECT_EQ(liveAt("c2s.local.pemfile"), "/key.pem");
  EXPECT_EQ(liveAt("s2s.local.pemfile"), "/key.pem");
  EXPECT_EQ(liveAt("c2s.local.private_key_password"), "geheim");
  EXPECT_EQ(liveAt("s2s.local.private_key_password"), "geheim");
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberTLS, SetsAKeyFileWithoutPassPhraseAndSwitchesThePasswordOff) {
  switchAllOn();
  keyHasNoPassPhrase();
  atom->setSSLKeyFilePath("/key.pem");
  EXPECT_EQ(liveAt("c2s.local.pemfile"), "/key.pem");
  EXPECT_THAT(allAt("c2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
  EXPECT_THAT(allAt("s2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
}

TEST_F(JabberTLS, WarnsOfAMissingKeyFileAndConfiguresItAllTheSame) {
  keyHasNoPassPhrase();
  EXPECT_TRUE(write({{"sslKeyFile", "/missing.pem"}}));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("W", "SSL PEM file does not exist: /missing.pem")));
  EXPECT_EQ(liveAt("c2s.local.pemfile"), "/missing.pem");
  EXPECT_EQ(liveAt("s2s.local.pemfile"), "/missing.pem");
  EXPECT_THAT(attributesAt("c2s.local.id", 1),
              ElementsAre(Pair("require-starttls", "true"), Pair("pemfile", "/missing.pem")));
}

TEST_F(JabberTLS, SwitchesFourNodesOffForNoKeyFileAndKeepsTheTextOfThePaths) {
  switchAllOn();
  atom->setSSLKeyFilePath("");
  EXPECT_THAT(allAt("c2s.local.pemfile"), ElementsAre("off:<pemfile>/key.pem</pemfile>"));
  EXPECT_THAT(allAt("s2s.local.pemfile"), ElementsAre("off:<pemfile>/key.pem</pemfile>"));
  EXPECT_THAT(allAt("c2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
  EXPECT_THAT(allAt("s2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
  EXPECT_THAT(platform.tasks.calls, IsEmpty()) << "there is no key whose pass phrase could be asked for";
}

TEST_F(JabberTLS, PutsFourAttributesOnEveryLiveDomain) {
  keyHasPassPhrase("geheim\n");
  atom->setSSLEnableForKeyFilePath_withCAChainFile("/key.pem", "/ca.pem");
  EXPECT_THAT(attributesAt("c2s.local.id", 0),
              ElementsAre(Pair("realm", ""), Pair("require-starttls", "true"), Pair("pemfile", "/key.pem"),
                          Pair("private-key-password", "geheim"), Pair("cachain", "/ca.pem")));
  EXPECT_THAT(attributesAt("c2s.local.id", 1),
              ElementsAre(Pair("require-starttls", "true"), Pair("pemfile", "/key.pem"),
                          Pair("private-key-password", "geheim"), Pair("cachain", "/ca.pem")));
  EXPECT_THAT(allAt("c2s.local.id"),
              ElementsAre("a.example.com", "b.example.com", "off:<id>off.example.com</id>"));
  EXPECT_THAT(platform.log.messages(kLogDebug), ElementsAre("set-xml: start-tls = [ENABLED]"));
}

TEST_F(JabberTLS, RemovesTheAttributesOfWhatIsAbsent) {
  switchAllOn();
  keyHasNoPassPhrase();
  atom->setSSLEnableForKeyFilePath_withCAChainFile("/key.pem", std::nullopt);
  EXPECT_THAT(attributesAt("c2s.local.id", 1),
              ElementsAre(Pair("require-starttls", "true"), Pair("pemfile", "/key.pem")));
}

TEST_F(JabberTLS, RemovesAllFourAttributesWithoutAKeyFileWhateverTheChainIs) {
  switchAllOn();
  atom->setSSLEnableForKeyFilePath_withCAChainFile(std::nullopt, "/ca.pem");
  EXPECT_THAT(attributesAt("c2s.local.id", 0), ElementsAre(Pair("realm", "")));
  EXPECT_THAT(attributesAt("c2s.local.id", 1), IsEmpty());
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
  EXPECT_THAT(platform.log.messages(kLogDebug),
              ElementsAre("set-xml: start-tls = [DISABLED]", "NULL keyFilePath requested"));
}

TEST_F(JabberTLS, WritesKeyAndCAFileTogether) {
  keyHasPassPhrase("geheim\n");
  EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}, {"sslCAFile", "/ca.pem"}}));
  for (const std::size_t domain : {0U, 1U}) {
    EXPECT_THAT(
        attributesAt("c2s.local.id", domain),
        AllOf(Contains(Pair("require-starttls", "true")), Contains(Pair("pemfile", "/key.pem")),
              Contains(Pair("private-key-password", "geheim")), Contains(Pair("cachain", "/ca.pem"))));
  }
  EXPECT_EQ(liveAt("c2s.local.cachain"), "/ca.pem");
  EXPECT_TRUE(debugged("set-xml: caFilePath = /ca.pem"));
  EXPECT_TRUE(debugged("set-xml: start-tls = [ENABLED]"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(JabberTLS, WritesTheEmptyKeyFileAsNoTLSAtAll) {
  switchAllOn();
  EXPECT_TRUE(write({{"sslKeyFile", ""}, {"sslCAFile", "/ca.pem"}}));
  EXPECT_THAT(allAt("c2s.local.pemfile"), ElementsAre("off:<pemfile>/key.pem</pemfile>"));
  EXPECT_THAT(allAt("s2s.local.pemfile"), ElementsAre("off:<pemfile>/key.pem</pemfile>"));
  EXPECT_THAT(allAt("c2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
  EXPECT_THAT(allAt("s2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
  EXPECT_THAT(attributesAt("c2s.local.id", 0), ElementsAre(Pair("realm", "")));
  EXPECT_THAT(attributesAt("c2s.local.id", 1), IsEmpty());
  EXPECT_TRUE(debugged("set-xml: start-tls = [DISABLED]"));
}

TEST_F(JabberTLS, PutsTheAttributesOnNewDomainsAndDropsTheChainWithoutACAFile) {
  switchAllOn();
  EXPECT_TRUE(write({{"hosts", Array{"c.example.com", "d.example.com"}}}));
  for (const std::size_t domain : {0U, 1U}) {
    EXPECT_THAT(attributesAt("c2s.local.id", domain),
                ElementsAre(Pair("require-starttls", "true"), Pair("pemfile", "/key.pem"),
                            Pair("private-key-password", "geheim")));
  }
  EXPECT_EQ(liveAt("c2s.local.cachain"), "/ca.pem");
}

TEST_F(JabberTLS, PutsTheChainOnNewDomainsWhenTheCAFileComesWithThem) {
  switchAllOn();
  EXPECT_TRUE(write({{"hostsCommaDelimitedString", "c.example.com"}, {"sslCAFile", "/other-ca.pem"}}));
  EXPECT_THAT(attributesAt("c2s.local.id"), Contains(Pair("cachain", "/other-ca.pem")));
}

TEST_F(JabberTLS, LeavesTheAttributesAloneWhenOnlyTheCAFileComes) {
  switchAllOn();
  EXPECT_TRUE(write({{"sslCAFile", "/other-ca.pem"}}));
  EXPECT_THAT(attributesAt("c2s.local.id", 1), Contains(Pair("cachain", "/ca.pem")));
  EXPECT_FALSE(debugged("set-xml: start-tls = [ENABLED]"));
}

TEST_F(JabberTLS, GivesNewDomainsNoAttributesWithoutAKeyFile) {
  EXPECT_TRUE(write({{"hosts", Array{"c.example.com"}}, {"sslCAFile", "/ca.pem"}}));
  EXPECT_THAT(attributesAt("c2s.local.id"), IsEmpty());
  EXPECT_TRUE(debugged("set-xml: start-tls = [DISABLED]"));
}

TEST_F(JabberTLS, AsksTheKeychainForThePassPhrase) {
  keyHasPassPhrase("geheim\n");
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile("/key.pem"), "geheim");
  ASSERT_THAT(platform.tasks.calls, SizeIs(1));
  EXPECT_EQ(platform.tasks.calls[0].operation, "launch_task");
  EXPECT_EQ(platform.tasks.calls[0].program, kKeychainTool);
  EXPECT_THAT(
      platform.tasks.calls[0].arguments,
      ElementsAre(TaskArgument::text("--get-private-key-passphrase"), TaskArgument::path("/key.pem")));
}

TEST_F(JabberTLS, TrimsOnlyLineEndsOfThePassPhrase) {
  for (const auto& [output, expected] :
       {std::pair<std::string, std::string>{"\r\n secret phrase \r\n\n", " secret phrase "},
        {"two\nlines\n", "two\nlines"},
        {"bare", "bare"},
        {"\n", ""}}) {
    keyHasPassPhrase(output);
    EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile("/key.pem"), expected);
  }
}

TEST_F(JabberTLS, KnowsNoPassPhraseForEmptyOrMalformedOutput) {
  keyHasNoPassPhrase();
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile("/key.pem"), std::nullopt);
  keyHasPassPhrase("\xff\xfe\n");
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile("/key.pem"), std::nullopt);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberTLS, KnowsNoPassPhraseOfNoKeyFile) {
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile(std::nullopt), std::nullopt);
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile(""), std::nullopt);
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
  EXPECT_THAT(platform.log.messages(kLogDebug),
              ElementsAre("NULL keyFilePath requested", "NULL keyFilePath requested"));
}

TEST_F(JabberTLS, AsksForThePassPhraseOfAKeyFileOnceInEachWrite) {
  switchAllOn();
  platform.tasks.calls.clear();
  for (const std::string phrase : {"geheim", "anders"}) {
    keyHasPassPhrase(phrase + "\n");
    EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}}));
    EXPECT_EQ(platform.tasks.calls.size(), 1U);
    platform.tasks.calls.clear();
    EXPECT_THAT(allAt("c2s.local.private_key_password"), ElementsAre(phrase));
    EXPECT_THAT(attributesAt("c2s.local.id", 1), Contains(Pair("private-key-password", phrase)));
  }
}

TEST_F(JabberTLS, ReportsAFailingKeychainToolAndGoesOnWithoutPassword) {
  switchAllOn();
  platform.tasks.on(kKeychainTool, {44, "half a phrase", "no such item"});
  EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}}));
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "keywarden error: 44 - no such item"),
                                                whole("E", "keywarden error: 44 - no such item")));
  EXPECT_THAT(allAt("c2s.local.private_key_password"), ElementsAre("off:<private_key_password/>"));
  EXPECT_THAT(attributesAt("c2s.local.id", 1), Not(Contains(Pair("private-key-password", testing::_))));
  EXPECT_THAT(attributesAt("c2s.local.id", 1), Contains(Pair("pemfile", "/key.pem")));
}

TEST_F(JabberTLS, ReportsAMissingKeychainTool) {
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile("/key.pem"), std::nullopt);
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "keywarden error: 127 - cannot start /usr/sbin/keywarden")));
}

TEST_F(JabberTLS, LogsNoMalformedReason) {
  platform.tasks.on(kKeychainTool, {2, "", "\xff"});
  EXPECT_EQ(atom->getPrivateKeyPasswordForKeyFile("/key.pem"), std::nullopt);
  EXPECT_THAT(platform.log.lines(), ElementsAre(whole("E", "keywarden error: 2 - (null)")));
}

TEST_F(JabberTLS, NeverLogsThePassPhraseAndDoesNotStoreItInThePreferences) {
  keyHasPassPhrase("geheim\n");
  EXPECT_TRUE(write({{"sslKeyFile", "/missing.pem"}, {"hosts", Array{"a.example.com"}}}));
  static_cast<void>(atom->readServiceConfiguration());
  for (const auto& message : platform.log.messages()) EXPECT_THAT(message.text, Not(HasSubstr("geheim")));
  ASSERT_THAT(owner.saved, SizeIs(1));
  for (const DictionaryEntry& entry : owner.saved[0]) {
    EXPECT_THAT(entry.value.description(), Not(HasSubstr("geheim"))) << entry.key;
  }
}

TEST_F(JabberTLS, RefusesAPassPhraseThatXMLCannotHoldWithoutShowingIt) {
  keyHasPassPhrase("ge\x01heim\n");
  EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}}));
  for (const auto& message : platform.log.messages()) EXPECT_THAT(message.text, Not(HasSubstr("heim")));
  EXPECT_THAT(attributesAt("c2s.local.id", 1), Not(Contains(Pair("private-key-password", testing::_))));
}

TEST_F(JabberTLS, KeepsMarkupInPassPhrases) {
  keyHasPassPhrase("a<b>&\"c'--\n");
  EXPECT_TRUE(write({{"sslKeyFile", "/key.pem"}}));
  saveAndReload();
  EXPECT_EQ(liveAt("c2s.local.private_key_password"), "a<b>&\"c'--");
  EXPECT_THAT(attributesAt("c2s.local.id", 1), Contains(Pair("private-key-password", "a<b>&\"c'--")));
}

}  // namespace
}  // namespace tessard
