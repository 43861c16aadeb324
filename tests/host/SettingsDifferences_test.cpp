#include "host/ctl/SettingsDifferences.h"

#include <gtest/gtest.h>

#include "common/SettingKeys.h"
#include "host/JsonCodec.h"

namespace tessard {
namespace {

std::vector<std::string> keysThatDiffer(const Dictionary& wanted, const Dictionary& current) {
  std::vector<std::string> keys;
  for (const SettingDifference& each : differencesBetween(wanted, current)) keys.push_back(each.key);
  return keys;
}

TEST(SettingsDifferences, AreWhatIsWantedOtherwiseInItsOrder) {
  const Dictionary current = {{"a", 1}, {"b", "x"}, {"c", true}};
  EXPECT_EQ(keysThatDiffer({{"b", "y"}, {"d", 1}, {"a", 1}, {"c", false}}, current),
            (std::vector<std::string>{"b", "d", "c"}));
  const auto differences = differencesBetween({{"b", "y"}, {"d", 1}}, current);
  EXPECT_EQ(*differences[0].old->asString(), "x");
  EXPECT_FALSE(differences[1].old);
}

TEST(SettingsDifferences, AreAlsoWhatIsToHaveNoValueWhenAllAreWanted) {
  const auto differences = allDifferencesBetween({{"a", 1}, {"b", 2}}, {{"a", 1}, {"c", 3}});
  ASSERT_EQ(differences.size(), 2U);
  EXPECT_EQ(differences[0].key, "b");
  EXPECT_FALSE(differences[0].old);
  EXPECT_EQ(differences[1].key, "c");
  EXPECT_EQ(*differences[1].old->asInteger(), 3);
  EXPECT_FALSE(differences[1].wanted);
}

TEST(SettingsDifferences, AreNoneWhereTheServiceReadsTheSame) {
  const Dictionary current = {{"port", 5218}, {"text", "5268"}, {"flag", true}, {"list", Array{"1", true}}};
  EXPECT_TRUE(
      keysThatDiffer({{"port", "5218"}, {"text", 5268}, {"flag", 1}, {"list", Array{1, "yes"}}}, current)
          .empty());
  EXPECT_TRUE(keysThatDiffer({{"flag", "true"}}, current).empty());
  EXPECT_EQ(keysThatDiffer({{"list", Array{1}}}, current).size(), 1U);
  EXPECT_EQ(keysThatDiffer({{"text", Array{}}}, current).size(), 1U);
}

TEST(SettingsDifferences, AreNoneBetweenDomainsInUpperAndLowerCase) {
  const Dictionary current = {{"hosts", Array{"a.example"}}, {"sslKeyFile", "/a"}};
  EXPECT_TRUE(keysThatDiffer({{"hosts", Array{"A.Example"}}}, current).empty());
  EXPECT_EQ(keysThatDiffer({{"sslKeyFile", "/A"}}, current).size(), 1U);
}

TEST(ProblemWithKeys, ProposesTheSettingThatMayBeMeant) {
  EXPECT_EQ(problemWithKeys({{"hosts", 1}, {"authlevel", 1}}),
            "There is no setting \"authlevel\"; \"authLevel\" may be meant.");
  EXPECT_EQ(problemWithKeys({{"host", 1}}), "There is no setting \"host\"; \"hosts\" may be meant.");
  EXPECT_EQ(problemWithKeys({{"jabberdS2SPrt", 1}}),
            "There is no setting \"jabberdS2SPrt\"; \"jabberdS2SPort\" may be meant.");
  EXPECT_EQ(problemWithKeys({{"somethingElse", 1}}), "There is no setting \"somethingElse\".");
  EXPECT_EQ(problemWithKeys({{"x", 1}}), "There is no setting \"x\".");
}

TEST(ProblemWithKeys, FindsNoneWithTheSettingsThatThereAre) {
  Dictionary all;
  for (const std::string_view key : kSettingKeys) all.set(std::string(key), 1);
  EXPECT_EQ(all.size(), kSettingKeys.size());
  EXPECT_EQ(problemWithKeys(all), std::nullopt);
}

TEST(ExportedSettings, LeaveOutSecretsAndWhatIsThereTwice) {
  const Dictionary current = {{"secret", "s"},       {"dbpass", "p"}, {"hostsCommaDelimitedString", "a"},
                              {"initialized", true}, {"other", 1},    {"authLevel", "ANY"},
                              {"hosts", Array{"a"}}};
  EXPECT_EQ(serializeJson(Value(exportedSettings(current, false))), R"({"hosts":["a"],"authLevel":"ANY"})");
  EXPECT_EQ(serializeJson(Value(exportedSettings(current, true))),
            R"({"hosts":["a"],"authLevel":"ANY","secret":"s","dbpass":"p"})");
}

}  // namespace
}  // namespace tessard
