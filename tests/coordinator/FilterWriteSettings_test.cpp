#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

struct FilterWriteSettings : Coordinated {
  SettingsDictionary filtered(const SettingsDictionary& settings) {
    return wrangler->filterWriteSettings(&settings).value_or(SettingsDictionary{{"absent", true}});
  }
  Value filteredHosts(const Array& hosts) { return *filtered({{"hosts", hosts}}).find("hosts"); }
  std::string filteredString(const char* text) {
    const auto result = filtered({{"hostsCommaDelimitedString", text}});
    const std::string* kept = result.stringFor("hostsCommaDelimitedString");
    return kept ? *kept : "removed";
  }
};

TEST_F(FilterWriteSettings, NoSettingsStayNone) {
  EXPECT_EQ(wrangler->filterWriteSettings(nullptr), std::nullopt);
}

TEST_F(FilterWriteSettings, OtherKeysAreNotTouched) {
  const SettingsDictionary settings{{"logLevel", "A B!"}, {"jabberdS2SPort", 5268}, {"list", Array{"X Y"}}};
  EXPECT_EQ(filtered(settings), settings);
  EXPECT_EQ(filtered({}), SettingsDictionary{});
}

TEST_F(FilterWriteSettings, HostsKeepLettersDigitsHyphensAndDotsInLowerCase) {
  EXPECT_EQ(filteredHosts({"CHAT-1.Example.COM", "a_b c@d/e.example"}),
            Value(Array{"chat-1.example.com", "abcde.example"}));
}

TEST_F(FilterWriteSettings, HostsThatBecomeEmptyAreDropped) {
  EXPECT_EQ(filteredHosts({"!!!", "a", "", " "}), Value(Array{"a"}));
}

TEST_F(FilterWriteSettings, AListWhoseHostsAreAllDroppedIsStoredEmpty) {
  EXPECT_EQ(filteredHosts({"!!!", "??"}), Value(Array{}));
  EXPECT_EQ(filteredHosts({}), Value(Array{}));
}

TEST_F(FilterWriteSettings, HostsKeepLettersMarksAndDigitsOfEveryScript) {
  // Capital U with diaeresis, Greek capital delta, a combining acute accent, an Arabic-Indic digit, a Chinese
  // character.
  EXPECT_EQ(filteredHosts({"B\u00dcCHER", "\u0394", "e\u0301", "\u0663", "\u4e2d"}),
            Value(Array{"b\u00fccher", "\u03b4", "e\u0301", "\u0663", "\u4e2d"}));
}

TEST_F(FilterWriteSettings, HostsLoseSignsOfEveryScript) {
  // An en dash, an ideographic full stop, a no-break space, an emoji, a byte that is no text.
  EXPECT_EQ(filteredHosts({"a\u2013b", "c\u3002d", "e\u00a0f", "\U0001f600", "g\xffh"}),
            Value(Array{"ab", "cd", "ef", "gh"}));
}

TEST_F(FilterWriteSettings, HostsThatAreNoListAreNotTouched) {
  EXPECT_EQ(filtered({{"hosts", "A B"}}), (SettingsDictionary{{"hosts", "A B"}}));
}

TEST_F(FilterWriteSettings, TheCommaSeparatedHostsKeepTheirCommas) {
  EXPECT_EQ(filteredString("A.example.com, b_c.Example.com"), "a.example.com,bc.example.com");
  EXPECT_EQ(filteredString("a,,b,"), "a,,b,");
  EXPECT_EQ(filteredString("\xc3\x84.example"), "\xc3\xa4.example");
}

TEST_F(FilterWriteSettings, CommaSeparatedHostsThatBecomeEmptyAreRemoved) {
  EXPECT_EQ(filteredString("   "), "removed");
  EXPECT_EQ(filteredString(""), "removed");
  EXPECT_EQ(filteredString("!_?"), "removed");
  EXPECT_EQ(filteredString(","), ",");
}

TEST_F(FilterWriteSettings, AllowedDomainsAreFilteredAsHostsAre) {
  EXPECT_EQ(filtered({{"s2sAllowedDomains", Array{"Friend.Example", "!!", "A B"}}}),
            (SettingsDictionary{{"s2sAllowedDomains", Array{"friend.example", "ab"}}}));
}

TEST_F(FilterWriteSettings, EveryRuleIsAppliedAndTheOriginalStays) {
  const SettingsDictionary settings{{"s2sAllowedDomains", Array{"B!"}},
                                    {"hosts", Array{"A!"}},
                                    {"other", "C!"},
                                    {"hostsCommaDelimitedString", "D!"}};
  EXPECT_EQ(filtered(settings), (SettingsDictionary{{"s2sAllowedDomains", Array{"b"}},
                                                    {"hosts", Array{"a"}},
                                                    {"other", "C!"},
                                                    {"hostsCommaDelimitedString", "d"}}));
  EXPECT_EQ(*settings.find("hosts"), Value(Array{"A!"}));
}

}  // namespace
}  // namespace tessard
