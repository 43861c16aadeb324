#include <utility>

#include "common/Value.h"

namespace tessard {

namespace {

// Below this size a walk over the entries is faster than hashing.
constexpr std::size_t kIndexedFrom = 24;

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<DictionaryEntry> entries) {
  for (const DictionaryEntry& entry : entries) set(entry.key, entry.value);
}

bool Dictionary::empty() const {
  return entries_.empty();
}

std::size_t Dictionary::size() const {
  return entries_.size();
}

bool Dictionary::contains(std::string_view key) const {
  return indexOf(key).has_value();
}

std::optional<std::size_t> Dictionary::indexOf(std::string_view key) const {
  if (!index_.empty()) {
    const auto found = index_.find(std::string(key));
    return found == index_.end() ? std::nullopt : std::optional(found->second);
  }
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].key == key) return i;
  }
  return std::nullopt;
}

void Dictionary::rebuildIndex() {
  index_.clear();
  if (entries_.size() < kIndexedFrom) return;
  for (std::size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].key, i);
}

const Value* Dictionary::find(std::string_view key) const {
  const auto index = indexOf(key);
  return index ? &entries_[*index].value : nullptr;
}

Value* Dictionary::find(std::string_view key) {
  const auto index = indexOf(key);
  return index ? &entries_[*index].value : nullptr;
}

const std::string* Dictionary::stringFor(std::string_view key) const {
  const Value* value = find(key);
  return value ? value->asString() : nullptr;
}

const Array* Dictionary::arrayFor(std::string_view key) const {
  const Value* value = find(key);
  return value ? value->asArray() : nullptr;
}

const Dictionary* Dictionary::dictionaryFor(std::string_view key) const {
  const Value* value = find(key);
  return value ? value->asDictionary() : nullptr;
}

void Dictionary::set(std::string key, Value value) {
  if (const auto index = indexOf(key)) {
    entries_[*index].value = std::move(value);
    return;
  }
  entries_.push_back({std::move(key), std::move(value)});
  if (!index_.empty()) {
    index_.emplace(entries_.back().key, entries_.size() - 1);
  } else if (entries_.size() >= kIndexedFrom) {
    rebuildIndex();
  }
}

void Dictionary::setIfPresent(std::string key, const Value* value) {
  if (value) set(std::move(key), *value);
}

bool Dictionary::remove(std::string_view key) {
  const auto index = indexOf(key);
  if (!index) return false;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(*index));
  rebuildIndex();
  return true;
}

void Dictionary::updateWithDictionary(const Dictionary& other) {
  for (const DictionaryEntry& entry : other.entries_) set(entry.key, entry.value);
}

Dictionary Dictionary::dictionaryForKeys(const std::vector<std::string>& keys) const {
  Dictionary chosen;
  for (const std::string& key : keys) chosen.setIfPresent(key, find(key));
  return chosen;
}

std::vector<DictionaryEntry>::const_iterator Dictionary::begin() const {
  return entries_.begin();
}

std::vector<DictionaryEntry>::const_iterator Dictionary::end() const {
  return entries_.end();
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (size() != other.size()) return false;
  for (const DictionaryEntry& entry : entries_) {
    const Value* counterpart = other.find(entry.key);
    if (!counterpart || !(*counterpart == entry.value)) return false;
  }
  return true;
}

}  // namespace tessard
