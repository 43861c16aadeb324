#include "tests/config/ConfigFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;

/// A master with a router and two session managers.
struct ThreeComponents : OneMaster {
  ThreeComponents() : OneMaster("router @router.xml\nsm @sm.xml\nsm @sm_b.xml\n") {
    writeXml("router.xml", "<router><l><a>r</a></l></router>");
    writeXml("sm.xml", "<sm><l><a k='1'>first</a><!--<b>off</b>--></l></sm>");
    writeXml("sm_b.xml", "<sm><l><a>second</a><c>only here</c></l></sm>");
    if (!master->loadAllConfigurations()) throw std::runtime_error("cannot load");
    platform.log.clear();
  }
  Component* component(std::string_view name, std::size_t index) const {
    return master->loadedComponentsForName(name)->at(index).get();
  }
  std::string tree(std::string_view name, std::size_t index = 0) const {
    return outline(component(name, index)->getRootNode());
  }
};

constexpr const char* kSmTree = "<sm><l><a k=1>first</a><!--<b>off</b>--></l></sm>";

TEST(PickingAComponent, TheFirstListedUnderANameIsItsDefault) {
  ThreeComponents master;
  EXPECT_EQ(master->defaultComponentForName("sm"), master.component("sm", 0));
  EXPECT_EQ(master->loadedComponentsForName("sm")->size(), 2U);
  EXPECT_THAT(*master->loadedConfigPathsForName("sm"), ElementsAre(kSm, inDirectory("sm_b.xml")));
}

TEST(PickingAComponent, ThePathsFirstSegmentIsTheName) {
  ThreeComponents master;
  EXPECT_EQ(master->defaultComponentForPath("sm.l.a"), master.component("sm", 0));
  EXPECT_EQ(master->defaultComponentForPath("router"), master.component("router", 0));
  EXPECT_EQ(master->loadedComponentsForPath("sm.l"), master->loadedComponentsForName("sm"));
}

TEST(PickingAComponent, AnUnknownNameGivesNothing) {
  ThreeComponents master;
  for (const char* name : {"c2s", "", "mu", "SM", "s"}) {
    EXPECT_EQ(master->defaultComponentForName(name), nullptr) << name;
    EXPECT_EQ(master->loadedComponentsForName(name), nullptr) << name;
    EXPECT_EQ(master->loadedConfigPathsForName(name), nullptr) << name;
    EXPECT_EQ(master->defaultComponentForPath(name + std::string(".l.a")), nullptr) << name;
    EXPECT_EQ(master->loadedComponentsForPath(name + std::string(".l.a")), nullptr) << name;
  }
}

TEST(PickingAComponent, ANameWhoseListHasBecomeEmptyHasNoDefault) {
  OneMaster master("");
  Master::ComponentLists components;
  components.listFor("sm");
  master->setLoadedComponents(std::move(components));
  EXPECT_EQ(master->defaultComponentForName("sm"), nullptr);
  EXPECT_NE(master->loadedComponentsForName("sm"), nullptr);
}

TEST(PickingAComponent, BeforeALoadThereIsNone) {
  OneMaster master("sm @sm.xml\n");
  EXPECT_EQ(master->defaultComponentForName("sm"), nullptr);
  EXPECT_EQ(master->loadedConfigPathsForName("sm"), nullptr);
}

TEST(Forwarding, ReadingReachesTheDefaultComponentOnly) {
  ThreeComponents master;
  int state = 42;
  EXPECT_EQ(master->getStringValueForPath_nodeState("sm.l.a", state), "first");
  EXPECT_EQ(state, kNodeLive);
  EXPECT_EQ(master->getStringValueForPath_nodeState("sm.l.c", state), std::nullopt);
  EXPECT_EQ(state, kNodeNotFound);
  EXPECT_EQ(master->getNodeStateForPath("sm.l.a"), kNodeLive);
  EXPECT_EQ(master->getNodeStateForPath("sm.l.b"), kNodeSwitchedOff);
  EXPECT_EQ(master->getNodeStateForPath("sm.l.c"), kNodeNotFound);
  EXPECT_EQ(master->getRootNodeForPath("router.l").name(), "router");
  const auto matches = master->getNodesForPath_withAttributes("sm.l.a", AttributeFilter{{"k", "1"}});
  ASSERT_TRUE(matches);
  EXPECT_EQ(matches->size(), 1U);
  EXPECT_EQ(master->getNodesForPath_withAttributes("sm.l.a", AttributeFilter{{"k", "2"}}), std::nullopt);
}

