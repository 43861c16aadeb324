#include "coordinator/SettingsProblems.h"

#include <cmath>
#include <limits>

#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr const char* kPorts[] = {"jabberdClientPortTLS", "jabberdClientPortSSL", "jabberdS2SPort",
                                  "korvbridgePort"};
constexpr const char* kDays[] = {"eventLogArchiveInterval", "savedChatsArchiveInterval"};
constexpr const char* kSwitches[] = {"enableAutoBuddy",    "enableXMPP",       "requireSecureS2S",
                                     "s2sRestrictDomains", "enableSavedChats", "initialized",
                                     "connectAsClient",    "korvbridgeEnabled"};
constexpr const char* kTexts[] = {
    "hostsCommaDelimitedString", "sslKeyFile", "sslCAFile", "logLevel", "savedChatsLocation",
    "jabberdDatabasePath",       "jid",        "domain",    "secret"};
constexpr const char* kLists[] = {"hosts", "s2sAllowedDomains", "privilegedUsers"};

std::string problemWith(const char* key, const Value& value) {
  return problemWithSettings({{key, value}}).value_or("none");
}

std::string mustBe(const char* key, const char* expected) {
  return "\"" + std::string(key) + "\" must be " + expected;
}

TEST(SettingsProblems, ThereAreNoneWithoutSettingsAndWithTheDefaults) {
  EXPECT_EQ(problemWithSettings({}), std::nullopt);
  TestPlatform platform;
  const auto defaults = Wrangler::chatServiceWrangler(platform)->defaultPreferences();
  ASSERT_TRUE(defaults);
  EXPECT_EQ(problemWithSettings(*defaults), std::nullopt);
}

TEST(SettingsProblems, APortIsAWholeNumberOfSixteenBits) {
  for (const char* key : kPorts) {
    for (const Value& good :
         {Value(0), Value(5218), Value(65535), Value("5218"), Value("0"), Value(5218.0)}) {
      EXPECT_EQ(problemWith(key, good), "none") << key << " " << good.description();
    }
    for (const Value& bad : {Value(-1), Value(65536), Value(5218.5), Value("52.18"), Value("abc"), Value(""),
                             Value("-1"), Value(" 5218"), Value("65536"), Value("99999999999"), Value(true),
                             Value(Array{5218}), Value(Dictionary{}), Value(Data{"1"}), Value(1e300),
                             Value(std::nan("")), Value(std::numeric_limits<double>::infinity())}) {
      EXPECT_EQ(problemWith(key, bad), mustBe(key, "a port number from 0 to 65535")) << bad.description();
    }
  }
}

TEST(SettingsProblems, AnIntervalIsAWholeNumberOfDays) {
  for (const char* key : kDays) {
    for (const Value& good : {Value(0), Value(7), Value(100000), Value("30"), Value(7.0)}) {
      EXPECT_EQ(problemWith(key, good), "none") << key << " " << good.description();
    }
    for (const Value& bad :
         {Value(-1), Value(7.5), Value("a week"), Value("-7"), Value(false), Value(Array{7}),
          Value(std::numeric_limits<double>::infinity()), Value(-1e300)}) {
      EXPECT_EQ(problemWith(key, bad), mustBe(key, "a whole number of days")) << bad.description();
    }
  }
}

TEST(SettingsProblems, ASwitchIsANumberOrAWordForTrueOrFalse) {
  for (const char* key : kSwitches) {
    for (const Value& good : {Value(true), Value(0), Value(2), Value(0.5), Value("YES"), Value("no"),
                              Value("True"), Value("false"), Value("y"), Value("N"), Value("t"), Value("F"),
                              Value("1"), Value("0"), Value("10")}) {
      EXPECT_EQ(problemWith(key, good), "none") << key << " " << good.description();
    }
    for (const Value& bad : {Value(""), Value("on"), Value("maybe"), Value("yes "), Value("-1"),
                             Value(Array{true}), Value(Dictionary{}), Value(Data{"1"}), Value(Date{1})}) {
      EXPECT_EQ(problemWith(key, bad), mustBe(key, "true or false")) << bad.description();
    }
  }
}

TEST(SettingsProblems, ATextIsAString) {
  for (const char* key : kTexts) {
    EXPECT_EQ(problemWith(key, "/some/path"), "none") << key;
    for (const Value& bad :
         {Value(1), Value(true), Value(Array{"/path"}), Value(Dictionary{}), Value(Data{"x"})}) {
      EXPECT_THAT(problemWith(key, bad), MatchesRegex(".* must be an? .*")) << key << bad.description();
    }
  }
  for (const char* key : {"hostsCommaDelimitedString", "sslKeyFile", "sslCAFile", "logLevel",
                          "savedChatsLocation", "jid", "domain"}) {
    EXPECT_EQ(problemWith(key, ""), "none") << key;
  }
}

