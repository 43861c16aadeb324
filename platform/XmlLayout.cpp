#include <algorithm>

#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {

namespace {

using Kind = XmlNodeData::Kind;

constexpr auto kNowhere = std::string_view::npos;
constexpr std::string_view kDefaultUnit = "  ";
// How many siblings are looked at, from the last one back, for one that begins a line. Only a parent with
// more children than this on its last line is laid out without their example.
constexpr int kSiblingsLookedAt = 100;

bool isText(const XmlTree& tree, XmlNodeId node) {
  return node && tree[node].kind == Kind::text;
}
bool isWhiteText(const XmlTree& tree, XmlNodeId node) {
  return isText(tree, node) && tree[node].white;
}

/// The white space before a node when it is the first on its line.
std::optional<std::string_view> indentationOf(const XmlTree& tree, XmlNodeId node) {
  if (!isText(tree, tree[node].previous)) return std::nullopt;
  const std::string_view before = tree.bytes(tree[tree[node].previous]);
  const std::size_t lineEnd = before.find_last_of("\r\n");
  if (lineEnd == kNowhere) return std::nullopt;
  const std::string_view indentation = before.substr(lineEnd + 1);
  if (!isXmlWhite(indentation)) return std::nullopt;
  return indentation;
}

/// The indentation of the line that an element stands on, as far as its ancestors tell.
std::string_view lineIndentationOf(const XmlTree& tree, XmlNodeId element) {
  for (XmlNodeId at = element; at; at = tree[at].parent) {
    if (const auto indentation = indentationOf(tree, at)) return *indentation;
  }
  return {};
}

bool setsExample(const XmlNodeData& node) {
  return node.kind == Kind::element || node.kind == Kind::comment;
}

/// What one level adds to the indentation: the first example of a child that stands deeper than its parent.
const std::string& indentationUnitOf(const XmlTree& tree, XmlDocumentRecord& document) {
  if (document.indentationUnit) return *document.indentationUnit;
  document.indentationUnit = std::string(kDefaultUnit);
  const XmlNodeId top = document.node;
  for (XmlNodeId node = tree[top].firstChild; node; node = followingWithin(tree, node, top)) {
    const XmlNodeId parent = tree[node].parent;
    if (!setsExample(tree[node]) || parent == top) continue;
    const auto inner = indentationOf(tree, node);
    const auto outer =
        tree[parent].parent == top ? lineIndentationOf(tree, parent) : indentationOf(tree, parent);
    if (!inner || !outer || inner->size() <= outer->size() || !inner->starts_with(*outer)) continue;
    document.indentationUnit = std::string(inner->substr(outer->size()));
    break;
  }
  return *document.indentationUnit;
}

/// The indentation of the parent's last children that begin a line.
std::optional<std::string> exampleAmongChildren(const XmlTree& tree, XmlNodeId parent) {
  XmlNodeId child = tree[parent].lastChild;
  for (int looked = 0; child && looked < kSiblingsLookedAt; child = tree[child].previous, ++looked) {
    if (!setsExample(tree[child])) continue;
    if (const auto indentation = indentationOf(tree, child)) return std::string(*indentation);
  }
  return std::nullopt;
}

XmlNodeId makeWhite(XmlTree& tree, std::string bytes) {
  const XmlNodeId white = tree.make(Kind::text);
  tree.setBytes(white, std::move(bytes));
  tree.edit(white).white = true;
  return white;
}

/// Gives the children of an element made here lines of their own, once it stands in a document. Deeper than
/// the limit nothing can be written, so nothing is laid out there.
void layOutMade(XmlTree& tree, XmlNodeId element, XmlDocumentRecord& document, const std::string& indentation,
                std::size_t depth) {
  const XmlNodeData& made = tree[element];
  if (made.kind != Kind::element || made.raw || !made.firstChild || depth > kXmlDepthLimit) return;
  for (XmlNodeId child = made.firstChild; child; child = tree[child].next) {
    if (tree[child].kind == Kind::text) return;
  }
  const std::string lineEnd(document.lineEnd);
  const std::string inner = indentation + indentationUnitOf(tree, document);
  for (XmlNodeId child = tree[element].firstChild; child; child = tree[child].next) {
    linkAfter(tree, element, tree[child].previous, makeWhite(tree, lineEnd + inner));
    layOutMade(tree, child, document, inner, depth + 1);
  }
  linkAfter(tree, element, tree[element].lastChild, makeWhite(tree, lineEnd + indentation));
}

void appendOnOwnLine(XmlTree& tree, XmlNodeId parent, XmlNodeId last, XmlNodeId child,
                     XmlDocumentRecord& document) {
  const std::string lineEnd(document.lineEnd);
  const std::string outer(lineIndentationOf(tree, parent));
  std::optional<std::string> indentation = exampleAmongChildren(tree, parent);
  if (!indentation) indentation = outer + indentationUnitOf(tree, document);

  const XmlNodeId tail = last ? tree[last].next : tree[parent].firstChild;
  if (!tail) {
    linkAfter(tree, parent, last, makeWhite(tree, lineEnd + outer));
  } else if (lastLineEnd(tree.bytes(tree[tail])) == kNowhere) {
    tree.setBytes(tail, lineEnd + outer);
    tree.edit(tail).added = false;
  }
  const XmlNodeId before = makeWhite(tree, lineEnd + *indentation);
  linkAfter(tree, parent, last, before);
  linkAfter(tree, parent, before, child);
  layOutMade(tree, child, document, *indentation, 0);
}

/// Makes one text of two neighbours.
void mergeIntoFirst(XmlTree& tree, XmlNodeId firstId, XmlNodeId secondId) {
  const XmlNodeData first = tree[firstId];
  const XmlNodeData second = tree[secondId];
  const bool sameEncoding = first.encoding == second.encoding;
  const auto markup = [&](const XmlNodeData& text) {
    const bool foreign = !sameEncoding && text.encoding == XmlEncoding::latin1;
    return foreign ? escapeXmlText(decodeXmlText(tree.bytes(text), text.encoding))
                   : std::string(tree.bytes(text));
  };
  std::string more = markup(second);
  if (!sameEncoding) {
    tree.setBytes(firstId, markup(first));
    tree.edit(firstId).encoding = XmlEncoding::utf8;
  }
  std::string& merged = tree.editBytes(firstId);
  // "]]" and ">" may stand apart, but not together.
  const std::size_t bracket = more.find_first_not_of(']');
  if (bracket != kNowhere && more[bracket] == '>' && merged.ends_with(']')) {
    more.replace(bracket, 1, "&gt;");
  }
  merged += more;
  unlink(tree, secondId);
  const bool white = first.white && second.white;
  if (first.white && !white) ++tree.edit(first.parent).realTexts;
  XmlNodeData& kept = tree.edit(firstId);
  kept.white = white;
  kept.added = first.added && second.added;
}

/// Takes away what belongs to a node between two white spaces: its line when it is alone there, else the
/// blanks on one side of it.
void removeWhiteAround(XmlTree& tree, XmlNodeId node) {
  const XmlNodeId before = tree[node].previous;
  const XmlNodeId after = tree[node].next;
  const std::string_view white = tree.bytes(tree[before]);
  const bool lineFollows = beginsWithLineEnd(tree.bytes(tree[after]));
  const std::size_t kept = lastLineEnd(white);
  if (kept == kNowhere || kept == 0) {
    unlink(tree, kept == kNowhere || lineFollows ? before : after);
  } else if (!lineFollows) {
    unlink(tree, after);
  } else if (tree[before].own) {
    tree.editBytes(before).resize(kept);
  } else {
    tree.edit(before).rawLength = static_cast<std::uint32_t>(kept);
  }
}

}  // namespace

