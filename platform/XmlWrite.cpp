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

/// Writes a document. A failure stops it and is kept. Pieces that lie side by side in the source go out in
/// one.
class Writer {
 public:
  Writer(const XmlTree& tree, const XmlDocumentRecord& document)
      : tree_(tree), document_(document), pretty_(document.changed && !document.hasLayout) {
    out_.reserve(document.size + document.size / 8);
  }

  Result<std::string> write() {
    bool hasRoot = false;
    for (XmlNodeId id = tree_[document_.node].firstChild; id && !failure_; id = tree_[id].next) {
      hasRoot = hasRoot || tree_[id].kind == Kind::element;
      if (pretty_ && tree_[id].kind != Kind::text) beginLine();
      writeTree(id);
    }
    if (!hasRoot) fail(kXmlUnwritable, "the document has no root element");
    if (failure_) return *failure_;
    if (pretty_) beginLine();
    writeWaiting();
    return std::move(out_);
  }

 private:
  void fail(int code, const std::string& reason) {
    if (!failure_) failure_ = SystemError(code, reason);
  }

  // What is kept by the tree; it may wait for what follows it.
  void add(std::string_view kept) {
    if (waiting_.data() + waiting_.size() == kept.data()) {
      waiting_ = {waiting_.data(), waiting_.size() + kept.size()};
      return;
    }
    writeWaiting();
    waiting_ = kept;
  }

  void writeWaiting() {
    out_ += waiting_;
    waiting_ = {};
  }

  std::string& out() {
    writeWaiting();
    return out_;
  }

  void beginLine() {
    const bool atStart = out().empty() || out_ == "\xef\xbb\xbf";
    if (!atStart && !out_.ends_with('\n') && !out_.ends_with('\r')) out_ += document_.lineEnd;
  }

  void newLine(std::size_t depth) {
    out() += document_.lineEnd;
    for (std::size_t i = 0; i < depth; ++i) out_ += kUnit;
  }

  /// Whether an element's children may be put on lines of their own without changing a text.
  bool takesLayout(const XmlNodeData& node) const {
    if (node.kind != Kind::element || node.realTexts > 0) return false;
    XmlNodeId child = node.firstChild;
    while (child && tree_[child].kind == Kind::text) child = tree_[child].next;
    return child;
  }

  void writeTree(XmlNodeId top) {
    XmlNodeId id = top;
    std::size_t depth = 0;
    while (!failure_) {
      const bool isWritten = writeWhole(tree_[id]);
      if (!isWritten) open(tree_[id], depth);
      if (tree_[id].firstChild && !isWritten) {
        id = tree_[id].firstChild;
        if (++depth >= kXmlDepthLimit && tree_[id].kind == Kind::element) tooDeep();
        continue;
      }
      while (true) {
        if (id != top && tree_[id].next) {
          id = tree_[id].next;
          if (depth >= kXmlDepthLimit && tree_[id].kind == Kind::element) tooDeep();
          break;
        }
        if (id == top) return;
        id = tree_[id].parent;
        close(tree_[id], --depth);
      }
    }
  }

  // What was not changed needs no look at what is in it. The nesting is no deeper than it was then.
  bool writeWhole(const XmlNodeData& node) {
    if (node.kind != Kind::element || pretty_ || node.encoding != document_.encoding) return false;
    const std::string_view whole = tree_.wholeAsRead(node);
    if (!whole.empty()) add(whole);
    return !whole.empty();
  }

  void tooDeep() {
    fail(kXmlNestingTooDeep, "elements are nested deeper than " + std::to_string(kXmlDepthLimit) + " levels");
  }

