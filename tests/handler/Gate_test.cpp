#include <cerrno>

#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

TEST(NewHandler, HasTheVersionOfItsBundle) {
  TestPlatform platform;
  platform.bundles.add("com.velto.tessard_notification").info = {{"CFBundleShortVersionString", "11.2"}};
  EXPECT_EQ(Handler::init(platform)->pluginVersion(), "11.2");
}

TEST(NewHandler, HasAVersionOfItsOwnWithoutOneInTheBundle) {
  TestPlatform platform;
  EXPECT_EQ(Handler::init(platform)->pluginVersion(), "10.7.0");
  auto& bundle = platform.bundles.add("com.velto.tessard_notification");
  EXPECT_EQ(Handler::init(platform)->pluginVersion(), "10.7.0");
  bundle.info = {{"CFBundleShortVersionString", 11}};
  EXPECT_EQ(Handler::init(platform)->pluginVersion(), "10.7.0");
  platform.bundles.add("com.example.other").info = {{"CFBundleShortVersionString", "5"}};
  EXPECT_EQ(Handler::init(platform)->pluginVersion(), "10.7.0");
}

TEST(NewHandler, HasACoordinatorOfItsOwnAndReadsNothing) {
  TestPlatform platform;
  const auto first = Handler::init(platform);
  const auto second = Handler::init(platform);
  ASSERT_NE(first->serviceWrangler(), nullptr);
  EXPECT_NE(first->serviceWrangler(), second->serviceWrangler());
  EXPECT_EQ(first->serviceWrangler()->masterConfig()->configPath(),
            "/private/etc/jabberd_notification/jabberd.cfg");
  EXPECT_THAT(platform.files.calls(), IsEmpty());
}

