#include "host/check/Checks.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr FindingKind kSmall = {"small", Severity::notice};
constexpr FindingKind kLarge = {"large", Severity::error};
constexpr std::array kKinds = {kSmall, kLarge};

// What hangs until it is let go.
class Gate {
 public:
  void pass() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
    --waiting_;
    changed_.notify_all();
  }
  void open() {
    std::unique_lock lock(mutex_);
    open_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return waiting_ == 0; });
    open_ = false;
  }
  int waiting() {
    const std::lock_guard lock(mutex_);
    return waiting_;
  }
  void awaitOne() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return waiting_ > 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

Gate gate;
std::atomic<int> runs = 0;

const CheckArea kHanging = {"hanging", "what hangs", 1, {}, [](CheckedSystem&, Findings&) { gate.pass(); }};
const CheckArea kQuick = {"quick", "what is quick", 30, kKinds, [](CheckedSystem&, Findings& findings) {
                            findings.add(kSmall, "a", "One.", "Do.");
                            findings.add(kLarge, "b", "Two.", "Do.");
                          }};
const CheckArea kClean = {"clean", "what is clean", 30, {}, [](CheckedSystem&, Findings&) { ++runs; }};
const CheckArea kThrowing = {"throwing", "what throws", 30, {}, [](CheckedSystem&, Findings&) {
                               throw std::runtime_error("it broke");
                             }};

class ChecksTest : public CheckTest {
 protected:
  Checks checks{configuration, plugins};

  std::vector<std::string> idsOf(const Dictionary& answer) {
    std::vector<std::string> ids;
    for (const Value& finding : *answer.arrayFor("findings")) {
      ids.push_back(*finding.asDictionary()->stringFor("id"));
    }
    return ids;
  }
  std::string worstOf(const Dictionary& answer) { return *answer.stringFor("worst"); }

  CheckWishes wishesFor(const std::string& only) {
    HttpRequest request;
    request.only = only;
    CheckWishes wishes;
    HttpAnswer refusal;
    EXPECT_TRUE(CheckWishes::read(request, wishes, refusal));
    return wishes;
  }
};

TEST_F(ChecksTest, TellTheWorstFindingsOfAnAreaFirst) {
  const Dictionary answer = checks.run({{&kQuick}});
  EXPECT_THAT(idsOf(answer), ElementsAre("large", "small"));
  EXPECT_EQ(worstOf(answer), "error");
}

TEST_F(ChecksTest, TellNothingWhereNothingIsWrong) {
  const Dictionary answer = checks.run({{&kClean}});
  EXPECT_THAT(idsOf(answer), IsEmpty());
  EXPECT_EQ(worstOf(answer), "none");
}

TEST_F(ChecksTest, DoNotWaitForAnAreaThatHangsNorBeginItTwice) {
  EXPECT_THAT(idsOf(checks.run({{&kHanging, &kQuick}})), ElementsAre("not-ended", "large", "small"));
  EXPECT_THAT(idsOf(checks.run({{&kHanging}})), ElementsAre("not-ended"));
  EXPECT_EQ(gate.waiting(), 1);
  gate.open();
}

TEST_F(ChecksTest, EndAtOnceWhenTheyAreStopped) {
  std::thread stopping([this] {
    gate.awaitOne();
    checks.stop();
  });
  EXPECT_THAT(idsOf(checks.run({{&kHanging}, 60})), ElementsAre("not-ended"));
  stopping.join();
  gate.open();
}

TEST_F(ChecksTest, TakeAnAreaThatFailsForAFinding) {
  EXPECT_THAT(idsOf(checks.run({{&kThrowing}})), ElementsAre("check-failed"));
}

TEST_F(ChecksTest, SayWhenFilesWereBeingChangedAllTheTime) {
  root.makeDirectory("/Library/Server/tessardd/journal/open");
  EXPECT_THAT(idsOf(checks.run({{&kQuick}})), ElementsAre("large", "small", "changed-meanwhile"));
}

TEST_F(ChecksTest, LookAgainOnlyWhereSomethingWasFound) {
  root.makeDirectory("/Library/Server/tessardd/journal/open");
  runs = 0;
  EXPECT_EQ(worstOf(checks.run({{&kClean}})), "none");
  EXPECT_EQ(runs, 1);
}

TEST_F(ChecksTest, TakeEachNamedAreaOnceInTheGivenOrder) {
  const CheckWishes wishes = wishesFor("xml,files,xml");
  EXPECT_THAT(wishes.areas, ElementsAre(&kXmlArea, &kFilesArea));
}

TEST_F(ChecksTest, ProposeTheAreaThatMayBeMeant) {
  HttpRequest request;
  CheckWishes wishes;
  HttpAnswer refusal;
  request.only = "files,secrts";
  EXPECT_FALSE(CheckWishes::read(request, wishes, refusal));
  EXPECT_EQ(refusal.status, 400U);
  EXPECT_THAT(refusal.body, testing::HasSubstr("unknown-area"));
  EXPECT_THAT(refusal.body, testing::HasSubstr("\\\"secrets\\\" may be meant"));
  request.only = "nonsense";
  EXPECT_FALSE(CheckWishes::read(request, wishes, refusal));
  EXPECT_THAT(refusal.body, testing::HasSubstr("the areas are files, xml"));
}

TEST_F(ChecksTest, TakeWholeSecondsWithinLimitsAlone) {
  HttpRequest request;
  HttpAnswer refusal;
  for (const char* text : {"0", "61", "-1", "1.5", "", "5s"}) {
    request.timeout = text;
    CheckWishes wishes;
    EXPECT_FALSE(CheckWishes::read(request, wishes, refusal)) << text;
  }
  request.timeout = "60";
  CheckWishes wishes;
  ASSERT_TRUE(CheckWishes::read(request, wishes, refusal));
  EXPECT_EQ(wishes.seconds, 60U);
}

TEST_F(ChecksTest, HaveIdsThatNoTwoAreasShare) {
  std::vector<std::string> ids;
  for (const CheckArea* area : checkAreas()) {
    for (const FindingKind& kind : area->kinds) ids.emplace_back(kind.id);
  }
  std::ranges::sort(ids);
  EXPECT_EQ(std::ranges::adjacent_find(ids), ids.end());
}

}  // namespace
}  // namespace tessard
