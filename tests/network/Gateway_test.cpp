// Port mapping against a real gateway, in networks of the test's own.

#include "platform/network/Gateway.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "common/Format.h"
#include "platform/PosixFileSystem.h"
#include "platform/network/KeptPorts.h"
#include "platform/network/LinuxNetwork.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/ScriptedTasks.h"

namespace tessard {
namespace {

using testing::HasSubstr;

constexpr std::uint16_t kPort = 5268;

// A machine in a local network, its gateway, and a host outside.
class GatewayTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
    machine_ = std::make_unique<NetworkNamespace>();
    gateway_ = std::make_unique<NetworkNamespace>();
    outside_ = std::make_unique<NetworkNamespace>();
    machine_->connect("up0", *gateway_, "lan0");
    gateway_->connect("wan0", *outside_, "far0");
    machine_->shell("ip address add 10.0.0.2/24 dev up0; ip route add default via 10.0.0.1");
    // A gateway whose outer address is of a range that is not routed maps nothing.
    outside_->shell("ip address add 45.0.0.2/24 dev far0");
    gateway_->shell(R"(ip address add 10.0.0.1/24 dev lan0
      ip address add 45.0.0.1/24 dev wan0
      echo 1 >/proc/sys/net/ipv4/ip_forward
      nft -f - <<'RULES'
table inet filter {
  chain forward { type filter hook forward priority 0; policy drop; ct state established,related accept; jump MINIUPNPD; }
  chain MINIUPNPD { }
  chain prerouting { type nat hook prerouting priority -100; jump PREROUTING_MINIUPNPD; }
  chain postrouting { type nat hook postrouting priority 100; jump POSTROUTING_MINIUPNPD; }
  chain PREROUTING_MINIUPNPD { }
  chain POSTROUTING_MINIUPNPD { }
}
RULES
)");
    stay_ = std::make_unique<NetworkNamespace::Stay>(*machine_);
  }

  void TearDown() override {
    stay_.reset();
    stopDaemon();
  }