TEST(SettingsProblems, WhatWouldBeReplacedIsRefused) {
  const char* const keys[] = {"sslKeyFile", "sslCAFile", "savedChatsLocation", "jabberdDatabasePath"};
  for (const char* key : keys) {
    for (const char* bad : {"/a${", "/${id}", "/a$${b}c", "/${}", "/@HOSTNAME@", "/a@ROUTERPASSWORD@"}) {
      EXPECT_THAT(problemWith(key, bad),
                  HasSubstr("without \"${\" and placeholders, which would be replaced"))
          << bad;
    }
    for (const char* good : {"/$", "/$(x)", "/{x}", "/$ {x}", "/a}b", "/@a@", "/\"]]>--'&"}) {
      EXPECT_EQ(problemWith(key, good), "none") << key << " " << good;
    }
  }
}

TEST(SettingsProblems, APathFitsIntoWhatOpensIt) {
  EXPECT_EQ(problemWith("sslKeyFile", "/" + std::string(4094, 'k')), "none");
  for (const char* key : {"sslKeyFile", "sslCAFile"}) {
    EXPECT_THAT(problemWith(key, "/" + std::string(4095, 'k')), HasSubstr("at most 4095 bytes"));
  }
  EXPECT_EQ(problemWith("jabberdDatabasePath", "/" + std::string(503, 'd')), "none");
  EXPECT_THAT(problemWith("jabberdDatabasePath", "/" + std::string(504, 'd')),
              HasSubstr("at most 504 bytes"));
}

TEST(SettingsProblems, ADatabaseIsAnAbsolutePath) {
  for (const char* bad : {"", " ", "x.db", "./x.db", "~/x.db", " /x.db"}) {
    EXPECT_THAT(problemWith("jabberdDatabasePath", bad), HasSubstr("must be an absolute path")) << bad;
  }
}

TEST(SettingsProblems, TheSecretIsNotEmpty) {
  EXPECT_EQ(problemWith("secret", ""), mustBe("secret", "a string that is not empty"));
  EXPECT_EQ(problemWith("secret", " "), "none");
}

TEST(SettingsProblems, AnAuthenticationLevelIsAnyWord) {
  EXPECT_EQ(problemWith("authLevel", "KERBEROS"), "none");
  EXPECT_EQ(problemWith("authLevel", "whatever"), "none");
  EXPECT_EQ(problemWith("authLevel", 7), "none");
  EXPECT_EQ(problemWith("authLevel", Array{"KERBEROS"}), mustBe("authLevel", "a string"));
}

TEST(SettingsProblems, AListHoldsStringsOnly) {
  for (const char* key : kLists) {
    EXPECT_EQ(problemWith(key, Array{}), "none");
    EXPECT_EQ(problemWith(key, Array{"a", "b"}), "none");
    for (const Value& bad :
         {Value("a"), Value(1), Value(Array{"a", 1}), Value(Array{Array{"a"}}), Value(Dictionary{})}) {
      EXPECT_EQ(problemWith(key, bad), mustBe(key, "a list of strings, such as [a, b]")) << bad.description();
    }
  }
}

TEST(SettingsProblems, TheFirstOneIsTold) {
  EXPECT_EQ(problemWithSettings({{"jabberdS2SPort", 1.5}, {"hosts", 1}}),
            "\"hosts\" must be a list of strings, such as [a, b]");
}

TEST(SettingsProblems, OtherKeysMayHoldAnything) {
  EXPECT_EQ(problemWith("services", Array{Dictionary{{"a", 0.5}}}), "none");
  EXPECT_EQ(problemWith("unknown", Data{"\x01"}), "none");
}

TEST(SettingsProblems, TextThatNoFileCanHoldIsRefusedWhereverItStands) {
  const std::string bad =
      "a\x01"
      "b";
  for (const Value& value : {Value(bad), Value("\xff"), Value(Array{bad}), Value(Dictionary{{"k", bad}}),
                             Value(Dictionary{{bad, "v"}}), Value(Array{Dictionary{{"k", Array{bad}}}})}) {
    EXPECT_EQ(problemWith("anything", value),
              "\"anything\" holds characters that no configuration file can hold");
  }
  EXPECT_EQ(problemWith("sslKeyFile", "/a\nb"), "none");
}

TEST(SettingsProblems, AKeyThatNoFileCanHoldIsRefusedWithoutShowingIt) {
  EXPECT_EQ(problemWith("a\x01", "v"),
            "the name of a setting holds characters that no configuration file can hold");
}

TEST(HostProblems, ThereAreNoneWithoutHostsOrWithGoodOnes) {
  EXPECT_EQ(problemWithHosts({}), std::nullopt);
  EXPECT_EQ(problemWithHosts({{"hosts", Array{"a.example.com"}}}), std::nullopt);
  EXPECT_EQ(problemWithHosts({{"hostsCommaDelimitedString", "a,b"}}), std::nullopt);
}

TEST(HostProblems, AHostMustBeNamed) {
  EXPECT_EQ(problemWithHosts({{"hosts", Array{}}}), "\"hosts\" names no host");
  for (const char* joined : {",", "a,", ",a", "a,,b"}) {
    EXPECT_EQ(problemWithHosts({{"hostsCommaDelimitedString", joined}}),
              "\"hostsCommaDelimitedString\" has an empty entry");
  }
}

