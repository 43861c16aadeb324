#include "platform/network/InterfaceAddresses.h"

#include <gmock/gmock.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <optional>

#include "tests/support/NetworkNamespace.h"

namespace tessard {
namespace {

/// A test in a network of its own, whose interface has the two loopback addresses at first.
class OwnNetworkTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
    network_.emplace();
    stay_.emplace(*network_);
  }

  void ip(const std::string& words) const { network_->shell("ip " + words); }
  void ipBatch(const std::string& lines) const { network_->shell("ip -batch - <<'END'\n" + lines + "END\n"); }

 private:
  std::optional<NetworkNamespace> network_;
  std::optional<NetworkNamespace::Stay> stay_;
};

struct InterfaceAddresses : OwnNetworkTest {};
struct AddressNoticesTest : OwnNetworkTest {};

bool isReadable(int descriptor, short events) {
  pollfd state{descriptor, events, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & events) != 0;
}

std::vector<std::string> textsOf(const std::vector<InterfaceAddress>& addresses) {
  std::vector<std::string> texts;
  texts.reserve(addresses.size());
  for (const InterfaceAddress& address : addresses) texts.push_back(address.text);
  return texts;
}

TEST_F(InterfaceAddresses, AreThoseThatTheInterfacesHave) {
  EXPECT_THAT(textsOf(interfaceAddresses().value()), testing::UnorderedElementsAre("127.0.0.1", "::1"));
  ip("addr add 192.0.2.1/24 dev lo");
  ip("addr add 192.0.2.2/24 dev lo");
  ip("addr add 2001:db8::1/64 dev lo noprefixroute preferred_lft 0 valid_lft forever");
  const auto addresses = interfaceAddresses().value();
  ASSERT_THAT(textsOf(addresses),
              testing::UnorderedElementsAre("192.0.2.1", "192.0.2.2", "127.0.0.1", "2001:db8::1", "::1"));
  for (const InterfaceAddress& address : addresses) {
    EXPECT_EQ(address.family, address.text.find(':') == std::string::npos ? AF_INET : AF_INET6);
    EXPECT_EQ(address.scope,
              address.text == "127.0.0.1" || address.text == "::1" ? RT_SCOPE_HOST : RT_SCOPE_UNIVERSE);
    EXPECT_EQ((address.flags & IFA_F_SECONDARY) != 0, address.text == "192.0.2.2");
    // A flag beyond the eight of the message's header.
    EXPECT_EQ((address.flags & IFA_F_NOPREFIXROUTE) != 0, address.text == "2001:db8::1");
    EXPECT_EQ((address.flags & IFA_F_DEPRECATED) != 0, address.text == "2001:db8::1");
  }
}

TEST_F(InterfaceAddresses, AreTheNearOnesOfALinkBetweenTwoPoints) {
  ip("addr add 192.0.2.1 peer 198.51.100.1/32 dev lo");
  ip("addr add 2001:db8::1 peer 2001:db8:1::1/128 dev lo");
  EXPECT_THAT(textsOf(interfaceAddresses().value()), testing::IsSupersetOf({"192.0.2.1", "2001:db8::1"}));
  EXPECT_THAT(textsOf(interfaceAddresses().value()), testing::SizeIs(4));
}

TEST_F(InterfaceAddresses, AreAllToldHoweverManyThereAre) {
  std::string lines;
  for (int number = 1; number <= 1000; ++number) {
    lines +=
        "addr add 10.0." + std::to_string(number / 250) + "." + std::to_string(number % 250) + "/8 dev lo\n";
  }
  ipBatch(lines);
  EXPECT_EQ(interfaceAddresses().value().size(), 1002U);
}

TEST_F(AddressNoticesTest, TellThatAnAddressCameOrWent) {
  auto notices = AddressNotices::open();
  ASSERT_TRUE(notices.ok()) << notices.error().description();
  EXPECT_FALSE(isReadable(notices.value().descriptor(), POLLIN));
  EXPECT_FALSE(notices.value().take().value());
  for (const char* words : {"addr add 192.0.2.1/24 dev lo", "addr del 192.0.2.1/24 dev lo",
                            "addr add 2001:db8::1/64 dev lo", "addr del 2001:db8::1/64 dev lo"}) {
    ip(words);
    EXPECT_TRUE(isReadable(notices.value().descriptor(), POLLIN)) << words;
    EXPECT_TRUE(notices.value().take().value()) << words;
    EXPECT_FALSE(isReadable(notices.value().descriptor(), POLLIN)) << words;
    EXPECT_FALSE(notices.value().take().value()) << words;
  }
}

TEST_F(AddressNoticesTest, GoOnAfterMoreThanTheyCanHold) {
  auto notices = AddressNotices::open();
  ASSERT_TRUE(notices.ok());
  const int small = 1;  // the kernel makes it its least size, room for a handful of notices
  ASSERT_EQ(setsockopt(notices.value().descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
  std::string lines;
  for (int number = 1; number <= 200; ++number) {
    lines += "addr add 192.0.2." + std::to_string(number) + "/24 dev lo\n";
  }
  ipBatch(lines);
  int problem = 0;
  socklen_t size = sizeof problem;
  // That they were lost, which this takes away, was to be seen before.
  ASSERT_EQ(getsockopt(notices.value().descriptor(), SOL_SOCKET, SO_ERROR, &problem, &size), 0);
  EXPECT_EQ(problem, ENOBUFS);
  EXPECT_TRUE(notices.value().take().value());

  ipBatch("addr flush dev lo\n" + lines);
  EXPECT_TRUE(notices.value().take().value()) << "notices were lost";
  EXPECT_FALSE(notices.value().take().value());
  ip("addr add 198.51.100.1/24 dev lo");
  EXPECT_TRUE(notices.value().take().value());
}

}  // namespace
}  // namespace tessard