TEST(Forwarding, SettingAValueWithAndWithoutAStateChangesTheDefaultComponentOnly) {
  ThreeComponents master;
  master->setStringValue_forPath("x", "sm.l.a");
  EXPECT_EQ(master.tree("sm"), "<sm><l><a k=1>x</a><!--<b>off</b>--></l></sm>");
  master->setStringValue_forPath_nodeState("y", "sm.l.a", kNodeSwitchedOff);
  EXPECT_EQ(master.tree("sm"), "<sm><l><!--<b>off</b>--><!--<a>x</a>--></l></sm>");
  EXPECT_EQ(master.tree("sm", 1), "<sm><l><a>second</a><c>only here</c></l></sm>");
  EXPECT_FALSE(master.component("sm", 1)->configDirty());
}

TEST(Forwarding, SettingAStateSwitchesWithoutChangingTheText) {
  ThreeComponents master;
  master->setNodeState_forPath(kNodeLive, "sm.l.b");
  EXPECT_EQ(master.tree("sm"), "<sm><l><a k=1>first</a><b>off</b></l></sm>");
  master->setNodeState_forPath(kNodeSwitchedOff, "sm.l.b");
  EXPECT_EQ(master.tree("sm"), kSmTree);
}

TEST(Forwarding, StateOneOnALiveElementChangesNothing) {
  ThreeComponents master;
  master->setNodeState_forPath(kNodeLive, "sm.l.a");
  EXPECT_EQ(master.tree("sm"), kSmTree);
  EXPECT_FALSE(master.component("sm", 0)->configDirty());
}

TEST(Forwarding, StateZeroOnAMissingElementAppendsACommentAndStateOneAnEmptyElement) {
  ThreeComponents master;
  master->setNodeState_forPath(kNodeSwitchedOff, "router.l.x");
  master->setNodeState_forPath(kNodeLive, "router.l.y");
  EXPECT_EQ(master.tree("router"), "<router><l><a>r</a><!--<x>(null)</x>--><y></y></l></router>");
  EXPECT_TRUE(master.component("router", 0)->configDirty());
}

TEST(Forwarding, AListIsSetInFullAndInShortForm) {
  ThreeComponents master;
  master->setStringValues_forPath({"1", "2"}, "router.l.a");
  EXPECT_EQ(master.tree("router"), "<router><l><a>1</a><a>2</a></l></router>");
  master->setStringValues_forPath_nodeState_setMode_replaceExisting({"3"}, "router.l.a", 0, kSetModeAdd,
                                                                    false);
  EXPECT_EQ(master.tree("router"), "<router><l><a>1</a><a>2</a><!--<a>3</a>--></l></router>");
  master->setStringValues_forPath({}, "router.l.a");
  EXPECT_EQ(master.tree("router"), "<router><l></l></router>");
}

TEST(Forwarding, AnAttributeIsSetOnTheDefaultComponent) {
  ThreeComponents master;
  master->setAttributeValue_forKey_atPath_matchingAttributes("v", "n", "sm.l.a", AttributeFilter{{"k", "1"}});
  EXPECT_EQ(master.tree("sm"), "<sm><l><a k=1 n=v>first</a><!--<b>off</b>--></l></sm>");
}

TEST(Forwarding, ReplacingANodeMarksTheComponent) {
  ThreeComponents master;
  const auto matches = master->getNodesForPath_withAttributes("router.l.a", std::nullopt);
  ASSERT_TRUE(matches);
  master->replaceNode_withNode_forPath(matches->front().node, XmlNode::makeElement("z", "1"), "router.l.a");
  EXPECT_EQ(master.tree("router"), "<router><l><z>1</z></l></router>");
  EXPECT_TRUE(master.component("router", 0)->configDirty());
  EXPECT_FALSE(master.component("sm", 0)->configDirty());
}

TEST(Forwarding, WithoutAComponentNothingIsDoneAndAbsenceIsTheAnswer) {
  ThreeComponents master;
  int state = 42;
  EXPECT_EQ(master->getNodesForPath_withAttributes("c2s.a", std::nullopt), std::nullopt);
  EXPECT_FALSE(master->getRootNodeForPath("c2s.a"));
  EXPECT_EQ(master->getStringValueForPath_nodeState("c2s.a", state), std::nullopt);
  EXPECT_EQ(state, kNodeNotFound);
  EXPECT_EQ(master->getNodeStateForPath("c2s.a"), kNodeNotFound);
  master->setStringValue_forPath_nodeState("1", "c2s.a", 1);
  master->setStringValue_forPath("1", "c2s.a");
  master->setNodeState_forPath(0, "c2s.a");
  master->setStringValues_forPath({"1"}, "c2s.a");
  master->setAttributeValue_forKey_atPath_matchingAttributes("1", "k", "c2s.a", std::nullopt);
  const XmlNode a = master->getNodesForPath_withAttributes("sm.l.a", std::nullopt)->front().node;
  master->replaceNode_withNode_forPath(a, XmlNode(), "c2s.a");
  EXPECT_EQ(master.tree("sm"), kSmTree);
  EXPECT_TRUE(master.platform.log.messages().empty());
}

}  // namespace
}  // namespace tessard
