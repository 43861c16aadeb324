#include "common/XmlDocument.h"

#include <expat.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tessard {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

XmlDocument parsed(std::string bytes) {
  Result<XmlDocument> document = XmlDocument::parse(std::move(bytes));
  if (!document) {
    ADD_FAILURE() << document.error().description();
    return XmlDocument::parse("<none/>").value();
  }
  return std::move(document).value();
}

std::string written(const XmlDocument& document) {
  const Result<std::string> bytes = document.serialize();
  return bytes ? bytes.value() : "failed: " + bytes.error().description();
}

// The first element of that name below a node.
XmlNode elementNamed(const XmlNode& below, std::string_view name) {
  for (const XmlNode& child : below.children()) {
    if (!child.isElement()) continue;
    if (child.name() == name) return child;
    if (XmlNode found = elementNamed(child, name)) return found;
  }
  return {};
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

// --- Round trips ---

TEST(XmlRoundTrip, AnUnchangedDocumentIsWrittenByteForByte) {
  const std::vector<std::string> documents = {
      "<a/>",
      "<a />",
      "<a></a>",
      "<a\n   b='1'\n\tc=\"2\"\n/>\n",
      "<?xml version='1.0' encoding=\"utf-8\" ?>\n<!-- before -->\n<a>\n</a>\n<!-- after -->\n<?pi after?>\n",
      "\xef\xbb\xbf<?xml version='1.0'?><a>\xc3\xa9</a>",
      "\xef\xbb\xbf<a/>",
      "<a>\r\n  <b>x &amp; y &#65;&#x42;</b>\r\n</a>\r\n",
      "<a><![CDATA[<raw> & ]] >]]></a>",
      "<a>\r<b/>\r</a>\r",
      "<a><?php echo '<b>' ?>text<!----><!-- - --></a \n >",
      "<x:a xmlns:x='urn:x'><x:b x:c='&lt;&quot;&apos;'/></x:a>",
      "  <a b='\"' c=\"'\" d='>'>&gt;></a>  ",
  };
  for (const std::string& bytes : documents) EXPECT_EQ(written(parsed(bytes)), bytes);
}

TEST(XmlRoundTrip, TheFilesOfDebiansPackageAreWrittenByteForByte) {
  int files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/etc/jabberd2")) {
    if (entry.path().extension() != ".xml") continue;
    ++files;
    const std::string bytes = contentOf(entry.path());
    const Result<XmlDocument> document = XmlDocument::parse(bytes);
    ASSERT_TRUE(document.ok()) << entry.path() << ": " << document.error().description();
    EXPECT_EQ(written(document.value()), bytes) << entry.path();
  }
  EXPECT_GE(files, 6);
}

TEST(XmlRoundTrip, AChangedPartLeavesEveryOtherByteAsItWas) {
  // The edit makes the writer go through every node instead of giving the source back.
  const std::vector<std::string> documents = {
      "\xef\xbb\xbf<?xml version='1.0'?>\n<!-- c -->\n<a  b = '1'\n>\n<k>old</k> t\n</a >\n<?pi?>\n\n",
      "<a>\r\n<k>old</k><b />&#65;<![CDATA[x]]><!-- -->\r\n<c></c ></a>",
      "<?xml version='1.0' encoding='iso-8859-1'?>\n<\xe9 a='\xe9'>\n<k>old</k>\xe9<!--\xe9--><?p "
      "\xe9?></\xe9>",
      "<x:a xmlns:x='urn:x'>\n  <x:b x:c='&lt;&quot;'/>\n  <k>old</k></x:a>",
  };
  for (const std::string& bytes : documents) {
    const XmlDocument document = parsed(bytes);
    elementNamed(document.root(), "k").setStringValue("new");
    std::string expected = bytes;
    expected.replace(expected.find("old"), 3, "new");
    EXPECT_EQ(written(document), expected);
  }
}

// --- Reading ---

