#include "common/PluginEntry.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "atoms/X509Name.h"
#include "common/PropertyList.h"
#include "platform/DirectoryBundles.h"
#include "platform/PosixTasks.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::UnorderedElementsAre;

constexpr const char* kPrincipalClass = "NOTIFICATION_PLUGIN_ChatHandler";

// The bundle of the build tree, loaded as the host loads it and, like there, never unloaded.
class PluginEntry : public testing::Test {
 protected:
  TestPlatform test;
  PosixFileSystem machine;
  DirectoryBundles bundles{machine};
  DirectoryBundle* bundle = nullptr;
  void* library = nullptr;
  PluginInterfaceVersionFunction version = nullptr;
  PluginCreateFunction create = nullptr;

  void SetUp() override {
    const auto added = bundles.add(TESSARD_BUNDLE);
    ASSERT_TRUE(added.ok()) << added.error().description();
    bundle = added.value();
    library = ::dlopen(bundle->executablePath().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    ASSERT_NE(library, nullptr) << ::dlerror();
    version =
        reinterpret_cast<PluginInterfaceVersionFunction>(::dlsym(library, kPluginInterfaceVersionSymbol));
    create = reinterpret_cast<PluginCreateFunction>(::dlsym(library, kPluginCreateSymbol));
    ASSERT_NE(version, nullptr);
    ASSERT_NE(create, nullptr);
  }
};

TEST_F(PluginEntry, TheBundleDescribesItself) {
  const Dictionary& information = bundle->infoDictionary();
  const auto text = [&](std::string_view key) {
    const std::string* found = information.stringFor(key);
    return found ? *found : "(null)";
  };
  EXPECT_EQ(bundle->identifier(), "com.velto.tessard_notification");
  EXPECT_EQ(text("CFBundleExecutable"), "tessard_notification.so");
  EXPECT_EQ(text("CFBundleName"), "tessard_notification");
  EXPECT_EQ(text("CFBundlePackageType"), "BNDL");
  EXPECT_EQ(text("CFBundleShortVersionString"), TESSARD_VERSION);
  EXPECT_EQ(text("NSPrincipalClass"), kPrincipalClass);
}

TEST_F(PluginEntry, TheAccessTestToolIsAResourceThatRuns) {
  const auto tool = bundle->pathForResource_ofType("check_user_access", "");
  ASSERT_TRUE(tool);
  PosixTasks tasks("/");
  const TaskArgument self = TaskArgument::text(std::to_string(::geteuid()));
  EXPECT_EQ(tasks.ZtRunTask(*tool, {self, TaskArgument::path(test.root.path())}), 0);
  EXPECT_EQ(tasks.ZtRunTask(*tool, {self, TaskArgument::path("/proc/version")}), 1);
  EXPECT_EQ(tasks.ZtRunTask(*tool, {}), 2);
}

TEST_F(PluginEntry, HostAndBundleSpeakTheSameInterface) {
  EXPECT_EQ(version(), kPluginInterfaceVersion);
}

TEST_F(PluginEntry, ThePrincipalClassIsMadeAndAnswersRequests) {
  const std::unique_ptr<PluginRequestHandler> handler(create(kPrincipalClass, &test.platform));
  ASSERT_TRUE(handler);
  EXPECT_TRUE(handler->operationForCommand("getState"));
  EXPECT_FALSE(handler->operationForCommand("noSuchCommand"));
  const auto answer = handler->operationForCommand("getState")({{"command", "getState"}});
  ASSERT_TRUE(answer);
  EXPECT_FALSE(answer->empty());
}

TEST_F(PluginEntry, OtherClassesAndMissingArgumentsGiveNothing) {
  EXPECT_EQ(create("NOTIFICATION_PLUGIN_ChatServiceWrangler", &test.platform), nullptr);
  EXPECT_EQ(create("", &test.platform), nullptr);
  EXPECT_EQ(create(nullptr, &test.platform), nullptr);
  EXPECT_EQ(create(kPrincipalClass, nullptr), nullptr);
}

// Throws something in the middle of the handler's making, which asks for its bundle.
template <class Thrown>
class ThrowingBundles : public Bundles {
 public:
  explicit ThrowingBundles(Thrown thrown) : thrown_(thrown) {}
  Bundle* bundleWithIdentifier(std::string_view /*identifier*/) override { throw Thrown(thrown_); }

