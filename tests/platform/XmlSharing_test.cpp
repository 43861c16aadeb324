#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {
namespace {

const std::string kSource =
    "<?xml version=\"1.0\"?>\n<!-- a session manager -->\n<sm>\n  <id>sm</id>\n  "
    "<pidfile>/run/sm.pid</pidfile>\n"
    "  <!--<off>x</off>-->\n  <local>\n    <id>a.example</id>\n    <empty></empty>\n    <white> </white>\n"
    "    <lines>one\ntwo</lines>\n    <reference>&lt;</reference>\n    <data><![CDATA[<]]></data>\n  "
    "</local>\n</sm>\n";

XmlDocument parsed(std::string bytes) {
  auto document = XmlDocument::parse(std::move(bytes));
  EXPECT_TRUE(document) << document.error().description();
  return document.value();
}

std::string written(const XmlDocument& document) {
  const auto bytes = document.serialize();
  return bytes ? bytes.value() : bytes.error().description();
}

XmlNode childOf(const XmlNode& parent, std::string_view name) {
  for (const XmlNode& child : parent.children()) {
    if (child.name() == name) return child;
  }
  return {};
}

std::string replaced(std::string text, std::string_view what, std::string_view with) {
  const std::size_t at = text.find(what);
  EXPECT_NE(at, std::string::npos) << what;
  return text.replace(at, what.size(), with);
}

/// What tells two nodes apart for everybody who reads or changes them later.
std::string described(const XmlTree& tree, XmlNodeId id) {
  const XmlNodeData& node = tree[id];
  const bool hasBytes = node.kind != XmlNodeData::Kind::document;
  std::string text = std::to_string(static_cast<int>(node.kind)) + ":" +
                     std::string(hasBytes ? tree.bytes(node) : "") + ":" +
                     std::string(node.kind == XmlNodeData::Kind::element ? tree.endTag(node) : "") + ":" +
                     std::to_string(node.realTexts) + (node.white ? "w" : "") + (node.emptied ? "e" : "") +
                     (node.nameApart ? "n" : "") + (node.added ? "a" : "") + (node.unwritable ? "u" : "");
  for (XmlNodeId child = node.firstChild; child; child = tree[child].next) {
    EXPECT_EQ(tree[child].parent, id);
    text += "(" + described(tree, child) + ")";
  }
  return text;
}

TEST(XmlCopies, HaveTheSameContent) {
  const XmlDocument first = parsed(kSource);
  EXPECT_EQ(written(first.copy()), kSource);
}

TEST(XmlCopies, NeverShowAChangeOfTheOther) {
  const XmlDocument first = parsed(kSource);
  const XmlDocument second = first.copy();
  childOf(first.root(), "id").setStringValue("changed");
  childOf(first.root(), "local").append(XmlNode::makeElement("more", "x"));
  EXPECT_EQ(written(second), kSource);

  childOf(second.root(), "pidfile").setAttribute("kind", "other");
  childOf(childOf(second.root(), "local"), "white").detach();
  EXPECT_EQ(written(first), replaced(replaced(kSource, ">sm<", ">changed<"), "\n  </local>",
                                     "\n    <more>x</more>\n  </local>"));
  EXPECT_EQ(written(second),
            replaced(replaced(kSource, "<pidfile>", "<pidfile kind='other'>"), "    <white> </white>\n", ""));
}

TEST(XmlCopies, OfAChangedDocumentKeepWhatWasChanged) {
  const XmlDocument first = parsed(kSource);
  childOf(first.root(), "id").setStringValue("changed");
  const XmlDocument second = first.copy();
  childOf(first.root(), "id").setStringValue("changed again");
  EXPECT_EQ(written(second), replaced(kSource, ">sm<", ">changed<"));
  EXPECT_EQ(written(first), replaced(kSource, ">sm<", ">changed again<"));
}

TEST(XmlCopies, HaveNodesOfTheirOwn) {
  const XmlDocument first = parsed(kSource);
  const XmlDocument second = first.copy();
  EXPECT_FALSE(first.root() == second.root());
  EXPECT_TRUE(first.root() == first.root());
}

TEST(XmlCopies, OutliveWhatTheyWereCopiedFrom) {
  std::optional<XmlDocument> first = parsed(kSource);
  const XmlDocument second = first->copy();
  childOf(first->root(), "id").setStringValue("changed");
  first.reset();
  EXPECT_EQ(written(second), kSource);
  EXPECT_EQ(childOf(second.root(), "pidfile").stringValue(), "/run/sm.pid");
}

TEST(XmlCopies, OfADocumentThatTookAnothersNodesHaveThemToo) {
  const XmlDocument first = parsed("<a/>");
  const XmlDocument second = parsed(kSource);
  second.root().append(first.root());
  const XmlDocument copy = second.copy();
  EXPECT_EQ(written(copy), replaced(kSource, "\n</sm>", "\n  <a/>\n</sm>"));
  EXPECT_FALSE(first.copy().root()) << "its root stands in the other one";
}

TEST(XmlCopies, LeaveEachOtherAloneUnderRandomEdits) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    XmlDocument kept = parsed(kSource);
    std::vector<XmlDocument> copies{kept.copy(), kept.copy(), kept.copy()};
    std::vector<std::string> expected(copies.size(), kSource);
    for (int step = 0; step < 12; ++step) {
      const std::size_t chosen = random() % copies.size();
      if (random() % 6 == 0) {
        copies[chosen] = copies[(chosen + 1) % copies.size()].copy();
      }
      const XmlNode root = copies[chosen].root();
      const auto children = childOf(root, "local") ? childOf(root, "local").children() : root.children();
      const XmlNode node = children.empty() ? root : children[random() % children.size()];
      switch (random() % 4) {
        case 0:
          node.setStringValue("v" + std::to_string(random() % 100));
          break;
        case 1:
          node.detach();
          break;
        case 2:
          root.append(node);
          break;
        default:
          root.append(XmlNode::makeElement("new", "text"));
      }
      expected[chosen] = written(copies[chosen]);
      for (std::size_t i = 0; i < copies.size(); ++i) ASSERT_EQ(written(copies[i]), expected[i]);
      ASSERT_EQ(written(kept), kSource);
    }
  }
}

