#include <crypt.h>

#include <cerrno>

#include "platform/accounts/PasswordHash.h"
#include "tests/accounts/AccountFixtures.h"

// How passwords are hashed and kept.

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// As a login does it.
bool opens(const std::string& password, const std::string& hash) {
  crypt_data data{};
  const char* made = crypt_r(password.c_str(), hash.c_str(), &data);
  return made && hash == made;
}

class AccountPasswords : public AccountsTest {
 protected:
  void SetUp() override { ASSERT_TRUE(create("somebody")); }

  int change(const std::string& password) {
    return codeOf(node->changePassword_toPassword(user("somebody"), password));
  }
};

TEST_F(AccountPasswords, NewUsersHaveNone) {
  EXPECT_EQ(hashOf("somebody"), "!");
  EXPECT_FALSE(opens("", hashOf("somebody")));
}

TEST_F(AccountPasswords, OpenTheAccountOnceTheyAreSet) {
  ASSERT_EQ(change("kw4Tz0Qx8LmN2bVc"), 0);
  EXPECT_TRUE(opens("kw4Tz0Qx8LmN2bVc", hashOf("somebody")));
  EXPECT_FALSE(opens("kw4Tz0Qx8LmN2bVC", hashOf("somebody")));
  EXPECT_THAT(lineOf("somebody", "/etc/passwd"), StartsWith("somebody:x:"));
}

TEST_F(AccountPasswords, ReplaceTheOnesBefore) {
  ASSERT_EQ(change("first"), 0);
  ASSERT_EQ(change("second"), 0);
  EXPECT_FALSE(opens("first", hashOf("somebody")));
  EXPECT_TRUE(opens("second", hashOf("somebody")));
}

TEST_F(AccountPasswords, AreSaltedEachTime) {
  ASSERT_EQ(change("same"), 0);
  const std::string first = hashOf("somebody");
  ASSERT_EQ(change("same"), 0);
  EXPECT_NE(hashOf("somebody"), first);
}

TEST_F(AccountPasswords, MayHoldEveryCharacterButNul) {
  for (const std::string password : {"a:b", "a\nb", "\xFF\x01", "*", "!", "{CRYPT}x", "$6$x$y"}) {
    ASSERT_EQ(change(password), 0) << password;
    EXPECT_TRUE(opens(password, hashOf("somebody"))) << password;
  }
}

TEST_F(AccountPasswords, ThatCannotBeHashedAreRefused) {
  ASSERT_EQ(change("good"), 0);
  const std::string before = everything();
  EXPECT_EQ(change(""), EINVAL);
  EXPECT_EQ(change(std::string("a\0b", 3)), EINVAL);
  EXPECT_EQ(change(std::string(100000, 'a')), ERANGE);
  EXPECT_EQ(everything(), before);
}

TEST_F(AccountPasswords, AreOfUsersThatExist) {
  EXPECT_EQ(codeOf(node->changePassword_toPassword(user("ghost"), "secret")), ENOENT);
}

TEST_F(AccountPasswords, AreNowhereInTheFilesAsTheyAre) {
  ASSERT_EQ(change("canary-7261"), 0);
  EXPECT_THAT(everything(), Not(HasSubstr("canary")));
}

TEST_F(AccountPasswords, OfOthersStay) {
  root.write("/etc/shadow", root.read("/etc/shadow") + "other:$6$salt$hash:20000:0:99999:7:::\n");
  ASSERT_EQ(change("secret"), 0);
  EXPECT_EQ(lineOf("other", "/etc/shadow"), "other:$6$salt$hash:20000:0:99999:7:::");
}

TEST_F(AccountPasswords, GoToTheShadowFileAlsoOfAUserThatHadNoLineThere) {
  root.write("/etc/passwd", root.read("/etc/passwd") + "halfmade:x:260:20::/:/bin/false\n");
  ASSERT_TRUE(node->changePassword_toPassword(user("halfmade"), "secret"));
  EXPECT_EQ(lineOf("halfmade", "/etc/passwd"), "halfmade:x:260:20::/:/bin/false");
  EXPECT_TRUE(opens("secret", hashOf("halfmade")));
}

TEST_F(AccountPasswords, GoToTheShadowFileAlsoOfAUserThatHadOneWhereAllCanRead) {
  const std::string passwd = root.read("/etc/passwd");
  const std::string shadow = root.read("/etc/shadow");
  for (const std::string former : {"$1$salt$hash", "", "*", "!", "!!"}) {
    for (const std::string line : {"", "old:!:1:0:99999:7:::\n", "old::1:0:99999:7:::\n"}) {
      std::string users = passwd;
      users.append("old:").append(former).append(":260:20::/:/bin/false\n");
      root.write("/etc/passwd", users);
      root.write("/etc/shadow", shadow + line);
      ASSERT_TRUE(node->changePassword_toPassword(user("old"), "secret"));
      EXPECT_EQ(lineOf("old", "/etc/passwd"), "old:x:260:20::/:/bin/false") << former << line;
      EXPECT_TRUE(opens("secret", hashOf("old"))) << former << line;
    }
  }
}

TEST_F(AccountPasswords, AreHashedAsThePasswordProgramsOfTheMachineDo) {
  const auto hashedBy = [&](const std::string& pam, const std::string& definitions) {
    for (const char* file : {"/etc/pam.d/common-password", "/etc/login.defs"}) root.remove(file);
    if (!pam.empty()) root.write("/etc/pam.d/common-password", pam);
    if (!definitions.empty()) root.write("/etc/login.defs", definitions);
    EXPECT_EQ(change("secret"), 0);
    EXPECT_TRUE(opens("secret", hashOf("somebody")));
    const std::string hash = hashOf("somebody");
    return hash.substr(0, hash.find('$', 1) + 1);
  };
  EXPECT_EQ(hashedBy("", ""), "$y$");
  EXPECT_EQ(hashedBy("", "ENCRYPT_METHOD SHA512\n"), "$6$");
  EXPECT_EQ(hashedBy("", "ENCRYPT_METHOD\tSHA256 # why not\n"), "$5$");
  EXPECT_EQ(hashedBy("", "ENCRYPT_METHOD YESCRYPT\n"), "$y$");
  EXPECT_EQ(hashedBy("", "ENCRYPT_METHOD BCRYPT\n"), "$2b$");
  EXPECT_EQ(hashedBy("", "#ENCRYPT_METHOD SHA512\nENCRYPT_METHOD\n"), "$y$");
  EXPECT_EQ(hashedBy("", "ENCRYPT_METHOD MD5\n"), "$y$") << "too weak to follow";
  EXPECT_EQ(hashedBy("", "ENCRYPT_METHOD DES\n"), "$y$");
  EXPECT_EQ(hashedBy("password [success=1 default=ignore] pam_unix.so obscure yescrypt\n",
                     "ENCRYPT_METHOD SHA512\n"),
            "$y$");
  EXPECT_EQ(hashedBy("password required pam_unix.so sha256 # as ever\n", ""), "$5$");
  EXPECT_EQ(hashedBy("password required pam_unix.so nullok\n", "ENCRYPT_METHOD SHA512\n"), "$6$");
  EXPECT_EQ(hashedBy("auth required pam_unix.so sha256\n# password x pam_unix.so sha256\n",
                     "ENCRYPT_METHOD SHA512\n"),
            "$6$");
}

}  // namespace
}  // namespace tessard
