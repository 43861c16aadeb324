#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "common/XmlDocument.h"

namespace tessard {
namespace {

using namespace std::string_literals;

XmlDocument parsed(const std::string& bytes) {
  Result<XmlDocument> document = XmlDocument::parse(bytes);
  if (!document) {
    ADD_FAILURE() << document.error().description() << "\n" << bytes;
    return XmlDocument::parse("<none/>").value();
  }
  return std::move(document).value();
}

std::string written(const XmlDocument& document) {
  const Result<std::string> bytes = document.serialize();
  return bytes ? bytes.value() : "failed: " + bytes.error().description();
}

XmlNode elementNamed(const XmlNode& below, std::string_view name) {
  for (const XmlNode& child : below.children()) {
    if (!child.isElement()) continue;
    if (child.name() == name) return child;
    if (XmlNode found = elementNamed(child, name)) return found;
  }
  return {};
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

// What becomes of a document when something is done to its root.
template <class Edit>
std::string edited(const std::string& bytes, Edit edit) {
  const XmlDocument document = parsed(bytes);
  edit(document.root());
  return written(document);
}

const auto appendToRoot = [](const XmlNode& root) { root.append(XmlNode::makeElement("n", "v")); };
const auto appendToP = [](const XmlNode& root) {
  elementNamed(root, "p").append(XmlNode::makeElement("n", "v"));
};

auto detachNamed(const std::string& name) {
  return [name](const XmlNode& root) { elementNamed(root, name).detach(); };
}

auto setText(const std::string& name, const std::string& text) {
  return [=](const XmlNode& root) { elementNamed(root, name).setStringValue(text); };
}

// --- Texts ---

TEST(XmlLayoutOfTexts, OnlyTheContentChanges) {
  EXPECT_EQ(edited("<r>\n<a  b = \"1\" >x</a >\n</r>", setText("a", "y")),
            "<r>\n<a  b = \"1\" >y</a >\n</r>");
  EXPECT_EQ(edited("<r>\n<a>x<b/>y<!-- c --></a>\n</r>", setText("a", "z")), "<r>\n<a>z</a>\n</r>");
  EXPECT_EQ(edited("<r>\n<a>x</a>\n</r>", setText("a", "<&>\"'\r\n\t")),
            "<r>\n<a>&lt;&amp;&gt;\"'&#13;\n\t</a>\n</r>");
}

TEST(XmlLayoutOfTexts, TheSameTextLeavesTheBytes) {
  for (const std::string bytes : {"<r>\n<a>x &#65; <![CDATA[y]]></a>\n</r>", "<r>\n<a>&lt;</a>\n</r>"}) {
    const XmlDocument document = parsed(bytes);
    const XmlNode a = elementNamed(document.root(), "a");
    a.setStringValue(a.stringValue());
    EXPECT_EQ(written(document), bytes);
  }
  EXPECT_EQ(edited("<r>\n<a></a>\n</r>", setText("a", "")), "<r>\n<a></a>\n</r>");
}

TEST(XmlLayoutOfTexts, AnEmptyElementOpensAndAnEmptiedOneCloses) {
  EXPECT_EQ(edited("<r>\n<a/>\n</r>", setText("a", "x")), "<r>\n<a>x</a>\n</r>");
  EXPECT_EQ(edited("<r>\n<a b='c' />\n</r>", setText("a", "x")), "<r>\n<a b='c'>x</a>\n</r>");
  EXPECT_EQ(edited("<r>\n<a></a>\n</r>", setText("a", "x")), "<r>\n<a>x</a>\n</r>");
  EXPECT_EQ(edited("<r>\n<a b = 'c'>x</a>\n</r>", setText("a", "")), "<r>\n<a b = 'c'/>\n</r>");
  EXPECT_EQ(edited("<r>\n<a>x</a>\n</r>", detachNamed("a")), "<r>\n</r>");
  EXPECT_EQ(edited("<r>\n<p><a/></p>\n</r>", detachNamed("a")), "<r>\n<p/>\n</r>");
}

TEST(XmlLayoutOfTexts, CommentsAndTextNodesTakeNewTextToo) {
  const XmlDocument document = parsed("<r>\n<!-- one -->two\n</r>");
  document.root().children()[1].setStringValue(" a--b-");
  document.root().children()[2].setStringValue("<2>");
  EXPECT_EQ(written(document), "<r>\n<!-- a-&#45;b&#45;-->&lt;2&gt;</r>");
}

// --- Attributes ---

TEST(XmlLayoutOfAttributes, OnlyTheAttributesBytesChange) {
  const std::string bytes = "<r>\n<a  b = \"1\"\n\tc='2'  d='3' />\n</r>";
  const auto set = [&](const std::string& name, const std::string& value) {
    return edited(bytes, [&](const XmlNode& root) { elementNamed(root, "a").setAttribute(name, value); });
  };
  EXPECT_EQ(set("b", "x"), "<r>\n<a  b = \"x\"\n\tc='2'  d='3' />\n</r>");
  EXPECT_EQ(set("c", "it's"), "<r>\n<a  b = \"1\"\n\tc=\"it's\"  d='3' />\n</r>");
  EXPECT_EQ(set("c", "'\""), "<r>\n<a  b = \"1\"\n\tc=\"'&quot;\"  d='3' />\n</r>");
  EXPECT_EQ(set("b", "a\"b"), "<r>\n<a  b = 'a\"b'\n\tc='2'  d='3' />\n</r>");
  EXPECT_EQ(set("c", "<&>\n\t\r"), "<r>\n<a  b = \"1\"\n\tc='&lt;&amp;&gt;&#10;&#9;&#13;'  d='3' />\n</r>");
  EXPECT_EQ(set("c", "2"), bytes);
  EXPECT_EQ(set("e", "5"), "<r>\n<a  b = \"1\"\n\tc='2'  d='3' e='5' />\n</r>");
  const auto remove = [&](const std::string& name) {
    return edited(bytes, [&](const XmlNode& root) { elementNamed(root, "a").removeAttribute(name); });
  };
  EXPECT_EQ(remove("b"), "<r>\n<a\n\tc='2'  d='3' />\n</r>");
  EXPECT_EQ(remove("c"), "<r>\n<a  b = \"1\"  d='3' />\n</r>");
  EXPECT_EQ(remove("d"), "<r>\n<a  b = \"1\"\n\tc='2' />\n</r>");
  EXPECT_EQ(remove("x"), bytes);
}

TEST(XmlLayoutOfAttributes, AreAddedToTagsOfEveryForm) {
  const auto add = [](const XmlNode& root) { root.setAttribute("a", "it's"); };
  EXPECT_EQ(edited("<r/>\n", add), "<r a=\"it's\"/>\n");
  EXPECT_EQ(edited("<r>x</r>\n", add), "<r a=\"it's\">x</r>\n");
  const XmlNode made = XmlNode::makeElement("m", "");
  made.setAttribute("a", "1");
  made.setAttribute("b", "\xc3\xa9");
  made.removeAttribute("a");
  EXPECT_EQ(edited("<r>\n</r>", [&](const XmlNode& root) { root.append(made); }),
            "<r>\n  <m b='\xc3\xa9'/>\n</r>");
}

// --- Appending ---

TEST(XmlLayoutOfAppended, AnElementGoesOnALineOfItsOwnLikeItsSiblings) {
  EXPECT_EQ(edited("<r>\n  <a/>\n</r>\n", appendToRoot), "<r>\n  <a/>\n  <n>v</n>\n</r>\n");
  EXPECT_EQ(edited("<r>\n\n      <a/>\n\n\n</r>", appendToRoot),
            "<r>\n\n      <a/>\n      <n>v</n>\n\n\n</r>");
  EXPECT_EQ(edited("<r>\n\t<!-- c -->\n</r>", appendToRoot), "<r>\n\t<!-- c -->\n\t<n>v</n>\n</r>");
  EXPECT_EQ(edited("<r>\n<a/>\n</r>", appendToRoot), "<r>\n<a/>\n<n>v</n>\n</r>");
  EXPECT_EQ(edited("<r>\r\n  <a/>\r\n</r>", appendToRoot), "<r>\r\n  <a/>\r\n  <n>v</n>\r\n</r>");
  EXPECT_EQ(edited("<r>\r  <a/>\r</r>", appendToRoot), "<r>\r  <a/>\r  <n>v</n>\r</r>");
}

TEST(XmlLayoutOfAppended, ANoteBehindTheLastSiblingStaysOnItsLine) {
  EXPECT_EQ(edited("<r>\n  <a/> <!-- note -->\n</r>", appendToRoot),
            "<r>\n  <a/> <!-- note -->\n  <n>v</n>\n</r>");
  EXPECT_EQ(edited("<r>\n  <a/><b/></r>", appendToRoot), "<r>\n  <a/><b/>\n  <n>v</n>\n</r>");
}

TEST(XmlLayoutOfAppended, TheFirstChildGivesAnEmptyElementALayout) {
  for (const std::string empty : {"<p/>", "<p></p>", "<p />", "<p> </p>"}) {
    EXPECT_EQ(edited("<r>\n  <a>\n     <b/>\n  </a>\n  " + empty + "\n</r>", appendToP),
              "<r>\n  <a>\n     <b/>\n  </a>\n  <p>\n    <n>v</n>\n  </p>\n</r>");
  }
  EXPECT_EQ(edited("<r>\n\t<p/>\n</r>", appendToP), "<r>\n\t<p>\n\t\t<n>v</n>\n\t</p>\n</r>");
  EXPECT_EQ(edited("<r>\n<p/>\n</r>", appendToP), "<r>\n<p>\n  <n>v</n>\n</p>\n</r>");
  EXPECT_EQ(edited("<r>\n  <p>\n  </p>\n</r>", appendToP), "<r>\n  <p>\n    <n>v</n>\n  </p>\n</r>");
  EXPECT_EQ(edited("<r>\n  <x><p/></x>\n</r>", appendToP), "<r>\n  <x><p>\n    <n>v</n>\n  </p></x>\n</r>");
  EXPECT_EQ(edited("<r>\n  <p><a/></p>\n</r>", appendToP), "<r>\n  <p><a/>\n    <n>v</n>\n  </p>\n</r>");
}

TEST(XmlLayoutOfAppended, NextToRealTextNothingIsAdded) {
  EXPECT_EQ(edited("<r>\n  <p>text</p>\n</r>", appendToP), "<r>\n  <p>text<n>v</n></p>\n</r>");
  EXPECT_EQ(edited("<r>\n  <p>text\n  </p>\n</r>", appendToP), "<r>\n  <p>text\n  <n>v</n></p>\n</r>");
  EXPECT_EQ(edited("<r>\n  <p><![CDATA[ ]]></p>\n</r>", appendToP),
            "<r>\n  <p><![CDATA[ ]]><n>v</n></p>\n</r>");
  EXPECT_EQ(edited("<r>\n  <p>&#32;</p>\n</r>", appendToP), "<r>\n  <p>&#32;<n>v</n></p>\n</r>");
}

TEST(XmlLayoutOfAppended, ATreeMadeBeforeIsLaidOutWhenItJoins) {
  const XmlNode outer = XmlNode::makeElement("outer", "");
  const XmlNode inner = XmlNode::makeElement("inner", "");
  inner.append(XmlNode::makeElement("leaf", "x"));
  inner.append(XmlNode::makeComment(" c "));
  outer.append(inner);
  outer.append(XmlNode::makeElement("empty", ""));
  EXPECT_EQ(edited("<r>\n\t<a/>\n</r>", [&](const XmlNode& root) { root.append(outer); }),
            "<r>\n\t<a/>\n\t<outer>\n\t\t<inner>\n\t\t\t<leaf>x</leaf>\n\t\t\t<!-- c -->\n\t\t</inner>\n"
            "\t\t<empty/>\n\t</outer>\n</r>");
}

TEST(XmlLayoutOfAppended, AnElementOutOfACommentKeepsItsLines) {
  const std::string bytes = "<r>\n  <a/>\n  <!--<b c='d'>\n    <e />\n  </b>-->\n  <f/>\n</r>\n";
  EXPECT_EQ(edited(bytes,
                   [](const XmlNode& root) {
                     const XmlNode comment = root.children()[3];
                     const XmlNode element = comment.elementInComment();
                     comment.detach();
                     root.append(element);
                   }),
            "<r>\n  <a/>\n  <f/>\n  <b c='d'>\n    <e />\n  </b>\n</r>\n");
}

TEST(XmlLayoutOfAppended, TheLastChildAppendedAgainStaysWhereItIs) {
  const std::string bytes = "<r>\n  <a/>\n  <b/>\n</r>";
  EXPECT_EQ(edited(bytes, [](const XmlNode& root) { root.append(elementNamed(root, "b")); }), bytes);
  EXPECT_EQ(edited(bytes, [](const XmlNode& root) { root.append(elementNamed(root, "a")); }),
            "<r>\n  <b/>\n  <a/>\n</r>");
}

TEST(XmlLayoutOfAppended, ATextNodeCanMoveWithoutMakingMarkup) {
  const XmlDocument document = parsed("<r>\n<a>x]]</a><b>></b></r>");
  elementNamed(document.root(), "a").append(elementNamed(document.root(), "b").firstChild());
  EXPECT_EQ(written(document), "<r>\n<a>x]]&gt;</a><b/></r>");
}

TEST(XmlLayoutOfAppended, LineEndsInAddedTextBecomeTheFilesOwn) {
  EXPECT_EQ(edited("<r>\r\n  <a/>\r\n</r>",
                   [](const XmlNode& root) {
                     elementNamed(root, "a").setStringValue("x\ny");
                     root.append(XmlNode::makeComment("1\n2"));
                   }),
            "<r>\r\n  <a>x\r\ny</a>\r\n  <!--1\r\n2-->\r\n</r>");
}

TEST(XmlLayoutOfAppended, CharactersThatTheEncodingLacksBecomeReferences) {
  const std::string head = "<?xml version='1.0' encoding='us-ascii'?>\n";
  const std::string text = "\xc3\xa9\xf0\x9f\x98\x80";
  const auto edit = [&](const XmlNode& root) {
    root.append(XmlNode::makeElement("a", text));
    elementNamed(root, "a").setAttribute("b", text);
    root.append(XmlNode::makeComment("<c>" + text + "</c>"));
  };
  EXPECT_EQ(edited(head + "<r>\n</r>", edit), head +
                                                  "<r>\n  <a b='&#233;&#128512;'>&#233;&#128512;</a>\n"
                                                  "  <!--<c>&#233;&#128512;</c>-->\n</r>");
  const XmlDocument document = parsed(head + "<r>\n</r>");
  document.root().append(XmlNode::makeElement("\xc3\xa9", ""));
  EXPECT_EQ(document.serialize().error().code(), kXmlUnwritable);
}

TEST(XmlLayoutOfAppended, PartsOfALatinOneFileCanMoveToAUtf8File) {
  const XmlDocument from = parsed(
      "<?xml version='1.0' encoding='iso-8859-1'?><r><\xe9 a='\xe9'>\xfc<!--\xe4--><?p \xf6?></\xe9></r>");
  const XmlDocument to = parsed("<r>\n</r>");
  to.root().append(from.root().firstChild());
  EXPECT_EQ(written(to),
            "<r>\n  <\xc3\xa9 a='\xc3\xa9'>\xc3\xbc<!--\xc3\xa4--><?p \xc3\xb6?></\xc3\xa9>\n</r>");
  EXPECT_TRUE(XmlDocument::parse(written(to)).ok());
}

// --- Detaching ---

TEST(XmlLayoutOfDetached, ANodeTakesItsLineWithIt) {
  EXPECT_EQ(edited("<r>\n  <a/>\n  <b/>\n  <c/>\n</r>", detachNamed("b")), "<r>\n  <a/>\n  <c/>\n</r>");
  EXPECT_EQ(edited("<r>\r\n  <a/>\r\n  <b>\r\n  </b>\r\n</r>", detachNamed("b")), "<r>\r\n  <a/>\r\n</r>");
  EXPECT_EQ(edited("<r>\n\n  <b/>  \n\n</r>", detachNamed("b")), "<r>\n  \n\n</r>");
}

TEST(XmlLayoutOfDetached, ALineWithMoreOnItStays) {
  EXPECT_EQ(edited("<r>\n  <a/><b/>\n</r>", detachNamed("b")), "<r>\n  <a/>\n</r>");
  EXPECT_EQ(edited("<r>\n  <a/> <!-- note -->\n</r>", detachNamed("a")), "<r>\n  <!-- note -->\n</r>");
  EXPECT_EQ(edited("<r>\n  <a/> <b/>\n</r>", detachNamed("b")), "<r>\n  <a/>\n</r>");
  EXPECT_EQ(edited("<r>\n\n  <a/> <b/> <c/>\n</r>", detachNamed("b")), "<r>\n\n  <a/> <c/>\n</r>");
  EXPECT_EQ(edited("<r>\n\n  <a/> <b/>\n</r>", detachNamed("a")), "<r>\n\n  <b/>\n</r>");
  EXPECT_EQ(edited("<r>\n  <a/>\n  <b/></r>", detachNamed("b")), "<r>\n  <a/>\n  </r>");
  EXPECT_EQ(edited("<r>\ntext\n  <a/>\n</r>", detachNamed("a")), "<r>\ntext\n  \n</r>");
}

TEST(XmlLayoutOfDetached, TwoTextsThatMeetDoNotMakeMarkup) {
  for (const std::string bytes :
       {"<r>]]<a/>></r>", "<r>]<a/>]></r>", "<r>]]<a/>]></r>", "<r><![CDATA[x]]><a/>&gt;</r>"}) {
    const XmlDocument document = parsed(bytes);
    const std::string value = document.root().stringValue();
    elementNamed(document.root(), "a").detach();
    EXPECT_EQ(document.root().children().size(), 1U);
    EXPECT_EQ(parsed(written(document)).root().stringValue(), value) << bytes;
  }
}

// --- Documents without layout ---

TEST(XmlLayoutOfOneLine, AChangedDocumentIsIndented) {
  EXPECT_EQ(edited("<?xml version='1.0'?><!-- c --><r><a b='c'><d>x</d> <e></e></a><f>t<g/></f><h> </h></r>",
                   appendToRoot),
            "<?xml version='1.0'?>\n<!-- c -->\n<r>\n  <a b='c'>\n    <d>x</d>\n    <e/>\n  </a>\n"
            "  <f>t<g/></f>\n  <h> </h>\n  <n>v</n>\n</r>\n");
  EXPECT_EQ(edited("<r/>", appendToRoot), "<r>\n  <n>v</n>\n</r>\n");
  EXPECT_EQ(edited("<r><a/></r>\r\n", appendToRoot), "<r>\r\n  <a/>\r\n  <n>v</n>\r\n</r>\r\n");
  EXPECT_EQ(edited("<r><a/></r>", [](const XmlNode& root) { root.setAttribute("b", "c"); }),
            "<r b='c'>\n  <a/>\n</r>\n");
  EXPECT_EQ(edited("\xef\xbb\xbf<r><a/></r>", appendToRoot), "\xef\xbb\xbf<r>\n  <a/>\n  <n>v</n>\n</r>\n");
}

TEST(XmlLayoutOfOneLine, AnUnchangedDocumentStaysOnItsLine) {
  EXPECT_EQ(written(parsed("<r><a></a></r>")), "<r><a></a></r>");
}

TEST(XmlLayoutOfOneLine, IndentingTwiceChangesNothing) {
  const std::string once = edited("<r><a><b>x</b></a>t<c/></r>", appendToRoot);
  EXPECT_EQ(edited(once, [](const XmlNode& root) { root.setAttribute("a", "b"); }),
            edited(edited("<r><a><b>x</b></a>t<c/></r>", appendToRoot),
                   [](const XmlNode& root) { root.setAttribute("a", "b"); }));
  EXPECT_EQ(written(parsed(once)), once);
}

// --- The package's own files ---

// The lines that `diff` shows between two texts, without its line numbers.
std::vector<std::string> changedLines(const std::string& before, const std::string& after) {
  const std::filesystem::path directory =
      std::filesystem::temp_directory_path() / ("xml-layout-" + std::to_string(std::random_device()()));
  std::filesystem::create_directory(directory);
  std::ofstream(directory / "a", std::ios::binary) << before;
  std::ofstream(directory / "b", std::ios::binary) << after;
  const std::string command =
      "diff '" + (directory / "a").string() + "' '" + (directory / "b").string() + "'";
  std::vector<std::string> lines;
  FILE* const pipe = popen(command.c_str(), "r");
  char buffer[4096];
  while (pipe && fgets(buffer, sizeof buffer, pipe)) {
    const std::string line = buffer;
    if (line[0] == '<' || line[0] == '>') lines.push_back(line.substr(0, line.size() - 1));
  }
  if (pipe) pclose(pipe);
  std::filesystem::remove_all(directory);
  return lines;
}

using Lines = std::vector<std::string>;

TEST(XmlLayoutOfInstalledFiles, SwitchingAnElementOffMovesOneLine) {
  const std::string bytes = contentOf("/etc/jabberd2/router.xml");
  const XmlDocument document = parsed(bytes);
  const XmlNode pidfile = elementNamed(document.root(), "pidfile");
  const XmlNode comment = XmlNode::makeComment("<pidfile>" + pidfile.stringValue() + "</pidfile>");
  const XmlNode parent = pidfile.parent();
  pidfile.detach();
  parent.append(comment);
  EXPECT_EQ(changedLines(bytes, written(document)),
            (Lines{"<   <pidfile>/var/run/jabberd2/router.pid</pidfile>",
                   ">   <!--<pidfile>/var/run/jabberd2/router.pid</pidfile>-->"}));
  const XmlNode element = comment.elementInComment();
  comment.detach();
  parent.append(element);
  EXPECT_EQ(changedLines(bytes, written(document)),
            (Lines{"<   <pidfile>/var/run/jabberd2/router.pid</pidfile>",
                   ">   <pidfile>/var/run/jabberd2/router.pid</pidfile>"}));
  EXPECT_EQ(parsed(written(document)).root().stringValue(), document.root().stringValue());
}

TEST(XmlLayoutOfInstalledFiles, ANewTextChangesOneLine) {
  const std::string bytes = contentOf("/etc/jabberd2/sm.xml");
  const XmlDocument document = parsed(bytes);
  elementNamed(elementNamed(document.root(), "router"), "port").setStringValue("15347");
  EXPECT_EQ(changedLines(bytes, written(document)),
            (Lines{"<     <port>5347</port>             <!-- default: 5347 -->",
                   ">     <port>15347</port>             <!-- default: 5347 -->"}));
}

TEST(XmlLayoutOfInstalledFiles, AnAppendedElementAddsOneLine) {
  const std::string bytes = contentOf("/etc/jabberd2/c2s.xml");
  const XmlDocument document = parsed(bytes);
  elementNamed(document.root(), "local").append(XmlNode::makeElement("id", "a.example"));
  EXPECT_EQ(changedLines(bytes, written(document)), (Lines{">     <id>a.example</id>"}));
}

TEST(XmlLayoutOfInstalledFiles, AnAttributeChangesOneLine) {
  const std::string bytes = contentOf("/etc/jabberd2/router.xml");
  const XmlDocument document = parsed(bytes);
  elementNamed(document.root(), "log").setAttribute("type", "syslog");
  EXPECT_EQ(changedLines(bytes, written(document)),
            (Lines{"<   <log type='file'>", ">   <log type='syslog'>"}));
}

// --- Random edits ---

bool isLayout(const XmlNode& text) {
  if (text.stringValue().find_first_not_of(" \t\r\n") != std::string::npos) return false;
  for (const XmlNode& sibling : text.parent().children()) {
    if (sibling.kind() != XmlNode::Kind::text) return true;
  }
  return false;
}

// A comment has no references, so a character that the encoding lacks stays written as one.
std::string withReferences(std::string text) {
  for (std::size_t at = 0; (at = text.find("\xc3\xa9", at)) != std::string::npos;)
    text.replace(at, 2, "&#233;");
  return text;
}

// Names, attributes and content of all that is below a node.
std::string shapeOf(const XmlNode& node, bool withLayout) {
  std::string shape;
  for (const XmlNode& child : node.children()) {
    switch (child.kind()) {
      case XmlNode::Kind::text:
        if (withLayout || !isLayout(child)) shape += child.stringValue();
        break;
      case XmlNode::Kind::comment:
        shape += "\x01" + withReferences(child.stringValue()) + "\x02";
        break;
      case XmlNode::Kind::other:
        shape += "\x03";
        break;
      case XmlNode::Kind::element:
        shape += "\x04" + std::string(child.name());
        for (const auto& [name, value] : child.attributes()) {
          shape.append("\x05").append(name).append("\x06").append(value);
        }
        shape += "\x07" + shapeOf(child, withLayout) + "\x08";
    }
  }
  return shape;
}

class RandomEdits {
 public:
  explicit RandomEdits(unsigned seed) : random_(seed) {}

  void edit(const XmlDocument& document) {
    collect(document.root());
    const XmlNode node = any();
    switch (random_() % 8) {
      case 0:
        node.setStringValue(text());
        break;
      case 1:
        node.setAttribute("a" + std::to_string(random_() % 4), text());
        break;
      case 2:
        node.removeAttribute("a" + std::to_string(random_() % 4));
        break;
      case 3:
        node.detach();
        break;
      case 4:
        node.append(any());
        break;
      case 5:
        node.append(XmlNode::makeComment("<e>" + text() + "</e>"));
        break;
      case 6:
        if (const XmlNode parent = node.parent(), inner = node.elementInComment(); inner) {
          node.detach();
          parent.append(inner);
        }
        break;
      default: {
        const XmlNode made = XmlNode::makeElement("n" + std::to_string(random_() % 5), text());
        if (random_() % 2 == 0) made.append(XmlNode::makeElement("m", text()));
        node.append(made);
      }
    }
  }

 private:
  void collect(const XmlNode& root) {
    nodes_.assign(1, root);
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      for (const XmlNode& child : nodes_[i].children()) nodes_.push_back(child);
    }
  }

  XmlNode any() { return nodes_[random_() % nodes_.size()]; }

  std::string text() {
    const std::vector<std::string> texts = {"",  "x",  " ",      "a--b", "]]>",      "<b>&amp;</b>", "'\"",
                                            "-", "\t", "1\n  2", "\r",   "\xc3\xa9", "]]",           ">"};
    return texts[random_() % texts.size()];
  }

  std::mt19937 random_;
  std::vector<XmlNode> nodes_;
};

TEST(XmlLayoutOfRandomEdits, WhatIsWrittenReadsBackAsTheTreeThatWasWritten) {
  const std::vector<std::string> documents = {
      "<r>\n  <a>x</a>\n  <b>\n    <c/><!-- note -->\n  </b>\n\n  <!--<d>1</d>-->\n</r>\n",
      "<?xml version='1.0'?>\r\n<r a1='2'>\r\n\t<a>]]<b/>></a>\r\n\t<?p?><c><![CDATA[<]]>]</c> <d/></r>\r\n",
      "<?xml version='1.0' encoding='iso-8859-1'?>\n<r\xe9 a1='\xe9'>\n  <a>\xe9</a><!--\xe9-->\n</r\xe9>",
      "<?xml version='1.0' encoding='us-ascii'?>\n<r>\n<a/>\n<a/>\n</r>",
      "<r>text <b>mixed\n</b>\n<c/> more</r>",
  };
  for (unsigned seed = 0; seed < 60; ++seed) {
    for (const std::string& bytes : documents) {
      const XmlDocument document = parsed(bytes);
      RandomEdits edits(seed);
      for (int round = 0; round < 30; ++round) {
        edits.edit(document);
        const std::string now = written(document);
        const XmlDocument again = parsed(now);
        ASSERT_EQ(shapeOf(again.root(), true), shapeOf(document.root(), true)) << "seed " << seed << "\n"
                                                                               << now;
        ASSERT_EQ(document.root().attributes(), again.root().attributes());
      }
    }
  }
}

TEST(XmlLayoutOfRandomEdits, ADocumentOnOneLineReadsBackButForTheIndentation) {
  for (unsigned seed = 0; seed < 60; ++seed) {
    for (const std::string bytes :
         {"<r/>", "<r><a>x</a><b> <c/><!--<d>1</d>--></b></r>", "<r>t<a/><b><c/></b></r>"}) {
      const XmlDocument document = parsed(bytes);
      RandomEdits edits(seed);
      for (int round = 0; round < 30; ++round) {
        edits.edit(document);
        const std::string now = written(document);
        ASSERT_EQ(shapeOf(parsed(now).root(), false), shapeOf(document.root(), false)) << now;
      }
    }
  }
}

// --- Size ---

// Work that grows with the square of the size would take minutes here.
TEST(XmlLayoutOfLargeDocuments, ManySiblingsAreAppendedAndDetachedOneAfterTheOther) {
  for (const std::string bytes : {"<r>\n  <a/>\n</r>", "<r/>", "<r>text\n</r>", "<r>\n\n</r>"}) {
    const XmlDocument document = parsed(bytes);
    std::vector<XmlNode> added;
    for (int i = 0; i < 20000; ++i) {
      added.push_back(XmlNode::makeElement("n", std::to_string(i)));
      document.root().append(added.back());
    }
    const std::string large = written(document);
    EXPECT_GT(large.size(), 200000U);
    const XmlDocument again = parsed(large);
    for (const XmlNode& node : again.root().children()) {
      if (node.isElement()) node.detach();
    }
    for (auto node = added.rbegin(); node != added.rend(); ++node) node->detach();
    EXPECT_LT(written(document).size(), 60U);
    EXPECT_LT(written(again).size(), 60U);
  }
}

TEST(XmlLayoutOfLargeDocuments, ManySiblingsOnOneLineAreDetachedOneAfterTheOther) {
  std::string bytes = "<r>\n";
  for (int i = 0; i < 20000; ++i) bytes += "<a/> ";
  bytes += "\n</r>";
  const XmlDocument document = parsed(bytes);
  for (int i = 0; i < 1000; ++i) document.root().append(XmlNode::makeElement("n", ""));
  std::vector<XmlNode> nodes = document.root().children();
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    // From the front and from the back in turn.
    const XmlNode& node = i % 2 == 0 ? nodes[i / 2] : nodes[nodes.size() - 1 - i / 2];
    if (node.isElement()) node.detach();
  }
  EXPECT_EQ(document.root().children().size(), 1U);
}

TEST(XmlLayoutOfLargeDocuments, AHundredThousandCommentsAreLookedThrough) {
  std::string bytes = "<r>\n";
  for (int i = 0; i < 100000; ++i) bytes += i % 2 == 0 ? "  <!-- prose -->\n" : "  <!--<a>1</a>-->\n";
  bytes += "</r>\n";
  const XmlDocument document = parsed(bytes);
  int found = 0;
  for (XmlNode node = document.root().firstChild(); node; node = node.nextSibling()) {
    found += node.elementInComment() ? 1 : 0;
  }
  EXPECT_EQ(found, 50000);
}

}  // namespace
}  // namespace tessard