  void open(const XmlNodeData& node, std::size_t depth) {
    if (pretty_ && depth > 0 && takesLayout(tree_[node.parent])) {
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
    std::string_view tag = tree_.bytes(element);
    const bool checked = element.own && element.encoding != XmlEncoding::latin1;
    if (element.unwritable || (checked && !isXmlText(tag))) {
      fail(kXmlUnwritable, "an element has a name, or an attribute a name or value, that XML cannot hold");
      return;
    }
    const bool isShort = tag.ends_with("/>");
    const bool wantsShort = !element.firstChild && (isShort || element.emptied || pretty_);
    if (isShort == wantsShort) {
      writeTag(tag, element.encoding);
    } else if (wantsShort) {
      tag.remove_suffix(1);
      writeTag(tag, element.encoding);
      out() += "/>";
    } else {
      tag.remove_suffix(2);
      writeTag(tag.substr(0, tag.find_last_not_of(" \t\r\n") + 1), element.encoding);
      out() += '>';
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
      writeTag(tree_.endTag(element), read);
      return;
    }
    out() += "</";
    writeTag(nameInTag(tree_.bytes(element)), element.encoding);
    out() += '>';
  }

  void writeTag(std::string_view tag, XmlEncoding encoding) {
    if (encoding == document_.encoding || isAscii(tag)) {
      add(tag);
      return;
    }
    if (document_.encoding == XmlEncoding::utf8) {
      out() += toUtf8(tag, encoding);
      return;
    }
    writeForeignTag(toUtf8(tag, encoding));
  }

  // A tag with letters that may be missing from the document's encoding.
  void writeForeignTag(std::string_view tag) {
    std::string& out = this->out();
    char quote = 0;
    for (const char32_t point : decodeUtf8(tag)) {
      if (point < 0x80) {
        const char c = static_cast<char>(point);
        if (quote == 0 && (c == '\'' || c == '"')) {
          quote = c;
        } else if (quote == c) {
          quote = 0;
        }
        out += c;
      } else if (quote != 0) {
        out += "&#" + std::to_string(static_cast<std::uint32_t>(point)) + ";";
      } else if (document_.encoding == XmlEncoding::latin1 && point < 0x100) {
        out += static_cast<char>(point);
      } else {
        fail(kXmlUnwritable, "a name has a letter that the document's encoding lacks");
        return;
      }
    }
  }

  // Line ends of what was added become those of the document.
  void writeAdded(std::string_view bytes) {
    std::string& out = this->out();
    for (const char c : bytes) {
      if (c == '\n') {
        out += document_.lineEnd;
      } else {
        out += c;
      }
    }
  }

  // `bytes`, kept by the tree, as they stand or with the document's line ends.
  void writeBytes(const XmlNodeData& node, std::string_view bytes) {
    if (!node.added || document_.lineEnd == "\n") {
      add(bytes);
    } else {
      writeAdded(bytes);
    }
  }

  // The same for markup made just now, as UTF-8.
  void writeMarkup(const XmlNodeData& node, std::string markup) {
    if (document_.encoding != XmlEncoding::utf8) markup = withReferences(markup);
    if (!node.added || document_.lineEnd == "\n") {
      out() += markup;
    } else {
      writeAdded(markup);
    }
  }

  void writeText(const XmlNodeData& text) {
    const std::string_view bytes = tree_.bytes(text);
    if (text.own && text.encoding != XmlEncoding::latin1 && !isXmlText(bytes)) {
      fail(kXmlUnwritable, "a text holds a character that XML cannot");
    } else if (text.encoding == document_.encoding || isAscii(bytes)) {
      writeBytes(text, bytes);
    } else {
      writeMarkup(text, escapeXmlText(decodeXmlText(bytes, text.encoding)));
    }
  }

  void writeComment(const XmlNodeData& comment) {
    const std::string_view bytes = tree_.bytes(comment);
    if (comment.own && !isXmlText(bytes)) {
      fail(kXmlUnwritable, "a comment holds a character that XML cannot");
    } else if (comment.encoding == document_.encoding || isAscii(bytes)) {
      writeBytes(comment, bytes);
    } else {
      writeMarkup(comment, toUtf8(bytes, comment.encoding));
    }
  }

  void writeAsIs(const XmlNodeData& node) {
    const std::string_view bytes = tree_.bytes(node);
    if (node.encoding == document_.encoding || isAscii(bytes)) {
      add(bytes);
    } else if (document_.encoding == XmlEncoding::utf8) {
      out() += toUtf8(bytes, node.encoding);
    } else {
      fail(kXmlUnwritable, "a processing instruction has a letter that the document's encoding lacks");
    }
  }

  const XmlTree& tree_;
  const XmlDocumentRecord& document_;
  const bool pretty_;
  std::string out_;
  std::string_view waiting_;
  std::optional<SystemError> failure_;
};

}  // namespace

Result<std::string> writeXml(const XmlTree& tree, const XmlDocumentRecord& document) {
  return Writer(tree, document).write();
}

}  // namespace tessard
