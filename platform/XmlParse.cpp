#include <expat.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <type_traits>

#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {

namespace {

using Kind = XmlNodeData::Kind;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

/// Turns expat's events into nodes. Only the places of the events count: texts are what stands between them.
class Builder {
 public:
  Builder(XML_Parser parser, XmlTree& tree, XmlDocumentRecord& document, std::string_view source)
      : parser_(parser), tree_(tree), document_(document), source_(source), open_(document.node) {
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser, [](void* self, const char*, const char**) { static_cast<Builder*>(self)->startElement(); },
        [](void* self, const char*) { static_cast<Builder*>(self)->endElement(); });
    XML_SetCommentHandler(
        parser, [](void* self, const char*) { static_cast<Builder*>(self)->addMarkup(Kind::comment); });
    XML_SetProcessingInstructionHandler(parser, [](void* self, const char*, const char*) {
      static_cast<Builder*>(self)->addMarkup(Kind::other);
    });
    XML_SetXmlDeclHandler(parser, [](void* self, const char*, const char* encoding, int) {
      static_cast<Builder*>(self)->declare(encoding);
    });
    XML_SetStartDoctypeDeclHandler(parser, [](void* self, const char*, const char*, const char*, int) {
      static_cast<Builder*>(self)->refuse(kXmlDocumentTypeRefused,
                                          "a document type declaration is not allowed");
    });
  }

  Result<void> parse() {
    const auto status = XML_Parse(parser_, source_.data(), static_cast<int>(source_.size()), XML_TRUE);
    if (refusal_) return *refusal_;
    if (status != XML_STATUS_OK) {
      const XML_Error code = XML_GetErrorCode(parser_);
      return located(code, XML_ErrorString(code));
    }
    addText(source_.size());
    return {};
  }

 private:
  SystemError located(int code, const std::string& reason) const {
    return SystemError(code, "line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " + reason);
  }

  void refuse(int code, const std::string& reason) {
    if (refusal_) return;
    refusal_ = located(code, reason);
    XML_StopParser(parser_, XML_FALSE);
  }

  std::size_t place() const { return static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_)); }
  std::size_t length() const { return static_cast<std::size_t>(XML_GetCurrentByteCount(parser_)); }

  XmlNodeId add(Kind kind, std::size_t begin, std::size_t length) {
    const XmlNodeId id = tree_.make(kind);
    XmlNodeData& node = tree_.edit(id);
    node.raw = source_.data() + begin;
    node.rawLength = static_cast<std::uint32_t>(length);
    node.encoding = document_.encoding;
    if (kind == Kind::text) node.white = isXmlWhite(source_.substr(begin, length));
    linkAfter(tree_, open_, tree_[open_].lastChild, id);
    read_ = begin + length;
    return id;
  }

  void addText(std::size_t end) {
    if (end > read_) add(Kind::text, read_, end - read_);
  }

  void noteLayout() {
    if (document_.hasLayout || open_ == document_.node || !tree_[open_].lastChild) return;
    const XmlNodeData& text = tree_[tree_[open_].lastChild];
    document_.hasLayout = text.white && lastLineEnd(tree_.bytes(text)) != std::string_view::npos;
  }

  XmlNodeId addMarkup(Kind kind) {
    addText(place());
    noteLayout();
    return add(kind, place(), length());
  }

  void declare(const char* encoding) {
    addMarkup(Kind::other);
    std::string name = encoding ? encoding : "";
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    // expat goes by the declaration, others by the mark: what the bytes mean would depend on the reader.
    if (source_.starts_with(kByteOrderMark) && !name.empty() && name != "UTF-8") {
      refuse(kXmlEncodingRefused, "the byte order mark and the declared encoding disagree");
    }
    if (name == "ISO-8859-1") document_.encoding = XmlEncoding::latin1;
    if (name == "US-ASCII") document_.encoding = XmlEncoding::ascii;
  }

  void startElement() {
    if (++depth_ > kXmlDepthLimit) {
      refuse(kXmlNestingTooDeep,
             "elements are nested deeper than " + std::to_string(kXmlDepthLimit) + " levels");
      return;
    }
    open_ = addMarkup(Kind::element);
    if (document_.encoding != XmlEncoding::latin1) return;
    const std::string_view name = nameInTag(tree_.bytes(tree_[open_]));
    const auto plain = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (std::all_of(name.begin(), name.end(), plain)) return;
    tree_.edit(open_).nameApart = true;
    tree_.names.emplace(open_, toUtf8(name, XmlEncoding::latin1));
  }

  void endElement() {
    if (refusal_) return;
    --depth_;
    if (!tree_.bytes(tree_[open_]).ends_with("/>")) {
      addText(place());
      XmlNodeData& element = tree_.edit(open_);
      // In an element without children white space may be its value, but for the root.
      if (element.firstChild != element.lastChild || element.parent == document_.node) noteLayout();
      element.endTagDistance = static_cast<std::uint32_t>(source_.data() + place() - element.raw);
      read_ = place() + length();
    }
    open_ = tree_[open_].parent;
  }

  XML_Parser parser_;
  XmlTree& tree_;
  XmlDocumentRecord& document_;
  std::string_view source_;
  XmlNodeId open_;
  std::size_t read_ = 0;
  std::size_t depth_ = 0;
  std::optional<SystemError> refusal_;
};

bool isUtf16(std::string_view bytes) {
  using namespace std::string_view_literals;
  return bytes.starts_with("\xff\xfe"sv) || bytes.starts_with("\xfe\xff"sv) || bytes.starts_with("\0<"sv) ||
         bytes.starts_with("<\0"sv);
}

std::string_view lineEndOf(std::string_view source) {
  const std::size_t at = source.find_first_of("\r\n");
  if (at == std::string_view::npos || source[at] == '\n') return "\n";
  return source.substr(at).starts_with("\r\n") ? "\r\n" : "\r";
}

}  // namespace

Result<ParsedXml> parseXml(std::string bytes) {
  if (bytes.size() > kXmlSizeLimit) {
    return SystemError(kXmlTooLarge,
                       "the document is larger than " + std::to_string(kXmlSizeLimit) + " bytes");
  }
  if (isUtf16(bytes)) return SystemError(kXmlEncodingRefused, "line 1: UTF-16 is not supported, use UTF-8");

  auto tree = std::make_shared<XmlTree>();
  const std::string_view source = tree->keepSource(std::move(bytes));
  XmlDocumentRecord& document = tree->addDocument(tree->make(Kind::document));
  document.source = source;
  document.size = source.size();
  document.lineEnd = lineEndOf(source);

  const Parser parser(XML_ParserCreate(nullptr));
  if (!parser) return SystemError(XML_ERROR_NO_MEMORY, XML_ErrorString(XML_ERROR_NO_MEMORY));
  const Result<void> parsed = Builder(parser.get(), *tree, document, source).parse();
  if (!parsed) return parsed.error();
  document.nodesRead = tree->size();
  tree->beginFollowingChanges();
  return ParsedXml{std::move(tree), &document};
}

}  // namespace tessard