TEST(XmlParsingLikeAnother, GivesAnEqualDocumentForEqualBytes) {
  const XmlDocument first = parsed(kSource);
  const auto second = first.parseLike(kSource);
  ASSERT_TRUE(second);
  childOf(second->root(), "id").setStringValue("x");
  EXPECT_EQ(written(first), kSource);
  EXPECT_EQ(written(*second), replaced(kSource, ">sm<", ">x<"));
}

TEST(XmlParsingLikeAnother, TakesPlainTextsThatDiffer) {
  const XmlDocument first = parsed(kSource);
  for (const auto& [id, pid, domain] :
       std::vector<std::array<std::string, 3>>{{"sm_b.example", "/run/sm_b.example.pid", "b.example"},
                                               {"s", "/", "a"},
                                               {"smm", "/run/sm.pid", "x"},
                                               {"m", "x /run/sm.pid", "a.example"},
                                               {"sm", "/run/sm.pid", "a.examplf"},
                                               {"\"quoted\"", "it's]", "- --"}}) {
    const std::string bytes =
        replaced(replaced(replaced(kSource, ">sm<", ">" + id + "<"), "/run/sm.pid", pid), ">a.example<",
                 ">" + domain + "<");
    const auto second = first.parseLike(bytes);
    ASSERT_TRUE(second) << bytes;
    EXPECT_EQ(written(*second), bytes);
    EXPECT_EQ(childOf(second->root(), "id").stringValue(), id);
    EXPECT_EQ(childOf(childOf(second->root(), "local"), "id").stringValue(), domain);
  }
  EXPECT_EQ(written(first), kSource);
}

TEST(XmlParsingLikeAnother, LeavesToTheParserWhatDiffersInMoreThanPlainTexts) {
  const XmlDocument first = parsed(kSource);
  const std::vector<std::pair<std::string, std::string>> changes = {
      {">sm<", "><"},                              // a text that is gone
      {"<empty></empty>", "<empty>x</empty>"},     // a text that is new
      {"> <", ">x<"},                              // real text in place of white space
      {">a.example<", ">  <"},                     // and the reverse
      {">a.example<", ">a&amp;b<"},                // references
      {">a.example<", ">a&b<"},                    // what is none
      {">a.example<", ">a]]>b<"},                  // the end of CDATA without a beginning
      {">a.example<", ">a<b/>c<"},                 // an element within
      {">a.example<", ">a<!--b-->c<"},             // a comment within
      {">a.example<", ">a.exampl<![CDATA[e]]><"},  // CDATA
      {">a.example<", ">a\nb<"},                   // line ends
      {">a.example<", ">a\tb<"},                   //
      {">a.example<", ">\xc3\xa4<"},               // other letters
      {">a.example<", ">\xff<"},                   // no UTF-8
      {">a.example<", std::string(">a\0b<", 5)},   // what XML cannot hold
      {"one\ntwo", "one two"},                     // layout that counts
      {"&lt;", "&gt;"},                            //
      {"<![CDATA[<]]>", "<![CDATA[>]]>"},          //
      {"<id>", "<ID>"},                            // tags
      {"</id>", "</ID>"},                          //
      {"<id>", "<id a='b'>"},                      //
      {"<off>x", "<off>y"},                        // comments
      {"1.0", "1.1"},                              // the declaration
      {"</sm>\n", "</sm>"},                        // an end
      {"</sm>\n", "</sm>\nx"},                     //
      {"</sm>\n", "</sm>\n<more/>"},               //
      {"</local>\n</sm>\n", "</local>\n"},         //
      {"<?xml", " <?xml"},                         // a beginning
  };
  for (const auto& [what, with] : changes) {
    EXPECT_FALSE(first.parseLike(replaced(kSource, what, with))) << what << " -> " << with;
  }
  EXPECT_FALSE(first.parseLike(""));
  EXPECT_FALSE(first.parseLike("<"));
  for (std::size_t length = 0; length < kSource.size(); ++length) {
    ASSERT_FALSE(first.parseLike(std::string_view(kSource).substr(0, length))) << length;
  }
}

