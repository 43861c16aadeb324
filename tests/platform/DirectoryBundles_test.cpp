#include "platform/DirectoryBundles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::HasSubstr;

constexpr std::string_view kBundle = "/usr/share/tessardd/bundles/x.bundle";

std::string plist(std::string_view entries) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + std::string(entries) +
         "</dict></plist>\n";
}

std::string entry(std::string_view key, std::string_view text) {
  return "<key>" + std::string(key) + "</key><string>" + std::string(text) + "</string>";
}

std::string information(std::string_view identifier, std::string_view executable = "x.so") {
  return plist(entry("CFBundleIdentifier", identifier) + entry("CFBundleExecutable", executable) +
               entry("CFBundleShortVersionString", "1.2.3"));
}

class DirectoryBundlesTest : public testing::Test {
 protected:
  TestPlatform test;
  DirectoryBundles bundles{test.files};

  void write(std::string_view name, std::string_view content) {
    test.root.write(std::string(kBundle) + "/Contents/" + std::string(name), content);
  }

  SystemError refusal(std::string_view content) {
    write("Info.plist", content);
    const auto added = bundles.add(kBundle);
    EXPECT_FALSE(added.ok());
    EXPECT_EQ(bundles.bundleWithIdentifier("com.example.x"), nullptr);
    return added.ok() ? SystemError(0) : added.error();
  }
};

TEST_F(DirectoryBundlesTest, AnAddedBundleIsFoundByItsIdentifier) {
  write("Info.plist", information("com.example.x"));
  const auto added = bundles.add(kBundle);
  ASSERT_TRUE(added.ok()) << added.error().description();
  EXPECT_EQ(bundles.bundleWithIdentifier("com.example.x"), added.value());
  EXPECT_EQ(bundles.bundleWithIdentifier("com.example.y"), nullptr);
  EXPECT_EQ(bundles.bundleWithIdentifier(""), nullptr);
}

TEST_F(DirectoryBundlesTest, ABundleTellsItsInformationAndItsPlaces) {
  write("Info.plist", information("com.example.x"));
  const auto added = bundles.add(std::string(kBundle) + "//");
  ASSERT_TRUE(added.ok()) << added.error().description();
  DirectoryBundle& bundle = *added.value();
  EXPECT_EQ(bundle.identifier(), "com.example.x");
  EXPECT_EQ(bundle.path(), kBundle);
  EXPECT_EQ(bundle.executablePath(), std::string(kBundle) + "/Contents/Linux/x.so");
  ASSERT_TRUE(bundle.infoDictionary().stringFor("CFBundleShortVersionString"));
  EXPECT_EQ(*bundle.infoDictionary().stringFor("CFBundleShortVersionString"), "1.2.3");
}

TEST_F(DirectoryBundlesTest, ResourcesAreFoundWithAndWithoutAType) {
  write("Info.plist", information("com.example.x"));
  write("Resources/check_user_access", "tool");
  write("Resources/defaultConfig.plist", "defaults");
  const auto added = bundles.add(kBundle);
  ASSERT_TRUE(added.ok());
  DirectoryBundle& bundle = *added.value();
  const std::string resources = std::string(kBundle) + "/Contents/Resources/";
  EXPECT_EQ(bundle.pathForResource_ofType("check_user_access", ""), resources + "check_user_access");
  EXPECT_EQ(bundle.pathForResource_ofType("defaultConfig", "plist"), resources + "defaultConfig.plist");
  EXPECT_EQ(bundle.pathForResource_ofType("defaultConfig.plist", ""), resources + "defaultConfig.plist");
  EXPECT_EQ(bundle.pathForResource_ofType("defaultConfig", ""), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("check_user_access", "exe"), std::nullopt);

  test.root.remove(resources + "check_user_access");
  EXPECT_EQ(bundle.pathForResource_ofType("check_user_access", ""), std::nullopt)
      << "looked for on every call";
}

TEST_F(DirectoryBundlesTest, AResourceThatCannotBeLookedAtForTheMomentIsNotTakenForMissing) {
  write("Info.plist", information("com.example.x"));
  DirectoryBundle& bundle = *bundles.add(kBundle).value();
  test.files.failAll("attributes", EMFILE);
  EXPECT_EQ(bundle.pathForResource_ofType("tool", ""), std::string(kBundle) + "/Contents/Resources/tool");
}

TEST_F(DirectoryBundlesTest, NoNameLeadsOutOfTheResources) {
  write("Info.plist", information("com.example.x"));
  write("Resources/folder/inner", "x");
  const auto added = bundles.add(kBundle);
  ASSERT_TRUE(added.ok());
  DirectoryBundle& bundle = *added.value();
  EXPECT_EQ(bundle.pathForResource_ofType("../Info.plist", ""), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("../Info", "plist"), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("folder/inner", ""), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType(".", "./Info.plist"), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("..", ""), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType(".", "."), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("", ""), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("", "plist"), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType(std::string_view("folder\0x", 8), ""), std::nullopt);
  EXPECT_EQ(bundle.pathForResource_ofType("folder", ""), std::nullopt) << "a directory is no resource file";
}

TEST_F(DirectoryBundlesTest, ABundleWithoutAReadableInfoPlistIsRefused) {
  const auto missing = bundles.add(kBundle);
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().code(), ENOENT);
  refusal("not a property list");
  refusal("<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><array/></plist>\n");
}

TEST_F(DirectoryBundlesTest, ABundleMustNameItselfAndItsExecutable) {
  const std::string executable = entry("CFBundleExecutable", "x.so");
  const std::string identifier = entry("CFBundleIdentifier", "com.example.x");
  EXPECT_THAT(refusal(plist(executable)).description(),
              HasSubstr("Contents/Info.plist has no text under \"CFBundleIdentifier\""));
  EXPECT_THAT(refusal(plist(executable + entry("CFBundleIdentifier", ""))).description(),
              HasSubstr("no text under \"CFBundleIdentifier\""));
  EXPECT_THAT(refusal(plist(identifier)).description(), HasSubstr("no text under \"CFBundleExecutable\""));
  EXPECT_THAT(refusal(plist(identifier + "<key>CFBundleExecutable</key><integer>1</integer>")).description(),
              HasSubstr("no text under \"CFBundleExecutable\""));
}

TEST_F(DirectoryBundlesTest, AnExecutableThatIsAPathIsRefused) {
  for (const char* executable : {"../x.so", "/lib/x.so", "..", "."}) {
    EXPECT_THAT(refusal(information("com.example.x", executable)).description(),
                HasSubstr("what is no file name"));
  }
}

TEST_F(DirectoryBundlesTest, AnIdentifierIsRegisteredOnce) {
  write("Info.plist", information("com.example.x"));
  const auto first = bundles.add(kBundle);
  ASSERT_TRUE(first.ok());
  test.root.write("/other.bundle/Contents/Info.plist", information("com.example.x"));
  const auto second = bundles.add("/other.bundle");
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code(), EEXIST);
  EXPECT_THAT(second.error().description(), HasSubstr("com.example.x"));
  EXPECT_EQ(bundles.bundleWithIdentifier("com.example.x"), first.value());

  test.root.write("/other.bundle/Contents/Info.plist", information("com.example.y"));
  ASSERT_TRUE(bundles.add("/other.bundle").ok());
  EXPECT_EQ(bundles.bundleWithIdentifier("com.example.x"), first.value()) << "stays where it is";
}

}  // namespace
}  // namespace tessard