TEST(XmlReading, GivesElementsCommentsAndTextsInDocumentOrder) {
  const XmlDocument document = parsed("<r>one<!-- two --><three a='b'/><?four five?> </r>");
  const std::vector<XmlNode> children = document.root().children();
  ASSERT_EQ(children.size(), 5U);
  EXPECT_EQ(children[0].kind(), XmlNode::Kind::text);
  EXPECT_EQ(children[0].stringValue(), "one");
  EXPECT_TRUE(children[1].isComment());
  EXPECT_EQ(children[1].stringValue(), " two ");
  EXPECT_TRUE(children[2].isElement());
  EXPECT_EQ(children[2].name(), "three");
  EXPECT_EQ(children[3].kind(), XmlNode::Kind::other);
  EXPECT_EQ(children[3].stringValue(), "");
  EXPECT_EQ(children[4].stringValue(), " ");
  EXPECT_EQ(document.root().firstChild(), children[0]);
  EXPECT_EQ(children[0].nextSibling(), children[1]);
  EXPECT_FALSE(children[4].nextSibling());
  EXPECT_EQ(children[2].parent(), document.root());
  EXPECT_FALSE(document.root().parent());
}

TEST(XmlReading, AStringValueIsAllTextBelowWithoutComments) {
  const XmlDocument document = parsed(
      "<r> a<b>b<!-- no --><c>c</c></b><![CDATA[<&]]>&amp;&lt;&gt;&quot;&apos;&#65;&#x1F600;\r\nx\ry </r>");
  EXPECT_EQ(document.root().stringValue(), " abc<&&<>\"'A\xf0\x9f\x98\x80\nx\ny ");
}

TEST(XmlReading, LineEndsInCommentsAreReadAsLineFeeds) {
  EXPECT_EQ(parsed("<r><!--a\r\nb\rc--></r>").root().firstChild().stringValue(), "a\nb\nc");
}

TEST(XmlReading, AttributesAreReadByTheirNamesAsWritten) {
  const XmlNode root = parsed("<r a='1' x:b = \"it's &quot;&#10;\" c='a\tb\r\nc\nd'\n/>").root();
  EXPECT_THAT(root.attributes(), ElementsAre(Pair("a", "1"), Pair("x:b", "it's \"\n"), Pair("c", "a b c d")));
  EXPECT_EQ(root.attribute("x:b"), "it's \"\n");
  EXPECT_EQ(root.attribute("b"), std::nullopt);
}

TEST(XmlReading, LatinOneIsReadAsUtf8) {
  const XmlDocument document =
      parsed("<?xml version='1.0' encoding='ISO-8859-1'?>\n<r\xe9 a\xe9='\xfc'>\xe4<!--\xf6--></r\xe9>");
  const XmlNode root = document.root();
  EXPECT_EQ(root.name(), "r\xc3\xa9");
  EXPECT_EQ(root.stringValue(), "\xc3\xa4");
  EXPECT_EQ(root.attribute("a\xc3\xa9"), "\xc3\xbc");
  EXPECT_THAT(root.attributes(), ElementsAre(Pair("a\xc3\xa9", "\xc3\xbc")));
  EXPECT_EQ(root.children()[1].stringValue(), "\xc3\xb6");
}

TEST(XmlReading, AnEmptyHandleGivesNothingAndChangesNothing) {
  const XmlNode none;
  EXPECT_FALSE(none);
  EXPECT_EQ(none, XmlNode());
  EXPECT_EQ(none.kind(), XmlNode::Kind::other);
  EXPECT_EQ(none.name(), "");
  EXPECT_EQ(none.stringValue(), "");
  EXPECT_FALSE(none.parent());
  EXPECT_FALSE(none.firstChild());
  EXPECT_FALSE(none.nextSibling());
  EXPECT_FALSE(none.elementInComment());
  EXPECT_THAT(none.children(), IsEmpty());
  EXPECT_THAT(none.attributes(), IsEmpty());
  EXPECT_EQ(none.attribute("a"), std::nullopt);
  none.setStringValue("x");
  none.setAttribute("a", "b");
  none.removeAttribute("a");
  none.detach();
  none.append(XmlNode::makeElement("a", ""));
  const XmlDocument document = parsed("<r/>");
  document.root().append(none);
  EXPECT_EQ(written(document), "<r/>");
}

