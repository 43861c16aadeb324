#include "host/ConnectionTable.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/Footprint.h"
#include "platform/FileDescriptor.h"

namespace tessard {
namespace {

using Phase = ConnectionTable::Phase;
using testing::HasSubstr;
using testing::StartsWith;

constexpr ConnectionTable::Owner kRoot{0, true};
constexpr ConnectionTable::Owner kAnn{1000, false};
constexpr ConnectionTable::Owner kBob{1001, false};
constexpr std::size_t kKibibyte = 1024;

// A client and the daemon's end of its connection.
class Client {
 public:
  Client() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return;
    ours_ = FileDescriptor(ends[0]);
    daemons_ = FileDescriptor(ends[1]);
  }

  int descriptor() const { return daemons_.get(); }

  // What the client has been sent; "open" when nothing was and the connection stands.
  std::string received() const {
    std::array<char, 4096> buffer{};
    const ssize_t count = recv(ours_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    return count < 0 ? "open" : std::string(buffer.data(), static_cast<std::size_t>(count));
  }

 private:
  FileDescriptor ours_;
  FileDescriptor daemons_;
};

class ConnectionTableTest : public testing::Test {
 protected:
  // A new connection in a phase; null when there is no place for it.
  std::unique_ptr<Client> come(ConnectionTable::Owner owner, Phase phase) {
    auto client = std::make_unique<Client>();
    if (!table_.admit(client->descriptor(), owner, moment_)) return nullptr;
    table_.enter(client->descriptor(), Phase::fresh);
    if (phase != Phase::fresh) table_.enter(client->descriptor(), phase);
    return client;
  }

  std::vector<std::unique_ptr<Client>> comeManyTimes(std::size_t count, ConnectionTable::Owner owner,
                                                     Phase phase) {
    std::vector<std::unique_ptr<Client>> clients(count);
    for (auto& client : clients) client = come(owner, phase);
    return clients;
  }

  void pass(std::chrono::seconds time) { moment_ = std::chrono::steady_clock::now() + time; }

  static ConnectionLimits limits() {
    ConnectionLimits limits;
    limits.all = 6;
    limits.user = 3;
    limits.root = 2;
    limits.userBytes = 100 * kKibibyte;
    return limits;
  }

