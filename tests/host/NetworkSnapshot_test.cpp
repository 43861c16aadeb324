#include "host/NetworkSnapshot.h"

#include <gmock/gmock.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "tests/support/FakeHostNames.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

InterfaceAddress v4(const char* text, int scope = RT_SCOPE_UNIVERSE, unsigned flags = 0) {
  return {text, AF_INET, static_cast<std::uint8_t>(scope), flags};
}

InterfaceAddress v6(const char* text, unsigned flags = 0, int scope = RT_SCOPE_UNIVERSE) {
  return {text, AF_INET6, static_cast<std::uint8_t>(scope), flags};
}

TEST(SortedAddresses, AreUsableWhereOthersCanReachThem) {
  const auto sorted = sortedAddresses({v4("192.0.2.1"), v4("10.0.0.1", RT_SCOPE_SITE), v6("2001:db8::1"),
                                       v6("fd00::1"), v4("203.0.113.1", RT_SCOPE_LINK)});
  EXPECT_THAT(sorted.usable, ElementsAre("10.0.0.1", "192.0.2.1", "2001:db8::1", "203.0.113.1", "fd00::1"));
  EXPECT_THAT(sorted.selfAssigned, IsEmpty());
}

TEST(SortedAddresses, LeaveOutWhatReachesTheMachineItselfOnly) {
  const auto sorted = sortedAddresses({v4("127.0.0.1", RT_SCOPE_HOST), v6("::1", 0, RT_SCOPE_HOST),
                                       v4("192.0.2.1", RT_SCOPE_HOST), v4("192.0.2.2", RT_SCOPE_NOWHERE),
                                       v4("127.0.0.2", RT_SCOPE_UNIVERSE)});
  EXPECT_EQ(sorted, HostAddresses());
}

TEST(SortedAddresses, AreSelfAssignedWhateverTheirScopeSays) {
  const auto sorted = sortedAddresses(
      {v4("169.254.7.7"), v4("169.254.7.8", RT_SCOPE_LINK), v6("fe80::1", IFA_F_PERMANENT, RT_SCOPE_LINK)});
  EXPECT_THAT(sorted.usable, IsEmpty());
  EXPECT_THAT(sorted.selfAssigned, ElementsAre("169.254.7.7", "169.254.7.8", "fe80::1"));
}

TEST(SortedAddresses, LeaveOutIPv6AddressesThatAreUnsettledOrChangeByThemselves) {
  EXPECT_EQ(sortedAddresses({v6("2001:db8::1", IFA_F_TENTATIVE), v6("2001:db8::2", IFA_F_TEMPORARY),
                             v6("2001:db8::3", IFA_F_PERMANENT | IFA_F_TENTATIVE | IFA_F_DADFAILED),
                             v6("2001:db8::4", IFA_F_TENTATIVE | IFA_F_OPTIMISTIC | IFA_F_TEMPORARY),
                             v6("fe80::1", IFA_F_TENTATIVE, RT_SCOPE_LINK)}),
            HostAddresses());
  EXPECT_THAT(sortedAddresses({v6("2001:db8::5", IFA_F_TENTATIVE | IFA_F_OPTIMISTIC),
                               v6("2001:db8::6", IFA_F_DEPRECATED), v6("2001:db8::7", IFA_F_MANAGETEMPADDR)})
                  .usable,
              ElementsAre("2001:db8::5", "2001:db8::6", "2001:db8::7"));
}

TEST(SortedAddresses, KeepFurtherIPv4AddressesWhoseFlagIsThatOfTemporaryOnes) {
  EXPECT_THAT(sortedAddresses({v4("192.0.2.1"), v4("192.0.2.2", RT_SCOPE_UNIVERSE, IFA_F_SECONDARY)}).usable,
              ElementsAre("192.0.2.1", "192.0.2.2"));
}

TEST(CurrentHostName, IsTheConfiguredOneBeforeTheStoredOne) {
  FakeHostNames names;
  EXPECT_EQ(currentHostName(names, true), "chat.example.com");
  names.configured.reset();
  EXPECT_EQ(currentHostName(names, true), "stored.example.com");
  EXPECT_EQ(currentHostName(names, false), std::nullopt);
  names.stored.reset();
  EXPECT_EQ(currentHostName(names, true), std::nullopt);
}

TEST(CurrentHostName, IsAbsentWhereTheConfigurationCannotBeRead) {
  FakeHostNames names;
  names.failure = SystemError(EACCES);
  EXPECT_EQ(currentHostName(names, true), std::nullopt);
  EXPECT_EQ(names.storedAsked, 0);
}

}  // namespace
}  // namespace tessard