// --- Refusals ---

struct Refused {
  const char* why;
  std::string bytes;
  int code;
  int line;
};

const std::vector<Refused>& refusedByTheParser() {
  static const std::vector<Refused> cases = {
      {"no content at all", "", XML_ERROR_NO_ELEMENTS, 1},
      {"white space alone", " \n ", XML_ERROR_NO_ELEMENTS, 2},
      {"text alone", "hello", XML_ERROR_SYNTAX, 1},
      {"an element left open", "<a>\n<b>\n</a>", XML_ERROR_TAG_MISMATCH, 3},
      {"a root left open", "<a>\n\n", XML_ERROR_NO_ELEMENTS, 3},
      {"a tag cut off", "<a>\n<b", XML_ERROR_UNCLOSED_TOKEN, 2},
      {"two roots", "<a/>\n<b/>", XML_ERROR_JUNK_AFTER_DOC_ELEMENT, 2},
      {"a doubled attribute", "<a\nb='1' b='2'/>", XML_ERROR_DUPLICATE_ATTRIBUTE, 2},
      {"an attribute without quotes", "<a b=1/>", XML_ERROR_INVALID_TOKEN, 1},
      {"an entity nobody declared", "<a>\n\n&nbsp;</a>", XML_ERROR_UNDEFINED_ENTITY, 3},
      {"a lone ampersand", "<a>\n& </a>", XML_ERROR_INVALID_TOKEN, 2},
      {"a reference to a character that XML lacks", "<a>&#0;</a>", XML_ERROR_BAD_CHAR_REF, 1},
      {"two hyphens in a comment", "<a>\n<!-- a -- b -->\n</a>", XML_ERROR_INVALID_TOKEN, 2},
      {"a control character", "<a>\n\x01</a>", XML_ERROR_INVALID_TOKEN, 2},
      {"a byte that is no UTF-8", "<a>\n\n\xff</a>", XML_ERROR_INVALID_TOKEN, 3},
      {"the end of a CDATA section in text", "<a>]]></a>", XML_ERROR_INVALID_TOKEN, 1},
      {"a CDATA section left open", "<a>\n<![CDATA[x</a>", XML_ERROR_UNCLOSED_CDATA_SECTION, 2},
      {"an encoding that the parser does not know", "<?xml version='1.0' encoding='windows-1252'?>\n<a/>",
       XML_ERROR_UNKNOWN_ENCODING, 1},
      {"a declaration after a line", "\n<?xml version='1.0'?><a/>", XML_ERROR_MISPLACED_XML_PI, 2},
  };
  return cases;
}

TEST(XmlRefusal, CarriesTheParsersOwnCodeAndLine) {
  for (const Refused& refused : refusedByTheParser()) {
    const Result<XmlDocument> document = XmlDocument::parse(refused.bytes);
    ASSERT_FALSE(document.ok()) << refused.why;
    EXPECT_EQ(document.error().code(), refused.code) << refused.why;
    EXPECT_EQ(document.error().description(), "line " + std::to_string(refused.line) + ": " +
                                                  XML_ErrorString(static_cast<XML_Error>(refused.code)))
        << refused.why;
  }
}

// What jabberd2's router says of a file that it refuses; empty when it goes on to run.
std::string complaintOfTheRouter(const std::string& bytes) {
  char directory[] = "/tmp/xml-router-XXXXXX";
  if (!mkdtemp(directory)) return "no directory";
  const std::string path = directory + "/router.xml"s;
  std::ofstream(path, std::ios::binary) << bytes;
  const std::string command = "timeout 5 /usr/sbin/jabberd2-router -c " + path + " 2>&1";
  std::string said;
  FILE* const pipe = popen(command.c_str(), "r");
  char buffer[512];
  while (pipe && fgets(buffer, sizeof buffer, pipe)) said += buffer;
  if (pipe) pclose(pipe);
  std::filesystem::remove_all(directory);
  const std::size_t begin = said.find("parse error at ");
  return begin == std::string::npos ? "" : said.substr(begin + 15, said.find('\n', begin) - begin - 15);
}

