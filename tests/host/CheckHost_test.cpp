#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class HostCheck : public CheckTest {
 protected:
  bool isMachine = false;
  void prepare(CheckedSystem& system) override { system.isMachine = isMachine; }
};

TEST_F(HostCheck, FindsNothingWhereTheNameIsServedAndHasAnAddress) {
  EXPECT_THAT(found(kHostArea), IsEmpty());
}

TEST_F(HostCheck, FindsAMachineWithoutAName) {
  root.write("/etc/hostname", "localhost\n");
  EXPECT_THAT(foundIds(kHostArea), ElementsAre("host-name-missing"));
}

TEST_F(HostCheck, FindsANameWithoutAnAddress) {
  root.write("/etc/hosts", "127.0.0.1 localhost\n");
  EXPECT_THAT(foundIds(kHostArea), ElementsAre("host-name-unresolved"));
}

TEST_F(HostCheck, FindsADomainWithoutAnAddress) {
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id>push.example.com</id><id>other.example.com</id>");
  const auto findings = found(kHostArea);
  ASSERT_EQ(findings.size(), 1U);
  EXPECT_EQ(findings[0].kind.id, "domain-unresolved");
  EXPECT_EQ(findings[0].subject, "other.example.com");
}

TEST_F(HostCheck, SaysThatTheMachinesNameIsNotServed) {
  changeConfig("c2s.xml", "<id>push.example.com</id>", "<id>other.example.com</id>");
  root.write("/etc/hosts", "127.0.1.1 push.example.com other.example.com\n");
  EXPECT_THAT(foundIds(kHostArea), ElementsAre("host-name-not-served"));
}

TEST_F(HostCheck, FindsAListOfHostsThatCannotBeRead) {
  root.remove("/etc/hosts");
  root.makeDirectory("/etc/hosts");
  EXPECT_THAT(foundIds(kHostArea), Contains("hosts-unreadable"));
}

TEST_F(HostCheck, FindsThatTheRunningSystemHasAnotherName) {
  isMachine = true;
  root.write("/etc/hostname", "surely.not.this.machine.example\n");
  root.write("/etc/hosts", "192.0.2.7 surely.not.this.machine.example\n");
  const auto ids = foundIds(kHostArea);
  EXPECT_THAT(ids, Contains("host-names-differ"));
  EXPECT_THAT(ids, Contains("hosts-address-stale"));
}

TEST_F(HostCheck, DoesNotWaitForAResolverThatIsSilent) {
  const CheckArea* area = checkAreaNamed("host");
  ASSERT_NE(area, nullptr);
  Findings findings(area->name);
  CheckedSystem system(configuration, plugins, std::chrono::steady_clock::now() + std::chrono::seconds(60));
  system.isMachine = true;
  system.lookUp = [](const std::string& /*name*/, double /*seconds*/) { return std::nullopt; };
  area->examine(system, findings);
  std::vector<std::string> ids;
  for (const Finding& finding : findings.all()) ids.emplace_back(finding.kind.id);
  EXPECT_THAT(ids, Contains("resolver-slow").Times(1));
}

}  // namespace
}  // namespace tessard
