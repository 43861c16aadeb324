#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;

constexpr std::string_view kStorage =
    "<sm>\n"
    "  <!-- plain prose about <dbname>storage</dbname> -->\n"
    "  <id>sm</id>\n"
    "  <storage>\n"
    "    <!--<dbname>x</dbname>-->\n"
    "    <!-- <path>blank before</path>-->\n"
    "    <!--prose only-->\n"
    "    <driver>sqlite</driver>\n"
    "    <sqlite>\n"
    "      <dbname>sm.db</dbname>\n"
    "    </sqlite>\n"
    "  </storage>\n"
    "</sm>\n";

std::vector<std::string> textsOf(const std::optional<std::vector<MatchEntry>>& matches) {
  std::vector<std::string> texts;
  if (matches) {
    for (const MatchEntry& match : *matches) texts.push_back(match.node.stringValue());
  }
  return texts;
}

int stateOf(const OneComponent& component, std::string_view path) {
  int state = kNodeNotFound;
  component->getNodeForPath_nodeState(path, state);
  return state;
}

TEST(ComponentLookup, AChildOfTheRootAndADeeperElementAreFoundByTheirPaths) {
  OneComponent sm(kStorage);
  EXPECT_EQ(sm->getNodeValueForPath("sm.id"), "sm");
  EXPECT_EQ(sm->getNodeValueForPath("sm.storage.driver"), "sqlite");
  EXPECT_EQ(sm->getNodeValueForPath("sm.storage.sqlite.dbname"), "sm.db");
}

TEST(ComponentLookup, TheRootAloneAndPathsOfAnotherRootFindNothing) {
  OneComponent sm(kStorage);
  for (const char* path : {"sm", "", ".", "router.id", "id", ".id", "sm.", "sm..id", "smx.id", "s.id",
                           "sm.id.", "sm.storage.sqlite.dbname.x", "SM.id"}) {
    EXPECT_EQ(sm->getNodesForPath_withAttributes(path, std::nullopt), std::nullopt) << path;
  }
}

TEST(ComponentLookup, AMatchEntryHasNodePathParentAndState) {
  OneComponent sm(kStorage);
  const auto live = sm->getNodesForPath_withAttributes("sm.storage.driver", std::nullopt);
  ASSERT_TRUE(live);
  ASSERT_EQ(live->size(), 1U);
  EXPECT_TRUE(live->front().node.isElement());
  EXPECT_EQ(live->front().node.name(), "driver");
  EXPECT_EQ(live->front().path, "sm.storage.driver");
  EXPECT_EQ(live->front().parent, "sm.storage");
  EXPECT_EQ(live->front().state, kNodeLive);
  const auto off = sm->getNodesForPath_withAttributes("sm.storage.dbname", std::nullopt);
  ASSERT_TRUE(off);
  ASSERT_EQ(off->size(), 1U);
  EXPECT_TRUE(off->front().node.isComment());
  EXPECT_EQ(off->front().path, "sm.storage.dbname");
  EXPECT_EQ(off->front().parent, "sm.storage");
  EXPECT_EQ(off->front().state, kNodeSwitchedOff);
}

TEST(ComponentLookup, ASwitchedOffElementHasStateZeroNoValueAndItsMarkupAsString) {
  OneComponent sm(kStorage);
  EXPECT_EQ(stateOf(sm, "sm.storage.dbname"), kNodeSwitchedOff);
  EXPECT_EQ(sm->getNodeValueForPath("sm.storage.dbname"), std::nullopt);
  int state = 7;
  EXPECT_EQ(sm->getStringValueForPath_nodeState("sm.storage.dbname", state), "<dbname>x</dbname>");
  EXPECT_EQ(state, kNodeSwitchedOff);
}

TEST(ComponentLookup, ASwitchedOffElementIsNotTestedForAttributes) {
  OneComponent sm("<sm><v a='1'>live</v><!--<v>off</v>--><!--<v a='2'>off</v>--></sm>");
  const auto matches = sm->getNodesForPath_withAttributes("sm.v", AttributeFilter{{"a", "9"}});
  EXPECT_THAT(textsOf(matches), ElementsAre("<v>off</v>", "<v a='2'>off</v>"));
}

