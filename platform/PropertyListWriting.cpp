#include <plist/plist.h>

#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

#include "common/Utf8.h"
#include "platform/PropertyListParts.h"

namespace tessard {

namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

Result<Node> nodeOf(const Value& value, std::size_t level);

SystemError noText() {
  return SystemError(0, "a string or key holds a character that an XML property list cannot");
}

Result<Node> dateNodeOf(Date date) {
  const std::optional<std::string> text = textOfDate(date);
  if (!text) return SystemError(0, "a date lies outside the years 1 to 9999");
  // The library's own call takes 32 bits of seconds only (until 2069); its reader has no such limit.
  const std::string list = "<plist version=\"1.0\"><date>" + *text + "</date></plist>";
  plist_t node = nullptr;
  plist_from_xml(list.data(), static_cast<std::uint32_t>(list.size()), &node);
  if (!node) return SystemError(0, "a date cannot be written");
  return Node(node);
}

Result<Node> arrayNodeOf(const Array& array, std::size_t level) {
  Node node(plist_new_array());
  for (const Value& value : array) {
    Result<Node> item = nodeOf(value, level + 1);
    if (!item) return item.error();
    plist_array_append_item(node.get(), item.value().release());
  }
  return node;
}

Result<Node> dictionaryNodeOf(const Dictionary& dictionary, std::size_t level) {
  Node node(plist_new_dict());
  for (const auto& [key, value] : dictionary) {
    if (!isXmlText(key)) return noText();
    Result<Node> item = nodeOf(value, level + 1);
    if (!item) return item.error();
    plist_dict_set_item(node.get(), key.c_str(), item.value().release());
  }
  return node;
}

/// The library's form of a value. `level` is the number of containers around it.
Result<Node> nodeOf(const Value& value, std::size_t level) {
  if ((value.asArray() || value.asDictionary()) && level >= kPropertyListDepthLimit) {
    return SystemError(
        0, "values are nested deeper than " + std::to_string(kPropertyListDepthLimit) + " levels");
  }
  if (const Array* const array = value.asArray()) return arrayNodeOf(*array, level);
  if (const Dictionary* const dictionary = value.asDictionary()) return dictionaryNodeOf(*dictionary, level);
  if (const std::string* const text = value.asString()) {
    if (!isXmlText(*text)) return noText();
    return Node(plist_new_string(text->c_str()));
  }
  if (const std::int64_t* const number = value.asInteger()) {
    return Node(plist_new_uint(static_cast<std::uint64_t>(*number)));
  }
  if (const double* const number = value.asReal()) return Node(plist_new_real(*number));
  if (const bool* const flag = value.asBoolean()) return Node(plist_new_bool(*flag ? 1 : 0));
  if (const Date* const date = value.asDate()) return dateNodeOf(*date);
  const std::string& bytes = value.asData()->bytes;
  return Node(plist_new_data(bytes.data(), bytes.size()));
}

/// What the library writes, but for two things that it gets wrong: carriage returns stand there as they are,
/// which every reader takes for line ends, and years before 1000 have fewer than four digits.
std::string corrected(std::string_view list) {
  constexpr std::string_view kDate = "<date>";
  std::string written;
  written.reserve(list.size());
  for (std::size_t at = 0; at < list.size(); ++at) {
    if (list[at] == '\r') {
      written += "&#13;";
    } else if (list.substr(at).starts_with(kDate)) {
      const std::size_t year = at + kDate.size();
      const std::size_t digits = list.find('-', year) - year;
      written += kDate;
      if (digits < 4) written.append(4 - digits, '0');
      at = year - 1;
    } else {
      written += list[at];
    }
  }
  return written;
}

}  // namespace

Result<std::string> serializePropertyList(const Value& value) {
  const Result<Node> node = nodeOf(value, 0);
  if (!node) return node.error();
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(node.value().get(), &bytes, &length);
  const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
  if (!bytes) return SystemError(0, "the property list cannot be written");
  return corrected({bytes, length});
}

}  // namespace tessard
