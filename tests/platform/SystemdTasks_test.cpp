#include "platform/SystemdTasks.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "tests/support/ScriptedTasks.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr const char* kRun = "/usr/bin/systemd-run";

class InAUnitOfItsOwn : public testing::Test {
 protected:
  // What stands behind "--" in the last call.
  std::vector<TaskArgument> command() const {
    const auto& all = scripted.calls.back().arguments;
    return {std::find(all.begin(), all.end(), TaskArgument::text("--")) + 1, all.end()};
  }

  ScriptedTasks scripted;
  SystemdTasks tasks{scripted, {{"nft", "CAP_NET_ADMIN"}, {"other", "CAP_KILL"}}};
};

TEST_F(InAUnitOfItsOwn, AProgramGetsOneCapabilityAndItsOwnArguments) {
  scripted.on(kRun, {0, "rules", ""});
  EXPECT_EQ(tasks.launch_task("/usr/sbin/nft", {TaskArgument::text("-j"), TaskArgument::path("/x")}).output,
            "rules");
  EXPECT_THAT(scripted.calls.back().arguments,
              Contains(TaskArgument::text("--property=CapabilityBoundingSet=CAP_NET_ADMIN")));
  EXPECT_THAT(command(), ElementsAre(TaskArgument::text("/usr/sbin/nft"), TaskArgument::text("-j"),
                                     TaskArgument::path("/x")));
}

TEST_F(InAUnitOfItsOwn, AProgramThatNeedsNoRightsIsNotRun) {
  scripted.on("/usr/bin/sqlite3", {0, "done", ""});
  EXPECT_EQ(tasks.launch_task("/usr/bin/sqlite3", {TaskArgument::text("-init")}).output, "done");
  EXPECT_THAT(scripted.calls.back().arguments, ElementsAre(TaskArgument::text("-init")));
  EXPECT_EQ(tasks.ZtRunTask("/usr/bin/nft-like", {}), 127);
  EXPECT_EQ(scripted.calls.back().program, "/usr/bin/nft-like");
}

TEST_F(InAUnitOfItsOwn, AProgramsStatusAndErrorsAreItsOwn) {
  scripted.on(kRun, {3, "", "no such table"});
  const TaskResult result = tasks.launch_task("/usr/sbin/nft", {});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.errorText, "no such table");
  EXPECT_EQ(tasks.ZtRunTask("/usr/sbin/nft", {}), 3);
}

TEST_F(InAUnitOfItsOwn, AProgramIsFedItsInput) {
  scripted.on(kRun, {0, "", ""});
  EXPECT_EQ(tasks.launch_task_with_input("/usr/sbin/nft", {}, "list ruleset").status, 0);
  EXPECT_EQ(scripted.calls.back().input, "list ruleset");
  EXPECT_THAT(command(), ElementsAre(TaskArgument::text("/usr/sbin/nft")));
}

}  // namespace
}  // namespace tessard
