#include "common/HostNames.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

TEST(HostName, IsMadeOfLabelsOfLettersDigitsAndInnerHyphens) {
  for (const char* name : {"chat.example.com", "localhost", "a", "9", "A-b.C--d", "xn--bcher-kva.example",
                           "mac.local", "192.0.2.1"}) {
    EXPECT_TRUE(isHostName(name)) << name;
  }
}

TEST(HostName, IsNothingElse) {
  for (const char* name : {"", ".", "a.", ".a", "a..b", "-a", "a-", "a.-b", "a_b", "a b", " a", "a\n", "a/b",
                           "../a", "b\xc3\xbc.example", "a:b", "*.example.com"}) {
    EXPECT_FALSE(isHostName(name)) << name;
  }
  EXPECT_FALSE(isHostName(std::string_view("a\0b", 3)));
}

TEST(HostName, LabelsHaveAtMost63Bytes) {
  EXPECT_TRUE(isHostName(std::string(63, 'a') + ".example"));
  EXPECT_FALSE(isHostName(std::string(64, 'a') + ".example"));
}

TEST(HostName, HasAtMost253Bytes) {
  std::string name;
  for (int i = 0; i < 4; ++i) name += std::string(62, 'a') + ".";
  EXPECT_TRUE(isHostName(name + "b"));
  EXPECT_FALSE(isHostName(name + "bc"));
}

}  // namespace
}  // namespace tessard
