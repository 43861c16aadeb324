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

bool isText(const XmlNodeData* node) {
  return node && node->kind == Kind::text;
}
bool isWhiteText(const XmlNodeData* node) {
  return isText(node) && node->white;
}

/// The white space before a node when it is the first on its line.
std::optional<std::string_view> indentationOf(const XmlNodeData& node) {
  if (!isText(node.previous)) return std::nullopt;
  const std::string_view before = node.previous->bytes();
  const std::size_t lineEnd = before.find_last_of("\r\n");
  if (lineEnd == kNowhere) return std::nullopt;
  const std::string_view indentation = before.substr(lineEnd + 1);
  if (!isXmlWhite(indentation)) return std::nullopt;
  return indentation;
}

/// The indentation of the line that an element stands on, as far as its ancestors tell.
std::string_view lineIndentationOf(const XmlNodeData& element) {
  for (const XmlNodeData* at = &element; at; at = at->parent) {
    if (const auto indentation = indentationOf(*at)) return *indentation;
  }
  return {};
}

bool setsExample(const XmlNodeData& node) {
  return node.kind == Kind::element || node.kind == Kind::comment;
}

XmlNodeData* following(XmlNodeData* node) {
  if (node->firstChild) return node->firstChild;
  while (node && !node->next) node = node->parent;
  return node ? node->next : nullptr;
}

/// What one level adds to the indentation: the first example of a child that stands deeper than its parent.
const std::string& indentationUnitOf(XmlDocumentNode& document) {
  if (document.indentationUnit) return *document.indentationUnit;
  document.indentationUnit = std::string(kDefaultUnit);
  for (XmlNodeData* node = document.firstChild; node; node = following(node)) {
    if (!setsExample(*node) || node->parent == &document) continue;
    const auto inner = indentationOf(*node);
    const auto outer =
        node->parent->parent == &document ? lineIndentationOf(*node->parent) : indentationOf(*node->parent);
    if (!inner || !outer || inner->size() <= outer->size() || !inner->starts_with(*outer)) continue;
    document.indentationUnit = std::string(inner->substr(outer->size()));
    break;
  }
  return *document.indentationUnit;
}

/// The indentation of the parent's last children that begin a line.
std::optional<std::string> exampleAmongChildren(const XmlNodeData& parent) {
  const XmlNodeData* child = parent.lastChild;
  for (int looked = 0; child && looked < kSiblingsLookedAt; child = child->previous, ++looked) {
    if (!setsExample(*child)) continue;
    if (const auto indentation = indentationOf(*child)) return std::string(*indentation);
  }
  return std::nullopt;
}

XmlNodeData& makeWhite(XmlTree& tree, std::string bytes) {
  XmlNodeData& white = *tree.make(Kind::text);
  white.white = true;
  white.own = std::make_unique<std::string>(std::move(bytes));
  return white;
}

/// Gives the children of an element made here lines of their own, once it stands in a document. Deeper than
/// the limit nothing can be written, so nothing is laid out there.
void layOutMade(XmlTree& tree, XmlNodeData& element, XmlDocumentNode& document,
                const std::string& indentation, std::size_t depth) {
  if (element.kind != Kind::element || element.raw || !element.firstChild || depth > kXmlDepthLimit) return;
  for (const XmlNodeData* child = element.firstChild; child; child = child->next) {
    if (child->kind == Kind::text) return;
  }
  const std::string lineEnd(document.lineEnd);
  const std::string inner = indentation + indentationUnitOf(document);
  for (XmlNodeData* child = element.firstChild; child; child = child->next) {
    linkAfter(element, child->previous, makeWhite(tree, lineEnd + inner));
    layOutMade(tree, *child, document, inner, depth + 1);
  }
  linkAfter(element, element.lastChild, makeWhite(tree, lineEnd + indentation));
}

