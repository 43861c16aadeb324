#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "host/FileLimit.h"
#include "host/HostConfiguration.h"
#include "host/HttpMessage.h"
#include "host/Networks.h"
#include "host/PeerCheck.h"
#include "host/RefusalLog.h"
#include "host/RequestLog.h"
#include "host/ServiceManagers.h"
#include "host/ctl/CtlArguments.h"
#include "host/ctl/UnixHttpClient.h"
#include "platform/FileDescriptor.h"
#include "platform/OfflineNetwork.h"
#include "platform/OfflineServiceManager.h"
#include "platform/S6ServiceManager.h"
#include "platform/SystemdServiceManager.h"
#include "platform/network/LinuxNetwork.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(HostConfiguration, IsLeftAsItWasByAFaultyText) {
  HostConfiguration configuration;
  const auto applied = applyConfigurationText(configuration, "connections = 9\nnonsense\n", "x.conf");
  ASSERT_FALSE(applied.ok());
  EXPECT_EQ(applied.error().description(), "x.conf, line 2: a line must have the form \"key = value\"");
  EXPECT_EQ(configuration.maximumConnections, HostConfiguration().maximumConnections);
}

TEST(HostConfiguration, KnowsEverySettingOfTheHelp) {
  HostConfiguration configuration;
  const auto applied = applyConfigurationText(configuration,
                                              "socket = /a = b\n"
                                              "admin-group=wheel\n"
                                              "bundles = /b\n"
                                              "programs = /p\n"
                                              "service-manager = s6\n"
                                              "s6-scan-directory = /s\n"
                                              "port-mapping = auto\n"
                                              "idle-seconds = 0\n"
                                              "request-seconds = 2\n"
                                              "queue-seconds = 3\n"
                                              "connections = 4\n"
                                              "user-connections = 3\n"
                                              "root-connections = 2\n"
                                              "user-mebibytes = 7\n"
                                              "network-quiet-seconds = 5",
                                              "x.conf");
  ASSERT_TRUE(applied.ok()) << applied.error().description();
  EXPECT_EQ(configuration.socketPath, "/a = b");
  EXPECT_EQ(configuration.adminGroup, "wheel");
  EXPECT_EQ(configuration.bundlesDirectory, "/b");
  EXPECT_EQ(configuration.programsDirectory, "/p");
  EXPECT_EQ(configuration.serviceManager, "s6");
  EXPECT_EQ(configuration.s6ScanDirectory, "/s");
  EXPECT_EQ(configuration.portMapping, "auto");
  EXPECT_EQ(configuration.idleSeconds, 0U);
  EXPECT_EQ(configuration.requestSeconds, 2U);
  EXPECT_EQ(configuration.queueSeconds, 3U);
  EXPECT_EQ(configuration.maximumConnections, 4U);
  EXPECT_EQ(configuration.maximumUserConnections, 3U);
  EXPECT_EQ(configuration.rootConnections, 2U);
  EXPECT_EQ(configuration.userMebibytes, 7U);
  EXPECT_EQ(configuration.networkQuietSeconds, 5U);
}

TEST(HostConfiguration, TakesThreeServiceManagersAndNoOther) {
  HostConfiguration configuration;
  for (const std::string name : {"systemd", "s6", "none"}) {
    ASSERT_TRUE(applyConfigurationText(configuration, "service-manager = " + name, "x.conf"));
    EXPECT_EQ(configuration.serviceManager, name);
  }
  for (const std::string name : {"runit", "S6"}) {
    const auto applied = applyConfigurationText(configuration, "service-manager = " + name, "x.conf");
    ASSERT_FALSE(applied.ok());
    EXPECT_EQ(applied.error().description(),
              "x.conf, line 1: \"service-manager\" must be systemd, s6 or none, not \"" + name + "\"");
  }
  EXPECT_FALSE(applyConfigurationText(configuration, "service-manager =", "x.conf"));
  EXPECT_FALSE(applyConfigurationText(configuration, "s6-scan-directory = run", "x.conf"));
}

TEST(HostConfiguration, MapsPortsByThreeMethodsAndByItselfNot) {
  HostConfiguration configuration;
  EXPECT_EQ(configuration.portMapping, "off");
  for (const std::string name : {"natpmp", "upnp", "auto", "off"}) {
    const auto line = readCommandLine({"--root", "/nowhere", "--port-mapping", name});
    ASSERT_TRUE(line.ok());
    EXPECT_EQ(line.value().configuration.portMapping, name);
  }
  for (const std::string name : {"on", "UPNP", "pcp"}) {
    const auto applied = applyConfigurationText(configuration, "port-mapping = " + name, "x.conf");
    ASSERT_FALSE(applied.ok());
    EXPECT_EQ(applied.error().description(),
              "x.conf, line 1: \"port-mapping\" must be off, natpmp, upnp or auto, not \"" + name + "\"");
  }
  EXPECT_FALSE(applyConfigurationText(configuration, "port-mapping =", "x.conf"));
  EXPECT_EQ(configuration.portMapping, "off");
}

