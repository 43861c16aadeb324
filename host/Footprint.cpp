#include "host/Footprint.h"

namespace tessard {

namespace {

// What an entry of a large dictionary takes in its index, besides the key's text.
constexpr std::size_t kIndexEntry = 80;

std::size_t contentOf(const Value& value) {
  if (const auto* text = value.asString()) return text->size();
  if (const auto* data = value.asData()) return data->bytes.size();
  if (const auto* dictionary = value.asDictionary()) return footprintOf(*dictionary);
  const auto* array = value.asArray();
  if (!array) return 0;
  std::size_t bytes = array->size() * sizeof(Value);
  for (const Value& element : *array) bytes += contentOf(element);
  return bytes;
}

}  // namespace

std::size_t footprintOf(const Dictionary& dictionary) {
  std::size_t bytes = 0;
  for (const DictionaryEntry& entry : dictionary) {
    bytes += sizeof(DictionaryEntry) + kIndexEntry + 2 * entry.key.size() + contentOf(entry.value);
  }
  return bytes;
}

}  // namespace tessard
