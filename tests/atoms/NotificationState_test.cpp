#include "tests/atoms/NotificationFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Change = RecordingServiceManager::Change;
using Message = RecordingLog::Message;

const std::string kFile = "/Library/Preferences/com.velto.Beaconry.plist";
const std::string kService = "com.velto.Beaconry";
const std::string kBridge = "com.velto.KorvBridge";

using NotificationState = NotificationTest;

TEST_F(NotificationState, TheAtomIsCalledNotificationAndKnowsItsOwner) {
  EXPECT_EQ(atom->serviceName(), "Notification");
  EXPECT_EQ(atom->serviceOwner(), &owner);
}

TEST_F(NotificationState, IsThatOfTheProcessInThePidFile) {
  EXPECT_EQ(atom->getServiceState(), ServiceStateStopped);
  platform.processes.pidFiles["/var/run/Beaconry.pid"] = 7;
  EXPECT_EQ(atom->getServiceState(), ServiceStateStopped);
  platform.processes.alive.insert(7);
  EXPECT_EQ(atom->getServiceState(), ServiceStateRunning);
}

TEST_F(NotificationState, HasTwoLogsAndArchivesNone) {
  EXPECT_EQ(atom->getServiceLogPaths(), (Dictionary{{"JABBER_LOG", "/var/log/system.log"},
                                                    {"PUBSUB_ERROR_LOG", "/var/log/idavoll/error.log"}}));
  EXPECT_FALSE(atom->archiveServiceLogs());
  EXPECT_THAT(platform.files.calls(), IsEmpty());
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(NotificationState, WithTheBridgeOffOnlyTheServiceStarts) {
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(Change{kService, true}));
}

TEST_F(NotificationState, TheServiceFindsItsSettingsFileWhenItStarts) {
  bool there = false;
  platform.services.afterChange = [&](const Change&) { there = platform.root.exists(kFile); };
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_TRUE(there);
}

TEST_F(NotificationState, WithTheBridgeOnTheServiceStartsFirst) {
  store(with(complete(), {{"korvbridgeEnabled", true}}));
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(Change{kService, true}, Change{kBridge, true}));
}

TEST_F(NotificationState, AServiceThatDoesNotStartFailsAndStartsNoBridge) {
  store(with(complete(), {{"korvbridgeEnabled", true}}));
  platform.services.failing.insert(kService);
  EXPECT_FALSE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(Change{kService, true}));
}

TEST_F(NotificationState, ABridgeThatDoesNotStartFailsNothing) {
  store(with(complete(), {{"korvbridgeEnabled", true}}));
  platform.services.failing.insert(kBridge);
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.running, ElementsAre(kService));
}

TEST_F(NotificationState, WithoutSettingsTheServiceStartsWithoutTheBridge) {
  owner.domains.reset();
  owner.hostDomain.reset();
  EXPECT_TRUE(atom->setServiceState(ServiceStateRunning));
  EXPECT_THAT(platform.services.changes, ElementsAre(Change{kService, true}));
}

TEST_F(NotificationState, StoppingStopsTheBridgeFirstAndAlways) {
  EXPECT_TRUE(atom->setServiceState(ServiceStateStopped));
  EXPECT_THAT(platform.services.changes, ElementsAre(Change{kBridge, false}, Change{kService, false}));
}

TEST_F(NotificationState, EveryOtherStateStopsToo) {
  EXPECT_TRUE(atom->setServiceState(1));
  EXPECT_TRUE(atom->setServiceState(ServiceStateUnknown));
  EXPECT_THAT(platform.services.changes, ElementsAre(Change{kBridge, false}, Change{kService, false},
                                                     Change{kBridge, false}, Change{kService, false}));
}

TEST_F(NotificationState, OnlyTheServicesOwnStopCanFail) {
  platform.services.failing.insert(kBridge);
  EXPECT_TRUE(atom->setServiceState(ServiceStateStopped));
  platform.services.failing.insert(kService);
  EXPECT_FALSE(atom->setServiceState(ServiceStateStopped));
}

// --- Changes of name and address ---

class NotificationHostChanges : public NotificationTest {
 protected:
  const std::string pubsub = "/var/db/idavoll/pubsub.db";
  const std::string items = "/var/db/idavoll/items.db";

  void SetUp() override {
    store(complete());
    platform.root.write(pubsub, "p");
    platform.root.write(items, "i");
  }

  /// A valid change of the host and the address, with the given fields over it.
  static NetworkChangeContext change(std::initializer_list<DictionaryEntry> fields = {}) {
    return NetworkChangeContext::fromEvent(with({{"hasValidNetworkConfiguration", true},
                                                 {"hasHostChanged", true},
                                                 {"hasAddrChanged", true},
                                                 {"oldHost", "old.example.com"},
                                                 {"newHost", "new.example.com"}},
                                                fields));
  }
  static NetworkChangeContext changeWithoutNewHost() {
    return NetworkChangeContext::fromEvent(
        {{"hasValidNetworkConfiguration", true}, {"hasAddrChanged", true}});
  }

  void expectOnly(int level, const std::string& message) {
    EXPECT_THAT(platform.log.messages(), ElementsAre(Message{level, message}));
    EXPECT_THAT(platform.files.changes(), IsEmpty());
  }
  std::string domain() { return stored().stringFor("domain") ? *stored().stringFor("domain") : "(null)"; }
};

TEST_F(NotificationHostChanges, OfTheNetworkPutTheNewHostIntoTheSettings) {
  atom->handleNetworkChanged(change());
  EXPECT_EQ(domain(), "new.example.com");
  EXPECT_TRUE(debugged("creating config file for network change: new host=\"new.example.com\""));
  EXPECT_TRUE(platform.root.exists(pubsub));
  EXPECT_TRUE(platform.root.exists(items));
}

