#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::IsEmpty;

TEST(SettingAValue, ALiveElementGetsTheTextInPlaceOfAllItsContent) {
  OneComponent sm("<sm><a>1<b/>2</a><c>x</c></sm>");
  sm->setStringValue_forPath_nodeState("new", "sm.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><a>new</a><c>x</c></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAValue, TheSameTextAgainStillMarksTheTreeAsChanged) {
  OneComponent sm("<sm><a>1</a></sm>");
  sm->setStringValue_forPath_nodeState("1", "sm.a", kNodeLive);
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAValue, AnyWantedStateButZeroSetsTheTextOfALiveElement) {
  OneComponent sm("<sm><a>1</a></sm>");
  sm->setStringValue_forPath_nodeState("2", "sm.a", -1);
  EXPECT_EQ(sm.tree(), "<sm><a>2</a></sm>");
  sm->setStringValue_forPath_nodeState("3", "sm.a", 5);
  EXPECT_EQ(sm.tree(), "<sm><a>3</a></sm>");
}

TEST(SettingAValue, AnAbsentValueLeavesALiveElementAndTheTreeClean) {
  OneComponent sm("<sm><a>1</a></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><a>1</a></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(SettingAValue, OnlyTheFirstMatchIsTouched) {
  OneComponent sm("<sm><a>1</a><a>2</a></sm>");
  sm->setStringValue_forPath_nodeState("x", "sm.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><a>x</a><a>2</a></sm>");
}

TEST(SwitchingOff, ALiveElementBecomesACommentAtTheEndAndTheValueIsIgnored) {
  OneComponent sm("<sm><a>1</a><c>x</c></sm>");
  sm->setStringValue_forPath_nodeState("ignored", "sm.a", kNodeSwitchedOff);
  EXPECT_EQ(sm.tree(), "<sm><c>x</c><!--<a>1</a>--></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SwitchingOff, AttributesAndStructureAreLostAndTheTextFoldedTogether) {
  OneComponent sm("<sm><a k='v'>1<b>2</b></a></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.a", kNodeSwitchedOff);
  EXPECT_EQ(sm.tree(), "<sm><!--<a>12</a>--></sm>");
}

TEST(SwitchingOff, AnEmptyElementTakesTheShortFormAndComesBackEmptyAtTheEnd) {
  OneComponent sm("<sm><a/><c>x</c></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.a", kNodeSwitchedOff);
  EXPECT_EQ(sm.tree(), "<sm><c>x</c><!--<a/>--></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.c", kNodeSwitchedOff);
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><!--<c>x</c>--><a></a></sm>");
}

TEST(SwitchingOff, AnElementThatIsOffStaysAsItIsWhateverTheValue) {
  OneComponent sm("<sm><!--<a>1</a>--><c/></sm>");
  sm->setStringValue_forPath_nodeState("2", "sm.a", kNodeSwitchedOff);
  sm->setStringValue_forPath_nodeState("2", "sm.a", -1);
  EXPECT_EQ(sm.tree(), "<sm><!--<a>1</a>--><c></c></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(SwitchingOn, TheElementOfTheCommentComesBackAtTheEndWithItsText) {
  OneComponent sm("<sm><!--<a k='v'>1<b>2</b></a>--><c>x</c></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><c>x</c><a k=v>1<b>2</b></a></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SwitchingOn, AValueReplacesTheTextOfTheComment) {
  OneComponent sm("<sm><!--<a k='v'>1</a>--></sm>");
  sm->setStringValue_forPath_nodeState("2", "sm.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><a k=v>2</a></sm>");
  int state = kNodeNotFound;
  EXPECT_EQ(sm->getStringValueForPath_nodeState("sm.a", state), "2");
  EXPECT_EQ(state, kNodeLive);
}

TEST(SwitchingOn, TheRebuiltElementIsWrittenToTheFile) {
  OneComponent sm("<sm>\n  <!--<a>1</a>-->\n  <c>x</c>\n</sm>\n");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.a", kNodeLive);
  ASSERT_TRUE(sm->saveDocument());
  EXPECT_EQ(outlineOfText(sm.file()), "<sm><c>x</c><a>1</a></sm>");
}

TEST(AddingANode, AMissingElementIsAppendedToItsLiveParent) {
  OneComponent sm("<sm><l><x/></l></sm>");
  sm->setStringValue_forPath_nodeState("1", "sm.l.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><l><x></x><a>1</a></l></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(AddingANode, AMissingElementWithoutAValueIsAppendedEmpty) {
  OneComponent sm("<sm><l/></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.l.a", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><l><a></a></l></sm>");
}

TEST(AddingANode, EveryOtherStateAppendsACommentInTheLongForm) {
  OneComponent sm("<sm><l/></sm>");
  sm->setStringValue_forPath_nodeState("1", "sm.l.a", kNodeSwitchedOff);
  sm->setStringValue_forPath_nodeState("", "sm.l.b", kNodeSwitchedOff);
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.l.c", kNodeSwitchedOff);
  sm->setStringValue_forPath_nodeState("4", "sm.l.d", -1);
  EXPECT_EQ(sm.tree(), "<sm><l><!--<a>1</a>--><!--<b></b>--><!--<c>(null)</c>--><!--<d>4</d>--></l></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(AddingANode, NothingIsMadeBelowAMissingASwitchedOffOrTheRootElement) {
  const std::string xml = "<sm><!--<l>1</l>--></sm>";
  OneComponent sm(xml);
  for (const char* path : {"sm.l.a", "sm.none.a", "sm.none.deeper.a", "sm.a", "sm", "", "router.l.a"}) {
    sm->setStringValue_forPath_nodeState("1", path, kNodeLive);
    sm->setStringValue_forPath_nodeState("1", path == std::string("sm.l.a") ? "sm.l.b" : path, -1);
  }
  EXPECT_EQ(sm.tree(), xml);
  EXPECT_FALSE(sm->configDirty());
}

TEST(AddingANode, ANodeWithoutANameIsNotMade) {
  OneComponent sm("<sm><l/></sm>");
  sm->setStringValue_forPath_nodeState("1", "sm.l.", kNodeLive);
  EXPECT_EQ(sm.tree(), "<sm><l></l></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(CommentForms, HyphensInAValueComeBackAsTheyWere) {
  for (const std::string value : {"a--b", "---", "-", "a-", "--", "a-b", "->", "x--", "-->"}) {
    OneComponent sm("<sm><l><a/></l></sm>");
    sm->setStringValue_forPath_nodeState(value, "sm.l.a", kNodeLive);
    sm->setStringValue_forPath_nodeState(std::nullopt, "sm.l.a", kNodeSwitchedOff);
    ASSERT_TRUE(sm->saveDocument()) << value;
    OneComponent again(sm.file());
    again->setStringValue_forPath_nodeState(std::nullopt, "sm.l.a", kNodeLive);
    EXPECT_EQ(again->getNodeValueForPath("sm.l.a"), value) << sm.file();
  }
}

TEST(CommentForms, HyphensComeBackAlsoWithoutAReloadInBetween) {
  OneComponent sm("<sm><l><a>x--y-</a></l></sm>");
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.l.a", kNodeSwitchedOff);
  sm->setStringValue_forPath_nodeState(std::nullopt, "sm.l.a", kNodeLive);
  EXPECT_EQ(sm->getNodeValueForPath("sm.l.a"), "x--y-");
}

TEST(CommentForms, AValueWithMarkupCharactersCannotBeSwitchedOnAgain) {
  for (const std::string value : {"a<b", "a&b", "</a>"}) {
    OneComponent sm("<sm><l><a/></l></sm>");
    sm->setStringValue_forPath_nodeState(value, "sm.l.a", kNodeLive);
    sm->setStringValue_forPath_nodeState(std::nullopt, "sm.l.a", kNodeSwitchedOff);
    int state = kNodeNotFound;
    EXPECT_FALSE(sm->getNodeForPath_nodeState("sm.l.a", state)) << value;
    ASSERT_TRUE(sm->saveDocument()) << value;
    OneComponent again(sm.file());
    EXPECT_FALSE(again->getNodeForPath_nodeState("sm.l.a", state)) << value;
    EXPECT_EQ(again.tree(), "<sm><l><!--<a>" + value + "</a>--></l></sm>");
  }
}

TEST(CommentForms, AValueThatWouldEndTheCommentStaysInsideIt) {
  OneComponent sm("<sm><l><a/></l></sm>");
  sm->setStringValue_forPath_nodeState("--><evil/><!--", "sm.l.b", kNodeSwitchedOff);
  ASSERT_TRUE(sm->saveDocument());
  OneComponent again(sm.file());
  EXPECT_EQ(again->getNodesForPath_withAttributes("sm.l.evil", std::nullopt), std::nullopt);
  EXPECT_EQ(again.tree(), "<sm><l><a></a><!--<b>-&#45;><evil/><!-&#45;</b>--></l></sm>");
}

TEST(CommentForms, ALiveValueWithMarkupCharactersIsEscapedInTheFile) {
  OneComponent sm("<sm><a/></sm>");
  sm->setStringValue_forPath_nodeState("<b>&\"'", "sm.a", kNodeLive);
  ASSERT_TRUE(sm->saveDocument());
  EXPECT_EQ(OneComponent(sm.file())->getNodeValueForPath("sm.a"), "<b>&\"'");
}

TEST(CommentForms, ACommentIsMadeOfElementsOnly) {
  OneComponent sm("<sm>text<!--c--><id/></sm>");
  const auto children = sm->getChildNodes();
  EXPECT_FALSE(sm->commentNodeWithElementNode(children[0]));
  EXPECT_FALSE(sm->commentNodeWithElementNode(children[1]));
  EXPECT_FALSE(sm->commentNodeWithElementNode(XmlNode()));
  EXPECT_EQ(sm->commentNodeWithElementNode(children[2]).stringValue(), "<id/>");
}

TEST(CommentForms, AnElementIsMadeOfCommentsOnly) {
  OneComponent sm("<sm>text<!--<a>1</a>--><id/></sm>");
  const auto children = sm->getChildNodes();
  EXPECT_FALSE(sm->elementNodeWithCommentNode(children[0]));
  EXPECT_FALSE(sm->elementNodeWithCommentNode(children[2]));
  EXPECT_FALSE(sm->elementNodeWithCommentNode(XmlNode()));
  EXPECT_EQ(outline(sm->elementNodeWithCommentNode(children[1])), "<a>1</a>");
}

TEST(CommentForms, ANewNodeIsAnElementForStateOneAndACommentForAnyOther) {
  OneComponent sm("<sm/>");
  EXPECT_EQ(outline(sm->newNodeWithName_stringValue_nodeState("a", "1", 1)), "<a>1</a>");
  EXPECT_EQ(outline(sm->newNodeWithName_stringValue_nodeState("a", std::nullopt, 1)), "<a></a>");
  EXPECT_EQ(outline(sm->newNodeWithName_stringValue_nodeState("a", "1", 0)), "<!--<a>1</a>-->");
  EXPECT_EQ(outline(sm->newNodeWithName_stringValue_nodeState("a", "", 0)), "<!--<a></a>-->");
  EXPECT_EQ(outline(sm->newNodeWithName_stringValue_nodeState("a", std::nullopt, 0)), "<!--<a>(null)</a>-->");
  EXPECT_EQ(outline(sm->newNodeWithName_stringValue_nodeState("a", "1", 2)), "<!--<a>1</a>-->");
  EXPECT_FALSE(sm->newNodeWithName_stringValue_nodeState("", "1", 1));
  EXPECT_FALSE(sm->newNodeWithName_stringValue_nodeState("a", "\x01", 1));
}

TEST(SettingAList, AllMatchesAreReplacedByOneElementForEachValueAtTheEnd) {
  OneComponent sm("<sm><a>1</a><!--<a>2</a>--><b/><a k='v'>3</a></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"x", "y"}, "sm.a", 1, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><b></b><a>x</a><a>y</a></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAList, WithoutReplacingTheValuesAreAddedToThoseThatAreThere) {
  OneComponent sm("<sm><a>1</a><b/></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"x"}, "sm.a", 1, kSetModeAdd, false);
  EXPECT_EQ(sm.tree(), "<sm><a>1</a><b></b><a>x</a></sm>");
}

TEST(SettingAList, AnyStateButOneAddsComments) {
  OneComponent sm("<sm><a>1</a></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"x", ""}, "sm.a", 0, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><!--<a>x</a>--><!--<a></a>--></sm>");
}

TEST(SettingAList, AnEmptyListTakesAllMatchesAwayAndMarksTheTreeAsChanged) {
  OneComponent sm("<sm><a>1</a><b/></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({}, "sm.a", 1, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><b></b></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAList, AnEmptyListForAMissingElementStillMarksTheTreeAsChanged) {
  OneComponent sm("<sm><l/></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({}, "sm.l.a", 1, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><l></l></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAList, WithoutAMatchTheValuesGoToTheParentOfThePath) {
  OneComponent sm("<sm><l><z/></l></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"1", "2"}, "sm.l.a", 1, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><l><z></z><a>1</a><a>2</a></l></sm>");
}

TEST(SettingAList, WithoutAMatchAndAParentNothingHappens) {
  OneComponent sm("<sm><l/></sm>");
  for (const char* path : {"sm.none.a", "sm.a", "sm", ""}) {
    sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"1"}, path, 1, kSetModeAdd, true);
  }
  EXPECT_EQ(sm.tree(), "<sm><l></l></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(SettingAList, ASwitchedOffParentTakesNothingAndTheErrorIsLogged) {
  OneComponent sm("<sm><!--<l/>--></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"1"}, "sm.l.a", 1, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><!--<l/>--></sm>");
  EXPECT_FALSE(sm->configDirty());
  EXPECT_TRUE(sm.platform.log.has(kLogError, "a switched-off element cannot take values: sm.l.a"));
}

TEST(SettingAList, NoOtherModeChangesAnything) {
  OneComponent sm("<sm><a>1</a></sm>");
  for (const int mode : {0, 2, -1}) {
    sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"x"}, "sm.a", 1, mode, true);
  }
  EXPECT_EQ(sm.tree(), "<sm><a>1</a></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(SettingAList, ValuesStopWhereNoNodeCanBeMade) {
  OneComponent sm("<sm><l/></sm>");
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"1", "2"}, "sm.l.", 1, kSetModeAdd, true);
  EXPECT_EQ(sm.tree(), "<sm><l></l></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAnAttribute, EveryMatchGetsIt) {
  OneComponent sm("<sm><a k='1' z='9'/><a/><b/></sm>");
  sm->setAttributeValue_forKey_atPath_matchingAttributes("2", "k", "sm.a", std::nullopt);
  EXPECT_EQ(sm.tree(), "<sm><a k=2 z=9></a><a k=2></a><b></b></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAnAttribute, AnAbsentValueRemovesIt) {
  OneComponent sm("<sm><a k='1' z='9'/><a/></sm>");
  sm->setAttributeValue_forKey_atPath_matchingAttributes(std::nullopt, "k", "sm.a", std::nullopt);
  EXPECT_EQ(sm.tree(), "<sm><a z=9></a><a></a></sm>");
  EXPECT_TRUE(sm->configDirty());
}

TEST(SettingAnAttribute, OnlyElementsWithTheWantedAttributesAreChanged) {
  OneComponent sm("<sm><a n='1'/><a n='2'/></sm>");
  sm->setAttributeValue_forKey_atPath_matchingAttributes("v", "k", "sm.a", AttributeFilter{{"n", "2"}});
  EXPECT_EQ(sm.tree(), "<sm><a n=1></a><a n=2 k=v></a></sm>");
}

TEST(SettingAnAttribute, WithoutAMatchTheTreeStaysClean) {
  OneComponent sm("<sm><a n='1'/></sm>");
  sm->setAttributeValue_forKey_atPath_matchingAttributes("v", "k", "sm.b", std::nullopt);
  sm->setAttributeValue_forKey_atPath_matchingAttributes("v", "k", "sm.a", AttributeFilter{{"n", "2"}});
  sm->setAttributeValue_forKey_atPath_matchingAttributes("v", "k", "sm.a", AttributeFilter{});
  EXPECT_EQ(sm.tree(), "<sm><a n=1></a></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(SettingAnAttribute, SwitchedOffMatchesAreSkippedAndLeaveTheTreeCleanByThemselves) {
  OneComponent off("<sm><!--<a/>--></sm>");
  off->setAttributeValue_forKey_atPath_matchingAttributes("v", "k", "sm.a", std::nullopt);
  EXPECT_EQ(off.tree(), "<sm><!--<a/>--></sm>");
  EXPECT_FALSE(off->configDirty());
  OneComponent both("<sm><!--<a/>--><a/></sm>");
  both->setAttributeValue_forKey_atPath_matchingAttributes("v", "k", "sm.a", std::nullopt);
  EXPECT_EQ(both.tree(), "<sm><!--<a/>--><a k=v></a></sm>");
  EXPECT_TRUE(both->configDirty());
}

TEST(SettingAnAttribute, MarkupCharactersAreEscapedInTheFile) {
  OneComponent sm("<sm><a/></sm>");
  sm->setAttributeValue_forKey_atPath_matchingAttributes("<\"'&>", "k", "sm.a", std::nullopt);
  ASSERT_TRUE(sm->saveDocument());
  const auto matches = OneComponent(sm.file())->getNodesForPath_withAttributes("sm.a", std::nullopt);
  ASSERT_TRUE(matches);
  EXPECT_EQ(matches->front().node.attribute("k"), "<\"'&>");
}

TEST(ReplacingANode, TheNewNodeIsAppendedAndTheTreeNotMarked) {
  OneComponent sm("<sm><a/><b/></sm>");
  int state = kNodeNotFound;
  const XmlNode a = sm->getNodeForPath_nodeState("sm.a", state);
  sm->replaceNode_withNode(a, XmlNode::makeElement("c", "x"));
  EXPECT_EQ(sm.tree(), "<sm><b></b><c>x</c></sm>");
  EXPECT_FALSE(sm->configDirty());
}

TEST(ReplacingANode, WithoutANewNodeTheOldOneIsTakenOut) {
  OneComponent sm("<sm><a/><b/></sm>");
  int state = kNodeNotFound;
  sm->replaceNode_withNode(sm->getNodeForPath_nodeState("sm.a", state), XmlNode());
  EXPECT_EQ(sm.tree(), "<sm><b></b></sm>");
}

TEST(ReplacingANode, ANewNodeFromElsewhereInTheTreeIsMoved) {
  OneComponent sm("<sm><a/><l><b>1</b></l></sm>");
  int state = kNodeNotFound;
  const XmlNode a = sm->getNodeForPath_nodeState("sm.a", state);
  sm->replaceNode_withNode(a, sm->getNodeForPath_nodeState("sm.l.b", state));
  EXPECT_EQ(sm.tree(), "<sm><l></l><b>1</b></sm>");
}

TEST(ReplacingANode, AnAbsentOldNodeChangesNothing) {
  OneComponent sm("<sm><a/></sm>");
  sm->replaceNode_withNode(XmlNode(), XmlNode::makeElement("c", "x"));
  EXPECT_EQ(sm.tree(), "<sm><a></a></sm>");
}

TEST(TextThatXmlCannotHold, IsRefusedWithAnErrorAndLeavesTheTreeAsItWas) {
  const std::string xml = "<sm><a>1</a><!--<b>2</b>--><l></l></sm>";
  OneComponent sm(xml);
  for (const std::string& bad :
       {std::string("\x01"), std::string("a\0b", 3), std::string("\xff"), std::string("\xef\xbf\xbe")}) {
    sm->setStringValue_forPath_nodeState(bad, "sm.a", kNodeLive);
    sm->setStringValue_forPath_nodeState(bad, "sm.b", kNodeLive);
    sm->setStringValue_forPath_nodeState(bad, "sm.l.c", kNodeLive);
    sm->setStringValue_forPath_nodeState(bad, "sm.l.c", kNodeSwitchedOff);
    sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"good", bad}, "sm.a", 1, 1, true);
    sm->setAttributeValue_forKey_atPath_matchingAttributes(bad, "k", "sm.a", std::nullopt);
  }
  EXPECT_EQ(sm.tree(), xml);
  EXPECT_FALSE(sm->configDirty());
  EXPECT_TRUE(sm.platform.log.has(kLogError, "value with characters that XML cannot hold, not set: sm.l.c"));
  EXPECT_EQ(sm.platform.log.messages(kLogError).size(), 24U);
}

TEST(WithoutADocument, EveryChangeIsSilentlyNone) {
  OneComponent sm("not XML");
  sm->setStringValue_forPath_nodeState("1", "sm.a", kNodeLive);
  sm->setStringValues_forPath_nodeState_setMode_replaceExisting({"1"}, "sm.a", 1, kSetModeAdd, true);
  sm->setAttributeValue_forKey_atPath_matchingAttributes("1", "k", "sm.a", std::nullopt);
  sm->replaceNode_withNode(XmlNode(), XmlNode());
  EXPECT_FALSE(sm->configDirty());
  EXPECT_THAT(sm.platform.log.messages(), IsEmpty());
}

}  // namespace
}  // namespace tessard
