#include "programs/authenticator/LoginRules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace tessard {
namespace {

using testing::Contains;
using testing::Eq;
using testing::Optional;

constexpr gid_t kAccess = 300;

std::optional<std::string> refusal(const std::string& name, uid_t user, const std::vector<gid_t>& groups,
                                   std::optional<gid_t> accessGroup = std::nullopt) {
  return refusalOf({.name = name, .user = user, .groups = groups},
                   {.firstPerson = 1000, .accessGroup = accessGroup});
}

TEST(LoginRules, PeopleMayLogIn) {
  EXPECT_EQ(refusal("ann", 1000, {1000}), std::nullopt);
  EXPECT_EQ(refusal("ann", 60001, {100}), std::nullopt);
}

TEST(LoginRules, TheServiceUserMayLogInAlthoughItsNumberIsThatOfASystemAccount) {
  EXPECT_EQ(refusal("com.velto.notificationuser", 250, {20}), std::nullopt);
}

TEST(LoginRules, RootNeverMay) {
  EXPECT_THAT(refusal("root", 0, {0}), Optional(Eq("it is root")));
  EXPECT_THAT(refusal("toor", 0, {0, kAccess}, kAccess), Optional(Eq("it is root")));
  EXPECT_THAT(refusal("com.velto.notificationuser", 0, {20}), Optional(Eq("it is root")));
}

TEST(LoginRules, AccountsOfTheSystemMayNot) {
  for (const auto& [name, user] :
       {std::pair("jabberd", 84), {"daemon", 1}, {"postgres", 999}, {"nobody", 65534}}) {
    EXPECT_THAT(refusal(name, static_cast<uid_t>(user), {100}),
                Optional(Eq("it is an account of the system")));
  }
}

TEST(LoginRules, WhereThereIsAnAccessGroupItsMembersAloneMay) {
  EXPECT_EQ(refusal("ann", 1000, {1000, kAccess}, kAccess), std::nullopt);
  EXPECT_EQ(refusal("archiver", 999, {kAccess}, kAccess), std::nullopt);
  EXPECT_THAT(refusal("bob", 1001, {1001, 301}, kAccess), Optional(Eq("it is not in the access group")));
  EXPECT_THAT(refusal("com.velto.notificationuser", 250, {20}, kAccess),
              Optional(Eq("it is not in the access group")));
}

TEST(LoginRules, TheFirstNumberOfPeopleIsTakenFromTheDefinitions) {
  EXPECT_THAT(firstPersonIn("# UID_MIN 7\nUID_MINIMUM 5\n SYS_UID_MIN 100\nUID_MIN\t\t  500\nUID_MIN 600\n"),
              Optional(500U));
  for (const char* const text :
       {"", "UID_MIN\n", "UID_MIN x\n", "UID_MIN -1\n", "UID_MIN 1k\n", "#UID_MIN 5\n"}) {
    EXPECT_EQ(firstPersonIn(text), std::nullopt) << text;
  }
}

TEST(LoginRules, AnAccountOfTheMachineIsFoundWithItsGroups) {
  const auto root = localAccount("root");
  ASSERT_TRUE(root.ok());
  ASSERT_TRUE(root.value());
  EXPECT_EQ(root.value()->user, 0U);
  EXPECT_THAT(root.value()->groups, Contains(0U));
}

TEST(LoginRules, AnAccountThatIsNotThereIsNoError) {
  for (const std::string& name : {std::string("no-such.account"), std::string(255, 'n'), std::string("..")}) {
    const auto account = localAccount(name);
    ASSERT_TRUE(account.ok());
    EXPECT_FALSE(account.value()) << name;
  }
}

}  // namespace
}  // namespace tessard
