#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;

/// Where the jabberd2 package keeps the files that its components start from.
const std::string kPackaged = "/etc/jabberd2/";

std::optional<std::string> packagedFile(const std::string& name) {
  std::ifstream file(kPackaged + name, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::string> linesIn(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// Lines that only the first text has, as often as they are missing from the second.
std::vector<std::string> onlyIn(const std::string& first, const std::string& second) {
  const auto other = linesIn(second);
  std::multiset<std::string> there(other.begin(), other.end());
  std::vector<std::string> missing;
  for (const std::string& line : linesIn(first)) {
    if (const auto found = there.find(line); found != there.end()) {
      there.erase(found);
    } else {
      missing.push_back(line);
    }
  }
  return missing;
}

class PackagedFiles : public testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    const auto text = packagedFile(GetParam() + ".xml");
    if (!text) GTEST_SKIP() << kPackaged << GetParam() << ".xml cannot be read: is jabberd2 installed?";
    original = *text;
    component = std::make_unique<OneComponent>(original, GetParam());
  }
  std::string path(const std::string& below) const { return GetParam() + "." + below; }

  std::string original;
  std::unique_ptr<OneComponent> component;
};

TEST_P(PackagedFiles, AreWrittenBackByteForByteWhenNothingWasChanged) {
  ASSERT_TRUE((*component)->configXMLDocument());
  (*component)->setConfigDirty(true);
  ASSERT_TRUE((*component)->saveDocument());
  EXPECT_EQ(component->file(), original);
}

TEST_P(PackagedFiles, ChangeInOneLineOnlyWhenOneValueIsSet) {
  (*component)->setStringValue_forPath_nodeState("/run/other.pid", path("pidfile"), kNodeLive);
  ASSERT_TRUE((*component)->configDirty());
  ASSERT_TRUE((*component)->saveDocument());
  EXPECT_EQ(onlyIn(original, component->file()).size(), onlyIn(component->file(), original).size());
  ASSERT_LE(onlyIn(component->file(), original).size(), 1U);
  EXPECT_EQ((*component)->getNodeValueForPath(path("pidfile")), "/run/other.pid");
  EXPECT_EQ(linesIn(component->file()).size(), linesIn(original).size());
}

TEST_P(PackagedFiles, ComeBackWithTheirTextAfterSwitchingAnElementOffAndOn) {
  int state = kNodeNotFound;
  const auto before = (*component)->getStringValueForPath_nodeState(path("log.ident"), state);
  ASSERT_EQ(state, kNodeLive);
  (*component)->setStringValue_forPath_nodeState(std::nullopt, path("log.ident"), kNodeSwitchedOff);
  ASSERT_TRUE((*component)->saveDocument());
  EXPECT_THAT(onlyIn(component->file(), original),
              ElementsAre(testing::EndsWith("<!--<ident>" + *before + "</ident>-->")));
  OneComponent again(component->file(), GetParam());
  EXPECT_EQ(again->getNodeValueForPath(path("log.ident")), std::nullopt);
  again->setStringValue_forPath_nodeState(std::nullopt, path("log.ident"), kNodeLive);
  ASSERT_TRUE(again->saveDocument());
  EXPECT_EQ(again->getNodeValueForPath(path("log.ident")), before);
  EXPECT_EQ(onlyIn(again.file(), original).size(), onlyIn(original, again.file()).size());
}

INSTANTIATE_TEST_SUITE_P(EveryComponent, PackagedFiles, testing::Values("router", "sm", "c2s", "s2s"),
                         [](const auto& info) { return info.param; });

TEST(PackagedSessionManager, ChangesOnlyInTheThreeLinesOfADomain) {
  const auto original = packagedFile("sm.xml");
  if (!original) GTEST_SKIP() << "sm.xml cannot be read: is jabberd2 installed?";
  OneMaster master("sm @sm.xml\n");
  master.writeXml("sm.xml", *original);
  ASSERT_TRUE(master->loadAllConfigurations());
  master->setHostDomains({"a.example", "b.example"});
  ASSERT_TRUE(master->saveAllConfigurations());
  const std::string secondary = master.platform.root.read(inDirectory("sm_b.example.xml"));
  EXPECT_THAT(onlyIn(secondary, *original),
              ElementsAre("  <id>sm_b.example</id>",
                          "  <pidfile>/var/run/jabberd_notification/sm_b.example.pid</pidfile>",
                          "    <id>b.example</id>"));
  EXPECT_EQ(linesIn(secondary).size(), linesIn(*original).size());
}

TEST(PackagedClientServer, AListOfDomainsGetsOneLineEachWithoutTouchingTheRest) {
  const auto original = packagedFile("c2s.xml");
  if (!original) GTEST_SKIP() << "c2s.xml cannot be read: is jabberd2 installed?";
  OneComponent c2s(*original, "c2s");
  c2s->setStringValues_forPath_nodeState_setMode_replaceExisting({"a.example", "b.example"}, "c2s.local.id",
                                                                 1, kSetModeAdd, true);
  ASSERT_TRUE(c2s->saveDocument());
  EXPECT_THAT(onlyIn(c2s.file(), *original), ElementsAre("    <id>a.example</id>", "    <id>b.example</id>"));
  const auto lost = onlyIn(*original, c2s.file());
  for (const std::string& line : lost) EXPECT_THAT(line, testing::HasSubstr("id")) << line;
}

}  // namespace
}  // namespace tessard