TEST(XmlRefusal, SaysTheSameAsTheRouterThatReadsTheFile) {
  ASSERT_TRUE(std::filesystem::exists("/usr/sbin/jabberd2-router"));
  for (const Refused& refused : refusedByTheParser()) {
    EXPECT_EQ(complaintOfTheRouter(refused.bytes), XmlDocument::parse(refused.bytes).error().description())
        << refused.why;
  }
}

TEST(XmlRefusal, AcceptsPrefixesThatNothingDeclares) {
  EXPECT_TRUE(XmlDocument::parse("<router><a:b c:d='1'/></router>").ok());
  EXPECT_TRUE(XmlDocument::parse("<r xmlns:a='x' xmlns:b='x'><c a:d='1' b:d='2'/></r>").ok());
}

TEST(XmlRefusal, DocumentTypesHaveACodeOfTheirOwn) {
  const std::vector<std::string> documents = {
      "<?xml version='1.0'?>\n<!DOCTYPE r>\n<r/>",
      "\n<!DOCTYPE r SYSTEM 'http://127.0.0.1/x.dtd'>\n<r/>",
      // Entities that grow to a thousand million characters.
      "\n<!DOCTYPE r [<!ENTITY a 'aaaaaaaaaa'><!ENTITY b '&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;'>]>\n<r>&b;</r>",
      "\n<!DOCTYPE r [<!ENTITY f SYSTEM 'file:///etc/passwd'>]><r>&f;</r>",
  };
  for (const std::string& bytes : documents) {
    const Result<XmlDocument> document = XmlDocument::parse(bytes);
    ASSERT_FALSE(document.ok()) << bytes;
    EXPECT_EQ(document.error().code(), kXmlDocumentTypeRefused) << bytes;
    EXPECT_EQ(document.error().description(), "line 2: a document type declaration is not allowed");
  }
}

TEST(XmlRefusal, Utf16IsNotRead) {
  const std::vector<std::string> documents = {"\xff\xfe<\0a\0/\0>\0"s, "\xfe\xff\0<\0a\0/\0>"s,
                                              "<\0a\0/\0>\0"s, "\0<\0a\0/\0>"s};
  for (const std::string& bytes : documents) {
    const Result<XmlDocument> document = XmlDocument::parse(bytes);
    ASSERT_FALSE(document.ok());
    EXPECT_EQ(document.error().code(), kXmlEncodingRefused);
    EXPECT_THAT(document.error().description(), HasSubstr("UTF-16"));
  }
}

TEST(XmlRefusal, AByteOrderMarkThatTheDeclarationContradictsIsNotRead) {
  for (const char* encoding : {"ISO-8859-1", "US-ASCII"}) {
    const auto document =
        XmlDocument::parse("\xef\xbb\xbf<?xml version='1.0' encoding='" + std::string(encoding) + "'?><a/>");
    ASSERT_FALSE(document.ok()) << encoding;
    EXPECT_EQ(document.error().code(), kXmlEncodingRefused);
  }
  EXPECT_TRUE(XmlDocument::parse("\xef\xbb\xbf<?xml version='1.0' encoding='utf-8'?><a/>").ok());
}

std::string nested(std::size_t levels) {
  std::string bytes;
  for (std::size_t i = 0; i < levels; ++i) bytes += "<a>\n";
  for (std::size_t i = 0; i < levels; ++i) bytes += "</a>";
  return bytes;
}