 private:
  Thrown thrown_;
};

template <class Thrown>
PluginRequestHandler* createThrowing(PluginCreateFunction create, TestPlatform& test, Thrown thrown) {
  ThrowingBundles<Thrown> bundles(thrown);
  Platform platform{test.files,     test.journal,   test.tasks,    test.services, test.processes,
                    test.hostNames, test.network,   test.clock,    test.random,   test.unicode,
                    bundles,        test.directory, test.keychain, test.logs,     test.log};
  return create(kPrincipalClass, &platform);
}

TEST_F(PluginEntry, NoExceptionLeavesTheBundle) {
  EXPECT_EQ(createThrowing(create, test, std::runtime_error("no memory left")), nullptr);
  EXPECT_TRUE(test.log.has(kLogError, "unable to create the plug-in: no memory left"));
  EXPECT_EQ(createThrowing(create, test, 7), nullptr);
  EXPECT_TRUE(test.log.has(kLogError, "unable to create the plug-in: unknown exception"));
}

TEST_F(PluginEntry, ThePathAndLabelConstantsAreFoundByTheirNames) {
  const auto text = [this](const char* name) -> std::string {
    const auto* found = static_cast<const char* const*>(::dlsym(library, name));
    return found && *found ? *found : "(null)";
  };
  EXPECT_EQ(text("kNotificationConfigFilePath"), "/Library/Preferences/com.velto.Beaconry.plist");
  EXPECT_EQ(text("kNotificationDefaultConfigFilePath"),
            "/usr/share/tessardd/bundles/tessard_notification.bundle/Contents/Resources/defaultConfig.plist");
  EXPECT_EQ(text("kBundleConfigFilePath"), "/Library/Preferences/com.velto.tessard_notification.plist");
  EXPECT_EQ(text("kKorvBridgeLaunchdLabel"), "com.velto.KorvBridge");
}

TEST_F(PluginEntry, TheTestForATopicIsFoundByItsNameAndKnowsTheExportedOctets) {
  const auto* octets = static_cast<const std::uint8_t*>(::dlsym(library, "oidData"));
  const auto isTopic = reinterpret_cast<decltype(&isTopicOID)>(::dlsym(library, "isTopicOID"));
  ASSERT_TRUE(octets && isTopic);
  const X509Bytes topic{10, octets};
  EXPECT_TRUE(isTopic(&topic));
  const X509Bytes shorter{9, octets};
  EXPECT_FALSE(isTopic(&shorter));
}

TEST_F(PluginEntry, TheDefaultSettingsAreAResource) {
  const auto path = bundle->pathForResource_ofType("defaultConfig", "plist");
  ASSERT_TRUE(path);
  const auto defaults = readPropertyListFile(machine, *path);
  ASSERT_TRUE(defaults.ok()) << defaults.error().description();
  EXPECT_TRUE(defaults.value().stringFor("jid"));
}

TEST_F(PluginEntry, NothingButTheEntriesAndTheConstantsIsExported) {
  PosixTasks tasks("/");
  const TaskResult result = tasks.launch_task(
      "/usr/bin/nm", {TaskArgument::text("-D"), TaskArgument::text("--defined-only"),
                      TaskArgument::text("--format=posix"), TaskArgument::path(bundle->executablePath())});
  ASSERT_EQ(result.status, 0) << result.errorText;
  std::vector<std::string> names;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) names.push_back(line.substr(0, line.find(' ')));
  EXPECT_THAT(names, UnorderedElementsAre(kPluginInterfaceVersionSymbol, kPluginCreateSymbol,
                                          "kNotificationConfigFilePath", "kNotificationDefaultConfigFilePath",
                                          "kBundleConfigFilePath", "kKorvBridgeLaunchdLabel", "oidData",
                                          "isTopicOID"));
}

}  // namespace
}  // namespace tessard
