#include "host/ctl/LogLine.h"

#include <gtest/gtest.h>

#include <ctime>

#include "host/Rfc3339.h"

namespace tessard {
namespace {

const Date kNow = *parseRfc3339("2026-11-21T12:00:00Z");

struct LogLines : testing::Test {
  LogLines() {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
  }
  static std::string timeOf(std::string_view text) {
    const LogLine line = parseLogLine(text, kNow);
    return line.time ? formatRfc3339(*line.time) : "none";
  }
  static std::string since(const std::string& text) {
    const auto moment = parseSince(text, kNow);
    return moment ? formatRfc3339(*moment) : "none";
  }
};

TEST_F(LogLines, AreTakenApart) {
  const LogLine line =
      parseLogLine("2026-11-21T10:00:00Z host err jabberd_notification/c2s[12]: no: such thing", kNow);
  EXPECT_EQ(formatRfc3339(*line.time), "2026-11-21T10:00:00Z");
  EXPECT_EQ(line.program, "jabberd_notification/c2s");
  EXPECT_EQ(line.component, "c2s");
  EXPECT_EQ(line.process, 12);
  EXPECT_EQ(line.level, LogLevel::error);
  EXPECT_EQ(line.message, "no: such thing");
}

TEST_F(LogLines, TellTheirLevelAsANumberOrAWordOrNot) {
  const auto level = [](const std::string& word) {
    return parseLogLine("2026-11-21T10:00:00Z host " + word + " sm[1]: x", kNow).level;
  };
  EXPECT_EQ(level("24"), LogLevel::error) << "an emergency of daemons";
  EXPECT_EQ(level("28"), LogLevel::warning);
  EXPECT_EQ(level("13"), LogLevel::notice);
  EXPECT_EQ(level("31"), LogLevel::debug);
  EXPECT_EQ(level("crit"), LogLevel::error);
  EXPECT_EQ(level("info"), LogLevel::info);
  EXPECT_EQ(level("E"), std::nullopt) << "the letters are the plug-in's";
  EXPECT_EQ(parseLogLine("2026-11-21T10:00:00Z host sm[1]: x", kNow).level, std::nullopt);
  EXPECT_EQ(parseLogLine("2026-11-21T10:00:00Z 27 sm[1]: x", kNow).level, LogLevel::error);
}

TEST_F(LogLines, OfThePluginBearItsOwnMark) {
  LogLine line =
      parseLogLine("2026-11-21T10:00:00Z host 13 tessardd[1]: tessard_notification[W]: a]: b", kNow);
  EXPECT_EQ(line.component, "plugin");
  EXPECT_EQ(line.level, LogLevel::warning);
  EXPECT_EQ(line.message, "a]: b");
  line = parseLogLine("2026-11-21T10:00:00Z host 13 sm[1]: tessard_notification[W]: a", kNow);
  EXPECT_EQ(line.component, "sm") << "anybody can say so";
  EXPECT_EQ(parseLogLine("2026-11-21T10:00:00Z tessardd[1]: tessard_x[Q]: a", kNow).component, "tessardd");
}

TEST_F(LogLines, ComeWithTimesOfTwoForms) {
  EXPECT_EQ(timeOf("2026-11-21T10:00:00.123456+02:00 h sm[1]: x"), "2026-11-21T08:00:00.123456Z");
  EXPECT_EQ(timeOf("Nov 21 10:00:00 h sm[1]: x"), "2026-11-21T10:00:00Z");
  EXPECT_EQ(timeOf("Nov  1 10:00:00 h sm[1]: x"), "2026-11-01T10:00:00Z");
  EXPECT_EQ(timeOf("Dec 24 10:00:00 h sm[1]: x"), "2025-12-24T10:00:00Z") << "of the last year";
  EXPECT_EQ(timeOf("yesterday sm[1]: x"), "none");
}

TEST_F(LogLines, OfAnotherFormAreAllMessage) {
  for (const std::string text : {"", "sm[1]: x", "Traceback:", "2026-11-21T10:00:00Z"}) {
    const LogLine line = parseLogLine(text, kNow);
    EXPECT_EQ(line.component, "") << text;
    EXPECT_EQ(line.message, line.time ? "" : text);
  }
  EXPECT_EQ(parseLogLine("2026-11-21T10:00:00Z a b c d[1]: x", kNow).message, "a b c d[1]: x");
  EXPECT_EQ(parseLogLine("2026-11-21T10:00:00Z h sm[x]: y", kNow).component, "");
}

TEST_F(LogLines, AreWantedSinceAMoment) {
  EXPECT_EQ(since("90s"), "2026-11-21T11:58:30Z");
  EXPECT_EQ(since("10m"), "2026-11-21T11:50:00Z");
  EXPECT_EQ(since("2h"), "2026-11-21T10:00:00Z");
  EXPECT_EQ(since("3d"), "2026-11-18T12:00:00Z");
  EXPECT_EQ(since("2026-11-20"), "2026-11-20T00:00:00Z");
  EXPECT_EQ(since("2026-11-20 10:30"), "2026-11-20T10:30:00Z");
  EXPECT_EQ(since("2026-11-20T10:30:15"), "2026-11-20T10:30:15Z");
  EXPECT_EQ(since("2026-11-20T10:30:00+01:00"), "2026-11-20T09:30:00Z");
  EXPECT_EQ(since("10:30"), "2026-11-21T10:30:00Z");
  for (const char* text : {"", "s", "-1h", "1w", "soon", "2026-13-01", "10:30 x", "99999999d"}) {
    EXPECT_EQ(since(text), "none") << text;
  }
}

TEST_F(LogLines, AreChosenByLevelPartAndTime) {
  LogLine line = parseLogLine("2026-11-21T10:00:00Z h 28 jabberd_notification/sm[1]: x", kNow);
  EXPECT_TRUE(LogSelection().wants(line));
  EXPECT_TRUE((LogSelection{LogLevel::warning, {}, {}}.wants(line)));
  EXPECT_FALSE((LogSelection{LogLevel::error, {}, {}}.wants(line)));
  EXPECT_TRUE((LogSelection{{}, {"c2s", "sm"}, {}}.wants(line)));
  EXPECT_FALSE((LogSelection{{}, {"c2s"}, {}}.wants(line)));
  EXPECT_FALSE((LogSelection{{}, {}, kNow}.wants(line)));
  line.component = "sm_a.example";
  EXPECT_TRUE((LogSelection{{}, {"sm"}, {}}.wants(line)));
  EXPECT_TRUE((LogSelection{{}, {"sm_a.example"}, {}}.wants(line)));
  EXPECT_FALSE((LogSelection{{}, {"sm_a"}, {}}.wants(line)));
  line.level.reset();
  EXPECT_TRUE((LogSelection{LogLevel::notice, {}, {}}.wants(line)));
  EXPECT_FALSE((LogSelection{LogLevel::warning, {}, {}}.wants(line)));
}

TEST_F(LogLines, HaveLevelsWithNamesOfTheirOwn) {
  for (const char* name : {"error", "warning", "notice", "info", "debug"}) {
    EXPECT_EQ(nameOf(*logLevelNamed(name)), name);
  }
  EXPECT_EQ(logLevelNamed("err"), std::nullopt);
  EXPECT_EQ(logLevelNamed("E"), std::nullopt);
}

}  // namespace
}  // namespace tessard