  ConnectionTable::Moment moment_ = std::chrono::steady_clock::now();
  ConnectionTable table_{limits()};
};

TEST_F(ConnectionTableTest, LeavesConnectionsAloneWithinTheLimit) {
  const auto client = come(kAnn, Phase::fresh);
  pass(std::chrono::seconds(20));
  table_.endSlowConnections(moment_);
  EXPECT_EQ(client->received(), "open");
}

TEST_F(ConnectionTableTest, TellsSlowSendersAndEndsTheConnection) {
  const auto client = come(kAnn, Phase::reading);
  pass(std::chrono::seconds(40));
  table_.endSlowConnections(moment_);
  EXPECT_THAT(client->received(), StartsWith("HTTP/1.1 408 Request Timeout"));
  EXPECT_EQ(client->received(), "");
  table_.endSlowConnections(moment_);
}

TEST_F(ConnectionTableTest, EndsIdleConnectionsWithoutAWord) {
  const auto client = come(kAnn, Phase::between);
  pass(std::chrono::seconds(40));
  table_.endSlowConnections(moment_);
  EXPECT_EQ(client->received(), "");
}

TEST_F(ConnectionTableTest, NeverEndsAConnectionWhoseRequestIsAtWork) {
  const auto client = come(kAnn, Phase::working);
  pass(std::chrono::seconds(1'000'000));
  table_.endSlowConnections(moment_);
  EXPECT_EQ(client->received(), "open");
}

TEST_F(ConnectionTableTest, LeavesAConnectionAloneThatTheServerDoesNotServeYet) {
  const Client client;
  ASSERT_TRUE(table_.admit(client.descriptor(), kAnn, moment_));
  pass(std::chrono::seconds(40));
  table_.endSlowConnections(moment_);
  EXPECT_FALSE(table_.endOne(moment_));
  EXPECT_EQ(client.received(), "open");
}

TEST_F(ConnectionTableTest, CountsTheTimeOfAFirstRequestFromItsConnection) {
  const auto client = come(kAnn, Phase::fresh);
  const auto begun = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() < begun + std::chrono::milliseconds(20)) std::this_thread::yield();
  table_.enter(client->descriptor(), Phase::reading);
  table_.endSlowConnections(begun + std::chrono::seconds(30));
  EXPECT_THAT(client->received(), StartsWith("HTTP/1.1 408"));
}

TEST_F(ConnectionTableTest, ForgetsWhatIsRemoved) {
  const auto client = come(kAnn, Phase::fresh);
  EXPECT_EQ(table_.size(), 1U);
  EXPECT_EQ(table_.requesterOf(client->descriptor()).user, kAnn.user);
  table_.remove(client->descriptor());
  table_.enter(client->descriptor(), Phase::reading);
  EXPECT_EQ(table_.size(), 0U);
  EXPECT_EQ(table_.requesterOf(client->descriptor()).user, kRoot.user);
  pass(std::chrono::seconds(40));
  table_.endSlowConnections(moment_);
  EXPECT_EQ(client->received(), "open");
}

TEST_F(ConnectionTableTest, GivesOneUserNoMoreThanItsPlaces) {
  const auto clients = comeManyTimes(3, kAnn, Phase::working);
  EXPECT_EQ(come(kAnn, Phase::fresh), nullptr);
  EXPECT_NE(come(kBob, Phase::fresh), nullptr);
}

TEST_F(ConnectionTableTest, KeepsPlacesForRoot) {
  const auto anns = comeManyTimes(3, kAnn, Phase::working);
  const auto bobs = comeManyTimes(1, kBob, Phase::working);
  EXPECT_EQ(come(kBob, Phase::fresh), nullptr);
  const auto roots = comeManyTimes(2, kRoot, Phase::working);
  EXPECT_NE(roots[0], nullptr);
  EXPECT_NE(roots[1], nullptr);
  EXPECT_EQ(come(kRoot, Phase::fresh), nullptr);
}

TEST_F(ConnectionTableTest, KeepsAPlaceForRootHoweverFewThereAre) {
  ConnectionLimits few;
  few.all = 1;
  ConnectionTable table(few);
  const Client ann;
  const Client ann2;
  const Client root;
  EXPECT_TRUE(table.admit(ann.descriptor(), kAnn, moment_));
  EXPECT_FALSE(table.admit(ann2.descriptor(), kAnn, moment_));
  EXPECT_TRUE(table.admit(root.descriptor(), kRoot, moment_));
}

TEST_F(ConnectionTableTest, TheOldestIdleConnectionGivesWay) {
  const auto working = come(kAnn, Phase::working);
  const auto older = come(kAnn, Phase::between);
  const auto younger = come(kAnn, Phase::between);
  const auto first = come(kAnn, Phase::fresh);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(older->received(), "");
  EXPECT_EQ(younger->received(), "open");
  EXPECT_EQ(working->received(), "open");
  const auto second = come(kAnn, Phase::fresh);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(younger->received(), "");
  EXPECT_EQ(come(kAnn, Phase::fresh), nullptr);
}

TEST_F(ConnectionTableTest, ASilentOneGivesWayAfterAMomentAndASlowOneLater) {
  const auto slow = come(kAnn, Phase::reading);
  const auto silent = come(kAnn, Phase::fresh);
  const auto answering = come(kAnn, Phase::answering);
  EXPECT_EQ(come(kAnn, Phase::fresh), nullptr);
  pass(std::chrono::seconds(2));
  const auto second = come(kAnn, Phase::working);
  ASSERT_NE(second, nullptr);
  EXPECT_THAT(silent->received(), HasSubstr("timed-out"));
  EXPECT_EQ(come(kAnn, Phase::fresh), nullptr);
  pass(std::chrono::seconds(6));
  const auto third = come(kAnn, Phase::working);
  ASSERT_NE(third, nullptr);
  EXPECT_THAT(slow->received(), HasSubstr("timed-out"));
  EXPECT_EQ(answering->received(), "open");
}

TEST_F(ConnectionTableTest, AUserWithFewerTakesThePlaceOfAUserWithMore) {
  const auto anns = comeManyTimes(3, kAnn, Phase::between);
  const auto bob = come(kBob, Phase::between);
  const auto second = come(kBob, Phase::between);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(anns[0]->received(), "");
  EXPECT_EQ(bob->received(), "open");
  // Two each now.
  const auto other = come({1002, false}, Phase::fresh);
  EXPECT_NE(other, nullptr);
  EXPECT_EQ(anns[1]->received(), "");
}

TEST_F(ConnectionTableTest, ThoseThatEndAreNotWithoutLimit) {
  std::vector<std::unique_ptr<Client>> clients;
  std::size_t admitted = 0;
  for (int turn = 0; turn < 100; ++turn) {
    clients.push_back(come(kAnn, Phase::between));
    if (clients.back()) ++admitted;
  }
  EXPECT_EQ(admitted, 2 * limits().all);
  EXPECT_EQ(table_.size(), 2 * limits().all);
}

TEST_F(ConnectionTableTest, ADescriptorThatComesAgainIsANewConnection) {
  const Client client;
  for (int turn = 0; turn < 10; ++turn) EXPECT_TRUE(table_.admit(client.descriptor(), kAnn, moment_));
  EXPECT_EQ(table_.size(), 1U);
}

TEST_F(ConnectionTableTest, OneUsersRequestsHoldOnlySoMuchMemory) {
  const auto clients = comeManyTimes(3, kAnn, Phase::reading);
  const auto bob = come(kBob, Phase::reading);
  const auto root = come(kRoot, Phase::reading);
  const auto hold = [&](const auto& client, std::size_t kibibytes) {
    return table_.hold(client->descriptor(), kibibytes * kKibibyte);
  };
  EXPECT_TRUE(hold(clients[0], 500));  // alone
  EXPECT_FALSE(hold(bob, 1));          // all users together
  EXPECT_TRUE(hold(clients[0], 60));
  EXPECT_FALSE(hold(clients[1], 41));
  EXPECT_TRUE(hold(clients[1], 40));
  EXPECT_TRUE(hold(bob, 100));
  EXPECT_FALSE(hold(clients[2], 1));
  EXPECT_TRUE(hold(root, 1000));
  EXPECT_FALSE(table_.mayBeAnswered(clients[2]->descriptor()));
  EXPECT_TRUE(table_.mayBeAnswered(root->descriptor()));
  table_.enter(clients[0]->descriptor(), Phase::between);
  EXPECT_TRUE(table_.mayBeAnswered(clients[2]->descriptor()));
  EXPECT_TRUE(hold(clients[2], 1));
  table_.holdAnswer(clients[2]->descriptor(), 200 * kKibibyte);
  EXPECT_TRUE(table_.mayBeAnswered(clients[2]->descriptor()));
  EXPECT_FALSE(table_.mayBeAnswered(clients[1]->descriptor()));
}

TEST(Footprint, IsThatOfEveryValueAndText) {
  EXPECT_EQ(footprintOf({}), 0U);
  const Dictionary many = {{"list", Array(1000, Value(0))}};
  EXPECT_GE(footprintOf(many), 1000 * sizeof(Value));
  const Dictionary nested = {{"a", Array{Dictionary{{"b", std::string(5000, 'x')}, {"c", Data{"123"}}}}}};
  EXPECT_GE(footprintOf(nested), 5003U);
  EXPECT_LT(footprintOf(nested), 7000U);
}

}  // namespace
}  // namespace tessard
