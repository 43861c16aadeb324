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

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

/// Turns expat's events into nodes. Only the places of the events count: texts are what stands between them.
class Builder {
 public:
  Builder(XML_Parser parser, XmlTree& tree, XmlDocumentNode& document)
      : parser_(parser), tree_(tree), document_(document), source_(document.source), open_(&document) {
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

  XmlNodeData& add(Kind kind, std::size_t begin, std::size_t length) {
    XmlNodeData& node = *tree_.make(kind);
    node.raw = source_.data() + begin;
    node.rawLength = static_cast<std::uint32_t>(length);
    node.encoding = document_.encoding;
    if (kind == Kind::text) node.white = isXmlWhite(node.bytes());
    linkAfter(*open_, open_->lastChild, node);
    read_ = begin + length;
    return node;
  }

  void addText(std::size_t end) {
    if (end > read_) add(Kind::text, read_, end - read_);
  }

  void noteLayout() {
    const XmlNodeData* const text = open_->lastChild;
    if (document_.hasLayout || open_ == &document_ || !text) return;
    document_.hasLayout = text->white && lastLineEnd(text->bytes()) != std::string_view::npos;
  }

  XmlNodeData& addMarkup(Kind kind) {
    addText(place());
    noteLayout();
    return add(kind, place(), length());
  }

  void declare(const char* encoding) {
    addMarkup(Kind::other);
    std::string name = encoding ? encoding : "";
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    if (name == "ISO-8859-1") document_.encoding = XmlEncoding::latin1;
    if (name == "US-ASCII") document_.encoding = XmlEncoding::ascii;
  }

  void startElement() {
    if (++depth_ > kXmlDepthLimit) {
      refuse(kXmlNestingTooDeep,
             "elements are nested deeper than " + std::to_string(kXmlDepthLimit) + " levels");
      return;
    }
    XmlNodeData& element = addMarkup(Kind::element);
    const std::string_view name = rawNameOf(element);
    const bool plain =
        std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (element.encoding == XmlEncoding::latin1 && !plain) {
      element.nameApart = true;
      tree_.names.emplace(&element, toUtf8(name, XmlEncoding::latin1));
    }
    open_ = &element;
  }

  void endElement() {
    if (refusal_) return;
    --depth_;
    if (!open_->bytes().ends_with("/>")) {
      addText(place());
      // In an element without children white space may be its value, but for the root.
      if (open_->firstChild != open_->lastChild || open_->parent == &document_) noteLayout();
      open_->endTagDistance = static_cast<std::uint32_t>(source_.data() + place() - open_->raw);
      read_ = place() + length();
    }
    open_ = open_->parent;
  }

  XML_Parser parser_;
  XmlTree& tree_;
  XmlDocumentNode& document_;
  std::string_view source_;
  XmlNodeData* open_;
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
  const std::string& source = *tree->sources.emplace_back(std::make_unique<std::string>(std::move(bytes)));
  XmlDocumentNode& document = *tree->documents.emplace_back(std::make_unique<XmlDocumentNode>());
  document.kind = Kind::document;
  document.source = source;
  document.lineEnd = lineEndOf(source);

  const Parser parser(XML_ParserCreate(nullptr));
  if (!parser) return SystemError(XML_ERROR_NO_MEMORY, XML_ErrorString(XML_ERROR_NO_MEMORY));
  const Result<void> parsed = Builder(parser.get(), *tree, document).parse();
  if (!parsed) return parsed.error();
  return ParsedXml{std::move(tree), &document};
}

}  // namespace tessard