TEST(NewHandler, TellsOfItsBeginningAndItsEnd) {
  TestPlatform platform;
  auto handler = Handler::init(platform);
  EXPECT_THAT(platform.log.messages(kLogDebug), ElementsAre("Added notification observer."));
  platform.log.clear();
  handler.reset();
  EXPECT_THAT(platform.log.messages(kLogDebug), ElementsAre("Removing notification observer."));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST(NewHandler, ClearsWhatItHoldsAtItsEnd) {
  TestPlatform platform;
  const auto handler = Handler::init(platform);
  handler->dealloc();
  EXPECT_EQ(handler->pluginVersion(), "");
  EXPECT_EQ(handler->serviceWrangler(), nullptr);
}

struct Gate : Handled {};

TEST_F(Gate, TheNetworkIsReadyWhenTheHostHasAName) {
  EXPECT_TRUE(handler->isNetworkReady());
  platform.hostNames.configured.reset();
  EXPECT_TRUE(handler->isNetworkReady());
  platform.hostNames.stored.reset();
  EXPECT_FALSE(handler->isNetworkReady());
}

TEST_F(Gate, ServiceDataIsMadeOnlyWithAHostName) {
  finishSetup();
  loseTheHostName();
  EXPECT_FALSE(handler->initializeServiceDataWithReadinessCheck(true));
  EXPECT_FALSE(handler->initializeServiceDataWithReadinessCheck(false));
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_FALSE(debugged("Failed to initialize all service data"));
}

struct GateWithMarkers : Gate, testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(EveryCombination, GateWithMarkers, testing::Range(0, 8));

TEST_P(GateWithMarkers, AnyOneOfTheMarkersOfAFinishedSetupIsEnough) {
  const std::string markers[] = {kHostMarker, kMigrationMarker, kJabberMigrationMarker};
  for (int i = 0; i < 3; ++i) {
    if ((GetParam() & (1 << i)) != 0) platform.root.write(markers[i], "");
  }
  EXPECT_EQ(handler->initializeServiceDataWithReadinessCheck(true), GetParam() != 0);
  EXPECT_EQ(did("jabberd serviceDataReady"), GetParam() != 0);
  EXPECT_EQ(debugged("Successfully initialized all service data"), GetParam() != 0);
}

TEST_F(Gate, MarkersThatCannotBeLookedAtAreToldUnlessAnotherIsThere) {
  platform.files.failPath("attributes", kHostMarker, EIO);
  EXPECT_FALSE(handler->initializeServiceDataWithReadinessCheck(true));
  EXPECT_EQ(platform.log.messages(kLogError),
            std::vector<std::string>{"it cannot be told whether first-time setup is done: \"" + kHostMarker +
                                     "\" : Input/output error"});
  platform.log.clear();
  platform.root.write(kMigrationMarker, "");
  EXPECT_TRUE(handler->initializeServiceDataWithReadinessCheck(true));
  EXPECT_TRUE(platform.log.messages(kLogError).empty());
}

TEST_F(Gate, WithoutTheCheckNoMarkerIsLookedFor) {
  EXPECT_TRUE(handler->initializeServiceDataWithReadinessCheck(false));
  EXPECT_THAT(platform.files.journal(), Not(Contains("attributes " + kHostMarker)));
}

TEST_F(Gate, MakingServiceDataIsRemembered) {
  EXPECT_TRUE(handler->initializeServiceDataWithReadinessCheck(false));
  EXPECT_TRUE(debugged("Successfully initialized all service data"));
  EXPECT_EQ(storedPreference("initialized"), Value(true));
  EXPECT_EQ(storedPreference("jabberdS2SPort"), Value(5268));
}

TEST_F(Gate, AFailureToMakeServiceDataIsNotRemembered) {
  jabber->ready = false;
  jabber->initialises = false;
  EXPECT_FALSE(handler->initializeServiceDataWithReadinessCheck(false));
  EXPECT_TRUE(debugged("Failed to initialize all service data"));
  EXPECT_FALSE(debugged("Successfully initialized all service data"));
  EXPECT_FALSE(platform.root.exists(kPreferencesFile));
}

TEST_F(Gate, AFailureLeavesAnEarlierMark) {
  initialise();
  jabber->ready = false;
  jabber->initialises = false;
  EXPECT_FALSE(handler->initializeServiceDataWithReadinessCheck(false));
  EXPECT_EQ(storedPreference("initialized"), Value(true));
}

TEST_F(Gate, ServiceDataIsNotInitializedWithoutTheMark) {
  EXPECT_FALSE(handler->serviceDataIsInitialized());
  EXPECT_EQ(debugLines().back(), "Service initialization not finished");
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_EQ(storedPreference("initialized"), Value(false));
}

TEST_F(Gate, ServiceDataIsNotInitializedWithoutPreferences) {
  loseTheHostName();
  EXPECT_FALSE(handler->serviceDataIsInitialized());
  EXPECT_EQ(debugLines().back(), "Service initialization not finished");
  EXPECT_FALSE(platform.root.exists(kPreferencesFile));
}

TEST_F(Gate, TheMarkIsConfirmedByTheServices) {
  initialise();
  EXPECT_TRUE(handler->serviceDataIsInitialized());
  notification->ready = false;
  EXPECT_FALSE(handler->serviceDataIsInitialized());
  EXPECT_TRUE(debugged("Notification Atom reports that service data is not ready"));
  EXPECT_FALSE(debugged("Service initialization not finished"));
}

TEST_F(Gate, AMarkThatReadsAsTrueCounts) {
  handler->serviceWrangler()->setPreferenceValue_forKey("YES", "initialized");
  EXPECT_TRUE(handler->serviceDataIsInitialized());
  handler->serviceWrangler()->setPreferenceValue_forKey(0, "initialized");
  EXPECT_FALSE(handler->serviceDataIsInitialized());
}

TEST_F(Gate, ARequestMakesServiceDataThatWasLost) {
  initialise();
  finishSetup();
  jabber->ready = false;
  jabber->settings = SettingsDictionary{{"a", 1}};
  EXPECT_EQ(handler->readSettingsWithRequest({}),
            (Dictionary{{"configuration", Dictionary{{"a", 1}}}, {"readStatus", 0}}));
  EXPECT_TRUE(did("jabberd initServiceData"));
}

TEST_F(Gate, ARequestDoesNotMakeServiceDataThatIsThere) {
  initialise();
  handler->readSettingsWithRequest({});
  EXPECT_FALSE(debugged("Successfully initialized all service data"));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(Gate, AnErrorOfAServiceIsACodeAndANumber) {
  EXPECT_EQ(handler->responseForError_serviceError("CANNOT_STAT_ERR", -5),
            (Dictionary{{"error", "CANNOT_STAT_ERR"}, {"serviceError", -5}}));
  EXPECT_THAT(keysOf(handler->responseForError_serviceError("A", 1)), ElementsAre("error", "serviceError"));
  EXPECT_EQ(handler->responseForError("INVALID_ARG_ERR"), (Dictionary{{"error", "INVALID_ARG_ERR"}}));
}

TEST_F(Gate, TheStateOfAnUnknownServiceIsZero) {
  jabber->state = 2;
  EXPECT_EQ(handler->serviceStateForName("jabberd"), 2);
  EXPECT_EQ(handler->serviceStateForName("unknown"), 0);
}

}  // namespace
}  // namespace tessard
