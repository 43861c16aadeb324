#include "host/JsonCodec.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "common/Format.h"
#include "host/Base64.h"
#include "host/Rfc3339.h"

namespace tessard {

namespace {

constexpr std::string_view kDataKey = "$data";
constexpr std::string_view kDateKey = "$date";
constexpr std::string_view kLiteralKey = "$literal";

// One level of nesting of the value being built.
struct Level {
  Value container;                             ///< an array or a dictionary
  std::string key{};                           ///< of the entry that comes next
  std::unordered_set<std::string> seenKeys{};  ///< those of null entries too
};

Result<Value> dataOf(const Value& content) {
  const std::string* text = content.asString();
  auto bytes = text ? decodeBase64(*text) : std::nullopt;
  if (!bytes) return SystemError(0, "\"$data\" must be a padded base64 string");
  return Value(Data{std::move(*bytes)});
}

Result<Value> dateOf(const Value& content) {
  const std::string* text = content.asString();
  const auto date = text ? parseRfc3339(*text) : std::nullopt;
  if (!date) return SystemError(0, "\"$date\" must be an RFC 3339 string such as \"2026-11-21T02:00:27Z\"");
  return Value(*date);
}

Result<void> resolve(Value& value);

Result<void> resolveEntries(Dictionary& dictionary) {
  for (const DictionaryEntry& entry : dictionary) {
    if (auto resolved = resolve(*dictionary.find(entry.key)); !resolved) return resolved;
  }
  return {};
}

Result<void> resolveLiteral(Value& value, Value& content) {
  if (!content.asDictionary()) return SystemError(0, "\"$literal\" must be an object");
  Value inner = std::move(content);
  value = std::move(inner);
  return resolveEntries(*value.asDictionary());
}

// Replaces the reserved forms within a value by what they stand for. The nesting was limited before.
Result<void> resolve(Value& value) {
  if (Array* array = value.asArray()) {
    for (Value& element : *array) {
      if (auto resolved = resolve(element); !resolved) return resolved;
    }
    return {};
  }
  Dictionary* dictionary = value.asDictionary();
  if (!dictionary) return {};
  if (dictionary->size() != 1) return resolveEntries(*dictionary);
  if (Value* content = dictionary->find(kLiteralKey)) return resolveLiteral(value, *content);
  const Value* data = dictionary->find(kDataKey);
  const Value* date = dictionary->find(kDateKey);
  if (!data && !date) return resolveEntries(*dictionary);
  auto plain = data ? dataOf(*data) : dateOf(*date);
  if (!plain) return plain.error();
  value = std::move(plain).value();
  return {};
}

class Builder : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit Builder(std::size_t valueLimit) : valueLimit_(valueLimit), valuesLeft_(valueLimit) {}

  bool null() override { return countValue(); }
  bool boolean(bool flag) override { return add(Value(flag)); }
  bool number_integer(number_integer_t number) override {
    return add(Value(static_cast<std::int64_t>(number)));
  }
  bool number_unsigned(number_unsigned_t number) override {
    if (number > static_cast<number_unsigned_t>(INT64_MAX)) return tooLarge(std::to_string(number));
    return add(Value(static_cast<std::int64_t>(number)));
  }
  // Integers too long for 64 bits arrive here as well.
  bool number_float(number_float_t number, const string_t& text) override {
    if (text.find_first_of(".eE") == string_t::npos) return tooLarge(text);
    return add(Value(number));
  }
  bool string(string_t& text) override { return add(Value(std::move(text))); }
  bool binary(binary_t& /*bytes*/) override { return refuse("binary values are no JSON"); }
  bool start_object(std::size_t /*size*/) override { return open(Value(Dictionary())); }
  bool start_array(std::size_t /*size*/) override { return open(Value(Array())); }
  bool end_array() override { return close(); }

  bool end_object() override { return close(); }

  bool key(string_t& name) override {
    Level& level = levels_.back();
    if (!level.seenKeys.insert(name).second) return refuse(fill("the key \"%@\" is doubled", {name}));
    level.key = std::move(name);
    return true;
  }

  bool parse_error(std::size_t position, const std::string& /*token*/,
                   const nlohmann::detail::exception& problem) override {
    if (problem.id == 406) return refuse("a number is too large");
    return refuse(fill("the JSON text is malformed at byte %lu", {position}));
  }

  const std::string& reason() const { return reason_; }
  std::optional<Value>& result() { return result_; }

 private:
  bool countValue() {
    if (valuesLeft_ == 0) return refuse(fill("the JSON text holds more than %lu values", {valueLimit_}));
    --valuesLeft_;
    return true;
  }

