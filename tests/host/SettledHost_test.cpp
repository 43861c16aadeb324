#include "host/SettledHost.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

TEST(SettledHost, IsAbsentAtFirst) {
  TestPlatform platform;
  const auto host = readSettledHost(platform.files);
  ASSERT_TRUE(host.ok());
  EXPECT_EQ(host.value(), std::nullopt);
}

TEST(SettledHost, ReadsBackAsItWasWritten) {
  TestPlatform platform;
  for (const char* name : {"chat.example.com", "new.example.com"}) {
    ASSERT_TRUE(writeSettledHost(platform.files, name).ok());
    const auto host = readSettledHost(platform.files);
    ASSERT_TRUE(host.ok());
    EXPECT_EQ(host.value(), name);
  }
  EXPECT_EQ(platform.root.list("/var/lib/tessardd"), std::vector<std::string>{"network.plist"});
  EXPECT_EQ(platform.root.mode(kSettledHostFile), 0644U);
}

TEST(SettledHost, StaysWholeWhenWritingFails) {
  TestPlatform platform;
  ASSERT_TRUE(writeSettledHost(platform.files, "chat.example.com").ok());
  platform.files.failPath(std::string(kSettledHostFile) + ".tmp", ENOSPC);
  const auto written = writeSettledHost(platform.files, "new.example.com");
  ASSERT_FALSE(written.ok());
  EXPECT_EQ(written.error().code(), ENOSPC);
  EXPECT_EQ(readSettledHost(platform.files).value(), "chat.example.com");
}

TEST(SettledHost, IsAFailureWhereTheFileHoldsNone) {
  for (const char* content : {"", "nonsense", "<plist><dict/></plist>",
                              "<plist><dict><key>host</key><integer>1</integer></dict></plist>",
                              "<plist><dict><key>host</key><string>../x</string></dict></plist>"}) {
    TestPlatform platform;
    platform.root.write(kSettledHostFile, content);
    EXPECT_FALSE(readSettledHost(platform.files).ok()) << content;
  }
}

}  // namespace
}  // namespace tessard