TEST(XmlRefusal, NestingHasALimit) {
  EXPECT_EQ(written(parsed(nested(kXmlDepthLimit))), nested(kXmlDepthLimit));
  for (const std::size_t levels : {kXmlDepthLimit + 1, std::size_t{100000}}) {
    const Result<XmlDocument> document = XmlDocument::parse(nested(levels));
    ASSERT_FALSE(document.ok());
    EXPECT_EQ(document.error().code(), kXmlNestingTooDeep);
    EXPECT_EQ(document.error().description(), "line 257: elements are nested deeper than 256 levels");
  }
  // The limit is passed by an element that is complete by itself.
  EXPECT_FALSE(XmlDocument::parse(nested(kXmlDepthLimit).insert(kXmlDepthLimit * 4, "<b/>")).ok());
}

TEST(XmlRefusal, SizeHasALimit) {
  const Result<XmlDocument> document = XmlDocument::parse(std::string(kXmlSizeLimit + 1, ' '));
  ASSERT_FALSE(document.ok());
  EXPECT_EQ(document.error().code(), kXmlTooLarge);
}

// Single edits of a good document: what a strict parser takes is taken, what it refuses is refused with the
// same code and line.
TEST(XmlRefusal, AgreesWithTheParserOnEveryDamagedByte) {
  const std::string good =
      "<?xml version='1.0'?>\n<r a='1' b=\"x&amp;\">\n  <c>t&#65;</c><!-- - -->\n  <d/><![CDATA[]]]><?p "
      "q?></r>\n";
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char byte : "<>&'\"/!-?]; =\n\x01\xff"s) {
      std::string bytes = good;
      bytes[at] = byte;
      XML_Parser parser = XML_ParserCreate(nullptr);
      const bool accepted =
          XML_Parse(parser, bytes.data(), static_cast<int>(bytes.size()), XML_TRUE) == XML_STATUS_OK;
      const Result<XmlDocument> document = XmlDocument::parse(bytes);
      EXPECT_EQ(document.ok(), accepted) << bytes;
      if (document.ok()) {
        EXPECT_EQ(written(document.value()), bytes);
      } else {
        EXPECT_EQ(document.error().code(), XML_GetErrorCode(parser)) << bytes;
        EXPECT_THAT(document.error().description(),
                    HasSubstr("line " + std::to_string(XML_GetCurrentLineNumber(parser)) + ": "));
      }
      XML_ParserFree(parser);
    }
  }
}

// --- Switched-off elements ---

TEST(XmlElementInComment, IsFoundWhenTheCommentIsOneElementAndNothingElse) {
  const auto inComment = [](const std::string& text) {
    return parsed("<r><!--" + text + "--></r>").root().firstChild().elementInComment();
  };
  EXPECT_EQ(inComment("<a>x</a>").name(), "a");
  EXPECT_EQ(inComment("<a>x &amp; y</a>").stringValue(), "x & y");
  EXPECT_EQ(inComment("<a/>").stringValue(), "");
  EXPECT_EQ(inComment("<a b='c'>x</a>").attribute("b"), "c");
  EXPECT_EQ(inComment("<a>x</a>\n  ").name(), "a");
  EXPECT_EQ(inComment("<a>\r\n<b/>\r\n</a>").children().size(), 3U);
  EXPECT_FALSE(inComment("<a>x</a>").parent());
  EXPECT_FALSE(inComment("<a>x</a>\n").nextSibling());

  EXPECT_FALSE(inComment(" <a>x</a>"));
  EXPECT_FALSE(inComment("plain prose"));
  EXPECT_FALSE(inComment(""));
  EXPECT_FALSE(inComment("<"));
  EXPECT_FALSE(inComment("<>"));
  EXPECT_FALSE(inComment("<a>x < y</a>"));
  EXPECT_FALSE(inComment("<a>x & y</a>"));
  EXPECT_FALSE(inComment("<a/><b/>"));
  EXPECT_FALSE(inComment("<a/>text"));
  EXPECT_FALSE(inComment("<a/><?p?>"));
  EXPECT_FALSE(inComment("<?p?><a/>"));
  EXPECT_FALSE(inComment("<!DOCTYPE a><a/>"));
  EXPECT_FALSE(inComment("<b>is written bold"));
}

