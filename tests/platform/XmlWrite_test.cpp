#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {
namespace {

const std::string kSource =
    "<?xml version=\"1.0\"?>\n<!-- before -->\n<sm a='1'>\n  <id>sm</id>\n  <deep>\n    <deeper>\n      "
    "<deepest>x</deepest>\n      <empty></empty><short/>\n    </deeper>\n    <!--<off>x</off>-->\n"
    "    <lines>one\ntwo</lines>\n    <data><![CDATA[<]]></data>\n  </deep>\n  <local><id>a</id> "
    "<b><c/></b>tail</local>\n</sm>\n<!-- behind -->\n";

/// As a writer does that must look at every node.
std::string writtenNodeByNode(const ParsedXml& parsed) {
  const ParsedXml copy = copyXml(*parsed.tree, *parsed.document);
  const XmlNodeId before = (*copy.tree)[copy.document->node].firstChild;
  XmlNodeId root = before;
  while ((*copy.tree)[root].kind != XmlNodeData::Kind::element) root = (*copy.tree)[root].next;
  const XmlNodeId sibling = (*copy.tree)[root].previous;
  unlink(*copy.tree, root);
  linkAfter(*copy.tree, copy.document->node, sibling, root);
  const auto bytes = writeXml(*copy.tree, *copy.document);
  return bytes ? bytes.value() : bytes.error().description();
}

std::vector<XmlNodeId> nodesOf(const ParsedXml& parsed) {
  std::vector<XmlNodeId> nodes;
  const XmlNodeId top = parsed.document->node;
  for (XmlNodeId id = top; id; id = followingWithin(*parsed.tree, id, top)) nodes.push_back(id);
  return nodes;
}

void changeAtRandom(const ParsedXml& parsed, std::mt19937& random) {
  XmlTree& tree = *parsed.tree;
  const auto nodes = nodesOf(parsed);
  const XmlNodeId id = nodes[random() % nodes.size()];
  const auto kind = tree[id].kind;
  const bool isRoot = tree[id].parent == parsed.document->node;
  if (kind == XmlNodeData::Kind::text) {
    setTextMarkup(tree, id, random() % 2 ? "changed" : "");
  } else if (kind == XmlNodeData::Kind::element && random() % 2) {
    changeAttribute(tree, id, "b", "2");
  } else if (kind == XmlNodeData::Kind::element && random() % 2) {
    const XmlNodeId made = tree.make(XmlNodeData::Kind::element);
    tree.setBytes(made, "<made/>");
    appendWithLayout(tree, id, made);
  } else if (!isRoot && id != parsed.document->node) {
    removeWithLayout(tree, id);
  }
  tree.markChanged(parsed.document->node);
}

TEST(XmlWriting, IsTheSameWhetherOrNotWhatIsUnchangedIsLookedAt) {
  std::mt19937 random(3);
  for (int round = 0; round < 2000; ++round) {
    const ParsedXml parsed = parseXml(kSource).value();
    ASSERT_EQ(writeXml(*parsed.tree, *parsed.document).value(), kSource);
    ASSERT_EQ(writtenNodeByNode(parsed), kSource);
    for (int change = 0; change < 6; ++change) {
      changeAtRandom(parsed, random);
      const auto bytes = writeXml(*parsed.tree, *parsed.document);
      ASSERT_TRUE(bytes);
      ASSERT_EQ(bytes.value(), writtenNodeByNode(parsed));
    }
  }
}

TEST(XmlWriting, LooksAtWhatHasMovedForItsDepth) {
  std::string deep = "<x/>";
  for (std::size_t i = 1; i < kXmlDepthLimit - 1; ++i) deep = "<d>" + deep + "</d>";
  const ParsedXml parsed = parseXml("<a>" + deep + "<b><c/></b></a>").value();
  XmlTree& tree = *parsed.tree;
  const XmlNodeId root = tree[parsed.document->node].firstChild;
  const XmlNodeId below = tree[root].lastChild;
  const XmlNodeId moved = tree[root].firstChild;
  ASSERT_TRUE(writeXml(tree, *parsed.document));
  unlink(tree, moved);
  linkAfter(tree, tree[below].firstChild, 0, moved);
  EXPECT_EQ(writeXml(tree, *parsed.document).error().code(), kXmlNestingTooDeep);
}

}  // namespace
}  // namespace tessard