TEST(ComponentLookup, CommentsThatBeginWithABlankOrHoldProseNeverMatch) {
  OneComponent sm(kStorage);
  EXPECT_EQ(stateOf(sm, "sm.storage.path"), kNodeNotFound);
  EXPECT_EQ(stateOf(sm, "sm.dbname"), kNodeNotFound);
}

TEST(ComponentLookup, CommentsOfMoreOrLessThanOneElementNeverMatch) {
  OneComponent sm("<sm><!--<a>1</a><a>2</a>--><!--<a>1--><!--<a>1</a> and more--><!--<>--><!----></sm>");
  EXPECT_EQ(stateOf(sm, "sm.a"), kNodeNotFound);
}

TEST(ComponentLookup, NothingIsFoundInsideASwitchedOffElement) {
  OneComponent sm("<sm><!--<local><id>x</id></local>--></sm>");
  EXPECT_EQ(stateOf(sm, "sm.local"), kNodeSwitchedOff);
  EXPECT_EQ(stateOf(sm, "sm.local.id"), kNodeNotFound);
}

TEST(ComponentLookup, OnlyTheFirstParentThatHoldsAMatchContributes) {
  OneComponent sm(
      "<sm><storage><other/></storage>"
      "<storage><id>1</id><!--<id>2</id>-->text<id>3</id><x/></storage>"
      "<storage><id>4</id></storage></sm>");
  const auto matches = sm->getNodesForPath_withAttributes("sm.storage.id", std::nullopt);
  EXPECT_THAT(textsOf(matches), ElementsAre("1", "<id>2</id>", "3"));
}

TEST(ComponentLookup, AParentWhoseElementsFailTheAttributeTestIsPassedOver) {
  OneComponent sm("<sm><s><id a='1'>first</id></s><s><id a='2'>second</id></s></sm>");
  const auto matches = sm->getNodesForPath_withAttributes("sm.s.id", AttributeFilter{{"a", "2"}});
  EXPECT_THAT(textsOf(matches), ElementsAre("second"));
}

TEST(ComponentLookup, AnElementWhoseNameHasADotIsAddressedByItsWholeName) {
  OneComponent sm("<sm><a.b><c>deep</c></a.b><a><b><c>plain</c></b></a></sm>");
  EXPECT_THAT(textsOf(sm->getNodesForPath_withAttributes("sm.a.b.c", std::nullopt)), ElementsAre("deep"));
  // The path of the dotted element itself has another parent path than its own.
  EXPECT_THAT(textsOf(sm->getNodesForPath_withAttributes("sm.a.b", std::nullopt)), ElementsAre("plain"));
}

TEST(ComponentLookup, ASearchCanStartAtAnyElement) {
  OneComponent sm(kStorage);
  int state = kNodeNotFound;
  const XmlNode storage = sm->getNodeForPath_nodeState("sm.storage", state);
  const auto find = [&](std::string_view path, std::string_view basePath) {
    return textsOf(sm->getChildNodesForPath_fromBase_basePath_withAttributes(path, storage, basePath, {}));
  };
  EXPECT_THAT(find("sm.storage.sqlite.dbname", "sm.storage"), ElementsAre("sm.db"));
  EXPECT_THAT(find("x.sqlite.dbname", "x"), ElementsAre("sm.db"));
  EXPECT_THAT(find(".driver", ""), ElementsAre("sqlite"));
  EXPECT_THAT(find("driver", ""), ElementsAre());
  EXPECT_THAT(find("sm.storage.driver", "sm"), ElementsAre());
}

TEST(ComponentLookup, TheAttributeTestIsDecidedByTheLastKeyAlone) {
  OneComponent sm("<sm><e a='1' b='2'/></sm>");
  const XmlNode e = sm->getRootNode().firstChild();
  EXPECT_TRUE(sm->matchNode_withAttributes(e, {{"a", "1"}}));
  EXPECT_FALSE(sm->matchNode_withAttributes(e, {{"a", "2"}}));
  EXPECT_FALSE(sm->matchNode_withAttributes(e, {{"c", "1"}}));
  EXPECT_FALSE(sm->matchNode_withAttributes(e, {{"a", "1"}, {"b", "x"}}));
  EXPECT_TRUE(sm->matchNode_withAttributes(e, {{"a", "x"}, {"b", "2"}}));
}

