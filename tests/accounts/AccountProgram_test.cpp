#include "platform/accounts/AccountProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/accounts/AccountFixtures.h"
#include "tests/support/ScriptedTasks.h"

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const std::string kProgram = "/usr/libexec/tessardd/change_accounts";
const std::string kEnded =
    "the accounts could not be changed, as \"" + kProgram + "\" has ended with status ";

TEST(AccountRequests, ComeBackAsTheyWereWritten) {
  AccountRequest request;
  request.kind = AccountRequest::Kind::addUser;
  request.user = {"somebody", 250, "Name & <Näme>", 20, "/bin/sh", ""};
  request.hash = "$6$salt$hash";
  request.group = "staff";
  request.patience = std::chrono::milliseconds(1234);
  const auto back = accountRequestIn(textOf(request).value());
  ASSERT_TRUE(back);
  EXPECT_EQ(back.value().kind, request.kind);
  EXPECT_EQ(back.value().user.name, "somebody");
  EXPECT_EQ(back.value().user.uid, 250U);
  EXPECT_EQ(back.value().user.fullName, "Name & <Näme>");
  EXPECT_EQ(back.value().user.gid, 20U);
  EXPECT_EQ(back.value().user.shell, "/bin/sh");
  EXPECT_EQ(back.value().user.home, "");
  EXPECT_EQ(back.value().hash, "$6$salt$hash");
  EXPECT_EQ(back.value().group, "staff");
  EXPECT_EQ(back.value().patience, std::chrono::milliseconds(1234));
}

TEST(AccountRequests, LeaveOutWhatIsNotGiven) {
  AccountRequest request;
  request.kind = AccountRequest::Kind::addMember;
  request.user.name = "somebody";
  const auto back = accountRequestIn(textOf(request).value());
  ASSERT_TRUE(back);
  EXPECT_EQ(back.value().kind, request.kind);
  EXPECT_FALSE(back.value().user.uid || back.value().user.gid || back.value().user.fullName ||
               back.value().user.shell || back.value().user.home);
}

TEST(AccountRequests, AreRefusedInAnyOtherForm) {
  for (const char* text :
       {"", "rubbish", "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>kind</key><string>other</string></dict></plist>"}) {
    EXPECT_EQ(accountRequestIn(text).error().code(), EINVAL) << text;
  }
}

TEST(AccountAnswers, ComeBackAsTheyWereWritten) {
  EXPECT_EQ(accountAnswerOf({}), "");
  EXPECT_TRUE(accountAnswerIn("")->ok());
  const auto back = accountAnswerIn(accountAnswerOf(SystemError(EBUSY, "locked: by \"/etc/passwd.lock\"")));
  EXPECT_EQ(back->error().code(), EBUSY);
  EXPECT_EQ(back->error().description(), "locked: by \"/etc/passwd.lock\"");
  for (const char* text : {"rubbish", "17", "17x words", " words", "99999999999 words"}) {
    EXPECT_FALSE(accountAnswerIn(text)) << text;
  }
}

class AccountProgramTest : public testing::Test {
 protected:
  ScriptedTasks tasks;
  AccountProgram program{tasks, std::chrono::milliseconds(0)};

  SystemError failureOf(const TaskResult& end) {
    tasks.on(kProgram, end);
    const auto changed = program.setPasswordHash("somebody", "$6$hash");
    EXPECT_FALSE(changed);
    return changed ? SystemError(0) : changed.error();
  }
};

TEST_F(AccountProgramTest, GetsNothingThatOthersCouldSee) {
  tasks.on(kProgram, {0, "", ""});
  EXPECT_TRUE(program.setPasswordHash("somebody", "$6$hash"));
  ASSERT_THAT(tasks.calls, SizeIs(1));
  EXPECT_THAT(tasks.calls.front().arguments, IsEmpty());
  EXPECT_THAT(tasks.calls.front().input, HasSubstr("$6$hash"));
}

TEST_F(AccountProgramTest, AnswersWithTheReasonOfAFailure) {
  const auto failure = failureOf({69, "17 there is a user \"somebody\" already", ""});
  EXPECT_EQ(failure.code(), EEXIST);
  EXPECT_EQ(failure.description(), "there is a user \"somebody\" already");
}

TEST_F(AccountProgramTest, ThatEndsWithoutAnAnswerIsAFailureWithItsLastWords) {
  const auto failure = failureOf({134, "", "first\n** assertion failed: (*error == NULL)\n"});
  EXPECT_EQ(failure.code(), EIO);
  EXPECT_EQ(failure.description(), kEnded + "134: ** assertion failed: (*error == NULL)");
  EXPECT_EQ(failureOf({127, "", "cannot start"}).description(), kEnded + "127: cannot start");
  EXPECT_EQ(failureOf({0, "not an answer", "\xff"}).description(), kEnded + "0: ");
}

using ChangeAccounts = AccountsTest;

TEST_F(ChangeAccounts, RefusesArgumentsAndWhatIsNoRequest) {
  const auto argument = programs.launch_task(kProgram, {TaskArgument::text("root")});
  EXPECT_EQ(argument.status, 64);
  EXPECT_THAT(argument.errorText, Not(IsEmpty()));
  const auto rubbish = programs.launch_task_with_input(kProgram, {}, "rubbish");
  EXPECT_NE(rubbish.status, 0);
  EXPECT_EQ(accountAnswerIn(rubbish.output)->error().code(), EINVAL);
}

TEST_F(ChangeAccounts, ThatEndsInTheMidstIsAFailureAndTheNextChangeFindsItsLocksGone) {
  root.write(kProgram, "#!/bin/sh\nprintf %s $$ >'" + root.hostPath("/etc/passwd.lock") +
                           "'\necho 'assertion failed' >&2\nkill -ABRT $$\n");
  root.setMode(kProgram, 0755);
  const auto made = create("somebody");
  EXPECT_EQ(codeOf(made), EIO);
  EXPECT_THAT(reasonOf(made), HasSubstr("has ended with status 134"));
  EXPECT_TRUE(root.exists("/etc/passwd.lock"));
  root.remove(kProgram);
  const auto again = create("somebody");
  EXPECT_TRUE(again) << reasonOf(again);
  EXPECT_FALSE(root.exists("/etc/passwd.lock"));
}

}  // namespace
}  // namespace tessard
