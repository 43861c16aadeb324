#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;

template <class Class>
bool makes(std::string_view name) {
  TestPlatform platform;
  const auto component = Component::componentConfigurationForName_andPath(platform, name, kSm);
  return dynamic_cast<Class*>(component.get()) != nullptr;
}

TEST(ComponentFactory, EachComponentNameGivesTheClassOfItsOwn) {
  EXPECT_TRUE(makes<NOTIFICATION_PLUGIN_RouterConfigurationParser>("router"));
  EXPECT_TRUE(makes<NOTIFICATION_PLUGIN_SMConfigurationParser>("sm"));
  EXPECT_TRUE(makes<NOTIFICATION_PLUGIN_S2SConfigurationParser>("s2s"));
  EXPECT_TRUE(makes<NOTIFICATION_PLUGIN_C2SConfigurationParser>("c2s"));
}

TEST(ComponentFactory, AnUnknownNameGivesNothingAndIsLoggedForDebugging) {
  TestPlatform platform;
  EXPECT_EQ(Component::componentConfigurationForName_andPath(platform, "mu", "/mu.xml"), nullptr);
  EXPECT_THAT(platform.log.messages(),
              ElementsAre(Message{kLogDebug, "componentConfigurationForName: mu, /mu.xml"},
                          Message{kLogDebug, "classname == nil, should never happen"}));
  EXPECT_TRUE(platform.log.lines().empty());
}

TEST(ComponentFactory, NamesAreCaseSensitive) {
  TestPlatform platform;
  EXPECT_EQ(Component::componentConfigurationForName_andPath(platform, "SM", kSm), nullptr);
  EXPECT_EQ(Component::componentConfigurationForName_andPath(platform, "", kSm), nullptr);
}

TEST(ComponentFactory, AClassNameThatNoClassAnswersToGivesNothing) {
  TestPlatform platform;
  EXPECT_EQ(Component::instanceOfClassNamed(platform, "NOTIFICATION_PLUGIN_MUConfigurationParser", "mu", kSm),
            nullptr);
  EXPECT_THAT(platform.log.messages(), ElementsAre(Message{kLogDebug, "unknown class, should never happen"}));
}

TEST(ComponentFactory, ANewObjectHasNameAndPathAndIsLoadedAndClean) {
  OneComponent sm("<sm/>");
  EXPECT_EQ(sm->configName(), "sm");
  EXPECT_EQ(sm->configPath(), kSm);
  EXPECT_TRUE(sm->configXMLDocument().has_value());
  EXPECT_EQ(sm->loadTime(), kLongAgo);
  EXPECT_FALSE(sm->configDirty());
}

TEST(ComponentFactory, AnObjectIsThereAlsoWhenItsFileIsNot) {
  TestPlatform platform;
  const auto component = Component::componentConfigurationForName_andPath(platform, "s2s", "/none/s2s.xml");
  ASSERT_NE(component, nullptr);
  EXPECT_FALSE(component->configXMLDocument().has_value());
  EXPECT_EQ(component->loadTime(), std::nullopt);
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: failed to load: configuration file not found: "
                          "\"/none/s2s.xml\""));
}

TEST(ComponentFactory, AnObjectWithoutAPathLoadsAndSavesNothing) {
  TestPlatform platform;
  const auto component = Component::componentConfigurationForName_andPath(platform, "sm", std::nullopt);
  ASSERT_NE(component, nullptr);
  EXPECT_THAT(platform.log.messages(),
              ElementsAre(Message{kLogDebug, "componentConfigurationForName: sm, (null)"},
                          Message{kLogDebug, "loadDocument: sm at path: (null)"},
                          Message{kLogDebug, "internal error: nil path for component: sm"}));
  component->setConfigXMLDocument(XmlDocument::parse("<sm/>").value());
  component->setConfigDirty(true);
  EXPECT_FALSE(component->documentChangedSinceLastLoad());
  EXPECT_FALSE(component->saveDocument());
  EXPECT_TRUE(platform.files.calls().empty());
}

TEST(ComponentFactory, EveryPropertyCanBeSet) {
  OneComponent sm("<sm/>");
  sm->setConfigName("other");
  sm->setConfigPath("/other.xml");
  sm->setLoadTime(FileTime{5, 6});
  sm->setConfigDirty(true);
  sm->setConfigXMLDocument(std::nullopt);
  EXPECT_EQ(sm->configName(), "other");
  EXPECT_EQ(sm->configPath(), "/other.xml");
  EXPECT_EQ(sm->loadTime(), (FileTime{5, 6}));
  EXPECT_TRUE(sm->configDirty());
  EXPECT_FALSE(sm->configXMLDocument().has_value());
}

}  // namespace
}  // namespace tessard