TEST(XmlElementInComment, IsFoundInNoOtherKindOfNode) {
  EXPECT_FALSE(parsed("<r/>").root().elementInComment());
  EXPECT_FALSE(parsed("<r>&lt;a/></r>").root().firstChild().elementInComment());
}

TEST(XmlElementInComment, KeepsAValueWithHyphens) {
  for (const std::string value : {"a--b", "a---b", "----", "-", "a-", "--", "a->b"}) {
    const XmlDocument document = parsed("<r/>");
    document.root().append(XmlNode::makeComment("<x>" + value + "</x>"));
    const XmlDocument again = parsed(written(document));
    EXPECT_EQ(again.root().children()[1].elementInComment().stringValue(), value);
  }
}

TEST(XmlElementInComment, IsReadAsUtf8FromALatinOneFile) {
  const XmlDocument document =
      parsed("<?xml version='1.0' encoding='iso-8859-1'?>\n<r>\n<!--<\xe9>\xfc</\xe9>-->\n</r>");
  const XmlNode comment = document.root().children()[1];
  const XmlNode element = comment.elementInComment();
  EXPECT_EQ(element.name(), "\xc3\xa9");
  EXPECT_EQ(element.stringValue(), "\xc3\xbc");
  comment.detach();
  document.root().append(element);
  EXPECT_EQ(written(document),
            "<?xml version='1.0' encoding='iso-8859-1'?>\n<r>\n  <\xe9>&#252;</\xe9>\n</r>");
}

// --- Values that cannot be written ---

TEST(XmlUnwritable, ANameThatIsNoneStopsTheWriting) {
  for (const std::string name :
       {"", "a b", "1a", "a/", "a='1'", "<a", "a>", "a\x01", "-a", "\xff", "a\xc3\x97"}) {
    const XmlDocument document = parsed("<r>\n</r>");
    const XmlNode element = XmlNode::makeElement(name, "x");
    EXPECT_EQ(element.name(), name);
    document.root().append(element);
    const Result<std::string> bytes = document.serialize();
    ASSERT_FALSE(bytes.ok()) << name;
    EXPECT_EQ(bytes.error().code(), kXmlUnwritable);
    element.detach();
    EXPECT_TRUE(document.serialize().ok());
  }
  EXPECT_EQ(XmlNode::makeElement("\xc3\xa9:x-1.2_", "").name(), "\xc3\xa9:x-1.2_");
}

TEST(XmlUnwritable, TextThatXmlCannotHoldStopsTheWriting) {
  for (const std::string& text : {"\x01"s, "a\0b"s, "\xff"s, "\xef\xbf\xbf"s, "\x1b[0m"s}) {
    const XmlDocument document = parsed("<r>\n</r>");
    document.root().append(XmlNode::makeElement("a", text));
    EXPECT_FALSE(document.serialize().ok());
    EXPECT_EQ(elementNamed(document.root(), "a").stringValue(), text);
    elementNamed(document.root(), "a").setStringValue("good");
    EXPECT_EQ(written(document), "<r>\n  <a>good</a>\n</r>");

    const XmlNode comment = XmlNode::makeComment(text);
    document.root().append(comment);
    EXPECT_FALSE(document.serialize().ok());
    comment.setStringValue("good");
    EXPECT_EQ(written(document), "<r>\n  <a>good</a>\n  <!--good-->\n</r>");

    document.root().setAttribute("a", text);
    EXPECT_EQ(document.serialize().error().code(), kXmlUnwritable);
    document.root().setAttribute("a", "good");
    EXPECT_TRUE(document.serialize().ok());
    document.root().setAttribute("a b", "good");
    EXPECT_FALSE(document.serialize().ok());
  }
}

TEST(XmlUnwritable, AValueThatIsNoTextStopsTheWritingInALatinOneFileToo) {
  const XmlDocument document = parsed("<?xml version='1.0' encoding='iso-8859-1'?><r/>");
  document.root().setAttribute("a", "\xff");
  EXPECT_FALSE(document.serialize().ok());
}

