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

std::string nameAt(const XmlNodeData& element, const AttributePlace& place) {
  return toUtf8(element.bytes().substr(place.name, place.nameEnd - place.name), element.encoding);
}

std::string valueAt(const XmlNodeData& element, const AttributePlace& place) {
  return decodeXmlAttribute(element.bytes().substr(place.value + 1, place.end - place.value - 2),
                            element.encoding);
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

void replaceInTag(XmlNodeData& element, std::size_t begin, std::size_t end, std::string_view with) {
  const std::string_view tag = element.bytes();
  std::string changed(tag.substr(0, begin));
  changed += with;
  changed += tag.substr(end);
  element.own = std::make_unique<std::string>(std::move(changed));
}

}  // namespace

std::string_view rawNameOf(const XmlNodeData& element) {
  const std::string_view tag = element.bytes();
  return tag.substr(1, nameEnd(tag, 1) - 1);
}

std::optional<std::string> attributeOf(const XmlNodeData& element, std::string_view name) {
  AttributeScan scan(element.bytes());
  while (const auto place = scan.next()) {
    if (nameAt(element, *place) == name) return valueAt(element, *place);
  }
  return std::nullopt;
}

std::vector<std::pair<std::string, std::string>> attributesOf(const XmlNodeData& element) {
  std::vector<std::pair<std::string, std::string>> attributes;
  AttributeScan scan(element.bytes());
  while (const auto place = scan.next()) {
    attributes.emplace_back(nameAt(element, *place), valueAt(element, *place));
  }
  return attributes;
}

bool changeAttribute(XmlNodeData& element, std::string_view name, std::optional<std::string_view> value) {
  if (value && element.encoding != XmlEncoding::utf8 && !isXmlText(*value)) element.unwritable = true;
  AttributeScan scan(element.bytes());
  while (const auto place = scan.next()) {
    if (nameAt(element, *place) != name) continue;
    if (!value) {
      replaceInTag(element, place->begin, place->end, "");
      return true;
    }
    if (valueAt(element, *place) == *value) return false;
    const char quote = element.bytes()[place->value];
    replaceInTag(element, place->value, place->end, quoted(*value, quote, element.encoding));
    return true;
  }
  if (!value) return false;
  if (!isXmlName(name)) {
    element.unwritable = true;
    return true;
  }
  // The name joins a tag in the tag's own encoding; only UTF-8 tags can take every letter.
  const bool plain = withReferences(name) == name;
  if (!plain && element.encoding != XmlEncoding::utf8) {
    element.own = std::make_unique<std::string>(toUtf8(element.bytes(), element.encoding));
    element.encoding = XmlEncoding::utf8;
    return changeAttribute(element, name, value);
  }
  const std::string added = " " + std::string(name) + "=" + quoted(*value, '\'', element.encoding);
  replaceInTag(element, scan.end(), scan.end(), added);
  return true;
}

}  // namespace tessard