TEST_F(NotificationHostChanges, OfTheAddressAloneAlsoWriteTheHost) {
  atom->handleNetworkChanged(change({{"hasHostChanged", false}}));
  EXPECT_EQ(domain(), "new.example.com");
}

TEST_F(NotificationHostChanges, WithoutAHostNameAreNotTaken) {
  owner.hostDomain.reset();
  atom->handleNetworkChanged(change());
  expectOnly(kLogDebug, "Network change left us with no valid DNS hostname.  No action taken.");
}

TEST_F(NotificationHostChanges, ToALocalNameAreNotTaken) {
  owner.hostDomain = "mac.local";
  atom->handleNetworkChanged(change());
  expectOnly(kLogDebug, "Network change left us with a .local hostname.  No action taken.");
}

TEST_F(NotificationHostChanges, ThatAreNotValidAreNotTaken) {
  atom->handleNetworkChanged(change({{"hasValidNetworkConfiguration", false}}));
  expectOnly(kLogDebug, "Network change created invalid network configuration.  No action taken.");
}

TEST_F(NotificationHostChanges, OfNeitherNameNorAddressAreIgnored) {
  atom->handleNetworkChanged(change({{"hasHostChanged", false}, {"hasAddrChanged", false}}));
  expectOnly(kLogNotice, "Network change ignored - no change in host(s) or address(s).");
}

TEST_F(NotificationHostChanges, ToASelfAssignedAddressAreNotTaken) {
  atom->handleNetworkChanged(change({{"isNewAddressSelfAssigned", true}}));
  expectOnly(kLogNotice, "Detected self-assigned address. No action taken.");
}

TEST_F(NotificationHostChanges, WithoutANewHostAreAnError) {
  atom->handleNetworkChanged(changeWithoutNewHost());
  EXPECT_THAT(
      platform.log.messages(),
      ElementsAre(Message{kLogError,
                          "Beaconry config file modification failed! reason: missing new "
                          "host argument"},
                  Message{kLogWarning, "Beaconry may not be reachable from chat clients due to error."}));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationHostChanges, ByRequestRemoveTheDatabasesAndWriteTheHost) {
  atom->handleChangeIPRequest(change({{"hasAddrChanged", false}}));
  EXPECT_FALSE(platform.root.exists(pubsub));
  EXPECT_FALSE(platform.root.exists(items));
  EXPECT_EQ(domain(), "new.example.com");
  const auto lines = platform.log.messages(kLogDebug);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[0], "Processing changeip request.");
  EXPECT_EQ(lines[1], "Removing notification database since hostname changed.");
  EXPECT_EQ(lines[2], "creating config file for network change: new host=\"new.example.com\"");
}

TEST_F(NotificationHostChanges, ByRequestOfTheAddressAloneKeepTheDatabases) {
  atom->handleChangeIPRequest(change({{"hasHostChanged", false}}));
  EXPECT_TRUE(platform.root.exists(pubsub));
  EXPECT_TRUE(platform.root.exists(items));
  EXPECT_EQ(domain(), "new.example.com");
}

TEST_F(NotificationHostChanges, ByRequestTakeNoLookAtThisHostsName) {
  owner.hostDomain = "mac.local";
  atom->handleChangeIPRequest(change());
  EXPECT_EQ(domain(), "new.example.com");
}

TEST_F(NotificationHostChanges, ByRequestThatAreNotValidAreNotTaken) {
  atom->handleChangeIPRequest(change({{"hasValidNetworkConfiguration", false}}));
  EXPECT_THAT(
      platform.log.messages(),
      ElementsAre(
          Message{kLogDebug, "Processing changeip request."},
          Message{kLogDebug, "Network change created invalid network configuration.  No action taken."}));
  EXPECT_TRUE(platform.root.exists(pubsub));
  EXPECT_EQ(domain(), "own.example.com");
}

TEST_F(NotificationHostChanges, ByRequestOfNothingAreIgnored) {
  atom->handleChangeIPRequest(change({{"hasHostChanged", false}, {"hasAddrChanged", false}}));
  EXPECT_THAT(platform.log.messages(kLogNotice),
              ElementsAre("Network change ignored - no change in host(s) or address(s)."));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationHostChanges, ByRequestToASelfAssignedAddressRemoveTheDatabasesAllTheSame) {
  atom->handleChangeIPRequest(change({{"isNewAddressSelfAssigned", true}}));
  EXPECT_FALSE(platform.root.exists(pubsub));
  EXPECT_THAT(platform.log.messages(kLogNotice),
              ElementsAre("Detected self-assigned address. No action taken."));
  EXPECT_EQ(domain(), "own.example.com");
}

TEST_F(NotificationHostChanges, ByRequestWithoutANewHostAreAnError) {
  atom->handleChangeIPRequest(changeWithoutNewHost());
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("Beaconry config file modification failed! reason: missing new host argument"));
}

TEST_F(NotificationHostChanges, DatabasesThatCannotBeRemovedAreToldAndStopNothing) {
  platform.root.remove(pubsub);
  platform.files.failPath("remove", "items.db", EROFS);
  atom->handleChangeIPRequest(change());
  EXPECT_TRUE(platform.root.exists(items));
  EXPECT_EQ(domain(), "new.example.com");
  EXPECT_THAT(shown(), ElementsAre("\"" + items +
                                   "\" of the former host name was not removed: Read-only file "
                                   "system"));
}

}  // namespace
}  // namespace tessard
