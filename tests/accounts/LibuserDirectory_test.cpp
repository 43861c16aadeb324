#include <cerrno>
#include <cstdio>

#include "tests/accounts/AccountFixtures.h"

// What the local node finds, makes and refuses.

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

class LibuserNode : public AccountsTest {};

TEST_F(LibuserNode, MakesAUserWithTheGivenAttributes) {
  const auto made = create("com.velto.notificationuser");
  ASSERT_TRUE(made) << reasonOf(made);
  EXPECT_EQ(made.value(), user("com.velto.notificationuser"));
  EXPECT_EQ(lineOf("com.velto.notificationuser", "/etc/passwd"),
            "com.velto.notificationuser:x:250:20:Notification User:99:/usr/bin/false");
  EXPECT_THAT(lineOf("com.velto.notificationuser", "/etc/shadow"),
              MatchesRegex("com.velto.notificationuser:!:[0-9]+:0:99999:7:::"));
  EXPECT_FALSE(root.exists("/99")) << "no home directory is made";
}

TEST_F(LibuserNode, LeavesEveryOtherLineAsItIs) {
  root.write("/etc/passwd", "# a comment\nroot:x:0:0:root:/root:/bin/sh\n\n+::::::\nodd line\n");
  const std::string group = root.read("/etc/group");
  ASSERT_TRUE(create("somebody"));
  EXPECT_EQ(root.read("/etc/passwd"),
            "# a comment\nroot:x:0:0:root:/root:/bin/sh\n\n+::::::\nodd line\n"
            "somebody:x:250:20:Notification User:99:/usr/bin/false\n");
  EXPECT_EQ(root.read("/etc/group"), group);
}

TEST_F(LibuserNode, AddsALineWhereTheLastOneHasNoEnd) {
  root.write("/etc/passwd", "root:x:0:0:root:/root:/bin/sh");
  ASSERT_TRUE(create("somebody"));
  EXPECT_EQ(root.read("/etc/passwd"),
            "root:x:0:0:root:/root:/bin/sh\nsomebody:x:250:20:Notification User:99:/usr/bin/false\n");
}

TEST_F(LibuserNode, KeepsOwnersAndModesOfTheFiles) {
  root.setMode("/etc/passwd", 0444);
  ASSERT_TRUE(create("somebody"));
  ASSERT_TRUE(node->changePassword_toPassword(user("somebody"), "secret"));
  ASSERT_TRUE(node->addMemberRecord(user("somebody"), group("jabberd")));
  EXPECT_EQ(root.mode("/etc/passwd"), 0444U);
  EXPECT_EQ(root.mode("/etc/group"), 0644U);
  for (const char* file : {"/etc/shadow", "/etc/gshadow", "/etc/shadow-", "/etc/gshadow-"}) {
    EXPECT_EQ(root.mode(file), 0640U) << file;
    if (::geteuid() == 0) {
      EXPECT_EQ(root.group(file), kShadowGroup) << file;
    }
  }
}

TEST_F(LibuserNode, LeavesNoLockAndNoTemporaryFile) {
  ASSERT_TRUE(create("somebody"));
  ASSERT_TRUE(node->changePassword_toPassword(user("somebody"), "secret"));
  ASSERT_TRUE(node->addMemberRecord(user("somebody"), group("jabberd")));
  EXPECT_THAT(root.list("/etc"), ElementsAre("group", "group-", "gshadow", "gshadow-", "passwd", "passwd-",
                                             "shadow", "shadow-"));
}

TEST_F(LibuserNode, SatisfiesTheMachinesOwnChecks) {
  if (::access("/usr/sbin/pwck", X_OK) != 0) GTEST_SKIP() << "pwck is not installed";
  ASSERT_TRUE(create("somebody"));
  ASSERT_TRUE(node->changePassword_toPassword(user("somebody"), "secret"));
  ASSERT_TRUE(node->addMemberRecord(user("somebody"), group("jabberd")));
  const auto said = [&](const std::string& program, const std::string& first, const std::string& second) {
    const std::string line = "LC_ALL=C /usr/sbin/" + program + " -r " + root.hostPath("/etc/" + first) + " " +
                             root.hostPath("/etc/" + second) + " 2>&1";
    std::string text;
    FILE* pipe = ::popen(line.c_str(), "r");
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
      text += static_cast<char>(byte);
    }
    ::pclose(pipe);
    return text;
  };
  EXPECT_THAT(said("pwck", "passwd", "shadow"),
              testing::AllOf(Not(HasSubstr("invalid")), Not(HasSubstr("no matching"))));
  EXPECT_THAT(
      said("grpck", "group", "gshadow"),
      testing::AllOf(Not(HasSubstr("invalid")), Not(HasSubstr("no matching")), Not(HasSubstr("differ"))));
}

