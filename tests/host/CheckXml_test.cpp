#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class XmlCheck : public CheckTest {
 protected:
  Finding only() {
    const auto findings = found(kXmlArea);
    EXPECT_EQ(findings.size(), 1U);
    return findings.empty() ? Finding{"", {"nothing", Severity::notice}, "", "", ""} : findings[0];
  }
};

TEST_F(XmlCheck, FindsNothingInTheTemplatesAsSetupFillsThem) {
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

TEST_F(XmlCheck, FindsAMasterFileThatCannotBeRead) {
  root.remove(inConfig("jabberd.cfg"));
  EXPECT_EQ(only().kind.id, "master-unreadable");
}

TEST_F(XmlCheck, ShowsALineThatListsNothing) {
  changeConfig("jabberd.cfg", "sm  ", "smm  ");
  const auto findings = found(kXmlArea);
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings[0].kind.id, "master-stray-line");
  EXPECT_THAT(findings[0].sentence, HasSubstr("\"smm  "));
  EXPECT_THAT(foundIds(kXmlArea),
              ElementsAre("master-stray-line", "component-count", "domain-without-session-manager"));
}

TEST_F(XmlCheck, FindsASecondRouter) {
  changeConfig("jabberd.cfg", "router  ", "router  " + inConfig("router2.xml") + "\nrouter  ");
  root.write(inConfig("router2.xml"), root.read(inConfig("router.xml")));
  EXPECT_EQ(only().kind.id, "component-count");
}

TEST_F(XmlCheck, FindsAComponentFileThatCannotBeRead) {
  root.remove(inConfig("s2s.xml"));
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "component-unreadable");
  EXPECT_EQ(finding.subject, inConfig("s2s.xml"));
}

TEST_F(XmlCheck, NamesTheLineThatIsNotWellFormed) {
  changeConfig("c2s.xml", "</local>", "</locals>");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "xml-malformed");
  EXPECT_THAT(finding.sentence, HasSubstr("line 4"));
}

TEST_F(XmlCheck, FindsTheFileOfAnotherComponent) {
  root.write(inConfig("s2s.xml"), root.read(inConfig("router.xml")));
  EXPECT_EQ(only().kind.id, "xml-wrong-root");
}

TEST_F(XmlCheck, FindsAnElementThatAComponentNeeds) {
  changeConfig("router.xml", "<users>/private/etc/jabberd_notification/router-users.xml</users>", "");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "element-missing");
  EXPECT_THAT(finding.sentence, HasSubstr("router.local.users"));
}

TEST_F(XmlCheck, WantsNoSqliteDatabaseOfAnotherDriver) {
  changeConfig("sm.xml", "<driver>sqlite</driver>", "<driver>pgsql</driver>");
  changeConfig("sm.xml", "<dbname>/private/var/jabberd/sqlite/jabberd2_notification.db</dbname>", "");
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

TEST_F(XmlCheck, FindsANameThatNoComponentReadsAndTellsOfItOnceForAllFiles) {
  changeConfig("sm.xml", "<auto-create/>", "<auto-create/></user><usr><auto-create/></usr><user>");
  root.write(inConfig("sm_b.xml"), replacingAll(root.read(inConfig("sm.xml")), kDomain, "b.example.com"));
  changeConfig("jabberd.cfg", "sm.xml\n", "sm.xml\nsm " + inConfig("sm_b.xml") + "\n");
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id>push.example.com</id><id>b.example.com</id>");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "element-unread");
  EXPECT_EQ(finding.kind.severity, Severity::notice);
  EXPECT_THAT(finding.sentence, HasSubstr("sm.usr in \"" + inConfig("sm.xml") + "\" and in 1 other file"));
}

TEST_F(XmlCheck, FindsVariablesInTextsAndAttributes) {
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id pemfile='${x}'>push.example.com</id>");
  changeConfig("s2s.xml", "<ident>jabberd_notification/s2s<", "<ident>${name}<");
  EXPECT_THAT(foundIds(kXmlArea), ElementsAre("unknown-variable", "unknown-variable"));
}

TEST_F(XmlCheck, FindsThePlaceholderOfTheHostAfterSetupAlone) {
  changeConfig("sm.xml", "pubsub.push.example.com", "pubsub.@HOSTNAME@");
  EXPECT_EQ(only().kind.id, "placeholder-left");
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

TEST_F(XmlCheck, TellsWhatAFlagThatIsNoNumberMeansToJabberd) {
  changeConfig("s2s.xml", "<require_tls>0</require_tls>", "<require_tls>true</require_tls>");
  EXPECT_THAT(only().sentence, HasSubstr("\"true\", which jabberd2 takes for off"));
  changeConfig("s2s.xml", "<require_tls>true</require_tls>", "<require_tls/>");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "flag-misread");
  EXPECT_THAT(finding.sentence, HasSubstr("takes for on"));
}

TEST_F(XmlCheck, FindsBlanksAroundADomain) {
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id> push.example.com</id>");
  EXPECT_THAT(foundIds(kXmlArea), ElementsAre("domain-blanks", "domain-without-session-manager",
                                              "session-manager-without-domain"));
}

TEST_F(XmlCheck, FindsADomainThatNoSessionManagerServes) {
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id>push.example.com</id><id>b.example.com</id>");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "domain-without-session-manager");
  EXPECT_EQ(finding.subject, "b.example.com");
}

TEST_F(XmlCheck, FindsASessionManagerOfNoDomain) {
  changeConfig("sm.xml", "<id>push.example.com</id>", "<id>push.example.com</id><id>b.example.com</id>");
  EXPECT_EQ(only().kind.id, "session-manager-without-domain");
}

TEST_F(XmlCheck, FindsARestrictionToNobody) {
  changeConfig("s2s.xml", "<enable_whitelist>0</", "<enable_whitelist>1</");
  EXPECT_EQ(only().kind.id, "whitelist-empty");
  changeConfig("s2s.xml", "<!--<whitelist_domain>partner.example.com</whitelist_domain>-->",
               "<whitelist_domain>partner.example.com</whitelist_domain>");
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

TEST_F(XmlCheck, FindsAnAttributeThatRequiresEncryptionWhateverItSays) {
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id require-starttls='false'>push.example.com</id>");
  EXPECT_EQ(only().kind.id, "starttls-misread");
  changeConfig("c2s.xml", "'false'", "'true'");
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

TEST_F(XmlCheck, FindsSavedChatsThatTheInstalledRouterDoesNotSave) {
  changeConfig("router.xml", "<message_logging_enabled>0</", "<message_logging_enabled>1</");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "saved-chats-ineffective");
  EXPECT_EQ(finding.kind.severity, Severity::warning);
  EXPECT_EQ(finding.subject, "enableSavedChats");
  changeConfig("router.xml", "</router>",
               "<message_logging><enabled/><file>/var/log/chats</file></message_logging></router>");
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

TEST_F(XmlCheck, FindsThatNobodyCanLogInWithoutPlainPasswordsUnlessThereAreTickets) {
  const std::string mechanisms = "<mechanisms><sasl><gssapi/></sasl></mechanisms>";
  std::string text = root.read(inConfig("c2s.xml"));
  const auto begin = text.find("<mechanisms>");
  const std::string closing = "</ssl-mechanisms>";
  text.replace(begin, text.find(closing) + closing.size() - begin, mechanisms);
  root.write(inConfig("c2s.xml"), text);
  EXPECT_EQ(only().kind.id, "no-login-possible");
  root.write("/etc/krb5.keytab", "");
  EXPECT_THAT(found(kXmlArea), IsEmpty());
}

}  // namespace
}  // namespace tessard
