#include "platform/network/LinuxNetwork.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/PosixFileSystem.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/ScriptedTasks.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LinuxNetwork, AsksTheMachinesResolver) {
  const ScratchRoot root;
  RecordingLog log;
  ScriptedTasks tasks;
  PosixFileSystem files(root.path());
  LinuxNetwork network(files, tasks, log);
  EXPECT_THAT(network.ZtGetAddressesForHostName("192.0.2.7", 60), ElementsAre("192.0.2.7"));
  EXPECT_THAT(network.ZtGetAddressesForHostName("", 60), IsEmpty());
  EXPECT_THAT(log.messages(), IsEmpty());
}

enum Finding : int { kAsExpected, kNotPrepared, kNotAsked, kAnswered, kTooLate, kNotLogged };

// The resolver gives up after two minutes; nothing but the time-out can end the question sooner than this.
constexpr std::chrono::seconds kLongBeforeTheResolver{60};

// For a thread of its own, which keeps a view of the files in which the only name server is a socket here
// that never answers.
Finding askASilentNameServer(const ScratchRoot& root) {
  const NetworkNamespace alone;
  const NetworkNamespace::Stay inside(alone);
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return kNotPrepared;
  }
  for (const char* name : {"/etc/resolv.conf", "/etc/nsswitch.conf"}) {
    if (mount(root.hostPath(name).c_str(), name, nullptr, MS_BIND, nullptr) != 0) return kNotPrepared;
  }
  const FileDescriptor server(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(53);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return kNotPrepared;

  RecordingLog log;
  ScriptedTasks tasks;
  PosixFileSystem files(root.path());
  LinuxNetwork network(files, tasks, log);
  const auto begin = std::chrono::steady_clock::now();
  if (!network.ZtGetAddressesForHostName("chat.example.com", 0.5).empty()) return kAnswered;
  if (std::chrono::steady_clock::now() - begin > kLongBeforeTheResolver) return kTooLate;
  char question = 0;
  if (recv(server.get(), &question, 1, MSG_TRUNC) <= 0) return kNotAsked;
  return log.has(kLogInfo, "The resolver did not answer in time for the host \"chat.example.com\".")
             ? kAsExpected
             : kNotLogged;
}

TEST(LinuxNetwork, ANameServerThatNeverAnswersHoldsTheCallerForNoLongerThanAllowed) {
  if (const auto reason = NetworkNamespace::whyImpossible()) GTEST_SKIP() << *reason;
  const ScratchRoot root;
  root.write("/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:30 attempts:4\n");
  root.write("/etc/nsswitch.conf", "passwd: files\ngroup: files\nhosts: files dns\n");
  Finding finding = kNotPrepared;
  std::thread([&] { finding = askASilentNameServer(root); }).join();
  EXPECT_EQ(finding, kAsExpected);
}

}  // namespace
}  // namespace tessard