TEST_F(LibuserNode, RefusesANameThatIsTaken) {
  const std::string before = everything();
  EXPECT_EQ(codeOf(create("jabberd")), EEXIST);
  EXPECT_EQ(everything(), before);
}

TEST_F(LibuserNode, RefusesANumberThatIsTaken) {
  const auto made = create("somebody", attributes("84"));
  EXPECT_EQ(codeOf(made), EEXIST);
  EXPECT_EQ(reasonOf(made), "the user ID 84 belongs to \"jabberd\"");
  EXPECT_EQ(lineOf("somebody", "/etc/passwd"), "");
  EXPECT_EQ(lineOf("somebody", "/etc/shadow"), "");
}

TEST_F(LibuserNode, RefusesNamesThatTheAccountFilesCannotHold) {
  const std::string before = everything();
  const std::string longName(32, 'a');
  for (const std::string name : {"",
                                 "-rf",
                                 ".hidden",
                                 "..",
                                 "../../etc/passwd",
                                 "a/b",
                                 "a:b",
                                 "a\nroot::0:0::/:/bin/sh",
                                 "a\tb",
                                 "a b",
                                 "a\x7F",
                                 "\x01",
                                 "+",
                                 "+a",
                                 "1000",
                                 "a,b",
                                 "a@b",
                                 "ä",
                                 "\xFF",
                                 "a#b",
                                 "a$(id)"}) {
    EXPECT_EQ(codeOf(create(name)), EINVAL) << name;
    EXPECT_EQ(codeOf(node->recordWithRecordType_name(kODRecordTypeUsers, name)), EINVAL) << name;
    EXPECT_EQ(codeOf(node->changePassword_toPassword(user(name), "secret")), EINVAL) << name;
    EXPECT_EQ(codeOf(node->addMemberRecord(user(name), group("staff"))), EINVAL) << name;
    EXPECT_EQ(codeOf(node->addMemberRecord(user("jabberd"), group(name))), EINVAL) << name;
    EXPECT_FALSE(directory.getpwnam(name)) << name;
  }
  EXPECT_EQ(codeOf(create(longName)), EINVAL);
  EXPECT_EQ(codeOf(create(std::string("a\0b", 3))), EINVAL);
  EXPECT_EQ(everything(), before);
}

TEST_F(LibuserNode, TakesTheLongestNameThatItAllows) {
  const std::string name(31, 'a');
  const auto made = create(name);
  ASSERT_TRUE(made) << reasonOf(made);
  EXPECT_TRUE(directory.getpwnam(name));
}

TEST_F(LibuserNode, RefusesAttributesThatTheAccountFilesCannotHold) {
  const std::string before = everything();
  const auto with = [](const char* key, Value value) {
    Dictionary given = attributes("250");
    given.set(key, std::move(value));
    return given;
  };
  for (const char* text : {"a:b", "a\nb", "a\rb", "\x1B[2J", "\xFF"}) {
    for (const char* key :
         {kODAttributeTypeFullName, kODAttributeTypeUserShell, kODAttributeTypeNFSHomeDirectory}) {
      EXPECT_EQ(codeOf(create("somebody", with(key, Array{text}))), EINVAL) << key << text;
    }
  }
  for (const char* number : {"", "-1", "+5", "0250", "250 ", "2.5", "0x10", "4294967295", "99999999999"}) {
    EXPECT_EQ(codeOf(create("somebody", with(kODAttributeTypeUniqueID, Array{number}))), EINVAL) << number;
    EXPECT_EQ(codeOf(create("somebody", with(kODAttributeTypePrimaryGroupID, Array{number}))), EINVAL)
        << number;
  }
  EXPECT_EQ(codeOf(create("somebody", with(kODAttributeTypeFullName, "no array"))), EINVAL);
  EXPECT_EQ(codeOf(create("somebody", with(kODAttributeTypeFullName, Array{}))), EINVAL);
  EXPECT_EQ(codeOf(create("somebody", with(kODAttributeTypeFullName, Array{"two", "values"}))), EINVAL);
  EXPECT_EQ(codeOf(create("somebody", with("dsAttrTypeStandard:Picture", Array{"x"}))), EINVAL);
  EXPECT_EQ(everything(), before);
}

