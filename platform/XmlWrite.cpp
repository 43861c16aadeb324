#include <algorithm>

#include "common/Utf8.h"
#include "common/XmlDocument.h"
#include "platform/XmlTree.h"

namespace tessard {

namespace {

using Kind = XmlNodeData::Kind;

constexpr std::string_view kUnit = "  ";

bool isAscii(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

/// Whether an element's children may be put on lines of their own without changing a text.
bool takesLayout(const XmlNodeData& node) {
  if (node.kind != Kind::element || node.realTexts > 0) return false;
  const XmlNodeData* child = node.firstChild;
  while (child && child->kind == Kind::text) child = child->next;
  return child;
}

/// Writes a changed document. A failure stops it and is kept.
class Writer {
 public:
  explicit Writer(const XmlDocumentNode& document) : document_(document), pretty_(!document.hasLayout) {
    out_.reserve(document.source.size() + document.source.size() / 8);
  }

  Result<std::string> write() {
    bool hasRoot = false;
    for (const XmlNodeData* node = document_.firstChild; node && !failure_; node = node->next) {
      hasRoot = hasRoot || node->kind == Kind::element;
      if (pretty_ && node->kind != Kind::text) beginLine();
      writeTree(*node);
    }
    if (!hasRoot) fail(kXmlUnwritable, "the document has no root element");
    if (failure_) return *failure_;
    if (pretty_) beginLine();
    return std::move(out_);
  }

 private:
  void fail(int code, const std::string& reason) {
    if (!failure_) failure_ = SystemError(code, reason);
  }

  void beginLine() {
    const bool atStart = out_.empty() || out_ == "\xef\xbb\xbf";
    if (!atStart && !out_.ends_with('\n') && !out_.ends_with('\r')) out_ += document_.lineEnd;
  }

  void newLine(std::size_t depth) {
    out_ += document_.lineEnd;
    for (std::size_t i = 0; i < depth; ++i) out_ += kUnit;
  }

  void writeTree(const XmlNodeData& top) {
    const XmlNodeData* node = &top;
    std::size_t depth = 0;
    while (!failure_) {
      open(*node, depth);
      if (node->firstChild) {
        node = node->firstChild;
        if (++depth >= kXmlDepthLimit && node->kind == Kind::element) tooDeep();
        continue;
      }
      while (true) {
        if (node != &top && node->next) {
          node = node->next;
          if (depth >= kXmlDepthLimit && node->kind == Kind::element) tooDeep();
          break;
        }
        if (node == &top) return;
        node = node->parent;
        close(*node, --depth);
      }
    }
  }

  void tooDeep() {
    fail(kXmlNestingTooDeep, "elements are nested deeper than " + std::to_string(kXmlDepthLimit) + " levels");
  }

  void open(const XmlNodeData& node, std::size_t depth) {
    if (pretty_ && depth > 0 && takesLayout(*node.parent)) {
      if (node.kind == Kind::text) return;
      newLine(depth);
    }
    switch (node.kind) {
      case Kind::element:
        startElement(node);
        break;
      case Kind::text:
        writeText(node);
        break;
      case Kind::comment:
        writeComment(node);
        break;
      default:
        writeAsIs(node);
    }
  }

  void startElement(const XmlNodeData& element) {
    const bool checked = element.own && element.encoding != XmlEncoding::latin1;
    if (element.unwritable || (checked && !isXmlText(*element.own))) {
      fail(kXmlUnwritable, "an element has a name, or an attribute a name or value, that XML cannot hold");
      return;
    }
    std::string_view tag = element.bytes();
    const bool isShort = tag.ends_with("/>");
    const bool wantsShort = !element.firstChild && (isShort || element.emptied || pretty_);
    if (isShort == wantsShort) {
      writeTag(tag, element.encoding);
    } else if (wantsShort) {
      tag.remove_suffix(1);
      writeTag(tag, element.encoding);
      out_ += "/>";
    } else {
      tag.remove_suffix(2);
      writeTag(tag.substr(0, tag.find_last_not_of(" \t\r\n") + 1), element.encoding);
      out_ += '>';
    }
    if (!element.firstChild && !wantsShort) writeEndTag(element);
  }

  void close(const XmlNodeData& element, std::size_t depth) {
    if (pretty_ && takesLayout(element)) newLine(depth);
    writeEndTag(element);
  }

  void writeEndTag(const XmlNodeData& element) {
    // A start tag that changed its encoding has a name in that encoding.
    const XmlEncoding read = element.nameApart && element.raw ? XmlEncoding::latin1 : element.encoding;
    if (element.endTagDistance > 0) {
      writeTag(element.endTag(), read);
      return;
    }
    out_ += "</";
    writeTag(rawNameOf(element), element.encoding);
    out_ += '>';
  }

  void writeTag(std::string_view tag, XmlEncoding encoding) {
    if (isAscii(tag) || encoding == document_.encoding) {
      out_ += tag;
      return;
    }
    if (document_.encoding == XmlEncoding::utf8) {
      out_ += toUtf8(tag, encoding);
      return;
    }
    char quote = 0;
    for (const char32_t point : decodeUtf8(toUtf8(tag, encoding))) {
      if (point < 0x80) {
        const char c = static_cast<char>(point);
        if (quote == 0 && (c == '\'' || c == '"')) {
          quote = c;
        } else if (quote == c) {
          quote = 0;
        }
        out_ += c;
      } else if (quote != 0) {
        out_ += "&#" + std::to_string(static_cast<std::uint32_t>(point)) + ";";
      } else if (document_.encoding == XmlEncoding::latin1 && point < 0x100) {
        out_ += static_cast<char>(point);
      } else {
        fail(kXmlUnwritable, "a name has a letter that the document's encoding lacks");
        return;
      }
    }
  }

  // Line ends of what was added become those of the document.
  void writeAdded(std::string_view bytes, bool added) {
    if (!added || document_.lineEnd == "\n") {
      out_ += bytes;
      return;
    }
    for (const char c : bytes) {
      if (c == '\n') {
        out_ += document_.lineEnd;
      } else {
        out_ += c;
      }
    }
  }

  void writeText(const XmlNodeData& text) {
    if (text.own && text.encoding != XmlEncoding::latin1 && !isXmlText(*text.own)) {
      fail(kXmlUnwritable, "a text holds a character that XML cannot");
      return;
    }
    if (text.encoding == document_.encoding || isAscii(text.bytes())) {
      writeAdded(text.bytes(), text.added);
      return;
    }
    const std::string markup = escapeXmlText(decodeXmlText(text.bytes(), text.encoding));
    writeAdded(document_.encoding == XmlEncoding::utf8 ? markup : withReferences(markup), text.added);
  }

  void writeComment(const XmlNodeData& comment) {
    if (comment.own && !isXmlText(*comment.own)) {
      fail(kXmlUnwritable, "a comment holds a character that XML cannot");
      return;
    }
    if (comment.encoding == document_.encoding || isAscii(comment.bytes())) {
      writeAdded(comment.bytes(), comment.added);
      return;
    }
    const std::string markup = toUtf8(comment.bytes(), comment.encoding);
    writeAdded(document_.encoding == XmlEncoding::utf8 ? markup : withReferences(markup), comment.added);
  }

  void writeAsIs(const XmlNodeData& node) {
    if (node.encoding == document_.encoding || isAscii(node.bytes())) {
      out_ += node.bytes();
    } else if (document_.encoding == XmlEncoding::utf8) {
      out_ += toUtf8(node.bytes(), node.encoding);
    } else {
      fail(kXmlUnwritable, "a processing instruction has a letter that the document's encoding lacks");
    }
  }

  const XmlDocumentNode& document_;
  const bool pretty_;
  std::string out_;
  std::optional<SystemError> failure_;
};

}  // namespace

Result<std::string> writeXml(const XmlDocumentNode& document) {
  return Writer(document).write();
}

}  // namespace tessard
