// The first byte of the input tells how many bytes the edits have, which come next; the rest is the document.

#include <algorithm>

#include "common/Utf8.h"
#include "fuzz/FuzzBytes.h"
#include "fuzz/FuzzTargets.h"
#include "fuzz/XmlEdit.h"
#include "fuzz/XmlTruth.h"
#include "tests/support/TestPlatform.h"

namespace tessard::fuzz {

namespace {

using Component = NOTIFICATION_PLUGIN_ComponentConfiguration;
using Kind = XmlToken::Kind;
using Pieces = std::vector<std::string>;

constexpr std::size_t kMostEdits = 8;

bool isWhite(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// A comment's text, which is written with references for what the document's encoding lacks.
std::string commentText(const XmlNode& comment) {
  std::string text;
  for (const char32_t point : decodeUtf8(comment.stringValue())) {
    if (point < 0x80) {
      text += static_cast<char>(point);
    } else {
      text += "&#" + std::to_string(static_cast<std::uint32_t>(point)) + ";";
    }
  }
  return text;
}

// The tree below a node as one text, for comparisons. White space beside nodes is layout and left out.
std::string outline(const XmlNode& node) {
  if (node.isComment()) return "<!--" + commentText(node) + "-->";
  if (!node.isElement()) return "";
  std::string text = "<" + std::string(node.name());
  for (const auto& [name, value] : node.attributes()) text += " " + name + "='" + value + "'";
  std::string inner;
  for (XmlNode child = node.firstChild(); child; child = child.nextSibling()) inner += outline(child);
  std::string value = node.stringValue();
  if (!inner.empty()) std::erase_if(value, isWhite);
  return text + ">" + value + inner + "</>";
}

// Whether every piece of the first list is in the second, in the same order.
bool isWithin(const Pieces& pieces, const Pieces& whole) {
  auto at = whole.begin();
  for (const std::string& piece : pieces) {
    at = std::find(at, whole.end(), piece);
    if (at == whole.end()) return false;
    ++at;
  }
  return true;
}

// A document taken apart by its characters alone, with marks on what an edit may change.
class MarkedDocument {
 public:
  explicit MarkedDocument(std::string_view text)
      : tokens_(tokensOf(text)), touched_(tokens_.size()), beside_(tokens_.size()) {
    for (std::size_t at = text.find('\r'); at != std::string_view::npos; at = text.find('\r', at + 1)) {
      hasLoneReturn_ = hasLoneReturn_ || !text.substr(at).starts_with("\r\n");
    }
    for (std::size_t at = 0; at < tokens_.size(); ++at) {
      if (tokens_[at].isNode()) nodes_.push_back(at);
    }
    while (tokens_[nodes_[firstInTree_]].kind == Kind::comment) ++firstInTree_;
  }

  // The text must be what the tree below the root is written as.
  void mark(const XmlNode& root, const XmlEdit& edit) {
    const auto tree = nodesBelow(root);
    const auto tokenOf = [&](const XmlNode& node) {
      const auto place = static_cast<std::size_t>(std::ranges::find(tree, node) - tree.begin());
      return nodes_[firstInTree_ + place];
    };
    for (const XmlNode& node : edit.touched()) {
      const std::size_t begin = tokenOf(node);
      std::fill_n(touched_.begin() + static_cast<std::ptrdiff_t>(begin),
                  endOfNode(tokens_, begin) - begin + 1, true);
    }
    for (const XmlNode& parent : edit.parents()) {
      const std::size_t begin = tokenOf(parent);
      std::size_t end = endOfNode(tokens_, begin);
      beside_[begin] = beside_[end] = true;
      // New children come behind the last one.
      while (end > begin && tokens_[--end].isWhite()) continue;
      beside_[end] = true;
    }
  }

  // All that is not touched and no white space, "<a/>" and "<a></a>" as the same.
  Pieces markup() const {
    Pieces pieces;
    for (std::size_t at = 0; at < tokens_.size(); ++at) {
      if (touched_[at] || tokens_[at].isWhite()) continue;
      std::string_view bytes = tokens_[at].bytes;
      if (tokens_[at].kind == Kind::open || tokens_[at].kind == Kind::close) bytes.remove_suffix(1);
      if (tokens_[at].kind == Kind::empty) bytes.remove_suffix(2);
      while (!bytes.empty() && isWhite(bytes.back())) bytes.remove_suffix(1);
      pieces.emplace_back(bytes);
      if (tokens_[at].kind == Kind::empty) {
        pieces.push_back("</" + std::string(bytes.substr(1, bytes.find_first_of(" \t\r\n") - 1)));
      }
    }
    return pieces;
  }

  // The whole lines that nothing touched is on or beside, without the white space at their ends: of a line
  // that goes the blanks and the line end behind the node may take the place of those of the line before it.
  Pieces lines() const {
    Pieces lines;
    std::string line;
    bool kept = true;
    for (std::size_t at = 0; at < tokens_.size(); ++at) {
      kept = kept && !touched_[at] && !beside_[at];
      for (const char c : tokens_[at].bytes) {
        line += c;
        if (c != '\n') continue;
        while (!line.empty() && isWhite(line.back())) line.pop_back();
        if (kept) lines.push_back(line);
        line.clear();
        kept = !touched_[at] && !beside_[at];
      }
    }
    return lines;
  }

  // Whether a node within the root stands on a line of its own, so that edits keep all the layout. Lines that
  // end in a carriage return alone are not told apart here.
  bool hasLayout() const {
    bool inRoot = false;
    bool newLine = false;
    if (hasLoneReturn_) return false;
    for (const XmlToken& token : tokens_) {
      if (inRoot && newLine && token.isNode()) return true;
      newLine = token.isWhite() && (newLine || token.bytes == "\n");
      inRoot = inRoot || token.kind == Kind::open;
    }
    return false;
  }

 private:
  std::vector<XmlToken> tokens_;
  std::vector<bool> touched_;
  std::vector<bool> beside_;
  std::vector<std::size_t> nodes_;  // tokens that begin a node
  bool hasLoneReturn_ = false;
  std::size_t firstInTree_ = 0;  // the nodes before it stand before the root
};

void promiseReadsBack(const std::string& written, const Component& component, const XmlEdit& edit,
                      Platform& platform) {
  const auto read = XmlDocument::parse(written);
  promise(read.ok(), "what is saved loads again");
  promise(read.value().serialize().value() == written, "what is saved is written again as the same bytes");
  promise(outline(read.value().root()) == outline(component.getRootNode()),
          "what is saved is the edited tree");
  const auto path = edit.pathOfValue();
  if (!path) return;
  Component again(platform);
  again.setConfigXMLDocument(read.value());
  promise(again.getNodeValueForPath(*path) == edit.value(), "a value reads back as it was set");
}

// Whether the tree can still be written.
bool applied(Component& component, const XmlEdit& edit, Platform& platform) {
  const auto before = component.configXMLDocument()->serialize();
  MarkedDocument old(before.value());
  old.mark(component.getRootNode(), edit);
  component.setConfigDirty(false);
  edit.apply(component);
  const auto after = component.configXMLDocument()->serialize();
  if (!after) {
    promise(after.error().code() == kXmlUnwritable || after.error().code() == kXmlNestingTooDeep,
            "a tree that cannot be written has a name that is none, or is too deep");
    return false;
  }
  if (!component.configDirty()) promise(after.value() == before.value(), "nothing changes unnoticed");
  const MarkedDocument changed(after.value());
  promise(isWithin(old.markup(), changed.markup()), "what is not edited keeps its bytes and its order");
  if (old.hasLayout()) promise(isWithin(old.lines(), changed.lines()), "other lines stay as they are");
  promiseReadsBack(after.value(), component, edit, platform);
  return true;
}

}  // namespace

void xml_edits(std::string_view input) {
  static TestPlatform platform;
  FuzzBytes bytes(input);
  FuzzBytes edits(bytes.take(bytes.byte()));
  const std::string text(bytes.rest());
  const auto document = XmlDocument::parse(text);
  if (!document) return;
  const XmlTruth truth = truthAboutXml(text);
  promise(truth.wellFormed, "an accepted document is well-formed");
  promise(!truth.documentType && !truth.entities, "no document with a document type or entities is accepted");
  promise(document.value().serialize().value() == text, "what was not edited is written as it was read");
  Component component(platform);
  component.setConfigXMLDocument(document.value());
  for (std::size_t count = 0; !edits.empty() && count < kMostEdits; ++count) {
    const XmlEdit edit(edits, component);
    if (!applied(component, edit, platform)) break;
  }
  platform.log.clear();
}

}  // namespace tessard::fuzz