TEST_F(LibuserNode, GivesAUserWithoutAttributesWhatTheMachineGives) {
  root.write("/etc/login.defs", "UID_MIN 3000\nPASS_MAX_DAYS 90\n");
  const auto made = create("somebody", {});
  ASSERT_TRUE(made) << reasonOf(made);
  EXPECT_THAT(lineOf("somebody", "/etc/passwd"), MatchesRegex("somebody:x:3[0-9]*:[0-9]+:.*"));
  EXPECT_THAT(lineOf("somebody", "/etc/shadow"), MatchesRegex("somebody:!:[0-9]+:0:90:7:::"));
  const auto second = create("another", {});
  ASSERT_TRUE(second) << reasonOf(second);
  const auto numberOf = [&](const std::string& name) {
    return lineOf(name, "/etc/passwd").substr(name.size() + 3, 4);
  };
  EXPECT_NE(numberOf("somebody"), numberOf("another")) << "numbers of the scratch root count too";
}

TEST_F(LibuserNode, MakesUsersAlone) {
  EXPECT_EQ(codeOf(node->createRecordWithRecordType_name_attributes(kODRecordTypeGroups, "somebody", {})),
            EINVAL);
  EXPECT_EQ(codeOf(node->recordsMatching("dsRecTypeStandard:Computers", kODAttributeTypeUniqueID, "0", 1)),
            EINVAL);
  EXPECT_EQ(codeOf(node->recordWithRecordType_name("dsRecTypeStandard:Computers", "root")), EINVAL);
  EXPECT_EQ(codeOf(node->changePassword_toPassword(group("staff"), "secret")), EINVAL);
}

TEST_F(LibuserNode, FindsUsersByWhatTheyHave) {
  root.write("/etc/passwd", root.read("/etc/passwd") + "twin:x:84:84:jabberd service:/x:/usr/sbin/nologin\n");
  const auto found = [&](const char* attribute, const char* value, std::size_t maximum) {
    std::vector<std::string> names;
    const auto records = node->recordsMatching(kODRecordTypeUsers, attribute, value, maximum);
    for (const DirectoryRecord& record : records.value()) names.push_back(record.recordName);
    return names;
  };
  EXPECT_THAT(found(kODAttributeTypeUniqueID, "84", 1), ElementsAre("jabberd"));
  EXPECT_THAT(found(kODAttributeTypeUniqueID, "84", 9), ElementsAre("jabberd", "twin"));
  EXPECT_THAT(found(kODAttributeTypeUniqueID, "84", 0), IsEmpty());
  EXPECT_THAT(found(kODAttributeTypeUniqueID, "8", 9), IsEmpty());
  EXPECT_THAT(found(kODAttributeTypeUniqueID, "084", 9), IsEmpty()) << "matches are exact";
  EXPECT_THAT(found(kODAttributeTypeFullName, "jabberd service", 9), ElementsAre("jabberd", "twin"));
  EXPECT_THAT(found(kODAttributeTypePrimaryGroupID, "0", 9), ElementsAre("root"));
  EXPECT_THAT(found(kODAttributeTypeUserShell, "/bin/sh", 9), ElementsAre("root"));
  EXPECT_THAT(found(kODAttributeTypeNFSHomeDirectory, "/x", 9), ElementsAre("twin"));
  EXPECT_THAT(found("dsAttrTypeStandard:Picture", "", 9), IsEmpty());
}

TEST_F(LibuserNode, FindsGroupsByTheirNumber) {
  const auto groups = node->recordsMatching(kODRecordTypeGroups, kODAttributeTypePrimaryGroupID, "20", 9);
  ASSERT_TRUE(groups);
  EXPECT_THAT(groups.value(), ElementsAre(group("staff")));
}

TEST_F(LibuserNode, FindsRecordsByTheirName) {
  EXPECT_EQ(node->recordWithRecordType_name(kODRecordTypeUsers, "jabberd").value(), user("jabberd"));
  EXPECT_EQ(node->recordWithRecordType_name(kODRecordTypeGroups, "staff").value(), group("staff"));
  EXPECT_EQ(codeOf(node->recordWithRecordType_name(kODRecordTypeUsers, "staff")), ENOENT);
  EXPECT_EQ(codeOf(node->recordWithRecordType_name(kODRecordTypeGroups, "nobody")), ENOENT);
}

