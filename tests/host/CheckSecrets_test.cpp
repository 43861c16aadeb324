#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using SecretsCheck = CheckTest;

constexpr const char* kPass = "<pass>a long secret</pass>";

TEST_F(SecretsCheck, FindsNothingWhereAllHaveTheSame) {
  EXPECT_THAT(found(kSecretsArea), IsEmpty());
}

TEST_F(SecretsCheck, NamesEveryComponentThatHasAnotherPassword) {
  changeConfig("sm.xml", kPass, "<pass>another</pass>");
  changeConfig("s2s.xml", kPass, "<pass>a third</pass>");
  const auto findings = found(kSecretsArea);
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[0].kind.id, "secret-differs");
  EXPECT_EQ(findings[0].subject, inConfig("sm.xml"));
  EXPECT_EQ(findings[1].subject, inConfig("s2s.xml"));
  EXPECT_EQ(findings[0].sentence.find("another"), std::string::npos);
}

TEST_F(SecretsCheck, NamesThePublishSubscribeComponentWhenTheRouterHasAnotherSecret) {
  changeConfig("router.xml", kSecret, "the router's new one");
  const auto findings = found(kSecretsArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "secret-differs");
  EXPECT_EQ(findings[0].subject, "/Library/Preferences/com.velto.Beaconry.plist");
}

TEST_F(SecretsCheck, FindsMissingSecrets) {
  changeConfig("c2s.xml", kPass, "<pass/>");
  changeConfig("router.xml", "<secret>a long secret</secret>", "");
  EXPECT_THAT(foundIds(kSecretsArea), ElementsAre("secret-missing", "secret-missing"));
}

TEST_F(SecretsCheck, FindsThePlaceholderOfTheTemplateAfterSetupAlone) {
  changeConfig("c2s.xml", kSecret, "@ROUTERPASSWORD@");
  EXPECT_THAT(foundIds(kSecretsArea), ElementsAre("secret-placeholder"));
  root.remove("/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_THAT(found(kSecretsArea), IsEmpty());
}

TEST_F(SecretsCheck, FindsAComponentThatTheRouterDoesNotKnow) {
  changeConfig("c2s.xml", "<user>jabberd</user>", "<user>somebody</user>");
  const auto findings = found(kSecretsArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "router-user-unknown");
  EXPECT_THAT(findings[0].sentence, HasSubstr("\"somebody\""));
}

TEST_F(SecretsCheck, FindsAShortSecret) {
  for (const char* name : {"router-users.xml", "router.xml", "sm.xml", "c2s.xml", "s2s.xml"}) {
    changeConfig(name, kSecret, "secret");
  }
  root.write("/Library/Preferences/com.velto.Beaconry.plist", settings("secret"));
  EXPECT_THAT(foundIds(kSecretsArea), ElementsAre("secret-weak"));
}

TEST_F(SecretsCheck, FindsAListOfUsersThatCannotBeRead) {
  root.write(inConfig("router-users.xml"), "<users>");
  EXPECT_THAT(foundIds(kSecretsArea), ElementsAre("router-users-unreadable"));
  root.remove(inConfig("router-users.xml"));
  EXPECT_THAT(foundIds(kSecretsArea), ElementsAre("router-users-unreadable"));
}

}  // namespace
}  // namespace tessard
