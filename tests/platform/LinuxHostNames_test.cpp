#include "platform/LinuxHostNames.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

class LinuxHostNamesTest : public testing::Test {
 protected:
  TestPlatform test;
  std::string running = "unset";
  LinuxHostNames names{test.files, [this] { return running; }};

  std::optional<std::string> configured(std::string_view hostname, std::string_view hosts = "") {
    test.root.write("/etc/hostname", hostname);
    test.root.write("/etc/hosts", hosts);
    const auto name = names.configuredName();
    EXPECT_TRUE(name.ok());
    return name.ok() ? name.value() : std::nullopt;
  }

  std::optional<std::string> stored(std::string_view name, std::string_view hosts) {
    running = name;
    test.root.write("/etc/hosts", hosts);
    return names.storedName();
  }
};

TEST_F(LinuxHostNamesTest, ANameWithADotStaysAsItIs) {
  EXPECT_EQ(configured("Chat.Example.com\n"), "Chat.Example.com");
  EXPECT_EQ(configured("chat.example.com", "10.0.0.1 other.example.org chat.example.com\n"),
            "chat.example.com");
}

TEST_F(LinuxHostNamesTest, AQualifiedNameNeedsNoTable) {
  test.root.write("/etc/hostname", "chat.example.com\n");
  test.files.failPath("/etc/hosts", EIO);
  ASSERT_TRUE(names.configuredName().ok());
  EXPECT_EQ(names.configuredName().value(), "chat.example.com");
}

TEST_F(LinuxHostNamesTest, TheFirstLineThatIsNeitherBlankNorACommentCounts) {
  EXPECT_EQ(configured("\n  \n# old.example.com\n \tchat.example.com \r\nsecond.example.com\n"),
            "chat.example.com");
  EXPECT_EQ(configured(" # only a comment\n"), std::nullopt);
  EXPECT_EQ(configured("\n \n"), std::nullopt);
  EXPECT_EQ(configured(""), std::nullopt);
}

TEST_F(LinuxHostNamesTest, AShortNameIsCompletedFromTheEntryThatListsIt) {
  EXPECT_EQ(configured("chat\n", "127.0.0.1 localhost\n127.0.1.1 chat.example.com chat\n"),
            "chat.example.com");
  EXPECT_EQ(configured("chat\n", "10.0.0.1 chat web chat.example.com www.example.com\n"), "chat.example.com");
  EXPECT_EQ(configured("Chat\n", "10.0.0.1 chat.example.com CHAT\n"), "chat.example.com");
}

TEST_F(LinuxHostNamesTest, AnEntryWithoutAQualifiedNameLeavesTheSearchToTheNextOne) {
  EXPECT_EQ(configured("chat\n", "10.0.0.1 chat web\n10.0.0.2 chat chat.example.com\n"), "chat.example.com");
  EXPECT_EQ(configured("chat\n",
                       "127.0.0.1 localhost.localdomain localhost chat\n10.0.0.2 chat.example.com chat\n"),
            "chat.example.com")
      << "localhost.localdomain is no name to complete with";
  EXPECT_EQ(configured("chat\n", "10.0.0.1 not_a.name chat\n"), "chat");
}

TEST_F(LinuxHostNamesTest, AShortNameThatNoEntryCompletesStaysShort) {
  EXPECT_EQ(configured("chat\n", "10.0.0.1 other.example.com other\n"), "chat");
  test.root.remove("/etc/hosts");
  ASSERT_TRUE(names.configuredName().ok());
  EXPECT_EQ(names.configuredName().value(), "chat");
}

TEST_F(LinuxHostNamesTest, LocalhostIsNoName) {
  EXPECT_EQ(configured("localhost\n", "127.0.0.1 chat.example.com localhost\n"), std::nullopt);
  EXPECT_EQ(configured("LocalHost\n"), std::nullopt);
  EXPECT_EQ(configured("localhost.localdomain\n"), std::nullopt);
  EXPECT_EQ(configured("localhost.example.com\n"), "localhost.example.com");
}

TEST_F(LinuxHostNamesTest, WhatIsNoHostNameIsNone) {
  for (const char* text : {"two words", "under_score.example.com", "-x.example.com", "a..b",
                           "chat.example.com.", "ch\xC3\xA4t.example.com", "http://chat"}) {
    EXPECT_EQ(configured(text), std::nullopt) << text;
  }
}

TEST_F(LinuxHostNamesTest, AMissingFileIsNoName) {
  const auto name = names.configuredName();
  ASSERT_TRUE(name.ok());
  EXPECT_EQ(name.value(), std::nullopt);
}

TEST_F(LinuxHostNamesTest, AnUnreadableFileIsAFailure) {
  test.root.write("/etc/hostname", "chat.example.com\n");
  test.files.failPath("/etc/hostname", EACCES);
  const auto name = names.configuredName();
  ASSERT_FALSE(name.ok());
  EXPECT_EQ(name.error().code(), EACCES);

  test.files.heal();
  test.root.write("/etc/hostname", std::string(70000, 'x'));
  const auto tooLong = names.configuredName();
  ASSERT_FALSE(tooLong.ok());
  EXPECT_EQ(tooLong.error().code(), EFBIG);
}

TEST_F(LinuxHostNamesTest, AnUnreadableTableIsAFailureWhereItIsNeeded) {
  test.root.write("/etc/hostname", "chat\n");
  test.files.failPath("/etc/hosts", EIO);
  const auto name = names.configuredName();
  ASSERT_FALSE(name.ok());
  EXPECT_EQ(name.error().code(), EIO);
  running = "chat";
  EXPECT_EQ(names.storedName(), "chat") << "the running name is known all the same";
}

TEST_F(LinuxHostNamesTest, TheStoredNameIsCompletedTheSameWay) {
  EXPECT_EQ(stored("chat", "10.0.0.1 chat.example.com chat\n"), "chat.example.com");
  EXPECT_EQ(stored("chat.example.org", "10.0.0.1 chat.example.com chat.example.org\n"), "chat.example.org");
  EXPECT_EQ(stored("chat", ""), "chat");
  EXPECT_EQ(stored("localhost", ""), std::nullopt);
  EXPECT_EQ(stored("(none)", ""), std::nullopt);
  EXPECT_EQ(stored("", ""), std::nullopt);
}

TEST_F(LinuxHostNamesTest, NamesAreAskedAnewOnEveryCall) {
  EXPECT_EQ(configured("one.example.com\n"), "one.example.com");
  EXPECT_EQ(configured("two.example.com\n"), "two.example.com");
}

TEST_F(LinuxHostNamesTest, TheRunningNameIsTheKernels) {
  std::array<char, 256> expected{};
  ASSERT_EQ(::gethostname(expected.data(), expected.size()), 0);
  EXPECT_EQ(runningHostName(), expected.data());
}

}  // namespace
}  // namespace tessard
