#include <unistd.h>

#include "platform/ServiceStatus.h"
#include "tests/host/CheckFixtures.h"

namespace tessard {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kJabber = "org.jabber.jabberd_notification";
constexpr const char* kPubsub = "com.velto.Beaconry";

// A systemctl that answers from files named after the units, and a scan directory for s6.
class UnitsCheck : public CheckTest {
 protected:
  UnitsCheck() {
    configuration.serviceManager = "systemd";
    root.write("/usr/bin/systemctl",
               "#!/bin/sh\nfor last; do :; done\n"
               "cat \"$TESSARD_ROOT/units/$last\" 2>/dev/null || printf "
               "'LoadState=not-found\\nActiveState=inactive\\n'\n");
    root.setMode("/usr/bin/systemctl", 0755);
    for (const char* label : {kJabber, kPubsub, "tessard-saslauthd"})
      unit(label, "loaded", "active", "enabled");
  }

  void unit(const std::string& label, const std::string& load, const std::string& active,
            const std::string& file, const std::string& dropIns = "") {
    root.write("/units/" + label + ".service", "LoadState=" + load + "\nActiveState=" + active +
                                                   "\nUnitFileState=" + file + "\nDropInPaths=" + dropIns +
                                                   "\n");
  }

  void publish(const std::string& label, const ServiceStatus& status) {
    PosixFileSystem files(root.path());
    ASSERT_TRUE(publishServiceStatus(files, label, status));
  }

  Finding only() {
    const auto findings = found(kUnitsArea);
    EXPECT_EQ(findings.size(), 1U);
    return findings.empty() ? Finding{"", {"nothing", Severity::notice}, "", "", ""} : findings[0];
  }
};

TEST_F(UnitsCheck, FindsNothingWhereAllRun) {
  EXPECT_THAT(found(kUnitsArea), IsEmpty());
}

TEST_F(UnitsCheck, FindsNothingWhereAllIsStopped) {
  unit(kJabber, "loaded", "inactive", "disabled");
  unit(kPubsub, "loaded", "inactive", "disabled");
  unit("tessard-saslauthd", "loaded", "inactive", "static");
  EXPECT_THAT(found(kUnitsArea), IsEmpty());
}

TEST_F(UnitsCheck, SaysThatThereIsNoServiceManager) {
  configuration.serviceManager = "";
  EXPECT_EQ(only().kind.id, "no-service-manager");
}

TEST_F(UnitsCheck, TellsWhatTheServiceManagerSaysInsteadOfAnAnswer) {
  root.write("/usr/bin/systemctl", "#!/bin/sh\necho 'Failed to connect to bus' >&2\nexit 1\n");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "service-manager-silent");
  EXPECT_THAT(finding.sentence, HasSubstr("Failed to connect to bus"));
}

TEST_F(UnitsCheck, FindsAUnitThatIsNotInstalled) {
  root.remove("/units/tessard-saslauthd.service");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "unit-unknown");
  EXPECT_EQ(finding.subject, "tessard-saslauthd");
}

TEST_F(UnitsCheck, FindsAMaskedUnit) {
  unit("tessard-saslauthd", "masked", "inactive", "masked");
  EXPECT_EQ(only().kind.id, "unit-masked");
}

TEST_F(UnitsCheck, TellsWhyAServiceHasFailed) {
  unit(kJabber, "loaded", "failed", "enabled");
  unit(kPubsub, "loaded", "inactive", "disabled");
  publish(kJabber, {getpid(), "failed", "The component sm has ended with exit status 1.", {}});
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "unit-failed");
  EXPECT_THAT(finding.sentence, HasSubstr("has failed: The component sm has ended"));
}

TEST_F(UnitsCheck, FindsAUnitThatShouldRunAndOneThatShouldNot) {
  unit(kJabber, "loaded", "inactive", "enabled");
  unit(kPubsub, "loaded", "active", "disabled");
  EXPECT_THAT(foundIds(kUnitsArea), ElementsAre("unit-not-running", "unit-not-enabled", "services-apart"));
}

TEST_F(UnitsCheck, ShowsTheFilesThatChangeAUnitHere) {
  unit(kJabber, "loaded", "active", "enabled",
       "/usr/lib/systemd/system/service.d/all.conf /etc/systemd/system/" + std::string(kJabber) +
           ".service.d/a.conf");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "unit-overridden");
  EXPECT_THAT(finding.sentence, HasSubstr("/etc/systemd/system/"));
}

TEST_F(UnitsCheck, FindsDebiansOwnServiceBesideOurs) {
  unit("jabberd-c2s", "loaded", "active", "enabled");
  const Finding finding = only();
  EXPECT_EQ(finding.kind.id, "foreign-unit-runs");
  EXPECT_EQ(finding.subject, "jabberd-c2s");
  unit("jabberd-c2s", "loaded", "inactive", "disabled");
  root.write("/etc/systemd/system/jabberd-c2s.service.d/tessardd.conf", "[Unit]\nConditionPathExists=\n");
  EXPECT_EQ(only().kind.id, "foreign-unit-released");
}

TEST_F(UnitsCheck, FindsABridgeThatIsOnAndNotThere) {
  writeAs("/Library/Preferences/com.velto.Beaconry.plist", list("<key>korvbridgeEnabled</key><true/>"), 84, 0,
          0660);
  EXPECT_EQ(only().kind.id, "bridge-without-unit");
  unit("com.velto.KorvBridge", "loaded", "active", "enabled");
  EXPECT_THAT(found(kUnitsArea), IsEmpty());
}

TEST_F(UnitsCheck, AsksS6) {
  configuration.serviceManager = "s6";
  EXPECT_EQ(only().kind.id, "service-manager-silent");
  for (const char* label : {kJabber, kPubsub}) root.write(std::string("/run/service/") + label + "/down", "");
  EXPECT_THAT(foundIds(kUnitsArea), ElementsAre("unit-unknown"));
  root.makeDirectory("/run/service/tessard-saslauthd");
  EXPECT_THAT(found(kUnitsArea), IsEmpty());
  root.remove(std::string("/run/service/") + kJabber + "/down");
  EXPECT_EQ(only().kind.id, "unit-not-running");
}

}  // namespace
}  // namespace tessard