  bool add(Value value) { return countValue() && put(std::move(value)); }

  bool put(Value value) {
    if (levels_.empty()) {
      result_ = std::move(value);
    } else if (Array* array = levels_.back().container.asArray()) {
      array->push_back(std::move(value));
    } else {
      levels_.back().container.asDictionary()->set(levels_.back().key, std::move(value));
    }
    return true;
  }

  bool open(Value container) {
    if (levels_.size() == kJsonDepthLimit) {
      return refuse(fill("the JSON text is nested deeper than %lu levels", {kJsonDepthLimit}));
    }
    levels_.push_back({std::move(container)});
    return countValue();
  }

  bool close() {
    Value finished = std::move(levels_.back().container);
    levels_.pop_back();
    return put(std::move(finished));
  }

  bool tooLarge(const std::string& number) {
    return refuse(fill("the integer %@ does not fit into 64 bits", {number}));
  }

  bool refuse(std::string reason) {
    reason_ = std::move(reason);
    return false;
  }

  const std::size_t valueLimit_;
  std::size_t valuesLeft_;
  std::vector<Level> levels_;
  std::optional<Value> result_;
  std::string reason_;
};

void writeText(std::string& out, std::string_view text) {
  out += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void writeReal(std::string& out, double number) {
  if (number != number) {
    out += "\"NaN\"";
  } else if (number - number != 0) {
    out += number > 0 ? "\"Infinity\"" : "\"-Infinity\"";
  } else {
    out += nlohmann::json(number).dump();
  }
}

class Writer {
 public:
  explicit Writer(bool pretty) : pretty_(pretty) {}

  void write(const Value& value, std::size_t depth) {
    if (const auto* text = value.asString()) {
      writeText(out, *text);
    } else if (const auto* number = value.asInteger()) {
      out += std::to_string(*number);
    } else if (const auto* real = value.asReal()) {
      writeReal(out, *real);
    } else if (const auto* flag = value.asBoolean()) {
      out += *flag ? "true" : "false";
    } else if (const auto* data = value.asData()) {
      writeReserved(kDataKey, encodeBase64(data->bytes));
    } else if (const auto* date = value.asDate()) {
      writeReserved(kDateKey, formatRfc3339(*date));
    } else if (const auto* array = value.asArray()) {
      writeArray(*array, depth);
    } else {
      writeDictionary(*value.asDictionary(), depth);
    }
  }

  std::string out;

 private:
  void writeReserved(std::string_view key, std::string_view text) {
    out += '{';
    writeText(out, key);
    out += pretty_ ? ": " : ":";
    writeText(out, text);
    out += '}';
  }

  void newLine(std::size_t depth) {
    if (pretty_) out.append("\n").append(2 * depth, ' ');
  }

  void writeArray(const Array& array, std::size_t depth) {
    out += '[';
    for (std::size_t index = 0; index < array.size(); ++index) {
      if (index > 0) out += ',';
      newLine(depth + 1);
      write(array[index], depth + 1);
    }
    if (!array.empty()) newLine(depth);
    out += ']';
  }

  void writeDictionary(const Dictionary& dictionary, std::size_t depth) {
    const bool reserved =
        dictionary.size() == 1 &&
        (dictionary.contains(kDataKey) || dictionary.contains(kDateKey) || dictionary.contains(kLiteralKey));
    if (reserved) {
      out += '{';
      writeText(out, kLiteralKey);
      out += pretty_ ? ": " : ":";
    }
    out += '{';
    const char* separator = "";
    for (const DictionaryEntry& entry : dictionary) {
      out += separator;
      separator = ",";
      newLine(depth + 1);
      writeText(out, entry.key);
      out += pretty_ ? ": " : ":";
      write(entry.value, depth + 1);
    }
    if (!dictionary.empty()) newLine(depth);
    out += reserved ? "}}" : "}";
  }

  bool pretty_;
};

}  // namespace

Result<Value> parseJson(std::string_view text, std::size_t valueLimit) {
  Builder builder(valueLimit);
  if (!nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) {
    return SystemError(0, builder.reason());
  }
  if (!builder.result()) return SystemError(0, "the JSON text holds no value");
  if (auto resolved = resolve(*builder.result()); !resolved) return resolved.error();
  return std::move(*builder.result());
}

std::string serializeJson(const Value& value, bool pretty) {
  Writer writer(pretty);
  writer.write(value, 0);
  return std::move(writer.out);
}

}  // namespace tessard
