#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Somebody who listens on a free port of the loopback address.
class Occupant {
 public:
  Occupant() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::listen(socket_.get(), 1), 0);
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    port = std::to_string(ntohs(address.sin_port));
  }
  std::string port;

 private:
  FileDescriptor socket_;
};

class PortsCheck : public CheckTest {
 protected:
  bool isMachine = false;
  void prepare(CheckedSystem& system) override { system.isMachine = isMachine; }

  void setPorts(const std::string& clients, const std::string& servers) {
    changeConfig("c2s.xml", "<port>5218<", "<port>" + clients + "<");
    changeConfig("s2s.xml", "<port>5268<", "<port>" + servers + "<");
  }
};

TEST_F(PortsCheck, FindsNothingInThePortsOfTheTemplates) {
  EXPECT_THAT(found(kPortsArea), IsEmpty());
}

TEST_F(PortsCheck, FindsWhatIsNoPort) {
  setPorts("52180", "70000");
  changeConfig("router.xml", "<port>5347<", "<port>5347 <");
  EXPECT_THAT(foundIds(kPortsArea), testing::Contains("port-invalid").Times(2));
}

TEST_F(PortsCheck, FindsThatNoClientCanConnect) {
  changeConfig("c2s.xml", "<port>5218<", "<port>0<");
  EXPECT_THAT(foundIds(kPortsArea), ElementsAre("no-client-port"));
  changeConfig("c2s.xml", "<!--<ssl-port>5219</ssl-port>-->", "<ssl-port>5219</ssl-port>");
  EXPECT_THAT(found(kPortsArea), IsEmpty());
}

TEST_F(PortsCheck, FindsTwoComponentsOnOnePort) {
  changeConfig("c2s.xml", "<!--<ssl-port>5219</ssl-port>-->", "<ssl-port>5218</ssl-port>");
  const auto findings = found(kPortsArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "ports-equal");
  EXPECT_THAT(findings[0].sentence, HasSubstr("c2s.local.port and c2s.local.ssl-port"));
  EXPECT_THAT(findings[0].remedy, HasSubstr("jabberdClientPortSSL"));
}

TEST_F(PortsCheck, LetsTwoComponentsShareAPortAtTwoAddresses) {
  changeConfig("c2s.xml", "<ip>0.0.0.0<", "<ip>127.0.0.2<");
  changeConfig("c2s.xml", "<port>5218<", "<port>5347<");
  EXPECT_THAT(found(kPortsArea),
              testing::Not(testing::Contains(testing::Field(&Finding::subject, testing::StrEq("5347")))));
}

TEST_F(PortsCheck, FindsAPortThatTheComponentsHaveNoRightTo) {
  setPorts("443", "5268 ");
  EXPECT_THAT(foundIds(kPortsArea), ElementsAre("port-privileged", "port-invalid"));
}

TEST_F(PortsCheck, FindsWhoLooksForTheRouterElsewhere) {
  changeConfig("router.xml", "<port>5347<", "<port>5348<");
  writeAs("/Library/Preferences/com.velto.Beaconry.plist", list("<key>rport</key><integer>5347</integer>"),
          84, 0, 0660);
  const auto findings = found(kPortsArea);
  ASSERT_EQ(findings.size(), 4U);
  for (const Finding& finding : findings) EXPECT_EQ(finding.kind.id, "router-port-differs");
  EXPECT_EQ(findings[3].subject, "/Library/Preferences/com.velto.Beaconry.plist");
}

TEST_F(PortsCheck, NamesTheProgramThatHasTakenAPort) {
  const Occupant occupant;
  setPorts(occupant.port, "0");
  EXPECT_THAT(found(kPortsArea), IsEmpty());
  isMachine = true;
  const auto findings = found(kPortsArea);
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings[0].kind.id, "port-taken");
  EXPECT_EQ(findings[0].subject, occupant.port);
  EXPECT_THAT(findings[0].sentence, HasSubstr("\"test_host\" (pid " + std::to_string(getpid()) + ")"));
  EXPECT_THAT(findings[0].remedy, HasSubstr("jabberdClientPortTLS"));
}

TEST_F(PortsCheck, LeavesAPortAtAnotherAddressAlone) {
  const Occupant occupant;
  changeConfig("c2s.xml", "<ip>0.0.0.0<", "<ip>127.0.0.2<");
  setPorts(occupant.port, "0");
  isMachine = true;
  EXPECT_THAT(found(kPortsArea),
              testing::Not(testing::Contains(testing::Field(&Finding::subject, occupant.port))));
}

}  // namespace
}  // namespace tessard
