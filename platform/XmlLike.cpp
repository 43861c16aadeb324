#include <algorithm>
#include <cstring>

#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

// Documents made from another one without a parse.

namespace tessard {

namespace {

using Kind = XmlNodeData::Kind;

constexpr std::size_t kComparedAtOnce = 256;

/// How many bytes two texts have in common at their beginnings.
std::size_t commonLength(std::string_view a, std::string_view b) {
  const std::size_t most = std::min(a.size(), b.size());
  std::size_t at = 0;
  while (at + kComparedAtOnce <= most && std::memcmp(&a[at], &b[at], kComparedAtOnce) == 0) {
    at += kComparedAtOnce;
  }
  while (at < most && a[at] == b[at]) ++at;
  return at;
}

/// Text that means itself in every encoding, that no parser refuses anywhere between two tags, and that has
/// no part in a document's layout.
bool isPlain(std::string_view text) {
  const auto plain = [](char c) { return c >= ' ' && c <= '~' && c != '<' && c != '>' && c != '&'; };
  return std::all_of(text.begin(), text.end(), plain) && !isXmlWhite(text);
}

/// The text node that a place of the source lies in or right behind; 0 when there is none. Numbers of nodes
/// and their places rise together in a tree as it was parsed.
XmlNodeId textAt(const XmlTree& tree, const XmlDocumentRecord& document, std::size_t place) {
  const char* const at = document.source.data() + place;
  XmlNodeId low = document.node + 1;
  XmlNodeId high = document.node + static_cast<XmlNodeId>(document.nodesRead);
  while (low < high) {
    const XmlNodeId middle = low + (high - low) / 2;
    if (tree[middle].raw < at) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  // The last one that begins before the place, or one that begins at it.
  for (const XmlNodeId id : {low, low - 1}) {
    if (id >= document.node + document.nodesRead || id == document.node) continue;
    const XmlNodeData& node = tree[id];
    if (node.kind == Kind::text && node.raw <= at && at <= node.raw + node.rawLength) return id;
  }
  return 0;
}

}  // namespace

ParsedXml copyXml(const XmlTree& tree, const XmlDocumentRecord& document) {
  auto copied = tree.copy();
  XmlDocumentRecord* const record = &copied->documentAt(document.node);
  return {std::move(copied), record};
}

std::optional<ParsedXml> parseXmlLike(const XmlTree& tree, const XmlDocumentRecord& document,
                                      std::string_view bytes) {
  if (document.changed || document.source.empty() || bytes.size() > kXmlSizeLimit) return std::nullopt;
  const std::string_view source = document.source;
  std::vector<std::pair<XmlNodeId, std::string_view>> texts;
  std::size_t read = 0;
  std::size_t at = 0;
  while (true) {
    const std::size_t same = commonLength(source.substr(read), bytes.substr(at));
    read += same;
    at += same;
    if (read == source.size() && at == bytes.size()) break;
    // Between two texts stands a tag.
    const XmlNodeId id = same == 0 ? 0 : textAt(tree, document, read);
    if (!id) return std::nullopt;
    const std::string_view before = tree.bytes(tree[id]);
    const std::size_t begin = static_cast<std::size_t>(before.data() - source.data());
    const std::size_t start = at - (read - begin);
    const std::string_view text = bytes.substr(start, bytes.find('<', start) - start);
    if (!isPlain(before) || !isPlain(text)) return std::nullopt;
    texts.emplace_back(id, text);
    read = begin + before.size();
    at = start + text.size();
  }
  ParsedXml parsed = copyXml(tree, document);
  if (!texts.empty()) parsed.document->source = {};
  parsed.document->size = bytes.size();
  for (const auto& [id, text] : texts) parsed.tree->setBytes(id, std::string(text));
  return parsed;
}

}  // namespace tessard
