#include "programs/launcher/LauncherOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

namespace tessard {
namespace {

using testing::HasSubstr;

std::string problemWith(const std::vector<std::string>& arguments) {
  const auto options = readLauncherOptions(arguments);
  return options ? "" : options.error().description();
}

TEST(LauncherOptions, HaveDefaultsThatFitAnInstallation) {
  const auto options = readLauncherOptions({});
  ASSERT_TRUE(options);
  EXPECT_EQ(options.value().wish, LauncherOptions::Wish::run);
  EXPECT_EQ(options.value().masterFile, "/private/etc/jabberd_notification/jabberd.cfg");
  EXPECT_EQ(options.value().notifyDescriptor, -1);
  EXPECT_EQ(options.value().startSeconds, 30U);
}

TEST(LauncherOptions, AreTakenInAnyOrder) {
  const auto options = readLauncherOptions({"--notify-fd", "3", "--start-seconds", "1", "--config", "/x"});
  ASSERT_TRUE(options);
  EXPECT_EQ(options.value().masterFile, "/x");
  EXPECT_EQ(options.value().notifyDescriptor, 3);
  EXPECT_EQ(options.value().startSeconds, 1U);
}

TEST(LauncherOptions, HelpAndVersionWinOverWhatFollows) {
  EXPECT_EQ(readLauncherOptions({"--help", "nonsense"}).value().wish, LauncherOptions::Wish::help);
  EXPECT_EQ(readLauncherOptions({"--version"}).value().wish, LauncherOptions::Wish::version);
}

TEST(LauncherOptions, AreRefusedWithASentenceForEveryMistake) {
  EXPECT_EQ(problemWith({"nonsense"}), "there is no option \"nonsense\"");
  EXPECT_EQ(problemWith({"--config=/x"}), "there is no option \"--config=/x\"");
  EXPECT_EQ(problemWith({"--config"}), "--config needs a value");
  EXPECT_EQ(problemWith({"--config", "x"}), "--config must be an absolute path, not \"x\"");
  EXPECT_EQ(problemWith({"--config", "/x", "--config", "/x"}), "--config is given twice");
  for (const char* value : {"2", "65536", "-1", "3x", "", " 3"}) {
    EXPECT_EQ(problemWith({"--notify-fd", value}),
              "--notify-fd must be a whole number from 3 to 65535, not \"" + std::string(value) + "\"");
  }
  EXPECT_EQ(problemWith({"--start-seconds", "0"}),
            "--start-seconds must be a whole number from 1 to 3600, not \"0\"");
}

TEST(LauncherOptions, AreAllInTheHelp) {
  for (const char* name : {"--config", "--notify-fd", "--start-seconds", "--help", "--version"}) {
    EXPECT_THAT(launcherHelp(), HasSubstr(name));
  }
}

}  // namespace
}  // namespace tessard
