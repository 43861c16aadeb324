#include "programs/launcher/InstancePlan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Kind = Component::Kind;

class InstancePlan : public testing::Test {
 protected:
  TestPlatform test;

  void SetUp() override {
    test.root.write("/c/router.xml", "<router><local><port>6347</port><ip>127.0.0.1</ip></local></router>");
    for (const char* name : {"sm", "s2s", "c2s"}) {
      test.root.write("/c/" + std::string(name) + ".xml", "<" + std::string(name) + "/>");
    }
  }

  Result<std::vector<Component>> plan(std::string_view master) {
    test.root.write("/jabberd.cfg", master);
    return readInstancePlan(test.files, "/jabberd.cfg");
  }

  std::vector<std::string> filesIn(std::string_view master) {
    std::vector<std::string> files;
    const auto components = plan(master);
    EXPECT_TRUE(components.ok());
    if (!components) return files;
    for (const Component& component : components.value()) {
      files.push_back(nameOf(component.kind) + (" " + component.file));
    }
    return files;
  }

  std::string problemIn(std::string_view master) {
    const auto components = plan(master);
    return components ? "" : components.error().description();
  }

  Component only(std::string_view name, std::string_view content) {
    test.root.write("/c/" + std::string(name) + ".xml", content);
    const auto components = plan((name == "router" ? "" : "router /c/router.xml\n") +
                                 (std::string(name) + " /c/") + std::string(name) + ".xml\n");
    EXPECT_TRUE(components.ok());
    return components ? components.value().back() : Component{};
  }
};

TEST_F(InstancePlan, HasTheRouterFirstThenSessionManagersThenS2sThenC2s) {
  test.root.write("/c/sm_b.xml", "<sm/>");
  EXPECT_THAT(filesIn("c2s /c/c2s.xml\nsm /c/sm.xml\ns2s /c/s2s.xml\nsm /c/sm_b.xml\nrouter /c/router.xml\n"),
              ElementsAre("router /c/router.xml", "sm /c/sm.xml", "sm /c/sm_b.xml", "s2s /c/s2s.xml",
                          "c2s /c/c2s.xml"));
}

TEST_F(InstancePlan, FollowsTheGrammarOfTheMasterFile) {
  EXPECT_THAT(filesIn("# router /c/none.xml\r\n"
                      "   router    /c/router.xml;   more words\n"
                      "\n"
                      "resolver /c/none.xml\n"
                      "sm\n"
                      "s2s\t/c/none.xml\n"
                      "sm /c/sm.xml\n"
                      "sm /c/sm.xml\n"
                      "c2s /c/c2s.xml"),
              ElementsAre("router /c/router.xml", "sm /c/sm.xml", "c2s /c/c2s.xml"));
}

TEST_F(InstancePlan, NeedsExactlyOneRouter) {
  EXPECT_EQ(problemIn("sm /c/sm.xml\n"), "\"/jabberd.cfg\" lists 0 routers and must list one");
  test.root.write("/c/other.xml", "<router/>");
  EXPECT_EQ(problemIn("router /c/router.xml\nrouter /c/other.xml\n"),
            "\"/jabberd.cfg\" lists 2 routers and must list one");
}

TEST_F(InstancePlan, NamesTheFileThatCannotBeUsed) {
  EXPECT_EQ(problemIn("router /c/none.xml\n"), "\"/c/none.xml\" cannot be read: No such file or directory");
  EXPECT_THAT(problemIn("router relative.xml\n"), StartsWith("\"relative.xml\" cannot be read: "));
  EXPECT_THAT(problemIn("router ;\n"), StartsWith("\"\" cannot be read: "));
  test.root.write("/c/sm.xml", "<sm>\n<local></sm>");
  EXPECT_THAT(problemIn("router /c/router.xml\nsm /c/sm.xml\n"),
              testing::AllOf(StartsWith("\"/c/sm.xml\" is not well-formed: "), HasSubstr("line 2")));
  test.files.failAll("readFile", EIO);
  EXPECT_EQ(problemIn("router /c/router.xml\n"), "\"/jabberd.cfg\" cannot be read: Input/output error");
}

TEST_F(InstancePlan, KnowsWhereEachComponentListens) {
  EXPECT_EQ(only("router", "<router/>").port, 5347) << "what jabberd takes without a port";
  const Component client = only("c2s",
                                "<c2s><pidfile>/run/c2s.pid</pidfile><local><ip>192.0.2.1</ip><ip>::1</ip>"
                                "<port>5218</port><id>a</id></local></c2s>");
  EXPECT_EQ(client.port, 5218);
  EXPECT_EQ(client.address, "192.0.2.1");
  EXPECT_EQ(client.pidFile, "/run/c2s.pid");
  EXPECT_THAT(client.domains, IsEmpty());
  EXPECT_EQ(only("s2s", "<s2s><local><port>0</port></local></s2s>").port, 0);
  EXPECT_EQ(only("s2s", "<s2s><local><!--<port>5268</port>--></local></s2s>").port, 0);
  EXPECT_EQ(only("c2s", "<c2s><local><port>70000</port></local></c2s>").port, 0);
}

TEST_F(InstancePlan, AsksThisMachineWhereAComponentListensEverywhere) {
  for (const char* address : {"0.0.0.0", "::", ""}) {
    EXPECT_EQ(only("c2s", "<c2s><local><ip>" + std::string(address) + "</ip></local></c2s>").address,
              "127.0.0.1");
  }
  EXPECT_EQ(only("c2s", "<c2s><local><ip>::1</ip></local></c2s>").address, "::1");
}

TEST_F(InstancePlan, KnowsTheDomainsOfASessionManager) {
  const Component manager =
      only("sm",
           "<sm><id>sm</id><local><id>a.example.test</id><!--<id>b</id>--><id>c.example.test</id>"
           "</local></sm>");
  EXPECT_THAT(manager.domains, ElementsAre("a.example.test", "c.example.test"));
  EXPECT_EQ(manager.port, 0);
  EXPECT_EQ(describe(manager), "sm (sm.xml)");
  EXPECT_EQ(describe(only("c2s", "<c2s/>")), "c2s");
}

}  // namespace
}  // namespace tessard
