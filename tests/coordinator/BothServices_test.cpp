// The coordinator with its own two services: what one writes must not undo what the other has in memory.

#include "atoms/NotificationPaths.h"
#include "common/PropertyList.h"
#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

struct BothServices : Coordinated {
  BothServices() {
    writeConfigurationFile(platform.root, "router.xml",
                           "<router>\n <id>router</id>\n <local>\n  <secret>router-secret</secret>\n"
                           " </local>\n</router>\n");
    platform.root.write(kNotificationDefaultConfigFilePath,
                        serializePropertyList(Dictionary{{"jid", "pubsub"}, {"verbose", false}}).value());
    wrangler->initWithConfigPath(std::nullopt);
    platform.log.clear();
  }

  Dictionary notificationSettings() {
    auto stored = readPropertyListFile(platform.posixFiles, kNotificationConfigFilePath);
    return stored ? std::move(stored).value() : Dictionary{};
  }
  bool write(const SettingsDictionary& settings) {
    return wrangler->writeAllConfigurations_error(&settings, error);
  }
  int error = 4711;
};

TEST_F(BothServices, ReadTheirSettingsIntoOneDictionaryOfWhichTheNotificationsWin) {
  Dictionary preferences = wrangler->loadPreferences().value();
  const Array services{Dictionary{{"service", "mail"}, {"hostName", "a"}}};
  preferences.set("services", services);
  wrangler->savePreferences(preferences);
  const auto settings = wrangler->readAllConfigurations();
  ASSERT_TRUE(settings);
  EXPECT_EQ(*settings->find("jabberdClientPortTLS"), Value(5218));
  EXPECT_EQ(*settings->find("jid"), Value("pubsub"));
  EXPECT_EQ(*settings->find("secret"), Value("router-secret"));
  EXPECT_EQ(*settings->find("domain"), Value("chat.example.com"));
  EXPECT_EQ(*settings->find("configuredServices"), Value(services));
}

TEST_F(BothServices, AreWrittenTogether) {
  wrangler->readAllConfigurations();
  EXPECT_TRUE(write({{"hosts", Array{"one.example.com", "two.example.com"}},
                     {"jabberdClientPortTLS", 5222},
                     {"verbose", true}}));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>one.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>two.example.com</id>"));
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<port>5222</port>"));
  EXPECT_THAT(file("sm_two.example.com.xml"), HasSubstr("<id>two.example.com</id>"));
  EXPECT_THAT(file("jabberd.cfg"), HasSubstr("sm_two.example.com.xml"));
  EXPECT_EQ(
      notificationSettings(),
      (Dictionary{
          {"jid", "pubsub"}, {"verbose", true}, {"secret", "router-secret"}, {"domain", "one.example.com"}}));
  EXPECT_THAT(platform.log.messages(kLogError), IsEmpty());
}

TEST_F(BothServices, KeepTheClientServicesWhenSettingsAreWritten) {
  auto* notification = wrangler->serviceAtomForName("Notification");
  const Dictionary mail{{"service", "mail"}, {"hostName", "a"}};
  ASSERT_TRUE(notification->addServiceWithRequest(mail));
  EXPECT_EQ(wrangler->getPreferenceValueForKey("jabberdS2SPort"), Value(5268));
  EXPECT_TRUE(write({{"verbose", true}}));
  wrangler->setPreferenceValue_forKey(true, "initialized");
  EXPECT_EQ(notification->getConfiguredServices(), Array{mail});
}

TEST_F(BothServices, FollowARenamedHostTogether) {
  wrangler->readAllConfigurations();
  const auto renamed = NetworkChangeContext::fromEvent({{"hasValidNetworkConfiguration", true},
                                                        {"hasHostChanged", true},
                                                        {"oldHost", "chat.example.com"},
                                                        {"newHost", "new.example.com"}});
  wrangler->handleNetworkChanged(renamed);
  EXPECT_THAT(file("c2s.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_THAT(file("sm.xml"), HasSubstr("<id>new.example.com</id>"));
  EXPECT_EQ(*notificationSettings().find("domain"), Value("new.example.com"));
}

}  // namespace
}  // namespace tessard