TEST(XmlParsingLikeAnother, IsNotForADocumentThatIsNoLongerAsItWasRead) {
  const XmlDocument changed = parsed(kSource);
  childOf(changed.root(), "id").setStringValue("x");
  EXPECT_FALSE(changed.parseLike(kSource));
  EXPECT_FALSE(changed.parseLike(replaced(kSource, ">sm<", ">x<")));

  const std::string other = replaced(kSource, ">sm<", ">other<");
  const auto like = parsed(kSource).parseLike(other);
  ASSERT_TRUE(like);
  EXPECT_FALSE(like->parseLike(other)) << "its own bytes are not together in one place";
}

TEST(XmlParsingLikeAnother, WorksInEveryEncoding) {
  for (const char* encoding : {"ISO-8859-1", "US-ASCII", "UTF-8"}) {
    const std::string bytes = std::string("<?xml version='1.0' encoding='") + encoding + "'?><a><b>x</b></a>";
    const std::string other = replaced(bytes, ">x<", ">plain<");
    const auto like = parsed(bytes).parseLike(other);
    ASSERT_TRUE(like) << encoding;
    childOf(like->root(), "b").setStringValue("\xc3\xa4");
    const XmlDocument directly = parsed(other);
    childOf(directly.root(), "b").setStringValue("\xc3\xa4");
    EXPECT_EQ(written(*like), written(directly));
  }
}

/// Whatever becomes of a text's bytes: what is not left to the parser is the tree that the parser makes.
TEST(XmlParsingLikeAnother, GivesTheParsersTreeForRandomChangesOrNone) {
  std::mt19937 random(11);
  const ParsedXml base = parseXml(kSource).value();
  const std::string letters = "<>&!-[]/= x\n\t'\"\xc3;";
  int taken = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string bytes = kSource;
    for (int change = static_cast<int>(random() % 3); change >= 0; --change) {
      const std::size_t at = random() % bytes.size();
      const char letter = random() % 2 == 0 ? letters[random() % letters.size()]
                                            : static_cast<char>('a' + static_cast<char>(random() % 26));
      switch (random() % 3) {
        case 0:
          bytes[at] = letter;
          break;
        case 1:
          bytes.insert(at, 1, letter);
          break;
        default:
          bytes.erase(at, 1 + random() % 3);
      }
    }
    const auto like = parseXmlLike(*base.tree, *base.document, bytes);
    if (!like) continue;
    ++taken;
    const auto directly = parseXml(bytes);
    ASSERT_TRUE(directly) << bytes;
    ASSERT_EQ(described(*like->tree, like->document->node),
              described(*directly.value().tree, directly.value().document->node));
    ASSERT_EQ(like->document->hasLayout, directly.value().document->hasLayout);
    ASSERT_EQ(like->document->lineEnd, directly.value().document->lineEnd);
    ASSERT_EQ(writeXml(*like->tree, *like->document).value(), bytes);
  }
  EXPECT_GT(taken, 500);
}

TEST(XmlComments, AreToldApartByTheNameOfTheElementInThem) {
  const XmlDocument document = parsed(
      "<a><!--<id>x</id>--><!--<id/>--><!--<id a='b'/>--><!-- "
      "<id/>--><!--id--><!--<identity/>--><!--<>--><!--<--></a>");
  std::vector<bool> may;
  for (const XmlNode& child : document.root().children()) {
    may.push_back(child.mayHoldElementNamed("id"));
    EXPECT_EQ(child.elementInComment().name() == "id", may.back()) << child.stringValue();
  }
  EXPECT_EQ(may, (std::vector<bool>{true, true, true, false, false, false, false, false}));
  EXPECT_FALSE(document.root().mayHoldElementNamed("a")) << "no comment";
  EXPECT_FALSE(XmlNode().mayHoldElementNamed(""));
}

TEST(XmlComments, InAnotherEncodingAreToldApartByTheirNamesToo) {
  const XmlDocument document =
      parsed("<?xml version='1.0' encoding='ISO-8859-1'?><a><!--<\xe4/>--><!--<b/>--></a>");
  const auto comments = document.root().children();
  EXPECT_TRUE(comments[0].mayHoldElementNamed("\xc3\xa4"));
  EXPECT_EQ(comments[0].elementInComment().name(), "\xc3\xa4");
  EXPECT_FALSE(comments[1].mayHoldElementNamed("\xc3\xa4"));
}

TEST(XmlTrees, TellWhatWasMadeSinceTheyWereRead) {
  const XmlDocument document = parsed("<a>\n  <b>x</b>\n</a>");
  const XmlDocument::Weight before = document.weight();
  EXPECT_EQ(before.nodes, before.read);
  for (int i = 0; i < 10; ++i) {
    const XmlNode element = XmlNode::makeElement("c", "y");
    document.root().append(element);
    element.detach();
  }
  EXPECT_EQ(document.weight().read, before.read);
  EXPECT_GE(document.weight().nodes, before.nodes + 20);
}

}  // namespace
}  // namespace tessard
