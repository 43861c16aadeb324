#include "host/ctl/SettingsArguments.h"

#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

#include "common/Format.h"
#include "common/Text.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

bool looksLikeInteger(std::string_view text) {
  if (text.starts_with('-')) text.remove_prefix(1);
  if (text.empty() || (text.size() > 1 && text.front() == '0')) return false;
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

Result<Value> scalar(std::string_view text) {
  if (text == "true" || text == "yes") return Value(true);
  if (text == "false" || text == "no") return Value(false);
  if (looksLikeInteger(text) || text.starts_with('"')) return parseJson(text);
  return Value(text);
}

// The elements of "a, b", where a comma within a JSON string does not count.
std::vector<std::string_view> elementsOf(std::string_view list) {
  std::vector<std::string_view> elements;
  bool quoted = false;
  std::size_t start = 0;
  for (std::size_t at = 0; at < list.size(); ++at) {
    if (quoted && list[at] == '\\') {
      ++at;
    } else if (list[at] == '"') {
      quoted = !quoted;
    } else if (list[at] == ',' && !quoted) {
      elements.push_back(trimmed(list.substr(start, at - start), " "));
      start = at + 1;
    }
  }
  elements.push_back(trimmed(list.substr(start), " "));
  return elements;
}

Result<Value> valueOf(std::string_view text) {
  if (!text.starts_with('[') || !text.ends_with(']') || text.size() < 2) return scalar(text);
  text = trimmed(text.substr(1, text.size() - 2), " ");
  Array list;
  if (text.empty()) return Value(std::move(list));
  for (const std::string_view element : elementsOf(text)) {
    auto value = scalar(element);
    if (!value) return value;
    list.push_back(std::move(value).value());
  }
  return Value(std::move(list));
}

std::optional<std::string> addElement(Dictionary& settings, const std::string& key, Value element) {
  if (!settings.contains(key)) settings.set(key, Array());
  Array* list = settings.find(key)->asArray();
  if (!list) return fill("\"%@\" is given both as a list and as a single value", {key});
  list->push_back(std::move(element));
  return std::nullopt;
}

std::optional<std::string> addWord(Dictionary& settings, const std::string& word) {
  const auto equals = word.find('=');
  if (equals == std::string::npos || equals == 0) return fill("\"%@\" is not of the form KEY=VALUE", {word});
  const char kind = word[equals - 1];
  const bool plain = kind != '+' && kind != ':';
  const std::string key = word.substr(0, plain ? equals : equals - 1);
  const std::string text = word.substr(equals + 1);
  if (key.empty()) return fill("\"%@\" is not of the form KEY=VALUE", {word});
  auto value = kind == ':' ? parseJson(text) : kind == '+' ? scalar(text) : valueOf(text);
  if (!value) return fill("the value of \"%@\" cannot be read: %@", {key, value.error().description()});
  if (kind == '+') return addElement(settings, key, std::move(value).value());
  if (settings.contains(key)) return fill("\"%@\" is given twice", {key});
  settings.set(key, std::move(value).value());
  return std::nullopt;
}

// The text of a value without a list's brackets; absent when only JSON can say it.
std::optional<std::string> scalarAsText(const Value& value, bool inList) {
  if (const bool* flag = value.asBoolean()) return *flag ? "true" : "false";
  if (value.asInteger()) return value.stringValue();
  const std::string* text = value.asString();
  if (!text) return std::nullopt;
  const auto readBack = inList ? scalar(*text) : valueOf(*text);
  const bool plain = readBack && readBack.value().asString() && *readBack.value().asString() == *text &&
                     text->find_first_of("\n\r") == std::string::npos &&
                     (!inList || (text->find_first_of(",\"") == std::string::npos &&
                                  trimmed(*text, " ") == *text && !text->empty()));
  return plain ? *text : serializeJson(value);
}

}  // namespace

Result<Dictionary> parseSettings(const std::vector<std::string>& words) {
  Dictionary settings;
  for (const std::string& word : words) {
    if (auto problem = addWord(settings, word)) return SystemError(EINVAL, *problem);
  }
  return settings;
}

std::string settingAsWord(const std::string& key, const Value& value) {
  const bool ambiguousKey = key.ends_with('+') || key.ends_with(':');
  if (const Array* list = value.asArray(); list && !ambiguousKey) {
    std::string text;
    for (const Value& element : *list) {
      const auto part = scalarAsText(element, true);
      if (!part) return key + ":=" + serializeJson(value);
      text += (text.empty() ? "" : ", ") + *part;
    }
    return key + "=[" + text + "]";
  }
  const auto text = scalarAsText(value, false);
  return text && !ambiguousKey ? key + "=" + *text : key + ":=" + serializeJson(value);
}

}  // namespace tessard
