#include "config/KnownDocuments.h"

#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

const std::string kFirst = "<sm>\n  <id>a</id>\n  <local/>\n</sm>\n";
const std::string kLikeFirst = "<sm>\n  <id>another</id>\n  <local/>\n</sm>\n";
const std::string kOther = "<sm>\n  <id>a</id>\n  <local>x</local>\n</sm>\n";

XmlNode firstElement(const XmlDocument& document) {
  for (const XmlNode& child : document.root().children()) {
    if (child.isElement()) return child;
  }
  return {};
}

TEST(KnownDocuments, AreParsedOnceForEqualAndForLikeBytes) {
  KnownDocuments known;
  for (const std::string& bytes : {kFirst, kFirst, kLikeFirst, kFirst, kLikeFirst}) {
    const auto document = known.parse("sm", bytes);
    ASSERT_TRUE(document);
    EXPECT_EQ(document.value().serialize().value(), bytes);
  }
  EXPECT_EQ(known.parses(), 1U);
}

TEST(KnownDocuments, AreParsedAnewForOthersAndForOtherKinds) {
  KnownDocuments known;
  EXPECT_EQ(known.parse("sm", kFirst).value().serialize().value(), kFirst);
  EXPECT_EQ(known.parse("sm", kOther).value().serialize().value(), kOther);
  EXPECT_EQ(known.parse("sm", kOther).value().serialize().value(), kOther);
  EXPECT_EQ(known.parses(), 2U);
  EXPECT_TRUE(known.parse("c2s", kOther));
  EXPECT_EQ(known.parses(), 3U);
}

TEST(KnownDocuments, AreAsTheyWereReadWhateverBecomesOfThoseGivenOut) {
  KnownDocuments known;
  const auto first = known.parse("sm", kFirst);
  firstElement(first.value()).setStringValue("edited");
  const auto second = known.parse("sm", kFirst);
  firstElement(second.value()).detach();
  EXPECT_EQ(known.parse("sm", kFirst).value().serialize().value(), kFirst);
  EXPECT_EQ(outline(first.value().root()), "<sm><id>edited</id><local></local></sm>");
  EXPECT_EQ(outline(second.value().root()), "<sm><local></local></sm>");
  EXPECT_EQ(known.parses(), 1U);
}

TEST(KnownDocuments, AreNoneOfThoseThatTheParserRefuses) {
  KnownDocuments known;
  EXPECT_FALSE(known.parse("sm", "<sm>"));
  EXPECT_FALSE(known.parse("sm", "<sm>"));
  EXPECT_TRUE(known.parse("sm", kFirst));
  const auto refused = known.parse("sm", "<sm>\n  <id>a</id>\n  <local/>\n</s>\n");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().description(), "line 4: mismatched tag");
  EXPECT_TRUE(known.parse("sm", kLikeFirst)) << "and the last good one is still known";
  EXPECT_EQ(known.parses(), 4U);
}

constexpr std::string_view kFourComponents = "router @router.xml\nsm @sm.xml\nc2s @c2s.xml\ns2s @s2s.xml\n";

struct KnownComponents : OneMaster {
  KnownComponents() : OneMaster(kFourComponents) {
    writeXml("router.xml", "<router>\n  <id>r</id>\n</router>\n");
    writeXml("sm.xml", kSource);
    writeXml("c2s.xml", "<c2s>\n  <local>\n    <id>x</id>\n  </local>\n</c2s>\n");
    writeXml("s2s.xml", "<s2s/>\n");
    platform.clock.time = kFarAhead;
    if (!master->loadAllConfigurations()) throw std::runtime_error("cannot load");
  }
  std::size_t parses() const { return master->knownDocuments().parses(); }

  const std::string kSource =
      "<sm>\n  <id>sm</id>\n  <pidfile>/p</pidfile>\n  <local>\n    <id>x</id>\n  </local>\n</sm>\n";
};

TEST(ComponentsOfOneMaster, AreEachParsedOnceHoweverOftenTheyAreRead) {
  KnownComponents master;
  EXPECT_EQ(master.parses(), 4U);
  ASSERT_TRUE(master->revertMasterConfiguration());
  ASSERT_TRUE(master->revertMasterConfiguration());
  EXPECT_EQ(master.parses(), 4U);
}

TEST(ComponentsOfOneMaster, ThatAreCopiesOfOneAreParsedOnceAndStayApart) {
  KnownComponents master;
  master->setHostDomains({"a.example", "b.example", "c.example", "d.example"});
  EXPECT_EQ(master.parses(), 4U);
  ASSERT_TRUE(master->saveAllConfigurations());
  const auto fileOf = [&](const std::string& domain) {
    return "<sm>\n  <id>sm_" + domain + "</id>\n  <pidfile>/var/run/jabberd_notification/sm_" + domain +
           ".pid</pidfile>\n  <local>\n    <id>" + domain + "</id>\n  </local>\n</sm>\n";
  };
  for (const std::string domain : {"b.example", "c.example", "d.example"}) {
    EXPECT_EQ(master.platform.root.read(inDirectory("sm_" + domain + ".xml")), fileOf(domain));
  }
  ASSERT_TRUE(master->revertMasterConfiguration());
  EXPECT_EQ(master.parses(), 4U) << "what was written is like what was read";
  const auto& components = *master->loadedComponentsForName("sm");
  ASSERT_EQ(components.size(), 4U);
  components[2]->setStringValue_forPath_nodeState("changed", "sm.id", kNodeLive);
  EXPECT_EQ(components[1]->getNodeValueForPath("sm.id"), "sm_b.example");
  EXPECT_EQ(components[2]->getNodeValueForPath("sm.id"), "changed");
  EXPECT_EQ(components[3]->getNodeValueForPath("sm.id"), "sm_d.example");
}