void removeWithLayout(XmlTree& tree, XmlNodeId node) {
  const XmlNodeId parent = tree[node].parent;
  const bool layout =
      tree[parent].kind == Kind::element && tree[parent].realTexts == 0 && tree[node].kind != Kind::text;
  // The node may be the last example of how deep a level is.
  XmlDocumentRecord* const document = tree.documentOf(node);
  if (document && document->hasLayout) indentationUnitOf(tree, *document);
  if (layout && isText(tree, tree[node].previous) && isText(tree, tree[node].next)) {
    removeWhiteAround(tree, node);
  }
  const XmlNodeId before = tree[node].previous;
  const XmlNodeId after = tree[node].next;
  unlink(tree, node);
  if (isText(tree, before) && isText(tree, after)) mergeIntoFirst(tree, before, after);
  if (!tree[parent].firstChild) tree.edit(parent).emptied = true;
}

void appendWithLayout(XmlTree& tree, XmlNodeId parent, XmlNodeId child) {
  XmlNodeId last = tree[parent].lastChild;
  if (tree[child].kind == Kind::text) {
    // Escaped anew, since it may come to stand right after another text.
    const bool added = tree[child].added;
    if (isText(tree, last)) {
      setTextMarkup(tree, child, escapeXmlText(decodeXmlText(tree.bytes(tree[child]), tree[child].encoding)));
    }
    tree.edit(child).added = added;
    linkAfter(tree, parent, last, child);
    return;
  }
  const bool realTexts = tree[parent].realTexts > 0;
  while (!realTexts && isWhiteText(tree, last)) last = tree[last].previous;
  XmlDocumentRecord* const document = tree.documentOf(parent);
  if (!realTexts && document && document->hasLayout) {
    appendOnOwnLine(tree, parent, last, child, *document);
  } else {
    linkAfter(tree, parent, last, child);
  }
}

}  // namespace tessard
