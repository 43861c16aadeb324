#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace tessard {

class Value;
struct DictionaryEntry;

using Array = std::vector<Value>;

/// Raw bytes of a property list.
struct Data {
  std::string bytes;
  bool operator==(const Data&) const = default;
};

/// A moment in UTC. Microseconds are kept because binary property lists carry fractions of a second.
struct Date {
  std::int64_t microsecondsSince1970 = 0;
  auto operator<=>(const Date&) const = default;
};

/// Keys and values in the order in which the keys were first stored. Keys are unique; storing under a key
/// that is present replaces the value and keeps the place. Lookup does not slow down with the number of
/// entries.
class Dictionary {
 public:
  Dictionary();
  Dictionary(std::initializer_list<DictionaryEntry> entries);
  Dictionary(const Dictionary&);
  Dictionary(Dictionary&&) noexcept;
  Dictionary& operator=(const Dictionary&);
  Dictionary& operator=(Dictionary&&) noexcept;
  ~Dictionary();

  bool empty() const;
  std::size_t size() const;
  bool contains(std::string_view key) const;

  /// The value under the key, or null. Valid until the dictionary is changed.
  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);

  /// The typed value under the key; absent when the key is missing or its value is of another kind.
  const std::string* stringFor(std::string_view key) const;
  const Array* arrayFor(std::string_view key) const;
  const Dictionary* dictionaryFor(std::string_view key) const;

  void set(std::string key, Value value);
  /// Stores a present value; an absent one leaves the dictionary as it is.
  void setIfPresent(std::string key, const Value* value);
  /// True when the key was there.
  bool remove(std::string_view key);

  /// Plain key-by-key overwrite: the entries of `other` replace those of the same key.
  void updateWithDictionary(const Dictionary& other);
  /// The entries of the listed keys, in the order of the list; keys that are missing are left out.
  Dictionary dictionaryForKeys(const std::vector<std::string>& keys) const;

  std::vector<DictionaryEntry>::const_iterator begin() const;
  std::vector<DictionaryEntry>::const_iterator end() const;

  /// Equal keys with equal values, in any order.
  bool operator==(const Dictionary& other) const;

 private:
  std::optional<std::size_t> indexOf(std::string_view key) const;
  void rebuildIndex();

  std::vector<DictionaryEntry> entries_;
  // Only kept for dictionaries too large to be searched entry by entry.
  std::unordered_map<std::string, std::size_t> index_;
};

/// One property-list value. Absence is not a value: it is std::optional, a null pointer or a missing key.
class Value {
 public:
  Value(const char* text);
  Value(std::string text);
  Value(std::string_view text);
  Value(bool flag);
  Value(int number);
  Value(std::int64_t number);
  Value(double number);
  Value(Data data);
  Value(Date date);
  Value(Array array);
  Value(Dictionary dictionary);
  Value(const Value&);
  Value(Value&&) noexcept;
  Value& operator=(const Value&);
  Value& operator=(Value&&) noexcept;
  ~Value();

  const std::string* asString() const { return std::get_if<std::string>(&content_); }
  const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&content_); }
  const double* asReal() const { return std::get_if<double>(&content_); }
  const bool* asBoolean() const { return std::get_if<bool>(&content_); }
  const Data* asData() const { return std::get_if<Data>(&content_); }
  const Date* asDate() const { return std::get_if<Date>(&content_); }
  const Array* asArray() const { return std::get_if<Array>(&content_); }
  Array* asArray() { return std::get_if<Array>(&content_); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&content_); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&content_); }

  bool isNumber() const { return asInteger() || asReal() || asBoolean(); }

  /// Numbers: not zero. Strings: after blanks, a sign and zeros, one of Y, y, T, t or 1 to 9. All else:
  /// false.
  bool boolValue() const;
  /// Numbers: truncated towards zero, held to the 64-bit range. Strings: leading blanks skipped, then an
  /// optional sign and digits, 0 when there are none. All else: 0.
  std::int64_t integerValue() const;
  /// Strings: themselves. Numbers: decimal digits, a boolean as "1" or "0". All else: absent.
  std::optional<std::string> stringValue() const;
  /// What "%@" shows: text, digits, dates as "2026-11-21 02:00:27 +0000", and arrays, dictionaries and data
  /// in the old property-list text form.
  std::string description() const;

  /// Numbers are equal when their values are, whatever their kinds (true, 1 and 1.0); other values must be of
  /// one kind.
  bool operator==(const Value& other) const;

 private:
  void describe(std::string& out, std::size_t depth) const;

  std::variant<std::string, std::int64_t, double, bool, Data, Date, Array, Dictionary> content_;
};

struct DictionaryEntry {
  std::string key;
  Value value;
};

/// The integer that a string begins with, read as `Value::integerValue` does.
std::int64_t integerReading(std::string_view text);

/// "2026-11-21 02:00:27 +0000".
std::string describeDate(Date date);

/// The strings of an array of strings and numbers; elements of other kinds are left out.
std::vector<std::string> stringsOf(const Array& array);
Array arrayOf(const std::vector<std::string>& strings);

}  // namespace tessard