class ServiceManagerChoice : public testing::Test {
 protected:
  TestPlatform test;
  HostConfiguration configuration;

  template <class Manager>
  bool isChosen() {
    const auto manager =
        chooseServiceManager(configuration, test.files, test.tasks, test.tasks, test.clock, test.log);
    return dynamic_cast<Manager*>(manager.get()) != nullptr;
  }
};

TEST_F(ServiceManagerChoice, FollowsTheConfiguration) {
  configuration.serviceManager = "systemd";
  EXPECT_TRUE(isChosen<SystemdServiceManager>());
  configuration.serviceManager = "s6";
  EXPECT_TRUE(isChosen<S6ServiceManager>());
  configuration.serviceManager = "none";
  EXPECT_TRUE(isChosen<OfflineServiceManager>());
}

TEST_F(ServiceManagerChoice, IsSystemdByItselfOnlyWhereItRunsAndOnTheMachinesRoot) {
  configuration.root = "/srv/scratch";
  EXPECT_TRUE(isChosen<OfflineServiceManager>());
  configuration.root = "/";
  EXPECT_EQ(isChosen<SystemdServiceManager>(), access("/run/systemd/system", F_OK) == 0);
}

TEST(NetworkChoice, OnlyADaemonOnTheMachinesRootAsksTheMachinesNetwork) {
  TestPlatform test;
  HostConfiguration configuration;
  const auto machines = chooseNetwork(configuration, test.files, test.tasks, test.log, test.log);
  EXPECT_TRUE(dynamic_cast<LinuxNetwork*>(machines.get()));
  configuration.root = "/srv/scratch";
  const auto scratch = chooseNetwork(configuration, test.files, test.tasks, test.log, test.log);
  EXPECT_TRUE(dynamic_cast<OfflineNetwork*>(scratch.get()));
}

TEST(PeerCheck, LetsRootTheDaemonsOwnUserAndMembersIn) {
  const PeerCheck peers(gid_t{50});
  EXPECT_TRUE(peers.mayConnect({0, 7, {}}));
  EXPECT_TRUE(peers.mayConnect({geteuid(), 7, {}}));
  EXPECT_TRUE(peers.mayConnect({12345, 50, {}}));
  EXPECT_TRUE(peers.mayConnect({12345, 7, {8, 50, 9}}));
  EXPECT_FALSE(peers.mayConnect({12345, 7, {8, 0, 9}}));
}

TEST(PeerCheck, HasNoMembersWithoutAGroup) {
  const PeerCheck peers(std::nullopt);
  EXPECT_TRUE(peers.mayConnect({0, 0, {}}));
  EXPECT_FALSE(peers.mayConnect({12345, 0, {0}}));
}

TEST(PeerCheck, ReadsThePeerOfASocketAndNothingElse) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const FileDescriptor first(ends[0]);
  const FileDescriptor second(ends[1]);
  const auto peer = peerOf(first.get());
  ASSERT_TRUE(peer.ok());
  EXPECT_EQ(peer.value().user, geteuid());
  EXPECT_EQ(peer.value().group, getegid());
  const FileDescriptor noSocket(eventfd(0, EFD_CLOEXEC));
  EXPECT_EQ(peerOf(noSocket.get()).error().code(), ENOTSOCK);
  EXPECT_EQ(peerOf(-1).error().code(), EBADF);
}

TEST(PeerCheck, FindsGroupsByName) {
  EXPECT_EQ(groupNamed("root"), gid_t{0});
  EXPECT_EQ(groupNamed("no-such-group"), std::nullopt);
}

class SilentSyslog : public Syslog {
 public:
  void write(int /*priority*/, const char* /*format*/, const std::string& /*line*/) override {}
};

class CountingObserver : public LogObserver {
 public:
  void logged(int /*level*/, std::string_view /*message*/) override { ++count; }
  int count = 0;
};

TEST(RequestLog, CollectsWarningsAndErrorsAndLetsTheObserverBeforeItSeeAll) {
  SilentSyslog syslog;
  CountingObserver observer;
  Log log{syslog, &observer};
  const Object object(log);
  {
    const RequestLog collected(log);
    object.logNotice_source("n", "");
    object.logWarning_source("w", "");
    object.logError_source("e", "");
    object.logDebug_source("d", "");
    const Array expected = {Dictionary{{"level", "warning"}, {"message", "w"}},
                            Dictionary{{"level", "error"}, {"message", "e"}}};
    EXPECT_EQ(collected.lines(), expected);
  }
  object.logError_source("after", "");
  EXPECT_EQ(observer.count, 5);
  EXPECT_EQ(log.observer, &observer);
}

