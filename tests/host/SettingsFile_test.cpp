#include "host/ctl/SettingsFile.h"

#include <gtest/gtest.h>

#include "host/JsonCodec.h"

namespace tessard {
namespace {

std::string reading(std::string_view text) {
  const auto settings = parseSettingsText(text);
  return settings ? serializeJson(Value(settings.value())) : "error: " + settings.error().description();
}

const Dictionary& everyKind() {
  static const Dictionary settings = {{"hosts", Array{"a.example", "b.example"}},
                                      {"empty", Array{}},
                                      {"yes", true},
                                      {"no", false},
                                      {"number", -5218},
                                      {"digits", "5218"},
                                      {"word", "true"},
                                      {"nothing", ""},
                                      {"null", "null"},
                                      {"special", "a: b # c\n\"d\" 'e' \xc3\xbc"},
                                      {"zeros", "007"},
                                      {"dash", "- x"},
                                      {"nested", Dictionary{{"list", Array{1, Dictionary{{"deep", "x"}}}}}}};
  return settings;
}

TEST(SettingsFile, ReadsBackWhatItWritesInEveryForm) {
  for (const auto form : {SettingsForm::yaml, SettingsForm::json, SettingsForm::propertyList}) {
    const auto text = settingsText(everyKind(), form);
    ASSERT_TRUE(text) << text.error().description();
    EXPECT_EQ(reading(text.value()), serializeJson(Value(everyKind()))) << text.value();
  }
}

TEST(SettingsFile, WritesYamlAsPeopleDo) {
  const auto text =
      settingsText({{"hosts", Array{"a.example"}}, {"port", 5218}, {"level", "ANYMETHOD"}, {"on", true}},
                   SettingsForm::yaml);
  EXPECT_EQ(text.value(), "hosts:\n  - a.example\nport: 5218\nlevel: ANYMETHOD\n\"on\": true\n");
}

TEST(SettingsFile, TakesPlainWordsOfYamlAsOnTheCommandLine) {
  EXPECT_EQ(reading("a: yes\nb: no\nc: true\nd: 5218\ne: \"5218\"\nf: 'yes'\ng: 1.5\nh: 007\n"),
            R"({"a":true,"b":false,"c":true,"d":5218,"e":"5218","f":"yes","g":"1.5","h":"007"})");
}

TEST(SettingsFile, TellsFormsApartByTheirBeginning) {
  EXPECT_EQ(reading("\n {\"a\": 1}"), R"({"a":1})");
  EXPECT_EQ(reading("<plist version=\"1.0\"><dict><key>a</key><integer>1</integer></dict></plist>"),
            R"({"a":1})");
  EXPECT_EQ(reading("---\na: 1\n"), R"({"a":1})");
}

TEST(SettingsFile, RefusesWhatIsNoDictionary) {
  EXPECT_EQ(reading("- a\n"), "error: it holds no dictionary");
  EXPECT_EQ(reading("text"), "error: it holds no dictionary");
  EXPECT_EQ(reading(""), "error: it must hold one document");
  EXPECT_EQ(reading("a: 1\n---\nb: 2\n"), "error: it must hold one document");
}

TEST(SettingsFile, NamesTheLineOfAMistakeInYaml) {
  EXPECT_TRUE(reading("a: 1\nb: [1, 2\n").starts_with("error: line ")) << reading("a: 1\nb: [1, 2\n");
  EXPECT_EQ(reading("a: 1\nb:\n"), "error: \"b\" has no value");
  EXPECT_EQ(reading("a: [1, ~]\n"), "error: line 1: there is no value");
  EXPECT_EQ(reading("a: 1\na: 2\n"), "error: the key \"a\" is there twice");
  EXPECT_TRUE(reading("[a, b]: 1\n").ends_with("a key is no text"));
}

TEST(SettingsFile, RefusesAnAliasThatStandsForTooMuch) {
  std::string text = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
  for (int level = 1; level < 12; ++level) {
    const std::string last = "*a" + std::to_string(level - 1);
    text += "a" + std::to_string(level) + ": &a" + std::to_string(level) + " [";
    for (int each = 0; each < 10; ++each) text += (each == 0 ? "" : ", ") + last;
    text += "]\n";
  }
  EXPECT_EQ(reading(text), "error: it holds too many values");
}

TEST(SettingsFile, RefusesWhatIsNestedTooDeep) {
  EXPECT_EQ(reading("a: " + std::string(20, '[') + std::string(20, ']')), "error: it is nested too deep");
}

TEST(SettingsFile, RefusesTextThatIsNotUtf8) {
  EXPECT_TRUE(reading("a: \"\xff\"\n").starts_with("error: ")) << reading("a: \"\xff\"\n");
}

TEST(SettingsFile, SaysSoWhenAFormCannotHoldAValue) {
  EXPECT_FALSE(settingsText({{"a", 1.5}}, SettingsForm::yaml));
  EXPECT_FALSE(settingsText({{"a", std::string("\0", 1)}}, SettingsForm::propertyList));
}

TEST(SettingsForms, AreKnownByTheirNames) {
  EXPECT_EQ(settingsFormNamed("yaml"), SettingsForm::yaml);
  EXPECT_EQ(settingsFormNamed("json"), SettingsForm::json);
  EXPECT_EQ(settingsFormNamed("plist"), SettingsForm::propertyList);
  EXPECT_EQ(settingsFormNamed("toml"), std::nullopt);
}

}  // namespace
}  // namespace tessard
