#include "atoms/ChatServiceAtom.h"

#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ChatServiceAtomTest : public testing::Test {
 protected:
  TestPlatform platform;
  RecordingOwner owner{platform};
  Atom atom{platform};

  void SetUp() override { atom.initWithName_owner("router", &owner); }
};

TEST_F(ChatServiceAtomTest, TakesNameAndOwnerWhenItIsInitialised) {
  EXPECT_EQ(atom.serviceName(), "router");
  EXPECT_EQ(atom.serviceOwner(), &owner);
  atom.setServiceName("other");
  atom.setServiceOwner(nullptr);
  EXPECT_EQ(atom.serviceName(), "other");
  EXPECT_EQ(atom.serviceOwner(), nullptr);
}

TEST_F(ChatServiceAtomTest, FetchesTheMasterConfigurationFromItsOwnerOnEveryCall) {
  EXPECT_EQ(atom.masterConfig(), owner.master.get());
  owner.master = Master::masterConfiguration(platform);
  EXPECT_EQ(atom.masterConfig(), owner.master.get());
  owner.master.reset();
  EXPECT_EQ(atom.masterConfig(), nullptr);
  atom.setServiceOwner(nullptr);
  EXPECT_EQ(atom.masterConfig(), nullptr);
}

TEST_F(ChatServiceAtomTest, FindsItsComponentByItsOwnName) {
  EXPECT_EQ(atom.componentConfig(), nullptr) << "nothing is loaded yet";
  platform.root.write(kConfigDirectory + "/router.xml", "<router><id>r</id></router>");
  platform.root.write(kConfigDirectory + "/jabberd.cfg", "router " + kConfigDirectory + "/router.xml\n");
  ASSERT_TRUE(owner.master->loadAllConfigurations());
  ASSERT_NE(atom.componentConfig(), nullptr);
  EXPECT_EQ(atom.componentConfig()->configName(), "router");
  EXPECT_EQ(atom.componentConfig(), owner.master->defaultComponentForName("router"));
  atom.setServiceName("Notification");
  EXPECT_EQ(atom.componentConfig(), nullptr);
  owner.master.reset();
  EXPECT_EQ(atom.componentConfig(), nullptr);
}

TEST_F(ChatServiceAtomTest, ReportsItsDataReadyAndNothingToMake) {
  EXPECT_TRUE(atom.serviceDataReady());
  EXPECT_TRUE(atom.initServiceData());
  EXPECT_TRUE(atom.archiveServiceLogs());
}

TEST_F(ChatServiceAtomTest, HasNoLogsSettingsDomainsUsersOrServices) {
  EXPECT_EQ(atom.getServiceLogPaths(), std::nullopt);
  EXPECT_EQ(atom.readServiceConfiguration(), std::nullopt);
  EXPECT_EQ(atom.getServiceFirstDomain(), std::nullopt);
  EXPECT_EQ(atom.getServiceDomains(), std::nullopt);
  EXPECT_EQ(atom.getServiceConnectedUsers(), std::nullopt);
  EXPECT_EQ(atom.getServiceConnectedUserNames(), std::nullopt);
  EXPECT_EQ(atom.getConfiguredServices(), std::nullopt);
  EXPECT_EQ(atom.addServiceWithRequest({}), std::nullopt);
  EXPECT_EQ(atom.removeServiceWithRequest({}), std::nullopt);
  EXPECT_EQ(atom.getServiceUserWithRequest({}), std::nullopt);
  EXPECT_EQ(atom.setKorvsCertificateWithRequest({}), std::nullopt);
}

TEST_F(ChatServiceAtomTest, AcceptsAnySettingsAndClearsTheErrorCode) {
  const SettingsDictionary settings{{"hosts", Array{"a.example.com"}}};
  int error = 13;
  EXPECT_TRUE(atom.writeServiceConfiguration_error(&settings, error));
  EXPECT_EQ(error, 0);
  error = -1;
  EXPECT_TRUE(atom.writeServiceConfiguration_error(nullptr, error));
  EXPECT_EQ(error, 0);
  EXPECT_THAT(owner.saved, IsEmpty());
}

TEST_F(ChatServiceAtomTest, CannotTellItsStateAndAcceptsEveryOther) {
  EXPECT_EQ(atom.getServiceState(), ServiceStateUnknown);
  EXPECT_EQ(atom.getServiceState(), -1);
  EXPECT_TRUE(atom.setServiceState(ServiceStateRunning));
  EXPECT_TRUE(atom.setServiceState(ServiceStateStopped));
  EXPECT_THAT(platform.services.changes, IsEmpty());
}

TEST_F(ChatServiceAtomTest, TakesNoNoticeOfHostAndAddressChanges) {
  const auto context = NetworkChangeContext::fromEvent({{"hasHostChanged", true},
                                                        {"hasValidNetworkConfiguration", true},
                                                        {"oldHost", "a.example.com"},
                                                        {"newHost", "b.example.com"}});
  atom.handleChangeIPRequest(context);
  atom.handleNetworkChanged(context);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
  EXPECT_THAT(platform.files.calls(), IsEmpty());
}

TEST_F(ChatServiceAtomTest, AnswersTheLastIPv4AddressOfAHost) {
  platform.network.addresses["chat.example.com"] = {"10.0.0.1", "fe80::1", "10.0.0.2"};
  EXPECT_EQ(atom.currentIPv4AddressForHost("chat.example.com"), "10.0.0.2");
  EXPECT_THAT(platform.network.lookups, ElementsAre(FakeNetwork::Lookup{"chat.example.com", 5.0}));
  EXPECT_THAT(
      platform.log.messages(kLogDebug),
      ElementsAre("Scanning for IPv4 address for host: chat.example.com ", "...checking address: 10.0.0.1 ",
                  "...checking address: fe80::1 ", "...checking address: 10.0.0.2 "));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(ChatServiceAtomTest, KeepsAnIPv4AddressThatIPv6AddressesFollow) {
  platform.network.addresses["chat.example.com"] = {"10.0.0.1", "fe80::1", "fe80::2"};
  EXPECT_EQ(atom.currentIPv4AddressForHost("chat.example.com"), "10.0.0.1");
}

TEST_F(ChatServiceAtomTest, AnswersNoAddressForAHostWithoutIPv4) {
  platform.network.addresses["six.example.com"] = {"2001:db8::1", "fe80::1"};
  EXPECT_EQ(atom.currentIPv4AddressForHost("six.example.com"), std::nullopt);
  EXPECT_EQ(atom.currentIPv4AddressForHost("unknown.example.com"), std::nullopt);
}

}  // namespace
}  // namespace tessard