TEST(RequestLog, CountsLinesBeyondItsLimit) {
  SilentSyslog syslog;
  Log log{syslog};
  const Object object(log);
  const RequestLog collected(log);
  for (std::size_t line = 0; line < RequestLog::kLineLimit + 5; ++line) object.logWarning_source("w", "");
  const Array lines = collected.lines();
  ASSERT_EQ(lines.size(), RequestLog::kLineLimit + 1);
  EXPECT_EQ(*lines.back().asDictionary()->stringFor("message"), "5 further lines are in the system log only");
}

TEST(HttpMessage, IsReadBackByTheClient) {
  ClientReply reply;
  ASSERT_TRUE(parseReply(wholeMessage(errorAnswer(403, "refused", "No.")), reply));
  EXPECT_EQ(reply.status, 403);
  EXPECT_EQ(reply.body, "{\"error\":\"refused\",\"message\":\"No.\"}\n");
}

TEST(HttpMessage, TellsWhenToTryAgainWhereThatMayHelp) {
  EXPECT_THAT(wholeMessage(errorAnswer(503, "busy", "No.")), HasSubstr("\r\nRetry-After: 1\r\n"));
  EXPECT_THAT(wholeMessage(errorAnswer(403, "refused", "No.")), Not(HasSubstr("Retry-After")));
}

TEST(FileLimit, IsRaisedToWhatIsNeededAndNeverLowered) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{64, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  EXPECT_EQ(raiseFileLimit(100), 100U);
  rlimit now{};
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
  EXPECT_EQ(now.rlim_cur, 100U);
  EXPECT_GE(raiseFileLimit(50), 50U);
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &now), 0);
  EXPECT_EQ(now.rlim_cur, 100U);
  EXPECT_EQ(raiseFileLimit(before.rlim_max + 1), before.rlim_max);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST(RefusalLog, TellsOfTheFirstAndThenHowManyThereWere) {
  std::vector<std::string> told;
  RefusalLog log([&](const std::string& sentence) { told.push_back(sentence); });
  const auto begin = std::chrono::steady_clock::now();
  log.refused("Refused one.", begin);
  for (int number = 0; number < 1000; ++number) log.refused("Refused another.", begin);
  EXPECT_THAT(told, testing::ElementsAre("Refused one."));
  EXPECT_TRUE(log.isPending());
  log.tick(begin + RefusalLog::kQuiet);
  EXPECT_THAT(told, testing::ElementsAre("Refused one.", "Refused 1000 further connections."));
  EXPECT_FALSE(log.isPending());
  log.tick(begin + 2 * RefusalLog::kQuiet);
  EXPECT_EQ(told.size(), 2U);
  log.refused("Refused anew.", begin + 2 * RefusalLog::kQuiet);
  EXPECT_EQ(told.back(), "Refused anew.");
}

TEST(UnixHttpClient, RefusesWhatIsNoWholeAnswer) {
  const std::string whole = "HTTP/1.1 200 OK\r\nA: b\r\nContent-Length: 2\r\n\r\n{}";
  ClientReply reply;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_FALSE(parseReply(whole.substr(0, length), reply)) << length;
  }
  EXPECT_TRUE(parseReply(whole, reply));
  EXPECT_FALSE(parseReply("HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", reply));
  EXPECT_FALSE(parseReply("HTTP/1.1 xyz OK\r\nContent-Length: 0\r\n\r\n", reply));
  EXPECT_FALSE(parseReply("HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n", reply));
  EXPECT_FALSE(parseReply("HTTP/1.1 200 OK\r\nX: 1\r\n\r\n", reply));
}

TEST(CtlArguments, TakesOptionsAnywhereUntilTwoDashes) {
  bool json = false;
  const auto parsed =
      parseCtlArguments({"a", "--json", "--socket=/s", "-", "--plugin", "p", "--", "--help"}, json);
  ASSERT_TRUE(parsed.ok());
  EXPECT_TRUE(json && parsed.value().json);
  EXPECT_FALSE(parsed.value().help);
  EXPECT_EQ(parsed.value().socketPath, "/s");
  EXPECT_EQ(parsed.value().plugin, "p");
  EXPECT_THAT(parsed.value().words, testing::ElementsAre("a", "-", "--help"));
}

}  // namespace
}  // namespace tessard