void appendOnOwnLine(XmlTree& tree, XmlNodeData& parent, XmlNodeData* last, XmlNodeData& child,
                     XmlDocumentNode& document) {
  const std::string lineEnd(document.lineEnd);
  const std::string outer(lineIndentationOf(parent));
  std::optional<std::string> indentation = exampleAmongChildren(parent);
  if (!indentation) indentation = outer + indentationUnitOf(document);

  XmlNodeData* const tail = last ? last->next : parent.firstChild;
  if (!tail) {
    linkAfter(parent, last, makeWhite(tree, lineEnd + outer));
  } else if (lastLineEnd(tail->bytes()) == kNowhere) {
    tail->own = std::make_unique<std::string>(lineEnd + outer);
    tail->added = false;
  }
  XmlNodeData& before = makeWhite(tree, lineEnd + *indentation);
  linkAfter(parent, last, before);
  linkAfter(parent, &before, child);
  layOutMade(tree, child, document, *indentation, 0);
}

/// Makes one text of two neighbours.
void mergeIntoFirst(XmlNodeData& first, XmlNodeData& second) {
  const auto markup = [](const XmlNodeData& text) {
    return text.encoding == XmlEncoding::latin1 ? escapeXmlText(decodeXmlText(text.bytes(), text.encoding))
                                                : std::string(text.bytes());
  };
  const bool sameEncoding = first.encoding == second.encoding;
  const bool white = first.white && second.white;
  XmlNodeData& parent = *first.parent;
  if (!first.own) first.own = std::make_unique<std::string>(first.bytes());
  if (!sameEncoding) {
    *first.own = markup(first);
    first.encoding = XmlEncoding::utf8;
  }
  std::string more = sameEncoding ? std::string(second.bytes()) : markup(second);
  // "]]" and ">" may stand apart, but not together.
  const std::size_t bracket = more.find_first_not_of(']');
  if (bracket != kNowhere && more[bracket] == '>' && first.own->ends_with(']')) {
    more.replace(bracket, 1, "&gt;");
  }
  first.own->append(more);
  first.added = first.added && second.added;
  unlink(second);
  if (first.white && !white) ++parent.realTexts;
  first.white = white;
}

/// Takes away what belongs to a node between two white spaces: its line when it is alone there, else the
/// blanks on one side of it.
void removeWhiteAround(XmlNodeData& node) {
  XmlNodeData& before = *node.previous;
  XmlNodeData& after = *node.next;
  const std::size_t kept = lastLineEnd(before.bytes());
  if (kept == kNowhere || kept == 0) {
    const bool alone = kept == kNowhere || beginsWithLineEnd(after.bytes());
    unlink(alone ? before : after);
  } else if (!beginsWithLineEnd(after.bytes())) {
    unlink(after);
  } else if (before.own) {
    before.own->resize(kept);
  } else {
    before.rawLength = static_cast<std::uint32_t>(kept);
  }
}

}  // namespace

void removeWithLayout(XmlNodeData& node) {
  XmlNodeData& parent = *node.parent;
  const bool layout = parent.kind == Kind::element && parent.realTexts == 0 && node.kind != Kind::text;
  // The node may be the last example of how deep a level is.
  XmlDocumentNode* const document = documentOf(node);
  if (document && document->hasLayout) indentationUnitOf(*document);
  if (layout && isText(node.previous) && isText(node.next)) removeWhiteAround(node);
  XmlNodeData* const before = node.previous;
  XmlNodeData* const after = node.next;
  unlink(node);
  if (isText(before) && isText(after)) mergeIntoFirst(*before, *after);
  if (!parent.firstChild) parent.emptied = true;
}

void appendWithLayout(XmlTree& tree, XmlNodeData& parent, XmlNodeData& child) {
  XmlNodeData* last = parent.lastChild;
  if (child.kind == Kind::text) {
    // Escaped anew, since it may come to stand right after another text.
    const bool added = child.added;
    if (isText(last)) setTextMarkup(child, escapeXmlText(decodeXmlText(child.bytes(), child.encoding)));
    child.added = added;
    linkAfter(parent, last, child);
    return;
  }
  if (parent.realTexts == 0) {
    while (isWhiteText(last)) last = last->previous;
  }
  XmlDocumentNode* const document = documentOf(parent);
  if (parent.realTexts == 0 && document && document->hasLayout) {
    appendOnOwnLine(tree, parent, last, child, *document);
  } else {
    linkAfter(parent, last, child);
  }
}

}  // namespace tessard
