#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/Value.h"

namespace tessard {
namespace {

using testing::ElementsAre;

std::vector<std::string> keysOf(const Dictionary& dictionary) {
  std::vector<std::string> keys;
  for (const DictionaryEntry& entry : dictionary) keys.push_back(entry.key);
  return keys;
}

std::string keyNumber(int number) {
  return "key" + std::to_string(number);
}

Dictionary dictionaryOf(int size) {
  Dictionary dictionary;
  for (int i = 0; i < size; ++i) dictionary.set(keyNumber(i), i);
  return dictionary;
}

TEST(DictionaryOrder, KeysStandInTheOrderInWhichTheyWereFirstStored) {
  Dictionary dictionary{{"b", 1}, {"a", 2}};
  dictionary.set("c", 3);
  dictionary.set("b", 4);
  EXPECT_THAT(keysOf(dictionary), ElementsAre("b", "a", "c"));
  EXPECT_EQ(*dictionary.find("b"), Value(4));
}

TEST(DictionaryOrder, ADoubledKeyInAListOfEntriesKeepsItsFirstPlaceAndLastValue) {
  const Dictionary dictionary{{"a", 1}, {"b", 2}, {"a", 3}};
  EXPECT_THAT(keysOf(dictionary), ElementsAre("a", "b"));
  EXPECT_EQ(*dictionary.find("a"), Value(3));
}

TEST(DictionaryOrder, ARemovedKeyComesBackAtTheEnd) {
  Dictionary dictionary{{"a", 1}, {"b", 2}};
  EXPECT_TRUE(dictionary.remove("a"));
  dictionary.set("a", 3);
  EXPECT_THAT(keysOf(dictionary), ElementsAre("b", "a"));
}

TEST(DictionaryLookup, FindsWhatIsThereAndNothingElse) {
  Dictionary dictionary{{"a", 1}, {"", 2}};
  EXPECT_TRUE(dictionary.contains("a"));
  EXPECT_TRUE(dictionary.contains(""));
  EXPECT_FALSE(dictionary.contains("A"));
  EXPECT_EQ(dictionary.find("b"), nullptr);
  *dictionary.find("a") = "changed";
  EXPECT_EQ(*dictionary.stringFor("a"), "changed");
}

TEST(DictionaryLookup, TypedReadingsGiveNothingForAMissingKeyOrAnotherKind) {
  const Dictionary dictionary{{"text", "t"}, {"list", Array{1}}, {"table", Dictionary{{"k", 1}}}};
  EXPECT_EQ(*dictionary.stringFor("text"), "t");
  EXPECT_EQ(dictionary.arrayFor("list")->size(), 1U);
  EXPECT_EQ(dictionary.dictionaryFor("table")->size(), 1U);
  EXPECT_EQ(dictionary.stringFor("list"), nullptr);
  EXPECT_EQ(dictionary.arrayFor("table"), nullptr);
  EXPECT_EQ(dictionary.dictionaryFor("text"), nullptr);
  EXPECT_EQ(dictionary.stringFor("missing"), nullptr);
  EXPECT_EQ(dictionary.arrayFor("missing"), nullptr);
  EXPECT_EQ(dictionary.dictionaryFor("missing"), nullptr);
}

class DictionaryOfSize : public testing::TestWithParam<int> {};

// Around the size from which an index is kept.
INSTANTIATE_TEST_SUITE_P(AroundTheIndex, DictionaryOfSize, testing::Values(0, 1, 23, 24, 25, 48, 500));

TEST_P(DictionaryOfSize, EveryKeyIsFoundUnderItsValue) {
  const Dictionary dictionary = dictionaryOf(GetParam());
  EXPECT_EQ(dictionary.size(), static_cast<std::size_t>(GetParam()));
  EXPECT_EQ(dictionary.empty(), GetParam() == 0);
  for (int i = 0; i < GetParam(); ++i) {
    ASSERT_NE(dictionary.find(keyNumber(i)), nullptr) << i;
    EXPECT_EQ(*dictionary.find(keyNumber(i)), Value(i));
  }
  EXPECT_FALSE(dictionary.contains(keyNumber(GetParam())));
}

TEST_P(DictionaryOfSize, KeysAreFoundWhileOthersAreRemoved) {
  Dictionary dictionary = dictionaryOf(GetParam());
  for (int removed = 0; removed < GetParam(); ++removed) {
    ASSERT_TRUE(dictionary.remove(keyNumber(removed)));
    EXPECT_FALSE(dictionary.contains(keyNumber(removed)));
    EXPECT_FALSE(dictionary.remove(keyNumber(removed)));
    for (int i = removed + 1; i < GetParam(); i += 7) {
      ASSERT_NE(dictionary.find(keyNumber(i)), nullptr) << i;
      EXPECT_EQ(*dictionary.find(keyNumber(i)), Value(i));
    }
  }
  EXPECT_TRUE(dictionary.empty());
}

TEST_P(DictionaryOfSize, ACopyIsEqualAndGoesItsOwnWay) {
  const Dictionary dictionary = dictionaryOf(GetParam());
  Dictionary copy = dictionary;
  EXPECT_EQ(copy, dictionary);
  copy.set("more", 1);
  EXPECT_FALSE(copy == dictionary);
  EXPECT_FALSE(dictionary.contains("more"));
  EXPECT_TRUE(copy.contains("more"));
}

TEST_P(DictionaryOfSize, AMovedOneHoldsAllEntries) {
  Dictionary dictionary = dictionaryOf(GetParam());
  const Dictionary moved = std::move(dictionary);
  EXPECT_EQ(moved, dictionaryOf(GetParam()));
}

TEST(DictionaryChange, AnAbsentValueIsNotStored) {
  Dictionary dictionary{{"a", 1}};
  const Value two(2);
  dictionary.setIfPresent("a", nullptr);
  dictionary.setIfPresent("b", nullptr);
  dictionary.setIfPresent("c", &two);
  EXPECT_EQ(dictionary, (Dictionary{{"a", 1}, {"c", 2}}));
}

TEST(DictionaryChange, UpdatingOverwritesKeyByKey) {
  Dictionary dictionary{{"a", 1}, {"b", Dictionary{{"x", 1}}}};
  dictionary.updateWithDictionary({{"c", 3}, {"b", Dictionary{{"y", 2}}}});
  EXPECT_THAT(keysOf(dictionary), ElementsAre("a", "b", "c"));
  EXPECT_EQ(*dictionary.find("b"), Value(Dictionary{{"y", 2}}));
}

TEST(DictionaryChange, UpdatingWithItselfChangesNothing) {
  Dictionary dictionary{{"a", 1}, {"b", "x"}};
  dictionary.updateWithDictionary(dictionary);
  EXPECT_EQ(dictionary, (Dictionary{{"a", 1}, {"b", "x"}}));
}

TEST(DictionaryForKeys, GivesTheListedEntriesInTheOrderOfTheList) {
  const Dictionary dictionary{{"a", 1}, {"b", 2}, {"c", 3}};
  const Dictionary chosen = dictionary.dictionaryForKeys({"c", "missing", "a", "c"});
  EXPECT_THAT(keysOf(chosen), ElementsAre("c", "a"));
  EXPECT_EQ(*chosen.find("c"), Value(3));
  EXPECT_TRUE(dictionary.dictionaryForKeys({}).empty());
}

TEST(DictionaryEquality, TheOrderDoesNotCount) {
  EXPECT_EQ((Dictionary{{"a", 1}, {"b", 2}}), (Dictionary{{"b", 2}, {"a", 1}}));
  EXPECT_FALSE((Dictionary{{"a", 1}}) == (Dictionary{{"a", 2}}));
  EXPECT_FALSE((Dictionary{{"a", 1}}) == (Dictionary{{"b", 1}}));
  EXPECT_FALSE((Dictionary{{"a", 1}}) == (Dictionary{{"a", 1}, {"b", 1}}));
  EXPECT_EQ(Dictionary{}, Dictionary{});
}

}  // namespace
}  // namespace tessard
