#include "common/Addresses.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

TEST(Addresses, AreThoseOfBothFamiliesAndNothingElse) {
  for (const char* text : {"192.0.2.1", "0.0.0.0", "2001:db8::1", "::", "::ffff:192.0.2.1"}) {
    EXPECT_TRUE(isAddress(text)) << text;
  }
  for (const char* text :
       {"", "192.0.2", "192.0.2.256", "192.0.2.1 ", "2001:db8:::1", "fe80::1%lo", "chat"}) {
    EXPECT_FALSE(isAddress(text)) << text;
  }
  EXPECT_FALSE(isAddress(std::string("192.0.2.1\0x", 11)));
}

TEST(Addresses, AreSelfAssignedInTheirTwoRangesAlone) {
  for (const char* text : {"169.254.0.0", "169.254.255.255", "fe80::", "febf:ffff::1"}) {
    EXPECT_TRUE(isSelfAssignedAddress(text)) << text;
  }
  for (const char* text :
       {"169.253.255.255", "169.255.0.0", "fe7f:ffff::1", "fec0::", "::1", "169.254", ""}) {
    EXPECT_FALSE(isSelfAssignedAddress(text)) << text;
  }
  EXPECT_FALSE(isSelfAssignedAddress(std::string("169.254.0.1\0x", 13)));
}

}  // namespace
}  // namespace tessard