  void startDaemon(const char* natPmp, const char* upnp) {
    root_.write("/miniupnpd.conf",
                fill("ext_ifname=wan0\nlistening_ip=lan0\nhttp_port=0\nenable_natpmp=%@\nenable_upnp=%@\n"
                     "upnp_nat_postrouting_chain=POSTROUTING_MINIUPNPD\nupnp_nat_chain=PREROUTING_MINIUPNPD\n"
                     "upnp_forward_chain=MINIUPNPD\nupnp_table_name=filter\nupnp_nat_table_name=filter\n"
                     "secure_mode=yes\nsystem_uptime=yes\nuuid=00000000-0000-0000-0000-000000000001\n"
                     "allow 1024-65535 0.0.0.0/0 1024-65535\ndeny 0-65535 0.0.0.0/0 0-65535\n",
                     {natPmp, upnp}));
    const NetworkNamespace::Stay inside(*gateway_);
    const std::string configuration = root_.hostPath("/miniupnpd.conf");
    const std::string pidFile = root_.hostPath("/miniupnpd.pid");
    // It ends with this program, however that ends.
    const char* const words[] = {"setpriv", "--pdeathsig",         "KILL", "/usr/sbin/miniupnpd", "-d",
                                 "-f",      configuration.c_str(), "-P",   pidFile.c_str(),       nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, root_.hostPath("/miniupnpd.log").c_str(),
                                     O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_adddup2(&actions, 2, 1);
    const int problem = posix_spawn(&daemon_, "/usr/bin/setpriv", &actions, nullptr,
                                    const_cast<char* const*>(words), environ);
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_EQ(problem, 0);
    // It listens for both before it answers either: 5351 and 1900.
    const std::string wanted = std::string(natPmp) == "yes" ? ":14E7" : ":076C";
    while (gateway_->shell("cat /proc/net/udp").find(wanted) == std::string::npos) {
      ASSERT_EQ(waitpid(daemon_, nullptr, WNOHANG), 0) << root_.read("/miniupnpd.log");
      poll(nullptr, 0, 10);
    }
  }

  void stopDaemon() {
    if (daemon_ <= 0) return;
    kill(daemon_, SIGTERM);
    waitpid(daemon_, nullptr, 0);
    daemon_ = 0;
  }

  std::string mappings() { return gateway_->shell("nft list chain inet filter PREROUTING_MINIUPNPD"); }
  bool isMapped() { return mappings().find("5268") != std::string::npos; }

  // Whether the host outside comes to a server of the machine through the gateway's own address.
  bool outsideComesIn() {
    const FileDescriptor server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int one = 1;
    setsockopt(server.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(kPort);
    EXPECT_EQ(bind(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(server.get(), 1), 0);
    const NetworkNamespace::Stay elsewhere(*outside_);
    const FileDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    inet_pton(AF_INET, "45.0.0.1", &address.sin_addr);
    if (connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
        errno != EINPROGRESS) {
      return false;
    }
    pollfd ready{client.get(), POLLOUT, 0};
    poll(&ready, 1, 60'000);
    int problem = 0;
    socklen_t size = sizeof problem;
    getsockopt(client.get(), SOL_SOCKET, SO_ERROR, &problem, &size);
    return problem == 0 && FileDescriptor(accept(server.get(), nullptr, nullptr));
  }

  std::unique_ptr<LinuxNetwork> network(MappingMethod method) {
    return std::make_unique<LinuxNetwork>(
        files, tasks, log,
        std::make_unique<PortMapper>(
            [method](std::uint16_t port, std::uint32_t lease) { return askGateway(method, port, lease); },
            [told = told_](const std::string&) { *told = true; }));
  }

  ScratchRoot root_;
  std::unique_ptr<NetworkNamespace> machine_;
  std::unique_ptr<NetworkNamespace> gateway_;
  std::unique_ptr<NetworkNamespace> outside_;
  std::unique_ptr<NetworkNamespace::Stay> stay_;
  pid_t daemon_ = 0;
  // Something was told between the requests.
  std::shared_ptr<std::atomic<bool>> told_ = std::make_shared<std::atomic<bool>>(false);
  PosixFileSystem files{root_.path()};
  ScriptedTasks tasks;
  RecordingLog log;
};

TEST_F(GatewayTest, NatPmpMapsAPortAndTakesItAway) {
  startDaemon("yes", "no");
  EXPECT_FALSE(outsideComesIn());
  EXPECT_EQ(askByNatPmp(kPort, 7200).code, 0);
  EXPECT_TRUE(isMapped()) << mappings();
  EXPECT_TRUE(outsideComesIn());
  EXPECT_EQ(askByNatPmp(kPort, 7200).text, "mapped by NAT-PMP for 7200 s");  // a renewal
  EXPECT_EQ(askByNatPmp(kPort, 0).code, 0);
  EXPECT_FALSE(isMapped()) << mappings();
  EXPECT_FALSE(outsideComesIn());
  EXPECT_EQ(askByNatPmp(kPort, 0).code, 0);
}

TEST_F(GatewayTest, UpnpMapsAPortAndTakesItAway) {
  startDaemon("no", "yes");
  EXPECT_EQ(askByUpnp(kPort, 7200).text, "mapped by UPnP for 7200 s");
  EXPECT_TRUE(isMapped()) << mappings();
  EXPECT_TRUE(outsideComesIn());
  EXPECT_EQ(askByUpnp(kPort, 7200).code, 0);
  EXPECT_EQ(askByUpnp(kPort, 0).text, "taken away by UPnP");
  EXPECT_FALSE(isMapped()) << mappings();
  EXPECT_EQ(askByUpnp(kPort, 0).text, "not mapped by UPnP");
}

TEST_F(GatewayTest, UpnpServesWhereNatPmpIsNotAnswered) {
  startDaemon("no", "yes");
  EXPECT_EQ(askGateway(MappingMethod::automatic, kPort, 7200).text, "mapped by UPnP for 7200 s");
  EXPECT_TRUE(isMapped()) << mappings();
  EXPECT_EQ(askGateway(MappingMethod::automatic, kPort, 0).code, 0);
  EXPECT_FALSE(isMapped()) << mappings();
}

TEST_F(GatewayTest, APortThatAnotherMachineHasIsRefusedAndStaysThatMachines) {
  startDaemon("yes", "yes");
  machine_->shell("ip address add 10.0.0.3/24 dev up0; ip route replace 10.0.0.0/24 dev up0 src 10.0.0.3");
  ASSERT_EQ(askByNatPmp(kPort, 7200).code, 0);
  const std::string theirs = mappings();
  EXPECT_THAT(theirs, HasSubstr("10.0.0.3"));
  machine_->shell("ip route replace 10.0.0.0/24 dev up0 src 10.0.0.2");
  EXPECT_EQ(askByNatPmp(kPort, 7200).code, EADDRINUSE);
  EXPECT_NE(askByUpnp(kPort, 7200).code, 0);
  EXPECT_EQ(askByNatPmp(kPort, 0).code, 0);
  EXPECT_EQ(askByUpnp(kPort, 0).code, 0);
  EXPECT_EQ(mappings(), theirs);
}

TEST_F(GatewayTest, TheNetworkMapsKeepsAndForgetsAPort) {
  startDaemon("yes", "no");
  {
    const auto first = network(MappingMethod::natPmp);
    EXPECT_EQ(first->ZtChangePortMappings(*first->ZtCreateSimplePortMappingsSet(kPort, 1, true)), 0);
    EXPECT_TRUE(log.has(kLogInfo, "Port 5268 is mapped by NAT-PMP for 7200 s."));
    EXPECT_THAT(readKeptPorts(files).value(), testing::ElementsAre(kPort));
  }
  EXPECT_TRUE(isMapped());
  stopDaemon();
  gateway_->shell("nft flush chain inet filter PREROUTING_MINIUPNPD");
  startDaemon("yes", "no");
  // The gateway has forgotten it; a new process has not.
  const auto second = network(MappingMethod::natPmp);
  // Not looked for at the gateway meanwhile: this thread would have to go there.
  while (!*told_) poll(nullptr, 0, 10);
  EXPECT_TRUE(isMapped());
  EXPECT_EQ(second->ZtChangePortMappings(*second->ZtCreateSimplePortMappingsSet(kPort, 1, false)), 0);
  EXPECT_FALSE(isMapped());
  EXPECT_THAT(readKeptPorts(files).value(), testing::IsEmpty());
}

TEST_F(GatewayTest, AGatewayThatMapsNothingIsAFailureThatIsExplained) {
  const auto first = network(MappingMethod::automatic);
  EXPECT_NE(first->ZtChangePortMappings(*first->ZtCreateSimplePortMappingsSet(kPort, 1, true)), 0);
  ASSERT_EQ(log.messages(kLogWarning).size(), 1U);
  EXPECT_THAT(log.messages(kLogWarning)[0],
              HasSubstr("Port 5268 cannot be mapped at the gateway: NAT-PMP: "));
  EXPECT_THAT(log.messages(kLogWarning)[0], HasSubstr("; UPnP: no gateway answers."));
}

TEST_F(GatewayTest, ASilentGatewayHoldsTheCallerForLessThanTenSeconds) {
  gateway_->shell("nft 'add chain inet filter in { type filter hook input priority 0; policy drop; }'");
  const auto silent = network(MappingMethod::automatic);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_NE(silent->ZtChangePortMappings(*silent->ZtCreateSimplePortMappingsSet(kPort, 1, true)), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));  // ten, and a slow machine
}

TEST_F(GatewayTest, OtherProtocolsThanTcpAreRefusedWithoutAsking) {
  const auto other = network(MappingMethod::natPmp);
  EXPECT_EQ(other->ZtChangePortMappings(*other->ZtCreateSimplePortMappingsSet(kPort, 2, true)),
            EPROTONOSUPPORT);
  EXPECT_EQ(log.messages(kLogWarning).size(), 1U);
}

TEST_F(GatewayTest, NothingIsSentWhereMappingIsOff) {
  startDaemon("yes", "yes");
  machine_->shell(
      "nft 'add table inet watch; add chain inet watch out { type filter hook output priority 0; }; "
      "add rule inet watch out meta l4proto { tcp, udp } counter'");
  LinuxNetwork off(files, tasks, log);
  const auto watched = [this] { return machine_->shell("nft list chain inet watch out"); };
  EXPECT_EQ(off.ZtChangePortMappings(*off.ZtCreateSimplePortMappingsSet(kPort, 1, true)), 0);
  EXPECT_EQ(off.ZtChangePortMappings(*off.ZtCreateSimplePortMappingsSet(kPort, 1, false)), 0);
  EXPECT_THAT(watched(), HasSubstr("counter packets 0 bytes 0"));
  EXPECT_FALSE(isMapped());
  EXPECT_FALSE(root_.exists(kKeptPortsFile));
  // The counter would have seen it.
  EXPECT_EQ(askByNatPmp(kPort, 7200).code, 0);
  EXPECT_THAT(watched(), testing::Not(HasSubstr("counter packets 0 ")));
}

}  // namespace
}  // namespace tessard
