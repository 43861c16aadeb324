#include <algorithm>
#include <vector>

#include "common/Utf8.h"
#include "platform/XmlTree.h"

namespace tessard {

namespace {

constexpr std::string_view kWhite = " \t\r\n";

/// Places of one attribute in a start tag.
struct AttributePlace {
  std::size_t begin;  ///< the white space before the name
  std::size_t name;
  std::size_t nameEnd;
  std::size_t value;  ///< the opening quote
  std::size_t end;    ///< after the closing quote
};

std::size_t nameEnd(std::string_view tag, std::size_t at) {
  return std::min(tag.find_first_of(" \t\r\n/>=", at), tag.size());
}

/// The attributes of a well-formed start tag, in order.
class AttributeScan {
 public:
  explicit AttributeScan(std::string_view tag) : tag_(tag), at_(nameEnd(tag, 1)) {}

  std::optional<AttributePlace> next() {
    AttributePlace place{};
    place.begin = at_;
    place.name = std::min(tag_.find_first_not_of(kWhite, at_), tag_.size());
    if (place.name >= tag_.size() || tag_[place.name] == '/' || tag_[place.name] == '>') return std::nullopt;
    place.nameEnd = nameEnd(tag_, place.name);
    place.value = tag_.find_first_of("'\"", place.nameEnd);
    if (place.value == std::string_view::npos) return std::nullopt;
    const std::size_t close = tag_.find(tag_[place.value], place.value + 1);
    if (close == std::string_view::npos) return std::nullopt;
    at_ = place.end = close + 1;
    return place;
  }

  /// Where the next attribute would go once there are no more.
  std::size_t end() const { return at_; }

 private:
  std::string_view tag_;
  std::size_t at_;
};

std::string nameAt(std::string_view tag, XmlEncoding encoding, const AttributePlace& place) {
  return toUtf8(tag.substr(place.name, place.nameEnd - place.name), encoding);
}

std::string valueAt(std::string_view tag, XmlEncoding encoding, const AttributePlace& place) {
  return decodeXmlAttribute(tag.substr(place.value + 1, place.end - place.value - 2), encoding);
}

std::string quoted(std::string_view value, char preferred, XmlEncoding encoding) {
  const char other = preferred == '\'' ? '"' : '\'';
  char quote = value.find(preferred) == std::string_view::npos ? preferred : other;
  if (value.find(quote) != std::string_view::npos) quote = '"';
  std::string raw = escapeXmlAttribute(value, quote);
  // The tag keeps the encoding that it was read in.
  if (encoding != XmlEncoding::utf8) raw = withReferences(raw);
  return quote + raw + quote;
}

void replaceInTag(XmlTree& tree, XmlNodeId element, std::size_t begin, std::size_t end,
                  std::string_view with) {
  const std::string_view tag = tree.bytes(tree[element]);
  std::string changed(tag.substr(0, begin));
  changed += with;
  changed += tag.substr(end);
  tree.setBytes(element, std::move(changed));
}

/// Puts a new attribute after the last one.
void addAttribute(XmlTree& tree, XmlNodeId element, std::string_view name, std::string_view value) {
  // The name joins a tag in the tag's own encoding; only UTF-8 tags can take every letter.
  const XmlEncoding encoding = tree[element].encoding;
  if (encoding != XmlEncoding::utf8 && withReferences(name) != name) {
    tree.setBytes(element, toUtf8(tree.bytes(tree[element]), encoding));
    tree.edit(element).encoding = XmlEncoding::utf8;
  }
  AttributeScan scan(tree.bytes(tree[element]));
  while (scan.next()) continue;
  const std::string added = " " + std::string(name) + "=" + quoted(value, '\'', tree[element].encoding);
  replaceInTag(tree, element, scan.end(), scan.end(), added);
}

}  // namespace

std::string_view nameInTag(std::string_view tag) {
  return tag.substr(1, nameEnd(tag, 1) - 1);
}

std::optional<std::string> attributeOf(const XmlTree& tree, XmlNodeId element, std::string_view name) {
  const std::string_view tag = tree.bytes(tree[element]);
  const XmlEncoding encoding = tree[element].encoding;
  AttributeScan scan(tag);
  while (const auto place = scan.next()) {
    if (nameAt(tag, encoding, *place) == name) return valueAt(tag, encoding, *place);
  }
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> attributesOf(const XmlTree& tree, XmlNodeId element) {
  const std::string_view tag = tree.bytes(tree[element]);
  const XmlEncoding encoding = tree[element].encoding;
  std::vector<std::pair<std::string, std::string>> attributes;
  AttributeScan scan(tag);
  while (const auto place = scan.next()) {
    attributes.emplace_back(nameAt(tag, encoding, *place), valueAt(tag, encoding, *place));
  }
  return attributes;
}

bool changeAttribute(XmlTree& tree, XmlNodeId element, std::string_view name,
                     std::optional<std::string_view> value) {
  const XmlEncoding encoding = tree[element].encoding;
  if (value && encoding != XmlEncoding::utf8 && !isXmlText(*value)) tree.edit(element).unwritable = true;
  const std::string_view tag = tree.bytes(tree[element]);
  AttributeScan scan(tag);
  while (const auto place = scan.next()) {
    if (nameAt(tag, encoding, *place) != name) continue;
    if (!value) {
      replaceInTag(tree, element, place->begin, place->end, "");
      return true;
    }
    if (valueAt(tag, encoding, *place) == *value) return false;
    replaceInTag(tree, element, place->value, place->end, quoted(*value, tag[place->value], encoding));
    return true;
  }
  if (!value) return false;
  if (isXmlName(name)) {
    addAttribute(tree, element, name, *value);
  } else {
    tree.edit(element).unwritable = true;
  }
  return true;
}

}  // namespace tessard
