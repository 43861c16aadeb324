// What every plug-in inherits: error answers and the reading of logs.

#include "common/PluginRequestHandler.h"

#include <gmock/gmock.h>

#include "common/Format.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// A plug-in that has logs and nothing else.
class LogHandler : public PluginRequestHandler {
 public:
  using PluginRequestHandler::PluginRequestHandler;

  std::optional<Dictionary> paths = Dictionary{{"LOG", "/var/log/x.log"}, {"NUMBER", 5}};

  Operation operationForCommand(std::string_view) override { return {}; }
  bool commandChangesState(std::string_view) override { return false; }
  int doIdleAtCount(int) override { return 0; }
  void didReceiveNetworkChangedNotification(const NetworkChangeContext&) override {}

 protected:
  std::optional<Dictionary> logPaths() override { return paths; }
};

struct TailedLogs : testing::Test {
  TestPlatform platform;
  LogHandler handler{platform};

  void write(const std::string& text) { platform.root.write("/var/log/x.log", text); }

  Dictionary tail(const Dictionary& more = {}) {
    Dictionary request{{"identifier", "LOG"}};
    request.updateWithDictionary(more);
    return handler.tailFileWithRequest(request);
  }

  void expectRefused(const Dictionary& request, const std::string& reason) {
    platform.log.clear();
    EXPECT_EQ(handler.tailFileWithRequest(request), (Dictionary{{"error", "INVALID_ARG_ERR"}}));
    EXPECT_THAT(platform.log.messages(kLogError), ElementsAre("log request refused: " + reason));
    EXPECT_THAT(platform.logs.queries, IsEmpty());
  }
  void expectRefusedWith(const char* key, const std::vector<Value>& values, const std::string& reason) {
    for (const Value& value : values) expectRefused({{"identifier", "LOG"}, {key, value}}, reason);
  }
};

std::vector<std::string> linesOf(const Dictionary& answer) {
  const Array* lines = answer.arrayFor("lines");
  return lines ? stringsOf(*lines) : std::vector<std::string>{"no lines"};
}

