#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/OfflineNetwork.h"
#include "platform/OfflineServiceManager.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(OfflineServiceManager, NothingRunsNothingStartsAndStoppingSucceeds) {
  OfflineServiceManager services;
  EXPECT_FALSE(services.GetLaunchDaemonServiceState("org.jabber.jabberd_notification"));
  EXPECT_FALSE(services.SetLaunchDaemonServiceState("org.jabber.jabberd_notification", true));
  EXPECT_FALSE(services.GetLaunchDaemonServiceState("org.jabber.jabberd_notification"));
  EXPECT_TRUE(services.SetLaunchDaemonServiceState("org.jabber.jabberd_notification", false));
}

class OfflineNetworkTest : public testing::Test {
 protected:
  TestPlatform test;
  OfflineNetwork network{test.files};
};

TEST_F(OfflineNetworkTest, ANumericHostIsItsOwnAddressInCanonicalSpelling) {
  EXPECT_THAT(network.ZtGetAddressesForHostName("192.0.2.7", 5.0), ElementsAre("192.0.2.7"));
  EXPECT_THAT(network.ZtGetAddressesForHostName("2001:DB8:0:0::0007", 5.0), ElementsAre("2001:db8::7"));
}

TEST_F(OfflineNetworkTest, NamesHaveTheAddressesOfTheTableInItsOrderEachOnce) {
  test.root.write("/etc/hosts",
                  "192.0.2.9 chat.example.com chat\n"
                  "192.0.2.1 other.example.com\n"
                  "2001:db8::0:1 CHAT.example.com\n"
                  "192.0.2.9 chat.example.com\n"
                  "not-an-address chat.example.com\n"
                  "192.0.2.3 chat.example.com\n");
  EXPECT_THAT(network.ZtGetAddressesForHostName("chat.Example.com", 0.0),
              ElementsAre("192.0.2.9", "2001:db8::1", "192.0.2.3"));
  EXPECT_THAT(network.ZtGetAddressesForHostName("chat.example.com.", 5.0),
              ElementsAre("192.0.2.9", "2001:db8::1", "192.0.2.3"));
  EXPECT_THAT(network.ZtGetAddressesForHostName("chat", 5.0), ElementsAre("192.0.2.9"));
}

TEST_F(OfflineNetworkTest, OtherNamesHaveNoneEvenThoseThatTheMachineKnows) {
  test.root.write("/etc/hosts", "192.0.2.9 chat.example.com\n");
  for (const std::string_view host :
       {"localhost", "example.com", "", ".", "chat.example.com..", "192.0.2", "192.0.2.256", " 192.0.2.1"}) {
    EXPECT_THAT(network.ZtGetAddressesForHostName(host, 5.0), IsEmpty()) << host;
  }
  EXPECT_THAT(network.ZtGetAddressesForHostName(std::string_view("192.0.2.1\0x", 11), 5.0), IsEmpty());
}

TEST_F(OfflineNetworkTest, ATableThatIsMissingOrUnreadableGivesNothing) {
  EXPECT_THAT(network.ZtGetAddressesForHostName("chat.example.com", 5.0), IsEmpty());
  test.root.write("/etc/hosts", "192.0.2.9 chat.example.com\n");
  test.files.failAll("readFile", EIO);
  EXPECT_THAT(network.ZtGetAddressesForHostName("chat.example.com", 5.0), IsEmpty());
}

TEST_F(OfflineNetworkTest, NoPortIsKnownToBeRestricted) {
  Array restrictions{Value("from before")};
  EXPECT_FALSE(network.check_if_ports_are_restricted(
      {std::uint16_t{5218}, std::uint16_t{5268}, std::set<std::uint16_t>{16384, 16403}}, restrictions));
  EXPECT_THAT(restrictions, IsEmpty());
}

TEST_F(OfflineNetworkTest, PortMappingIsOffAndSoSucceedsWithoutSendingAnything) {
  const auto mappings = network.ZtCreateSimplePortMappingsSet(5268, 1, true);
  ASSERT_TRUE(mappings);
  EXPECT_THAT(mappings->ports, ElementsAre(5268));
  EXPECT_EQ(mappings->protocol, 1);
  EXPECT_TRUE(mappings->enable);
  EXPECT_FALSE(network.ZtCreateSimplePortMappingsSet(5268, 1, false)->enable);
  EXPECT_EQ(network.ZtChangePortMappings(*mappings), 0);
}

}  // namespace
}  // namespace tessard
