#include "platform/ServiceStatus.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "platform/PosixFileSystem.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/ScratchRoot.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class PublishedStatus : public testing::Test {
 protected:
  PublishedStatus() { EXPECT_TRUE(files.createDirectory("/run", {}, true)); }

  const ServiceStatus starting{12, "starting", "", {{"router", "ready", 13}, {"sm (sm.xml)", "waiting", 0}}};
  ScratchRoot root;
  PosixFileSystem files{root.path()};
};

TEST_F(PublishedStatus, ReadsAsItWasSaid) {
  ASSERT_TRUE(publishServiceStatus(files, "org.one", starting));
  const ServiceStatus failed{14, "failed", "A \"<&>\" sentence.", {}};
  ASSERT_TRUE(publishServiceStatus(files, "org.two", failed));
  EXPECT_THAT(readServiceStatuses(files), ElementsAre(Pair("org.one", starting), Pair("org.two", failed)));
}

TEST_F(PublishedStatus, TakesThePlaceOfTheEarlierOneAndLeavesNothingBeside) {
  ASSERT_TRUE(publishServiceStatus(files, "org.one", starting));
  const ServiceStatus running{12, "running", "", {}};
  ASSERT_TRUE(publishServiceStatus(files, "org.one", running));
  EXPECT_THAT(readServiceStatuses(files), ElementsAre(Pair("org.one", running)));
  EXPECT_THAT(files.listDirectory(kServiceStatusDirectory).value(), ElementsAre("org.one.plist"));
}

TEST_F(PublishedStatus, CanBeTakenBackMoreThanOnce) {
  ASSERT_TRUE(publishServiceStatus(files, "org.one", starting));
  EXPECT_TRUE(withdrawServiceStatus(files, "org.one"));
  EXPECT_TRUE(withdrawServiceStatus(files, "org.one"));
  EXPECT_THAT(readServiceStatuses(files), IsEmpty());
}

TEST_F(PublishedStatus, IsThereForEveryReader) {
  ASSERT_TRUE(publishServiceStatus(files, "org.one", starting));
  EXPECT_EQ(files.attributes("/run/tessard-services").value().permissions, 0755U);
  EXPECT_EQ(files.attributes("/run/tessard-services/org.one.plist").value().permissions, 0644U);
}

TEST_F(PublishedStatus, ThatCannotBeReadIsPassedOver) {
  ASSERT_TRUE(publishServiceStatus(files, "org.one", starting));
  root.write("/run/tessard-services/org.two.plist", "no list");
  root.write("/run/tessard-services/org.three.plist", "<plist><array/></plist>");
  root.write("/run/tessard-services/notes", "<plist><dict/></plist>");
  EXPECT_THAT(readServiceStatuses(files), ElementsAre(Pair("org.one", starting)));
}

TEST_F(PublishedStatus, StaysWhenTheNextCannotBeWritten) {
  ASSERT_TRUE(publishServiceStatus(files, "org.one", starting));
  FaultyFileSystem full(files);
  full.failAll("createFile", ENOSPC);
  const auto published = publishServiceStatus(full, "org.one", {12, "running", "", {}});
  ASSERT_FALSE(published);
  EXPECT_EQ(published.error().code(), ENOSPC);
  EXPECT_THAT(readServiceStatuses(files), ElementsAre(Pair("org.one", starting)));
}

TEST(ServiceStatuses, AreNoneWhereNobodyHasPublished) {
  const ScratchRoot root;
  PosixFileSystem files(root.path());
  EXPECT_THAT(readServiceStatuses(files), IsEmpty());
}

}  // namespace
}  // namespace tessard