TEST(ComponentsOfOneMaster, AreParsedWhenTheirFilesChangeInMoreThanTexts) {
  KnownComponents master;
  master.writeXml("c2s.xml", "<c2s><local><id>y</id></local></c2s>");
  ASSERT_TRUE(master->revertMasterConfiguration());
  EXPECT_EQ(master.parses(), 5U);
  EXPECT_EQ(master->defaultComponentForName("c2s")->getNodeValueForPath("c2s.local.id"), "y");
}

TEST(ComponentsOfOneMaster, KeepNoMoreNodesThanTheirFilesNeedHoweverOftenTheyAreWritten) {
  KnownComponents master;
  std::vector<std::string> domains;
  for (int i = 0; i < 300; ++i) domains.push_back("d" + std::to_string(i) + ".example");
  for (int round = 0; round < 30; ++round) {
    master->setStringValues_forPath(domains, "c2s.local.id");
    ASSERT_TRUE(master->saveAllConfigurations());
    master->defaultComponentForName("c2s")->setLoadTime(kLongAgo);
    ASSERT_TRUE(master->loadAllConfigurations());
    const auto weight = master->defaultComponentForName("c2s")->configXMLDocument()->weight();
    EXPECT_LE(weight.nodes, 5000U) << round;
  }
  const auto matches = master->getNodesForPath_withAttributes("c2s.local.id", std::nullopt);
  ASSERT_TRUE(matches);
  EXPECT_EQ(matches->size(), 300U);
}

TEST(KnownCopies, AreTheDocumentAndTheVersionThatReadingThemWouldGive) {
  TestPlatform platform;
  platform.root.write("/source", "<sm><id>x</id></sm>");
  const FileCopies copies = platform.files.copyFiles("/source", {"/a", "/b"}, 1000);
  KnownDocuments known;
  known.expectCopies(copies);
  for (const char* path : {"/a", "/b"}) {
    const FileAttributes file = platform.files.attributes(path).value();
    const auto copy = known.copyOf("sm", file);
    ASSERT_TRUE(copy) << path;
    EXPECT_EQ(copy->document.value().serialize().value(), "<sm><id>x</id></sm>");
    const FileVersion read = versionOf(file, copies.content);
    EXPECT_TRUE(isSameFile(copy->version, file));
    EXPECT_EQ(copy->version.digest, read.digest);
    EXPECT_EQ(copy->version.changed, read.changed);
    EXPECT_FALSE(copy->version.isAnyOfContent);
  }
  EXPECT_EQ(known.parses(), 1U);
}

TEST(KnownCopies, AreIndependentOfEachOther) {
  TestPlatform platform;
  platform.root.write("/source", "<sm><id>x</id></sm>");
  KnownDocuments known;
  known.expectCopies(platform.files.copyFiles("/source", {"/a", "/b"}, 1000));
  const auto copyOf = [&](const char* path) {
    return known.copyOf("sm", platform.files.attributes(path).value())->document.value();
  };
  const XmlDocument first = copyOf("/a");
  first.root().children().front().setStringValue("changed");
  EXPECT_EQ(copyOf("/b").serialize().value(), "<sm><id>x</id></sm>");
  EXPECT_EQ(copyOf("/a").serialize().value(), "<sm><id>x</id></sm>");
}

/// Two copies that were just made, and are expected.
struct TwoCopies {
  TestPlatform platform;
  KnownDocuments known;

  explicit TwoCopies(std::string_view content) {
    platform.root.write("/source", content);
    known.expectCopies(platform.files.copyFiles("/source", {"/a", "/b"}, 1000));
  }
  auto copyOf(const char* path) { return known.copyOf("sm", platform.files.attributes(path).value()); }
};

TEST(KnownCopies, AreNoOtherFilesAndNotThoseThatWereWrittenToSince) {
  TwoCopies copies("<sm/>");
  EXPECT_FALSE(copies.copyOf("/source"));
  copies.platform.root.write("/a", "<sm>longer</sm>");
  EXPECT_FALSE(copies.copyOf("/a"));
  copies.platform.root.setModified("/b", {1, 0});
  EXPECT_FALSE(copies.copyOf("/b"));
}

TEST(KnownCopies, AreForgotten) {
  TwoCopies copies("<sm/>");
  copies.known.forgetCopies();
  EXPECT_FALSE(copies.copyOf("/a"));
}

TEST(KnownCopies, OfWhatIsNoDocumentAreAFailureEach) {
  TwoCopies copies("no XML");
  for (const char* path : {"/a", "/b"}) {
    const auto copy = copies.copyOf(path);
    ASSERT_TRUE(copy);
    EXPECT_FALSE(copy->document);
  }
}

}  // namespace
}  // namespace tessard
