#include <algorithm>
#include <array>
#include <cstdio>

#include "common/Utf8.h"
#include "common/Value.h"

// The old property-list text form, as "%@" shows containers and data.

namespace tessard {

namespace {

constexpr std::size_t kIndent = 4;

bool isPlainWord(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  });
}

void appendEscapedUnit(std::string& out, unsigned unit) {
  std::array<char, 12> buffer{};
  std::snprintf(buffer.data(), buffer.size(), "\\U%04x", unit);
  out += buffer.data();
}

void appendEscaped(std::string& out, char32_t point) {
  switch (point) {
    case '"':
    case '\\':
      out += '\\';
      out += static_cast<char>(point);
      return;
    case '\n':
      out += "\\n";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      break;
  }
  if (point >= 0x20 && point < 0x7f) {
    out += static_cast<char>(point);
  } else if (point < 0x10000) {
    appendEscapedUnit(out, point);
  } else {
    appendEscapedUnit(out, 0xd800 + ((point - 0x10000) >> 10));
    appendEscapedUnit(out, 0xdc00 + ((point - 0x10000) & 0x3ff));
  }
}

void appendText(std::string& out, std::string_view text) {
  if (isPlainWord(text)) {
    out += text;
    return;
  }
  out += '"';
  for (const char32_t point : decodeUtf8(text)) appendEscaped(out, point);
  out += '"';
}

void appendData(std::string& out, const std::string& bytes) {
  out += '<';
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::array<char, 3> buffer{};
    if (i > 0 && i % 4 == 0) out += ' ';
    std::snprintf(buffer.data(), buffer.size(), "%02x", static_cast<unsigned char>(bytes[i]));
    out += buffer.data();
  }
  out += '>';
}

}  // namespace

std::string Value::description() const {
  if (const std::string* text = asString()) return *text;
  std::string out;
  describe(out, 0);
  return out;
}

void Value::describe(std::string& out, std::size_t depth) const {
  const std::string outer(depth * kIndent, ' ');
  const std::string inner((depth + 1) * kIndent, ' ');
  if (const std::string* text = asString()) {
    appendText(out, *text);
  } else if (const Data* data = asData()) {
    appendData(out, data->bytes);
  } else if (const Date* date = asDate()) {
    out += depth == 0 ? describeDate(*date) : '"' + describeDate(*date) + '"';
  } else if (const Array* array = asArray()) {
    out += "(";
    for (std::size_t i = 0; i < array->size(); ++i) {
      out += (i == 0 ? "\n" : ",\n") + inner;
      (*array)[i].describe(out, depth + 1);
    }
    out += "\n" + outer + ")";
  } else if (const Dictionary* dictionary = asDictionary()) {
    out += "{\n";
    for (const DictionaryEntry& entry : *dictionary) {
      out += inner;
      appendText(out, entry.key);
      out += " = ";
      entry.value.describe(out, depth + 1);
      out += ";\n";
    }
    out += outer + "}";
  } else {
    const std::string number = stringValue().value_or("");
    if (depth > 0 && number.find_first_of(".-+e") != std::string::npos) {
      out += '"' + number + '"';
    } else {
      out += number;
    }
  }
}

}  // namespace tessard
