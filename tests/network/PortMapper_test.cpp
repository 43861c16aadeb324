#include "platform/network/PortMapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>

#include "platform/network/KeptPorts.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::chrono::hours kNever{1000};

// A gateway that answers as the test says; may outlive the test, as the mapper's thread does.
class Gate {
 public:
  struct Question {
    std::uint16_t port;
    std::uint32_t lease;
    bool operator==(const Question&) const = default;
  };

  GatewayAnswer ask(std::uint16_t port, std::uint32_t lease) {
    std::unique_lock lock(mutex_);
    questions_.push_back({port, lease});
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    return answer_;
  }

  void tell(const std::string& sentence) {
    const std::lock_guard lock(mutex_);
    told_.push_back(sentence);
    changed_.notify_all();
  }

  void answerWith(GatewayAnswer answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }

  void setOpen(bool open) {
    const std::lock_guard lock(mutex_);
    open_ = open;
    changed_.notify_all();
  }

  std::vector<Question> awaitQuestions(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return questions_.size() >= count; });
    return questions_;
  }

  std::vector<std::string> awaitTold(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return told_.size() >= count; });
    return told_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = true;
  GatewayAnswer answer_{0, "mapped"};
  std::vector<Question> questions_;
  std::vector<std::string> told_;
};

class PortMapperTest : public testing::Test {
 protected:
  std::unique_ptr<PortMapper> mapper(std::chrono::milliseconds renewal, std::chrono::milliseconds patience) {
    return std::make_unique<PortMapper>(
        [gate = gate](std::uint16_t port, std::uint32_t lease) { return gate->ask(port, lease); },
        [gate = gate](const std::string& sentence) { gate->tell(sentence); },
        MappingTimes{7200, renewal, patience});
  }

  void TearDown() override { gate->setOpen(true); }

  const std::shared_ptr<Gate> gate = std::make_shared<Gate>();
};

TEST_F(PortMapperTest, AsksForALeaseAndTakesItAway) {
  const auto ports = mapper(kNever, kNever);
  EXPECT_EQ(ports->change(5268, true).code, 0);
  gate->answerWith({0, "taken away"});
  EXPECT_EQ(ports->change(5268, false).text, "taken away");
  EXPECT_THAT(gate->awaitQuestions(2), ElementsAre(Gate::Question{5268, 7200}, Gate::Question{5268, 0}));
}

TEST_F(PortMapperTest, HandsTheGatewaysRefusalOn) {
  const auto ports = mapper(kNever, kNever);
  gate->answerWith({718, "in use"});
  const GatewayAnswer answer = ports->change(5268, true);
  EXPECT_EQ(answer.code, 718);
  EXPECT_EQ(answer.text, "in use");
}

TEST_F(PortMapperTest, RenewsAMappingUntilItIsTakenAway) {
  const auto ports = mapper(std::chrono::milliseconds(1), kNever);
  EXPECT_EQ(ports->change(5268, true).code, 0);
  const auto questions = gate->awaitQuestions(4);
  EXPECT_EQ(std::count(questions.begin(), questions.end(), Gate::Question{5268, 7200}),
            std::ssize(questions));
  EXPECT_EQ(ports->change(5268, false).code, 0);
  EXPECT_EQ(gate->awaitQuestions(0).back(), (Gate::Question{5268, 0}));
  // Of another port only is asked from now on.
  const std::size_t before = gate->awaitQuestions(0).size();
  EXPECT_EQ(ports->change(9, true).code, 0);
  const auto later = gate->awaitQuestions(before + 5);
  EXPECT_EQ(
      std::count(later.begin() + static_cast<std::ptrdiff_t>(before), later.end(), Gate::Question{9, 7200}),
      std::ssize(later) - static_cast<std::ptrdiff_t>(before));
}

TEST_F(PortMapperTest, TellsWhenAMappingIsLostAndWhenItIsBack) {
  const auto ports = mapper(std::chrono::milliseconds(1), kNever);
  EXPECT_EQ(ports->change(5268, true).code, 0);
  gate->answerWith({ETIMEDOUT, "the gateway does not answer"});
  EXPECT_THAT(gate->awaitTold(1), ElementsAre("Port 5268 is no longer mapped: the gateway does not answer."));
  gate->answerWith({0, "mapped by NAT-PMP"});
  EXPECT_THAT(gate->awaitTold(2), ElementsAre(testing::_, "Port 5268 is mapped by NAT-PMP."));
}

TEST_F(PortMapperTest, AFailedMappingIsTriedAgain) {
  gate->answerWith({ENODEV, "no gateway"});
  const auto ports = mapper(std::chrono::milliseconds(1), kNever);
  EXPECT_EQ(ports->change(5268, true).code, ENODEV);
  gate->answerWith({0, "mapped"});
  EXPECT_THAT(gate->awaitTold(1), ElementsAre("Port 5268 is mapped."));
}

TEST_F(PortMapperTest, ASilentGatewayHoldsNobodyBeyondThePatience) {
  gate->setOpen(false);
  const auto ports = mapper(kNever, std::chrono::milliseconds(30));
  EXPECT_EQ(ports->change(5268, true).code, ETIMEDOUT);
  EXPECT_EQ(ports->change(5268, false).code, ETIMEDOUT);
  gate->setOpen(true);
  // What was wanted last is what the gateway is asked in the end.
  EXPECT_EQ(gate->awaitQuestions(2).back(), (Gate::Question{5268, 0}));
}

TEST_F(PortMapperTest, EndsAtOnceWhileAQuestionIsUnderWay) {
  gate->setOpen(false);
  auto ports = mapper(kNever, std::chrono::milliseconds(1));
  EXPECT_EQ(ports->change(5268, true).code, ETIMEDOUT);
  ports.reset();
}

TEST_F(PortMapperTest, KeepsPortsOfAnEarlierProcessWithoutWaiting) {
  gate->setOpen(false);
  const auto ports = mapper(kNever, kNever);
  ports->keep({5268, 5269});
  gate->awaitQuestions(1);
  gate->setOpen(true);
  EXPECT_THAT(gate->awaitQuestions(2),
              testing::UnorderedElementsAre(Gate::Question{5268, 7200}, Gate::Question{5269, 7200}));
  EXPECT_EQ(gate->awaitTold(2).size(), 2U);
}

TEST(KeptPorts, AreReadAsTheyWereWritten) {
  TestPlatform test;
  EXPECT_THAT(readKeptPorts(test.files).value(), IsEmpty());
  ASSERT_TRUE(writeKeptPorts(test.files, {5268, 65535}));
  EXPECT_THAT(readKeptPorts(test.files).value(), ElementsAre(5268, 65535));
  ASSERT_TRUE(writeKeptPorts(test.files, {}));
  EXPECT_THAT(readKeptPorts(test.files).value(), IsEmpty());
}

TEST(KeptPorts, AFileOfSomethingElseIsNotUsed) {
  TestPlatform test;
  for (const char* content :
       {"", "ports", "<plist><dict/></plist>",
        "<plist><dict><key>ports</key><array><integer>0</integer></array></dict></plist>",
        "<plist><dict><key>ports</key><array><integer>65536</integer></array></dict></plist>",
        "<plist><dict><key>ports</key><array><string>80</string></array></dict></plist>"}) {
    test.root.write(kKeptPortsFile, content);
    EXPECT_FALSE(readKeptPorts(test.files)) << content;
  }
}

}  // namespace
}  // namespace tessard
