#include "platform/HostsTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(HostsTable, EntriesComeInTheirOrderWithoutCommentsAndBlankLines) {
  const auto entries = parseHostsTable(
      "# the table\n"
      "\n"
      "127.0.0.1\tlocalhost\n"
      "  10.0.0.1   chat.example.com  chat # and its alias old\r\n"
      "#10.0.0.2 gone\n"
      " \t \n"
      "10.0.0.3\n"
      "::1 six");
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0].address, "127.0.0.1");
  EXPECT_THAT(entries[0].names, ElementsAre("localhost"));
  EXPECT_EQ(entries[1].address, "10.0.0.1");
  EXPECT_THAT(entries[1].names, ElementsAre("chat.example.com", "chat"));
  EXPECT_THAT(entries[2].names, ElementsAre("six"));
}

TEST(HostsTable, AnEmptyTableHasNoEntries) {
  EXPECT_THAT(parseHostsTable(""), IsEmpty());
  EXPECT_THAT(parseHostsTable("\n\n#\n"), IsEmpty());
}

TEST(HostsTable, AnEntryListsItsNamesInEitherCase) {
  const HostsEntry entry{"10.0.0.1", {"Chat.Example.com", "chat"}};
  EXPECT_TRUE(entry.lists("chat.example.COM"));
  EXPECT_TRUE(entry.lists("CHAT"));
  EXPECT_FALSE(entry.lists("chat.example"));
  EXPECT_FALSE(entry.lists(""));
}

TEST(HostsTable, AMissingFileIsAnEmptyTableAndAnUnreadableOneAFailure) {
  TestPlatform test;
  const auto missing = readHostsTable(test.files);
  ASSERT_TRUE(missing.ok());
  EXPECT_THAT(missing.value(), IsEmpty());

  test.root.write("/etc/hosts", "10.0.0.1 chat\n");
  ASSERT_TRUE(readHostsTable(test.files).ok());
  EXPECT_EQ(readHostsTable(test.files).value().size(), 1U);

  test.files.failAll("readFile", EIO);
  const auto failed = readHostsTable(test.files);
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().code(), EIO);
}

}  // namespace
}  // namespace tessard