TEST(XmlUnwritable, NestingDeeperThanCanBeReadStopsTheWriting) {
  const XmlDocument document = parsed("<r>\n</r>");
  XmlNode parent = document.root();
  for (std::size_t level = 2; level <= kXmlDepthLimit; ++level) {
    const XmlNode child = XmlNode::makeElement("a", "");
    parent.append(child);
    parent = child;
  }
  EXPECT_TRUE(XmlDocument::parse(written(document)).ok());
  parent.append(XmlNode::makeElement("a", ""));
  EXPECT_EQ(document.serialize().error().code(), kXmlNestingTooDeep);
  // Far deeper trees, also ones made before they join the document, are refused and taken down without harm.
  XmlNode top = XmlNode::makeElement("a", "");
  for (int i = 0; i < 20000; ++i) {
    const XmlNode outer = XmlNode::makeElement("a", "");
    outer.append(top);
    top = outer;
  }
  document.root().append(top);
  EXPECT_EQ(document.serialize().error().code(), kXmlNestingTooDeep);
}

TEST(XmlUnwritable, ADocumentThatLostItsRootIsNotWritten) {
  const XmlDocument first = parsed("<a>\n</a>");
  const XmlDocument second = parsed("<b/>");
  const XmlNode root = second.root();
  root.detach();
  EXPECT_EQ(second.root(), root);
  first.root().append(root);
  EXPECT_EQ(written(first), "<a>\n  <b/>\n</a>");
  EXPECT_FALSE(second.root());
  EXPECT_FALSE(second.serialize().ok());
}

// --- Handles ---

TEST(XmlHandles, DenoteTheSameNodeBeforeAndAfterItJoinsATree) {
  XmlNode element;
  XmlNode inner;
  XmlNode found;
  {
    const XmlDocument document = parsed("<r>\n</r>");
    element = XmlNode::makeElement("a", "x");
    inner = element.firstChild();
    document.root().append(element);
    found = document.root().children()[1];
    element.setStringValue("y");
  }
  EXPECT_EQ(found, element);
  EXPECT_EQ(found.firstChild(), inner);
  EXPECT_EQ(found.stringValue(), "y");
  EXPECT_EQ(element.parent().name(), "r");
  EXPECT_NE(element, inner);
}

TEST(XmlHandles, ANodeMayGoBackAndForthBetweenDocuments) {
  const XmlDocument first = parsed("<a>\n  <x/>\n</a>");
  XmlNode moved = elementNamed(first.root(), "x");
  {
    const XmlDocument second = parsed("<b>\n\t<y/>\n</b>");
    second.root().append(moved);
    EXPECT_EQ(written(second), "<b>\n\t<y/>\n\t<x/>\n</b>");
    EXPECT_EQ(written(first), "<a>\n</a>");
    first.root().append(elementNamed(second.root(), "y"));
    EXPECT_EQ(written(second), "<b>\n\t<x/>\n</b>");
  }
  first.root().append(moved);
  EXPECT_EQ(written(first), "<a>\n  <y/>\n  <x/>\n</a>");
}

TEST(XmlHandles, AnElementCannotBeAppendedToItselfOrInsideItself) {
  const XmlDocument document = parsed("<r>\n  <a>\n    <b/>\n  </a>\n</r>");
  const XmlNode a = elementNamed(document.root(), "a");
  a.append(a);
  elementNamed(a, "b").append(a);
  a.append(document.root());
  EXPECT_EQ(written(document), "<r>\n  <a>\n    <b/>\n  </a>\n</r>");
}

TEST(XmlHandles, OnlyElementsTakeChildrenAndAttributes) {
  const XmlDocument document = parsed("<r><!--c-->t<?p?></r>");
  for (const XmlNode& node : document.root().children()) {
    node.append(XmlNode::makeElement("a", ""));
    node.setAttribute("a", "b");
    node.removeAttribute("a");
  }
  document.root().children()[2].setStringValue("no");
  EXPECT_EQ(written(document), "<r><!--c-->t<?p?></r>");
}

}  // namespace
}  // namespace tessard