TEST(HostProblems, TheListDoesNotCountBesideTheCommaSeparatedHosts) {
  EXPECT_EQ(problemWithHosts({{"hosts", Array{}}, {"hostsCommaDelimitedString", "a"}}), std::nullopt);
}

TEST(HostProblems, AHostMustFitInAFileName) {
  EXPECT_EQ(problemWithHosts({{"hosts", Array{std::string(240, 'a')}}}), std::nullopt);
  EXPECT_EQ(problemWithHosts({{"hosts", Array{"a", std::string(241, 'a')}}}),
            "a host name is longer than 240 bytes");
  EXPECT_EQ(problemWithHosts({{"hostsCommaDelimitedString", std::string(241, 'a')}}),
            "a host name is longer than 240 bytes");
}

struct WriteProblems : Coordinated {};

TEST_F(WriteProblems, AreFoundBeforeAndAfterTheNamesAreFiltered) {
  EXPECT_EQ(wrangler->problemWithWriteSettings({{"hosts", "a"}}),
            "\"hosts\" must be a list of strings, such as [a, b]");
  EXPECT_EQ(wrangler->problemWithWriteSettings({{"hosts", Array{"!!!"}}}), "\"hosts\" names no host");
  EXPECT_EQ(wrangler->problemWithWriteSettings({{"hostsCommaDelimitedString", "a, ,b"}}),
            "\"hostsCommaDelimitedString\" has an empty entry");
  EXPECT_EQ(wrangler->problemWithWriteSettings({{"hostsCommaDelimitedString", "!"}, {"hosts", Array{"A"}}}),
            std::nullopt);
}

TEST_F(WriteProblems, AreFoundWithoutTouchingAnything) {
  wrangler->problemWithWriteSettings({{"hosts", Array{"a"}}, {"jabberdS2SPort", 0.5}});
  wrangler->problemWithWriteSettings({{"hosts", Array{"a"}}});
  EXPECT_THAT(platform.files.calls(), IsEmpty());
  EXPECT_THAT(platform.log.messages(), IsEmpty());
  EXPECT_THAT(journal, IsEmpty());
}

TEST(ServiceRequestProblems, AServiceAndAHostAreEnough) {
  EXPECT_EQ(problemWithServiceRequest({{"service", "mail"}, {"hostName", "a"}}), std::nullopt);
  EXPECT_EQ(problemWithServiceRequest({{"service", "mail"}, {"hostName", "a"}, {"ports", Array{1}}}),
            std::nullopt);
}

TEST(ServiceRequestProblems, ServiceAndHostAreTexts) {
  const std::string service = "\"service\" must be a string that is not empty";
  const std::string host = "\"hostName\" must be a string that is not empty";
  EXPECT_EQ(problemWithServiceRequest({}), service);
  EXPECT_EQ(problemWithServiceRequest({{"service", ""}, {"hostName", "a"}}), service);
  EXPECT_EQ(problemWithServiceRequest({{"service", 1}, {"hostName", "a"}}), service);
  EXPECT_EQ(problemWithServiceRequest({{"service", "mail"}}), host);
  EXPECT_EQ(problemWithServiceRequest({{"service", "mail"}, {"hostName", ""}}), host);
  EXPECT_EQ(problemWithServiceRequest({{"service", "mail"}, {"hostName", Array{"a"}}}), host);
}

TEST(ServiceRequestProblems, NothingInItMayBeUnfitForAFile) {
  const std::string problem = "the request holds characters that no configuration file can hold";
  EXPECT_EQ(problemWithServiceRequest({{"service", "mail"}, {"hostName", "a\x01"}}), problem);
  EXPECT_EQ(problemWithServiceRequest({{"service", "m"}, {"hostName", "a"}, {"more", Array{"\x02"}}}),
            problem);
  EXPECT_EQ(problemWithServiceRequest({{"service", "m"}, {"hostName", "a"}, {"\x02", 1}}), problem);
}

TEST(ServiceRequestProblems, NothingInItMayBreakALine) {
  const std::string problem = "the request holds control characters";
  for (const char* bad : {"a\tb", "a\n", "\ra", "a\x7f"}) {
    EXPECT_EQ(problemWithServiceRequest({{"service", bad}, {"hostName", "a"}}), problem);
    EXPECT_EQ(problemWithServiceRequest({{"service", "m"}, {"hostName", bad}}), problem);
    EXPECT_EQ(problemWithServiceRequest({{"service", "m"}, {"hostName", "a"}, {bad, 1}}), problem);
    EXPECT_EQ(problemWithServiceRequest(
                  {{"service", "m"}, {"hostName", "a"}, {"k", Array{Dictionary{{"k", bad}}}}}),
              problem);
  }
  EXPECT_EQ(problemWithServiceRequest({{"service", "m m"}, {"hostName", "ü"}, {"more", Data{"\n"}}}),
            std::nullopt);
}

}  // namespace
}  // namespace tessard