TEST(ComponentLookup, AnEmptyFilterMatchesNoElement) {
  OneComponent sm("<sm><e a='1'/><!--<e/>--></sm>");
  EXPECT_FALSE(sm->matchNode_withAttributes(sm->getRootNode().firstChild(), {}));
  EXPECT_THAT(textsOf(sm->getNodesForPath_withAttributes("sm.e", AttributeFilter{})), ElementsAre("<e/>"));
}

TEST(ComponentLookup, AStateIsLeftUntouchedWhereNothingIsFound) {
  OneComponent sm(kStorage);
  int state = 42;
  EXPECT_FALSE(sm->getNodeForPath_nodeState("sm.nothing", state));
  EXPECT_EQ(state, 42);
}

TEST(ComponentLookup, AStringValuePresetsTheStateToNotFound) {
  OneComponent sm(kStorage);
  int state = 42;
  EXPECT_EQ(sm->getStringValueForPath_nodeState("sm.nothing", state), std::nullopt);
  EXPECT_EQ(state, kNodeNotFound);
  EXPECT_EQ(sm->getStringValueForPath_nodeState("sm.id", state), "sm");
  EXPECT_EQ(state, kNodeLive);
}

TEST(ComponentLookup, TheTextOfAnElementIsAllTextBelowItUntrimmedAndWithoutComments) {
  OneComponent sm("<sm><v> a<b>b</b><![CDATA[<c>]]><!--no--> &amp; </v><w/></sm>");
  EXPECT_EQ(sm->getNodeValueForPath("sm.v"), " ab<c> & ");
  EXPECT_EQ(sm->getNodeValueForPath("sm.w"), "");
}

TEST(ComponentLookup, RootAndChildrenOfEveryKindAreHandedOut) {
  OneComponent sm("<sm>text<!--c--><id/></sm>");
  EXPECT_EQ(sm->getRootNode().name(), "sm");
  const auto children = sm->getChildNodes();
  ASSERT_EQ(children.size(), 3U);
  EXPECT_EQ(children[0].kind(), XmlNode::Kind::text);
  EXPECT_TRUE(children[1].isComment());
  EXPECT_TRUE(children[2].isElement());
  EXPECT_EQ(sm->getChildNodesForNode(sm->getRootNode()), children);
  EXPECT_TRUE(sm->getChildNodesForNode(children[2]).empty());
}

TEST(ComponentLookup, WithoutADocumentNothingIsFound) {
  OneComponent sm("not XML");
  ASSERT_FALSE(sm->configXMLDocument());
  EXPECT_FALSE(sm->getRootNode());
  EXPECT_TRUE(sm->getChildNodes().empty());
  EXPECT_TRUE(sm->getChildNodesForNode(XmlNode()).empty());
  EXPECT_EQ(sm->getNodesForPath_withAttributes("sm.id", std::nullopt), std::nullopt);
  EXPECT_EQ(sm->getNodeValueForPath("sm.id"), std::nullopt);
  EXPECT_EQ(stateOf(sm, "sm.id"), kNodeNotFound);
}

TEST(ComponentLookup, APathIsCutIntoItsLastSegmentAndTheRest) {
  OneComponent sm("<sm/>");
  EXPECT_EQ(sm->nodeNameFromPath("sm.storage.driver"), "driver");
  EXPECT_EQ(sm->parentPathFromPath("sm.storage.driver"), "sm.storage");
  EXPECT_EQ(sm->nodeNameFromPath("sm"), "sm");
  EXPECT_EQ(sm->parentPathFromPath("sm"), "");
  EXPECT_EQ(sm->nodeNameFromPath("sm."), "");
  EXPECT_EQ(sm->parentPathFromPath("sm."), "sm");
  EXPECT_EQ(sm->nodeNameFromPath(""), "");
  EXPECT_EQ(sm->parentPathFromPath(""), "");
}

}  // namespace
}  // namespace tessard
