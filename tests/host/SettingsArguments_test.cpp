#include "host/ctl/SettingsArguments.h"

#include <gmock/gmock.h>

namespace tessard {
namespace {

using testing::HasSubstr;

Value valueOf(const std::string& word) {
  const auto settings = parseSettings({word});
  EXPECT_TRUE(settings.ok()) << word;
  return settings && settings.value().size() == 1 ? settings.value().begin()->value : Value("failed");
}

TEST(SettingsArguments, TypesWhatLooksLikeABooleanOrAnInteger) {
  EXPECT_TRUE(*valueOf("a=true").asBoolean());
  EXPECT_TRUE(*valueOf("a=yes").asBoolean());
  EXPECT_FALSE(*valueOf("a=false").asBoolean());
  EXPECT_FALSE(*valueOf("a=no").asBoolean());
  EXPECT_EQ(*valueOf("a=-12").asInteger(), -12);
  EXPECT_EQ(*valueOf("a=0").asInteger(), 0);
}

TEST(SettingsArguments, LeavesEverythingElseText) {
  for (const std::string text :
       {"", "YES", "True", "1.5", "007", "-", "+1", "1x", "[", "a]", "x=y", "{}", "null"}) {
    const Value value = valueOf("a=" + text);
    ASSERT_TRUE(value.asString()) << text;
    EXPECT_EQ(*value.asString(), text);
  }
}

TEST(SettingsArguments, ReadsLists) {
  EXPECT_EQ(valueOf("a=[]"), Value(Array()));
  EXPECT_EQ(valueOf("a=[ ]"), Value(Array()));
  EXPECT_EQ(valueOf("a=[x , 1,yes]"), Value(Array{"x", 1, true}));
  EXPECT_EQ(valueOf(R"(a=["x,\"y", z])"), Value(Array{"x,\"y", "z"}));
  EXPECT_EQ(valueOf("a+=[x]"), Value(Array{"[x]"}));
}

TEST(SettingsArguments, GathersRepeatedElements) {
  const auto settings = parseSettings({"a=[x]", "b=1", "a+=2", "a+=y"});
  ASSERT_TRUE(settings.ok());
  EXPECT_EQ(*settings.value().find("a"), Value(Array{"x", 2, "y"}));
}

TEST(SettingsArguments, TakesAnyJson) {
  EXPECT_EQ(valueOf(R"(a:={"b": [1.5]})"), Value(Dictionary{{"b", Array{1.5}}}));
  EXPECT_EQ(valueOf(R"(a="12")"), Value("12"));
  EXPECT_TRUE(valueOf(R"(a="12")").asString());
}

TEST(SettingsArguments, RefusesOtherForms) {
  const auto refusal = [](const std::vector<std::string>& words) {
    const auto settings = parseSettings(words);
    EXPECT_FALSE(settings.ok()) << words.back();
    return settings ? "" : settings.error().description();
  };
  EXPECT_EQ(refusal({"a"}), "\"a\" is not of the form KEY=VALUE");
  EXPECT_EQ(refusal({"=x"}), "\"=x\" is not of the form KEY=VALUE");
  EXPECT_EQ(refusal({"+=x"}), "\"+=x\" is not of the form KEY=VALUE");
  EXPECT_EQ(refusal({"a=1", "a=2"}), "\"a\" is given twice");
  EXPECT_EQ(refusal({"a=1", "a+=2"}), "\"a\" is given both as a list and as a single value");
  EXPECT_THAT(refusal({"a:={"}), HasSubstr("the value of \"a\" cannot be read: the JSON text is malformed"));
  EXPECT_THAT(refusal({"a=\"x"}), HasSubstr("cannot be read"));
  EXPECT_THAT(refusal({"a=9223372036854775808"}), HasSubstr("does not fit into 64 bits"));
  EXPECT_THAT(refusal({"a=[1, 9223372036854775808]"}), HasSubstr("does not fit into 64 bits"));
}

TEST(SettingsArguments, WritesWordsThatAreReadBackAsTheSame) {
  const Array values = {"",
                        "text",
                        " text ",
                        "12",
                        "yes",
                        "[x]",
                        "\"quoted\"",
                        "line\nend",
                        7,
                        true,
                        1.5,
                        Data{"x"},
                        Date{0},
                        Array(),
                        Array{""},
                        Array{"a", "b"},
                        Array{"a,b", " c", "\"", "1", 1},
                        Array{Array{1}},
                        Dictionary{{"a", Dictionary()}}};
  for (const std::string key : {"key", "key+", "key:"}) {
    for (const Value& value : values) {
      const std::string word = settingAsWord(key, value);
      const auto settings = parseSettings({word});
      ASSERT_TRUE(settings.ok()) << word;
      ASSERT_TRUE(settings.value().contains(key)) << word;
      EXPECT_EQ(*settings.value().find(key), value) << word;
      EXPECT_EQ(word.find('\n'), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace tessard
