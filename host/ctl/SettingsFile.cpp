#include "host/ctl/SettingsFile.h"

#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <limits>

#include "common/Format.h"
#include "common/PropertyList.h"
#include "common/Utf8.h"
#include "host/JsonCodec.h"

namespace tessard {

namespace {

constexpr std::size_t kFileLimit = kPropertyListFileSizeLimit;
constexpr int kDepthLimit = 16;
// An alias stands for all that its anchor holds, so that a short text can ask for more than any memory has.
constexpr std::size_t kValueLimit = 200'000;

SystemError malformed(std::string_view reason) {
  return SystemError(0, std::string(reason));
}

bool isInteger(const std::string& text) {
  std::string_view digits = text;
  if (digits.starts_with('-')) digits.remove_prefix(1);
  if (digits.empty() || (digits.size() > 1 && digits.front() == '0')) return false;
  return digits.find_first_not_of("0123456789") == std::string_view::npos;
}

// Carries over a document, and counts what it has come to.
class YamlReading {
 public:
  Result<Value> value(const YAML::Node& node, int depth) {
    if (++count_ > kValueLimit) return malformed("it holds too many values");
    if (depth > kDepthLimit) return malformed("it is nested too deep");
    switch (node.Type()) {
      case YAML::NodeType::Scalar:
        return scalar(node);
      case YAML::NodeType::Sequence:
        return list(node, depth);
      case YAML::NodeType::Map:
        return dictionary(node, depth);
      default:
        return malformed(fill("line %d: there is no value", {node.Mark().line + 1}));
    }
  }

 private:
  static Result<Value> scalar(const YAML::Node& node) {
    const std::string& text = node.Scalar();
    if (!isUtf8(text)) return malformed("it is not UTF-8");
    // A quoted one has the tag "!".
    if (node.Tag() != "?") return Value(text);
    if (text == "true" || text == "yes") return Value(true);
    if (text == "false" || text == "no") return Value(false);
    return isInteger(text) ? parseJson(text) : Result<Value>(Value(text));
  }

  Result<Value> list(const YAML::Node& node, int depth) {
    Array list;
    for (const YAML::Node& element : node) {
      auto found = value(element, depth + 1);
      if (!found) return found;
      list.push_back(std::move(found).value());
    }
    return Value(std::move(list));
  }

  Result<Value> dictionary(const YAML::Node& node, int depth) {
    Dictionary dictionary;
    for (const auto& entry : node) {
      if (!entry.first.IsScalar())
        return malformed(fill("line %d: a key is no text", {node.Mark().line + 1}));
      const std::string& key = entry.first.Scalar();
      if (dictionary.contains(key)) return malformed(fill("the key \"%@\" is there twice", {key}));
      if (entry.second.IsNull()) return malformed(fill("\"%@\" has no value", {key}));
      auto found = value(entry.second, depth + 1);
      if (!found) return found;
      dictionary.set(key, std::move(found).value());
    }
    return Value(std::move(dictionary));
  }

  std::size_t count_ = 0;
};

Result<Value> parseYaml(const std::string& text) {
  try {
    const auto documents = YAML::LoadAll(text);
    if (documents.size() != 1) return malformed("it must hold one document");
    return YamlReading().value(documents.front(), 0);
  } catch (const YAML::Exception& problem) {
    return malformed(fill("line %d: %@", {problem.mark.line + 1, problem.msg}));
  }
}

// What a reader would take for something else without quotes.
bool needsQuotes(const std::string& text) {
  if (text.empty() || isInteger(text)) return true;
  for (const char* word : {"true", "false", "yes", "no", "on", "off", "null", "~"}) {
    if (text == word) return true;
  }
  return text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-") !=
             std::string::npos ||
         text.find_first_of("0123456789.-") == 0;
}

Result<void> emit(YAML::Emitter& out, const Value& value) {
  if (const bool* flag = value.asBoolean()) {
    out << *flag;
  } else if (const std::int64_t* number = value.asInteger()) {
    out << *number;
  } else if (const std::string* text = value.asString()) {
    if (needsQuotes(*text)) out << YAML::DoubleQuoted;
    out << *text;
  } else if (const Array* list = value.asArray()) {
    if (list->empty()) out << YAML::Flow;
    out << YAML::BeginSeq;
    for (const Value& element : *list) {
      if (auto written = emit(out, element); !written) return written;
    }
    out << YAML::EndSeq;
  } else if (const Dictionary* dictionary = value.asDictionary()) {
    out << YAML::BeginMap;
    for (const DictionaryEntry& entry : *dictionary) {
      out << YAML::Key;
      if (needsQuotes(entry.key)) out << YAML::DoubleQuoted;
      out << entry.key << YAML::Value;
      if (auto written = emit(out, entry.value); !written) return written;
    }
    out << YAML::EndMap;
  } else {
    return malformed("YAML is written for texts, integers, booleans, lists and dictionaries alone");
  }
  return {};
}

Result<std::string> yamlText(const Dictionary& settings) {
  YAML::Emitter out;
  if (auto written = emit(out, Value(settings)); !written) return written.error();
  if (!out.good()) return malformed(out.GetLastError());
  return std::string(out.c_str()) + "\n";
}

}  // namespace

std::optional<SettingsForm> settingsFormNamed(std::string_view name) {
  if (name == "yaml") return SettingsForm::yaml;
  if (name == "json") return SettingsForm::json;
  if (name == "plist") return SettingsForm::propertyList;
  return std::nullopt;
}

Result<Dictionary> parseSettingsText(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  const std::string_view first = begin == std::string_view::npos ? "" : text.substr(begin);
  const bool isPropertyList = text.starts_with("bplist") || first.starts_with('<');
  auto value = isPropertyList           ? parsePropertyList(text, kFileLimit)
               : first.starts_with('{') ? parseJson(text)
                                        : parseYaml(std::string(text));
  if (!value) return malformed(value.error().description());
  Dictionary* settings = value.value().asDictionary();
  if (!settings) return malformed("it holds no dictionary");
  return std::move(*settings);
}

Result<Dictionary> readSettingsFile(const std::string& path) {
  std::ifstream file;
  if (path != "-") file.open(path, std::ios::binary);
  if (path != "-" && !file) return SystemError::last();
  std::istream& input = path == "-" ? std::cin : file;
  std::string text(kFileLimit + 1, '\0');
  input.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (input.bad() || (input.gcount() == 0 && !input.eof())) return SystemError(EIO);
  text.resize(static_cast<std::size_t>(input.gcount()));
  if (text.size() > kFileLimit) return SystemError(EFBIG);
  return parseSettingsText(text);
}

Result<std::string> settingsText(const Dictionary& settings, SettingsForm form) {
  switch (form) {
    case SettingsForm::yaml:
      return yamlText(settings);
    case SettingsForm::propertyList:
      return serializePropertyList(Value(settings));
    case SettingsForm::json:
      break;
  }
  return serializeJson(Value(settings), true) + "\n";
}

}  // namespace tessard