TEST_F(LibuserNode, FindsWhatAnotherProgramAddsMeanwhile) {
  EXPECT_FALSE(directory.getpwnam("late"));
  root.write("/etc/passwd", root.read("/etc/passwd") + "late:x:300:20::/:/bin/sh\n");
  EXPECT_TRUE(directory.getpwnam("late"));
}

TEST_F(LibuserNode, ReadsALineThatIsVeryLong) {
  std::string members;
  for (int number = 0; number < 20000; ++number) members += "member" + std::to_string(number) + ",";
  root.write("/etc/group", "huge:x:20:" + members + "jabberd\nnext:x:21:\n");
  EXPECT_TRUE(node->isMemberRecord(user("jabberd"), group("huge")).value());
  EXPECT_TRUE(node->recordWithRecordType_name(kODRecordTypeGroups, "next"));
}

TEST_F(LibuserNode, AddsAMemberToAGroupOnce) {
  EXPECT_FALSE(node->isMemberRecord(user("jabberd"), group("staff")).value());
  ASSERT_TRUE(node->addMemberRecord(user("jabberd"), group("staff")));
  EXPECT_TRUE(node->isMemberRecord(user("jabberd"), group("staff")).value());
  EXPECT_EQ(lineOf("staff", "/etc/group"), "staff:x:20:jabberd");
  EXPECT_EQ(lineOf("staff", "/etc/gshadow"), "staff:*::jabberd");
  const std::string before = everything();
  ASSERT_TRUE(node->addMemberRecord(user("jabberd"), group("staff")));
  EXPECT_EQ(everything(), before);
}

TEST_F(LibuserNode, KeepsTheOtherMembersOfAGroup) {
  root.write("/etc/group", "root:x:0:\nstaff:x:20:first,second\n");
  root.write("/etc/gshadow", "root:*::\nstaff:*:first:first,second\n");
  ASSERT_TRUE(node->addMemberRecord(user("jabberd"), group("staff")));
  EXPECT_EQ(lineOf("staff", "/etc/group"), "staff:x:20:first,second,jabberd");
  EXPECT_EQ(lineOf("staff", "/etc/gshadow"), "staff:*:first:first,second,jabberd");
}

TEST_F(LibuserNode, CountsTheUsersOwnGroupAsOneThatItIsIn) {
  EXPECT_TRUE(node->isMemberRecord(user("jabberd"), group("jabberd")).value());
  const std::string before = everything();
  ASSERT_TRUE(node->addMemberRecord(user("jabberd"), group("jabberd")));
  EXPECT_EQ(everything(), before);
}

TEST_F(LibuserNode, AddsNobodyWhoIsNotThere) {
  EXPECT_EQ(codeOf(node->addMemberRecord(user("ghost"), group("staff"))), ENOENT);
  EXPECT_EQ(codeOf(node->addMemberRecord(user("jabberd"), group("ghosts"))), ENOENT);
  EXPECT_EQ(codeOf(node->isMemberRecord(user("ghost"), group("staff"))), ENOENT);
  EXPECT_EQ(codeOf(node->isMemberRecord(user("jabberd"), group("ghosts"))), ENOENT);
}

TEST_F(LibuserNode, IsTheLocalOneAlone) {
  EXPECT_EQ(codeOf(directory.nodeWithType(0x2201)), EINVAL);
}

TEST_F(LibuserNode, SaysWhichFileIsMissing) {
  root.remove("/etc/passwd");
  EXPECT_FALSE(directory.getpwnam("root"));
  EXPECT_EQ(reasonOf(node->recordWithRecordType_name(kODRecordTypeUsers, "root")),
            "/etc/passwd: No such file or directory");
  EXPECT_EQ(reasonOf(create("somebody")), "/etc/passwd: No such file or directory");
  root.remove("/etc");
  EXPECT_EQ(reasonOf(create("somebody")), "/etc: No such file or directory");
}

TEST(LibuserDirectoryOfThisMachine, KnowsItsUsers) {
  PosixTasks programs("/", ownProgramsDirectory());
  LibuserDirectory directory("/", programs);
  EXPECT_TRUE(directory.getpwnam("root"));
  EXPECT_FALSE(directory.getpwnam("tessard-nobody-of-this-name"));
  EXPECT_FALSE(directory.getpwnam(""));
  EXPECT_FALSE(directory.getpwnam(std::string("root\0x", 6)));
}

}  // namespace
}  // namespace tessard