TEST_F(TailedLogs, AreAnsweredOldestFirstWithAPositionAndWhetherThatIsAll) {
  write("a\nb\n");
  const Dictionary answer = tail();
  EXPECT_THAT(linesOf(answer), ElementsAre("a", "b"));
  ASSERT_NE(answer.stringFor("position"), nullptr);
  EXPECT_EQ(answer, (Dictionary{{"lines", Array{"a", "b"}},
                                {"position", *answer.stringFor("position")},
                                {"complete", true},
                                {"more", false}}));
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(TailedLogs, GoOnFromThePositionOfAnEarlierAnswer) {
  write("a\nb\n");
  const Dictionary first = tail();
  write("a\nb\nc\nd\n");
  const Dictionary second = tail({{"position", *first.stringFor("position")}, {"lines", 1}});
  EXPECT_THAT(linesOf(second), ElementsAre("c"));
  EXPECT_EQ(*second.find("more"), Value(true));
  EXPECT_EQ(*second.find("complete"), Value(true));
}

TEST_F(TailedLogs, AreAskedForAsTheRequestSays) {
  write("");
  const LogQuery usual = [&] {
    tail();
    return platform.logs.queries.at(0);
  }();
  EXPECT_EQ(usual.path, "/var/log/x.log");
  EXPECT_EQ(usual.lines, 100U);
  EXPECT_EQ(usual.bytes, 1048576U);
  EXPECT_THAT(usual.filters, IsEmpty());
  EXPECT_EQ(usual.position, std::nullopt);
  EXPECT_EQ(usual.sender, std::nullopt);
  tail({{"lines", 0}, {"bytes", 4194304}, {"withFilters", Array{"x", ""}}});
  EXPECT_EQ(platform.logs.queries.at(1).lines, 0U);
  EXPECT_EQ(platform.logs.queries.at(1).bytes, 4194304U);
  EXPECT_THAT(platform.logs.queries.at(1).filters, ElementsAre("x", ""));
  // Digits count as the number that they are, and bytes alone do not limit the lines.
  tail({{"lines", "100000"}});
  EXPECT_EQ(platform.logs.queries.at(2).lines, 100000U);
  tail({{"bytes", "1"}});
  EXPECT_EQ(platform.logs.queries.at(3).lines, std::nullopt);
  EXPECT_EQ(platform.logs.queries.at(3).bytes, 1U);
  tail({{"position", "somewhere"}});
  EXPECT_EQ(platform.logs.queries.at(4).lines, std::nullopt);
  EXPECT_EQ(platform.logs.queries.at(4).position, "somewhere");
}

TEST_F(TailedLogs, SayWhatKeptLinesOutOfTheAnswer) {
  const std::vector<std::pair<LogGap, std::string>> words = {{LogGap::lines, "lines"},
                                                             {LogGap::bytes, "bytes"},
                                                             {LogGap::search, "search"},
                                                             {LogGap::unreadable, "unreadable"},
                                                             {LogGap::lost, "lost"}};
  for (const auto& [gap, word] : words) {
    platform.logs.answer = LogExcerpt{{}, "p", gap, false};
    EXPECT_EQ(
        tail(),
        (Dictionary{
            {"lines", Array{}}, {"position", "p"}, {"complete", false}, {"reason", word}, {"more", false}}));
  }
}

TEST_F(TailedLogs, AreFoundByTheirIdentifiersAlone) {
  write("x\n");
  expectRefused({}, "\"identifier\" must be a string");
  expectRefused({{"identifier", 5}}, "\"identifier\" must be a string");
  expectRefused({{"identifier", Array{"LOG"}}}, "\"identifier\" must be a string");
  for (const char* name : {"OTHER", "", "log", "/var/log/x.log", "../x.log", "LOG/../LOG", "NUMBER"}) {
    expectRefused({{"identifier", name}}, fill("there is no log \"%@\"", {name}));
  }
  // Nothing of these in a line of a log.
  for (const std::string& name : std::vector<std::string>{"LOG\n", "\033[2J", "gr\u00fcn",
                                                          std::string("LOG\0", 4), std::string(101, 'x')}) {
    expectRefused({{"identifier", name}}, "there is no log of that name");
  }
  handler.paths = std::nullopt;
  expectRefused({{"identifier", "LOG"}}, "there is no log \"LOG\"");
}

TEST_F(TailedLogs, AreNotReadWithLimitsThatAreNone) {
  const std::vector<Value> never = {-1,
                                    "-1",
                                    "",
                                    " 1",
                                    "1x",
                                    "0x1",
                                    1.0,
                                    true,
                                    Array{1},
                                    Dictionary{},
                                    std::int64_t{1} << 62,
                                    "999999999999999999999"};
  std::vector<Value> lines = never;
  lines.emplace_back(100001);
  std::vector<Value> bytes = never;
  bytes.emplace_back(0);
  bytes.emplace_back(4194305);
  expectRefusedWith("lines", lines, "\"lines\" must be a number from 0 to 100000");
  expectRefusedWith("bytes", bytes, "\"bytes\" must be a number from 1 to 4194304");
}

TEST_F(TailedLogs, AreNotReadWithFiltersThatAreNoStrings) {
  expectRefusedWith("withFilters", {"x", 1, Dictionary{}, Array{1}, Array{"x", Array{"y"}}, Array(101, "x")},
                    "\"withFilters\" must be a list of at most 100 strings");
}

TEST_F(TailedLogs, AreNotReadFromAPositionThatIsNone) {
  expectRefusedWith("position", {1, Array{}}, "\"position\" must be a string");
  EXPECT_EQ(tail({{"position", "somewhere"}}), (Dictionary{{"error", "INVALID_ARG_ERR"}}));
  EXPECT_TRUE(
      platform.log.has(kLogError, "log request refused: \"position\" is not one that an answer gave"));
}

TEST_F(TailedLogs, ThatCannotBeReadAreAnErrorWithItsReason) {
  EXPECT_EQ(tail(), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
  platform.root.makeDirectory("/var/log/x.log");
  EXPECT_EQ(tail(), (Dictionary{{"error", "CANNOT_STAT_ERR"}}));
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("the log /var/log/x.log cannot be read: No such file or directory",
                          "the log /var/log/x.log cannot be read: it is no regular file"));
}

TEST(PluginRequestHandler, HasNoLogsUnlessItSaysSo) {
  class Bare : public LogHandler {
   public:
    using LogHandler::LogHandler;

   protected:
    std::optional<Dictionary> logPaths() override { return PluginRequestHandler::logPaths(); }
  };
  TestPlatform platform;
  EXPECT_EQ(Bare(platform).tailFileWithRequest({{"identifier", "LOG"}}),
            (Dictionary{{"error", "INVALID_ARG_ERR"}}));
}

}  // namespace
}  // namespace tessard
