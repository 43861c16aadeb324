#include "common/Value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <utility>

namespace tessard {

namespace {

constexpr std::string_view kBlanks = " \t\n\r\f\v";

std::string digitsOfReal(double number) {
  // Whole numbers in full: the shortest form of 100000 is "1e+05". From here on doubles skip whole numbers,
  // and digits would promise more than is known.
  constexpr double kFirstInexact = 0x1p53;
  if (std::trunc(number) == number && std::abs(number) < kFirstInexact) {
    return std::to_string(static_cast<std::int64_t>(number));
  }
  std::array<char, 40> buffer{};
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number).ptr;
  return {buffer.data(), end};
}

std::int64_t truncated(double number) {
  if (std::isnan(number)) return 0;
  // 2^63 is exact as a double, the largest 64-bit integer is not.
  if (number >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
  if (number < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(number);
}

bool booleanReading(std::string_view text) {
  std::size_t at = std::min(text.find_first_not_of(kBlanks), text.size());
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
  while (at < text.size() && text[at] == '0') ++at;
  return at < text.size() && std::string_view("YyTt123456789").find(text[at]) != std::string_view::npos;
}

bool integerEqualsReal(std::int64_t integer, double real) {
  return real >= -0x1p63 && real < 0x1p63 && std::trunc(real) == real &&
         static_cast<std::int64_t>(real) == integer;
}

std::int64_t wholeNumber(const Value& value) {
  if (const bool* flag = value.asBoolean()) return *flag ? 1 : 0;
  return *value.asInteger();
}

bool equalNumbers(const Value& left, const Value& right) {
  const double* leftReal = left.asReal();
  const double* rightReal = right.asReal();
  if (leftReal && rightReal) return *leftReal == *rightReal;
  if (leftReal) return integerEqualsReal(wholeNumber(right), *leftReal);
  if (rightReal) return integerEqualsReal(wholeNumber(left), *rightReal);
  return wholeNumber(left) == wholeNumber(right);
}

}  // namespace

Value::Value(const char* text) : content_(std::string(text)) {}
Value::Value(std::string text) : content_(std::move(text)) {}
Value::Value(std::string_view text) : content_(std::string(text)) {}
Value::Value(bool flag) : content_(flag) {}
Value::Value(int number) : content_(std::int64_t{number}) {}
Value::Value(std::int64_t number) : content_(number) {}
Value::Value(double number) : content_(number) {}
Value::Value(Data data) : content_(std::move(data)) {}
Value::Value(Date date) : content_(date) {}
Value::Value(Array array) : content_(std::move(array)) {}
Value::Value(Dictionary dictionary) : content_(std::move(dictionary)) {}
Value::Value(const Value&) = default;
Value::Value(Value&&) noexcept = default;
Value& Value::operator=(const Value&) = default;
Value& Value::operator=(Value&&) noexcept = default;
Value::~Value() = default;

bool Value::boolValue() const {
  if (const bool* flag = asBoolean()) return *flag;
  if (const std::int64_t* integer = asInteger()) return *integer != 0;
  if (const double* real = asReal()) return *real != 0;
  if (const std::string* text = asString()) return booleanReading(*text);
  return false;
}

std::int64_t Value::integerValue() const {
  if (const bool* flag = asBoolean()) return *flag ? 1 : 0;
  if (const std::int64_t* integer = asInteger()) return *integer;
  if (const double* real = asReal()) return truncated(*real);
  if (const std::string* text = asString()) return integerReading(*text);
  return 0;
}

std::optional<std::string> Value::stringValue() const {
  if (const std::string* text = asString()) return *text;
  if (const bool* flag = asBoolean()) return *flag ? "1" : "0";
  if (const std::int64_t* integer = asInteger()) return std::to_string(*integer);
  if (const double* real = asReal()) return digitsOfReal(*real);
  return std::nullopt;
}

bool Value::operator==(const Value& other) const {
  if (isNumber() && other.isNumber()) return equalNumbers(*this, other);
  return content_ == other.content_;
}

std::int64_t integerReading(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  std::uint64_t magnitude = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (end == text.data()) return 0;
  if (failure == std::errc::result_out_of_range || magnitude > largest) {
    return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
  }
  const auto number = static_cast<std::int64_t>(magnitude);
  return negative ? -number : number;
}

std::string describeDate(Date date) {
  const std::int64_t micros = date.microsecondsSince1970;
  const auto seconds = static_cast<std::time_t>(micros / 1000000 - (micros % 1000000 < 0 ? 1 : 0));
  std::tm parts{};
  std::array<char, 64> buffer{};
  if (!gmtime_r(&seconds, &parts)) return std::to_string(seconds);
  const std::size_t length = std::strftime(buffer.data(), buffer.size(), "%Y-%m-%d %H:%M:%S +0000", &parts);
  return {buffer.data(), length};
}

std::vector<std::string> stringsOf(const Array& array) {
  std::vector<std::string> strings;
  strings.reserve(array.size());
  for (const Value& element : array) {
    if (auto text = element.stringValue()) strings.push_back(std::move(*text));
  }
  return strings;
}

Array arrayOf(const std::vector<std::string>& strings) {
  return {strings.begin(), strings.end()};
}

}  // namespace tessard
