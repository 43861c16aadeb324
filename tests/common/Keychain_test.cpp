#include "common/Keychain.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

TEST(Keychain, AStatusIsToldAsASentenceAndAnUnknownOneAsItsNumber) {
  EXPECT_EQ(keychainStatusText(errSecItemNotFound), "The item is not in the keychain");
  EXPECT_EQ(keychainStatusText(errSecSuccess), "No error");
  EXPECT_EQ(keychainStatusText(-4711), "Unknown keychain error -4711");
}

TEST(Keychain, AFailureIsPrintedOnOneLineOfStandardError) {
  testing::internal::CaptureStderr();
  cssmPerror("SecIdentitySetPreferred failed", errSecItemNotFound);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SecIdentitySetPreferred failed: The item is not in the keychain\n");
}

TEST(Keychain, AnAccessHoldsItsOwnerAndItsEntries) {
  const AclSubject subject{.mask = CSSM_ACL_MATCH_UID, .uid = 7};
  const AclEntry entry{subject, false, {AclAuthorization::CSSM_ACL_AUTHORIZATION_ANY}};
  const SecAccess access = SecAccessCreateFromOwnerAndACL({subject}, {entry});
  EXPECT_EQ(access.owner.subject, subject);
  ASSERT_EQ(access.entries.size(), 1U);
  EXPECT_EQ(access.entries.front(), entry);
}

}  // namespace
}  // namespace tessard
