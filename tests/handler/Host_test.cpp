// What the host calls beside requests, and how it reaches requests.

#include <new>
#include <stdexcept>

#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct HostCalls : Handled {
  Dictionary run(const char* command, const Dictionary& request = {}) {
    Dictionary given{{"absent", true}};
    const auto operation = handler->operationForCommand(command);
    if (!operation) return given;
    if (auto answer = operation(request)) given = std::move(*answer);
    return given;
  }
  static NetworkChangeContext renamed() {
    return NetworkChangeContext::fromEvent(
        {{"changeInfo", Dictionary{{"hostName", "x"}, {"ip addresses", Array{}}}},
         {"hasValidNetworkConfiguration", true},
         {"hasHostChanged", true},
         {"oldHost", "chat.example.com"},
         {"newHost", "new.example.com"}});
  }
};

TEST_F(HostCalls, IdleWorkArchivesLogsWhenServiceDataIsInitialized) {
  EXPECT_EQ(handler->doIdleAtCount(1), 0);
  EXPECT_THAT(journal, IsEmpty());
  initialise();
  EXPECT_EQ(handler->doIdleAtCount(7), 0);
  EXPECT_TRUE(did("jabberd archiveServiceLogs"));
  EXPECT_TRUE(did("Notification archiveServiceLogs"));
}

TEST_F(HostCalls, IdleWorkGivesZeroAlsoWhenItFails) {
  initialise();
  jabber->archives = false;
  EXPECT_EQ(handler->doIdleAtCount(0), 0);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(HostCalls, IdleWorkNeverInitializesServiceData) {
  finishSetup();
  handler->doIdleAtCount(1);
  EXPECT_EQ(storedPreference("initialized"), Value(false));
}

TEST_F(HostCalls, IdleWorkThatThrowsIsAnErrorLine) {
  initialise();
  jabber->whileArchiving = [] { throw std::runtime_error("broken"); };
  EXPECT_EQ(handler->doIdleAtCount(1), 0);
  jabber->whileArchiving = [] { throw 5; };
  EXPECT_EQ(handler->doIdleAtCount(1), 0);
  EXPECT_THAT(platform.log.lines(), ElementsAre("tessard_notification[E]: idle work failed: broken",
                                                "tessard_notification[E]: idle work failed"));
}

TEST_F(HostCalls, ANetworkChangeIsIgnoredWhenServiceDataIsNotInitialized) {
  finishSetup();
  handler->didReceiveNetworkChangedNotification(renamed());
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_EQ(debugLines().back(), "Service initialization not finished");
}

TEST_F(HostCalls, ANetworkChangeIsNotedWithItsKeysAndHandled) {
  initialise();
  jabber->domains = std::vector<std::string>{"chat.example.com"};
  handler->didReceiveNetworkChangedNotification(renamed());
  EXPECT_TRUE(debugged("notification received: changeKeys=\"(\n    hostName,\n    \"ip addresses\"\n)\""));
  EXPECT_TRUE(did("jabberd handleNetworkChanged"));
  EXPECT_EQ(notification->networkChanges.at(0).newHost(), "new.example.com");
  EXPECT_THAT(platform.root.read(kConfigDirectory + "sm.xml"),
              testing::HasSubstr("<id>new.example.com</id>"));
}

TEST_F(HostCalls, ANetworkChangeWithoutInformationHasNoKeys) {
  initialise();
  handler->didReceiveNetworkChangedNotification(NetworkChangeContext::fromEvent({}));
  EXPECT_TRUE(debugged("notification received: changeKeys=\"(\n)\""));
}

TEST_F(HostCalls, ANetworkChangeThatThrowsIsAnErrorLine) {
  initialise();
  platform.files.beforeCall = [](const FaultyFileSystem::Call& call) {
    if (call.path.ends_with("jabberd.cfg")) throw std::runtime_error("broken");
  };
  handler->didReceiveNetworkChangedNotification(renamed());
  EXPECT_THAT(platform.log.lines(), ElementsAre("tessard_notification[E]: network change failed: broken"));
}

TEST_F(HostCalls, CommandsReachTheOperationsOfTheirNames) {
  initialise();
  jabber->settings = SettingsDictionary{{"a", 1}};
  EXPECT_EQ(run("getState"), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_EQ(run("setState", {{"state", "bad"}}), (Dictionary{{"error", "INVALID_ARG_ERR"}}));
  EXPECT_EQ(run("readSettings"), (Dictionary{{"configuration", Dictionary{{"a", 1}}}, {"readStatus", 0}}));
  EXPECT_EQ(*run("writeSettings").find("writeStatus"), Value(0));
  EXPECT_EQ(run("initialSetup"), (Dictionary{{"state", "STOPPED"}}));
  EXPECT_TRUE(debugged("Handling initialSetupWithRequest."));
}

TEST_F(HostCalls, UnknownCommandsHaveNoOperation) {
  for (const char* command : {"", "getstate", "getStateWithRequest", "doIdle", "other"}) {
    EXPECT_FALSE(handler->operationForCommand(command)) << command;
  }
}

TEST_F(HostCalls, CommandsTellWhetherTheyChangeAnything) {
  for (const char* command : {"setState", "writeSettings", "initialSetup", "addService", "removeService"}) {
    EXPECT_TRUE(handler->commandChangesState(command)) << command;
  }
  for (const char* command : {"getState", "readSettings", "getConfiguredServices", "other"}) {
    EXPECT_FALSE(handler->commandChangesState(command)) << command;
  }
}

TEST_F(HostCalls, ARequestThatThrowsIsAnErrorLineAndAnErrorAnswer) {
  initialise();
  const Dictionary error{{"error", "CANNOT_STAT_ERR"}};
  jabber->whileChangingState = [](int) { throw std::runtime_error("broken"); };
  EXPECT_EQ(run("setState", {{"state", "START"}}), error);
  jabber->whileChangingState = [](int) { throw 5; };
  EXPECT_EQ(run("setState", {{"state", "START"}}), error);
  jabber->whileWriting = [] { throw std::bad_alloc(); };
  EXPECT_EQ(run("writeSettings"), error);
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: request \"setState\" failed: broken",
                          "tessard_notification[E]: request \"setState\" failed",
                          "tessard_notification[E]: request \"writeSettings\" failed: std::bad_alloc"));
}

TEST_F(HostCalls, ARequestIsServedAfterOneThatThrew) {
  initialise();
  jabber->whileChangingState = [](int) { throw std::runtime_error("broken"); };
  run("setState", {{"state", "START"}});
  jabber->whileChangingState = nullptr;
  platform.services.running.insert("com.velto.Beaconry");
  EXPECT_EQ(run("setState", {{"state", "START"}}), (Dictionary{{"state", "RUNNING"}}));
}

}  // namespace
}  // namespace tessard
