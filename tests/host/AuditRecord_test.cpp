#include "host/AuditRecord.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "host/JsonCodec.h"

namespace tessard {
namespace {

constexpr Requester kRoot{0, 4711};

ExecutionOutcome answered(Dictionary answer) {
  ExecutionOutcome outcome;
  outcome.answer = std::move(answer);
  return outcome;
}

AuditedRequest settingsWrite(Dictionary given, Dictionary before) {
  return {"notification",
          "writeSettings",
          {{"command", "writeSettings"}, {"configuration", std::move(given)}},
          std::move(before)};
}

std::string lineFor(const AuditedRequest& audited, const ExecutionOutcome& outcome) {
  return auditLine(auditRecord(audited, kRoot, outcome));
}

TEST(AuditRecord, TellsWhoAskedForWhatAndWhatCameOfIt) {
  const AuditedRequest audited = {
      "notification", "setState", {{"command", "setState"}, {"state", "START"}}, {}};
  EXPECT_EQ(lineFor(audited, answered({{"state", "RUNNING"}})),
            R"(audit: {"user":"root","uid":0,"pid":4711,"plugin":"notification","command":"setState",)"
            R"("request":{"state":"START"},"state":"RUNNING","result":"done"})");
}

TEST(AuditRecord, LeavesOutTheNameOfAnAccountThatHasNone) {
  const Dictionary record = auditRecord({"notification", "initialSetup", {}, {}}, {4000000000U, 1}, {});
  EXPECT_FALSE(record.contains("user"));
  EXPECT_EQ(record.find("uid")->integerValue(), 4000000000);
}

TEST(AuditRecord, TellsOldAndNewValuesOfTheSettingsThatAreOtherOnesNow) {
  const auto audited = settingsWrite({{"authLevel", "STANDARD"}, {"jabberdS2SPort", 5268}, {"added", 1}},
                                     {{"authLevel", "ANYMETHOD"}, {"jabberdS2SPort", 5268}, {"gone", 1}});
  const auto outcome = answered(
      {{"configuration", Dictionary{{"authLevel", "STANDARD"}, {"jabberdS2SPort", 5268}, {"added", 1}}},
       {"writeStatus", 0}});
  EXPECT_EQ(serializeJson(*auditRecord(audited, kRoot, outcome).find("changed")),
            R"({"authLevel":{"old":"ANYMETHOD","new":"STANDARD"},"added":{"new":1}})");
}

TEST(AuditRecord, TellsAllSettingsThatAnUndoHasMadeOthers) {
  const AuditedRequest audited = {
      "notification",
      "undoSettings",
      {{"command", "undoSettings"}},
      Dictionary{{"authLevel", "STANDARD"}, {"jabberdS2SPort", 5268}, {"secret", "canary"}, {"gone", 1}}};
  const auto outcome = answered(
      {{"configuration",
        Dictionary{{"authLevel", "ANYMETHOD"}, {"jabberdS2SPort", 5268}, {"secret", "other"}, {"new", 2}}}});
  EXPECT_EQ(serializeJson(*auditRecord(audited, kRoot, outcome).find("changed")),
            R"({"authLevel":{"old":"STANDARD","new":"ANYMETHOD"},"secret":{"old":"***","new":"***"},)"
            R"("gone":{"old":1},"new":{"new":2}})");
  const Dictionary refused = auditRecord(audited, kRoot, answered({{"error", "CHANGED_SINCE_ERR"}}));
  EXPECT_TRUE(refused.dictionaryFor("changed")->empty());
  EXPECT_EQ(*refused.stringFor("result"), "CHANGED_SINCE_ERR");
}

TEST(AuditRecord, TellsNoChangeOfSettingsThatWereRefused) {
  const auto audited = settingsWrite({{"authLevel", "STANDARD"}}, {{"authLevel", "ANYMETHOD"}});
  const Dictionary record = auditRecord(audited, kRoot, answered({{"error", "INVALID_ARG_ERR"}}));
  EXPECT_TRUE(record.dictionaryFor("changed")->empty());
  EXPECT_EQ(*record.stringFor("result"), "INVALID_ARG_ERR");
}

TEST(AuditRecord, CountsTheErrorLinesOfTheRequest) {
  ExecutionOutcome outcome;
  outcome.log = {Dictionary{{"level", "warning"}, {"message", "one"}},
                 Dictionary{{"level", "error"}, {"message", "two"}}};
  EXPECT_EQ(auditRecord({}, kRoot, outcome).find("errors")->integerValue(), 1);
  EXPECT_FALSE(auditRecord({}, kRoot, {}).contains("errors"));
}

TEST(AuditRecord, NamesEveryWayInWhichARequestCanEnd) {
  ExecutionOutcome outcome;
  EXPECT_EQ(resultOf(outcome), "done");
  outcome.kind = ExecutionOutcome::Kind::unknownCommand;
  EXPECT_EQ(resultOf(outcome), "unknown-command");
  outcome.kind = ExecutionOutcome::Kind::noAnswer;
  EXPECT_EQ(resultOf(outcome), "no-answer");
  outcome.kind = ExecutionOutcome::Kind::failed;
  EXPECT_EQ(resultOf(outcome), "failed");
}

TEST(AuditRecord, HidesSecretsHoweverDeepTheyLie) {
  const auto audited = settingsWrite({{"secret", "new canary"},
                                      {"dbpass", "canary"},
                                      {"passPhrase", "canary"},
                                      {"list", Array{Dictionary{{"userPassword", "canary"}, {"port", 1}}}}},
                                     {{"secret", "old canary"}});
  const auto outcome = answered({{"configuration", audited.request.dictionaryFor("configuration")
                                                       ? *audited.request.dictionaryFor("configuration")
                                                       : Dictionary()}});
  const std::string line = lineFor(audited, outcome);
  EXPECT_EQ(line.find("canary"), line.npos) << line;
  EXPECT_NE(line.find(R"("secret":{"old":"***","new":"***"})"), line.npos) << line;
  EXPECT_NE(line.find(R"("list":{"new":[{"userPassword":"***","port":1}]})"), line.npos) << line;
}

TEST(AuditRecord, TellsBytesByTheirNumberAlone) {
  const AuditedRequest audited = {
      "keychain", "import", {{"file", Data{"0123456789"}}, {"passPhrase", "canary"}}, {}};
  const Dictionary record = auditRecord(audited, kRoot, {});
  EXPECT_EQ(serializeJson(*record.find("request")), R"({"file":"10 bytes","passPhrase":"***"})");
}

TEST(AuditRecord, IsOneLineWithoutControlCharacters) {
  const AuditedRequest audited = {"notification", "addService", {{"service", "a\nb\r\t\033[2J\x7f"}}, {}};
  for (const char each : lineFor(audited, {})) EXPECT_GE(static_cast<unsigned char>(each), ' ');
}

TEST(AuditRecord, CutsLongTextsBetweenTwoCharacters) {
  const AuditedRequest audited = {
      "notification", "addService", {{"service", std::string(199, 'a') + "ü" + "b"}}, {}};
  const Dictionary record = auditRecord(audited, kRoot, {});
  EXPECT_EQ(*record.dictionaryFor("request")->stringFor("service"), std::string(199, 'a') + "…");
}

TEST(AuditRecord, ShortensLongListsToATextAndManyEntriesToTheirNumber) {
  Dictionary given;
  for (int number = 0; number < 60; ++number) given.set("key" + std::to_string(number), number);
  given.set("key0", arrayOf(std::vector<std::string>(1000, "a.example.com")));
  const Dictionary record = auditRecord({"notification", "addService", given, {}}, kRoot, {});
  EXPECT_EQ(record.dictionaryFor("request")->size(), 50U);
  EXPECT_EQ(record.find("more")->integerValue(), 10);
  EXPECT_LT(record.dictionaryFor("request")->stringFor("key0")->size(), 210U);
  EXPECT_LT(auditLine(record).size(), 2000U);
}

TEST(AuditRecord, TellsAChangeOfAddressAsItWasAskedFor) {
  const AuditedRequest audited = {
      "notification",
      "writeSettings",
      {{"configuration", Dictionary{{"changeip", Dictionary{{"newHostName", "b.example"}}}}}},
      {}};
  const Dictionary record = auditRecord(audited, kRoot, {});
  EXPECT_EQ(serializeJson(*record.find("request")),
            R"({"configuration":{"changeip":{"newHostName":"b.example"}}})");
}

TEST(SettingsNamedIn, AreThoseOfASettingsWriteAlone) {
  const Dictionary request = {{"configuration", Dictionary{{"a", 1}, {"b", 2}}}};
  EXPECT_EQ(stringsOf(settingsNamedIn("writeSettings", request)), (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(settingsNamedIn("readSettings", request).empty());
  EXPECT_TRUE(settingsNamedIn("writeSettings", {}).empty());
}

}  // namespace
}  // namespace tessard
