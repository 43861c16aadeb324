#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class JabberConnections : public JabberTest {
 protected:
  Dictionary countIn(const std::string& table, int status = 0) {
    platform.tasks.on("/usr/sbin/netstat", {status, table, ""});
    return atom->getServiceConnectedUsers().value_or(Dictionary{});
  }
  static Dictionary counts(int total, int first, int second) {
    return {{"connUsersTotal", total}, {"connUsersPort1", first}, {"connUsersPort2", second}};
  }
};

TEST_F(JabberConnections, AreAskedForWithTheseArguments) {
  countIn("");
  ASSERT_THAT(platform.tasks.calls, SizeIs(1));
  const ScriptedTasks::Call& call = platform.tasks.calls.front();
  EXPECT_EQ(call.operation, "launch_task");
  EXPECT_EQ(call.program, "/usr/sbin/netstat");
  EXPECT_THAT(call.arguments,
              ElementsAre(TaskArgument::text("-n"), TaskArgument::text("-f"), TaskArgument::text("inet"),
                          TaskArgument::text("-p"), TaskArgument::text("TCP")));
}

TEST_F(JabberConnections, CountOnceForAnEstablishedLineOfTheClientPort) {
  EXPECT_EQ(countIn("tcp4 0 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED\n"), counts(1, 1, 0));
}

TEST_F(JabberConnections, CountInARealisticTable) {
  EXPECT_EQ(countIn("Active Internet connections\n"
                    "Proto Recv-Q Send-Q  Local Address          Foreign Address        (state)\n"
                    "tcp4       0      0  10.0.0.2.5218          10.0.0.9.50123         ESTABLISHED\n"
                    "tcp4       0      0  10.0.0.2.5218          10.0.0.9.50124         ESTABLISHED\n"
                    "tcp4       0      0  127.0.0.1.5347         127.0.0.1.40000        ESTABLISHED\n"
                    "tcp4       0      0  10.0.0.2.40001         10.0.0.7.5218          ESTABLISHED\n"
                    "tcp6       0      0  ::1.5218               ::1.50125              ESTABLISHED\n"
                    "tcp4       0      0  10.0.0.2.5218          10.0.0.9.50126         TIME_WAIT\n"
                    "tcp4       0      0  *.5218                 *.*                    LISTEN\n"
                    "udp4       0      0  10.0.0.2.5218          *.*\n"),
            counts(2, 2, 0));
}

TEST_F(JabberConnections, DoNotCountForOtherProtocolsStatesAndShortLines) {
  for (const char* line :
       {"tcp6 0 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED",
        "tcp4 0 0 10.0.0.2.5218 10.0.0.9.50123 TIME_WAIT", "tcp4 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED",
        "tcp4 0 0 10.0.0.2.5218 10.0.0.9.50123", "tcp4 0 0 10.0.0.2.5219 10.0.0.9.50123 ESTABLISHED",
        "tcp4 0 0 10.0.0.2.15218 10.0.0.9.50123 ESTABLISHED",
        "tcp4 0 0 10.0.0.2:5218 10.0.0.9:50123 ESTABLISHED",
        "xtcp4 0 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED",
        "tcp4\t0\t0\t10.0.0.2.5218\t10.0.0.9.50123\tESTABLISHED", "", "   "}) {
    EXPECT_EQ(countIn(line), counts(0, 0, 0)) << line;
  }
}

TEST_F(JabberConnections, CountWhenFirstAndSixthFieldOnlyBeginWithTheWords) {
  EXPECT_EQ(countIn("tcp46 0 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED_X more fields"), counts(1, 1, 0));
}

TEST_F(JabberConnections, CountForTheLastLineWithoutALineEnd) {
  EXPECT_EQ(countIn("\n\ntcp4 0 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED"), counts(1, 1, 0));
}

TEST_F(JabberConnections, CountAtTheSecondPortForAnAddressThatEndsInIt) {
  EXPECT_EQ(countIn("tcp4 0 0 10.0.0.2.0 10.0.0.9.50123 ESTABLISHED\n"), counts(1, 0, 1));
}

TEST_F(JabberConnections, AreNoneWhenTheProgramFailsOrSaysNothing) {
  EXPECT_EQ(countIn(""), counts(0, 0, 0));
  EXPECT_EQ(countIn("tcp4 0 0 10.0.0.2.5218 10.0.0.9.50123 ESTABLISHED\n", 1), counts(0, 0, 0));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(JabberConnections, AreNoneWhenTheProgramCannotBeStarted) {
  EXPECT_EQ(atom->getServiceConnectedUsers(), counts(0, 0, 0));
}

}  // namespace
}  // namespace tessard
