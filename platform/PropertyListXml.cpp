#include <expat.h>
#include <malloc.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/PropertyListParts.h"

namespace tessard {

namespace {

constexpr std::string_view kWhite = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kWhite);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kWhite) - begin + 1);
}

template <class Number, class... Options>
bool readWhole(std::string_view text, Number& number, Options... options) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, options...);
  return error == std::errc() && end == text.data() + text.size();
}

/// Decimal, or hexadecimal after "0x", with a sign before either.
std::optional<std::int64_t> integerFrom(std::string_view text) {
  text = trimmed(text);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  std::uint64_t amount = 0;
  if (!readWhole(text, amount, hexadecimal ? 16 : 10)) return std::nullopt;
  constexpr auto kMost = static_cast<std::uint64_t>(INT64_MAX);
  if (amount > kMost + (negative ? 1 : 0)) return std::nullopt;
  return static_cast<std::int64_t>(negative ? 0 - amount : amount);
}

std::optional<double> realFrom(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  double number = 0;
  if (!readWhole(text, number)) return std::nullopt;
  return number;
}

int sextetOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

/// White space may stand anywhere; the padding must be right and the bits that it leaves over must be zero.
std::optional<Data> dataFrom(std::string_view text) {
  Data data;
  std::uint32_t bits = 0;
  std::size_t digits = 0;
  std::size_t padding = 0;
  for (const char c : text) {
    if (kWhite.find(c) != std::string_view::npos) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int sextet = sextetOf(c);
    if (sextet < 0 || padding > 0) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(sextet);
    if (++digits % 4 == 0) {
      for (const unsigned shift : {16U, 8U, 0U}) data.bytes += static_cast<char>(bits >> shift);
      bits = 0;
    }
  }
  const std::size_t rest = digits % 4;
  const std::size_t unused = rest == 2 ? 4 : 2;
  if (rest == 0) return padding == 0 ? std::optional(std::move(data)) : std::nullopt;
  if (rest == 1 || padding != 4 - rest || (bits & ((1U << unused) - 1)) != 0) return std::nullopt;
  bits >>= unused;
  if (rest == 3) data.bytes += static_cast<char>(bits >> 8);
  data.bytes += static_cast<char>(bits);
  return data;
}

void wipeAndFree(void* memory) {
  if (memory) explicit_bzero(memory, malloc_usable_size(memory));
  std::free(memory);
}

void* wipingResize(void* memory, std::size_t size) {
  void* const resized = std::malloc(size);
  if (!resized || !memory) return resized;
  std::memcpy(resized, memory, std::min(size, malloc_usable_size(memory)));
  wipeAndFree(memory);
  return resized;
}

// The parser copies what it reads, and lists that come as requests may hold secrets.
constexpr XML_Memory_Handling_Suite kWipingMemory = {std::malloc, wipingResize, wipeAndFree};

struct ParserFree {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using Parser = std::unique_ptr<std::remove_pointer_t<XML_Parser>, ParserFree>;

/// Builds the value while the parser goes through the text. The first fault stops it.
class Builder {
 public:
  Builder(XML_Parser parser, std::size_t valueLimit) : parser_(parser), valuesLeft_(valueLimit) {
    XML_SetUserData(parser, this);
    XML_SetElementHandler(
        parser, [](void* self, const char* name, const char**) { static_cast<Builder*>(self)->start(name); },
        [](void* self, const char* name) { static_cast<Builder*>(self)->end(name); });
    XML_SetCharacterDataHandler(parser, [](void* self, const char* text, int length) {
      static_cast<Builder*>(self)->characters({text, static_cast<std::size_t>(length)});
    });
    XML_SetStartDoctypeDeclHandler(
        parser, [](void* self, const char* name, const char*, const char*, int hasInternalSubset) {
          if (std::string_view(name) == "plist" && !hasInternalSubset) return;
          static_cast<Builder*>(self)->refuse("a document type other than the plain one of property lists");
        });
    XML_SetSkippedEntityHandler(parser, [](void* self, const char* name, int) {
      static_cast<Builder*>(self)->refuse("the unknown entity \"" + std::string(name) + "\"");
    });
  }

  Result<Value> parse(std::string_view bytes) {
    const auto status = XML_Parse(parser_, bytes.data(), static_cast<int>(bytes.size()), XML_TRUE);
    if (fault_) return *fault_;
    if (status != XML_STATUS_OK) return located(XML_ErrorString(XML_GetErrorCode(parser_)));
    return *std::move(result_);
  }

 private:
  struct Container {
    Value value;
    std::optional<std::string> key;
  };

  SystemError located(const std::string& reason) const {
    return SystemError(0, "line " + std::to_string(XML_GetCurrentLineNumber(parser_)) + ": " + reason);
  }

  void refuse(const std::string& reason) {
    if (fault_) return;
    fault_ = located(reason);
    XML_StopParser(parser_, XML_FALSE);
  }

  static bool isScalar(std::string_view name) {
    constexpr std::array<std::string_view, 7> kScalars{"string", "integer", "real", "true",
                                                       "false",  "date",    "data"};
    for (const std::string_view scalar : kScalars) {
      if (name == scalar) return true;
    }
    return false;
  }

  void start(std::string_view name) {
    if (fault_) return;
    if (!inRoot_) {
      inRoot_ = true;
      if (name != "plist") refuse("the root element is not \"plist\"");
      return;
    }
    if (scalarOpen_) return refuse("an element inside a scalar value");
    const bool isContainer = name == "dict" || name == "array";
    if (name == "key") {
      startKey();
    } else if (!isContainer && !isScalar(name)) {
      refuse("unknown element \"" + std::string(name) + "\"");
    } else if (mayTakeValue()) {
      if (isContainer) {
        startContainer(name == "dict" ? Value(Dictionary()) : Value(Array()));
      } else {
        scalarOpen_ = true;
      }
    }
    text_.clear();
  }

  void startKey() {
    if (containers_.empty() || !containers_.back().value.asDictionary()) {
      return refuse("a key outside a dictionary");
    }
    if (containers_.back().key) return refuse("a key without a value");
    scalarOpen_ = true;
  }

  bool mayTakeValue() {
    if (valuesLeft_ == 0) {
      refuse("too many values");
      return false;
    }
    --valuesLeft_;
    if (containers_.empty()) {
      if (result_) refuse("more than one value at the top level");
      return !result_;
    }
    const bool keyMissing = containers_.back().value.asDictionary() && !containers_.back().key;
    if (keyMissing) refuse("a value without a key");
    return !keyMissing;
  }

  void startContainer(Value empty) {
    if (containers_.size() >= kPropertyListDepthLimit) {
      return refuse("values are nested deeper than " + std::to_string(kPropertyListDepthLimit) + " levels");
    }
    containers_.push_back({std::move(empty), std::nullopt});
  }

  void characters(std::string_view text) {
    if (fault_) return;
    if (scalarOpen_) {
      text_ += text;
    } else if (!trimmed(text).empty()) {
      refuse("text outside a value");
    }
  }

  void end(std::string_view name) {
    if (fault_) return;
    if (name == "plist") {
      if (!result_) refuse("no value");
    } else if (name == "key") {
      scalarOpen_ = false;
      endKey();
    } else if (scalarOpen_) {
      scalarOpen_ = false;
      endScalar(name);
    } else {
      endContainer();
    }
  }

  void endKey() {
    Container& container = containers_.back();
    if (container.value.asDictionary()->contains(text_)) return refuse("the key \"" + text_ + "\" twice");
    container.key = std::move(text_);
    text_.clear();
  }

  void endContainer() {
    if (containers_.back().key) return refuse("a key without a value");
    Value value = std::move(containers_.back().value);
    containers_.pop_back();
    take(std::move(value));
  }

  void endScalar(std::string_view name) {
    std::optional<Value> value;
    if (name == "string") value = Value(std::exchange(text_, {}));
    if (name == "integer") {
      if (const auto number = integerFrom(text_)) value = Value(*number);
    } else if (name == "real") {
      if (const auto number = realFrom(text_)) value = Value(*number);
    } else if (name == "date") {
      if (const auto date = dateFromText(trimmed(text_))) value = Value(*date);
    } else if (name == "data") {
      if (auto data = dataFrom(text_)) value = Value(*std::move(data));
    } else if ((name == "true" || name == "false") && trimmed(text_).empty()) {
      value = Value(name == "true");
    }
    if (!value) return refuse("not a well-formed " + std::string(name) + " value");
    take(*std::move(value));
  }

  void take(Value value) {
    if (containers_.empty()) {
      result_ = std::move(value);
      return;
    }
    Container& container = containers_.back();
    if (Array* const array = container.value.asArray()) {
      array->push_back(std::move(value));
      return;
    }
    container.value.asDictionary()->set(*std::exchange(container.key, std::nullopt), std::move(value));
  }

  XML_Parser parser_;
  std::size_t valuesLeft_;
  std::vector<Container> containers_;
  std::string text_;
  bool inRoot_ = false;
  bool scalarOpen_ = false;
  std::optional<Value> result_;
  std::optional<SystemError> fault_;
};

}  // namespace

Result<Value> parseXmlPropertyList(std::string_view bytes, std::size_t valueLimit) {
  const Parser parser(XML_ParserCreate_MM(nullptr, &kWipingMemory, nullptr));
  if (!parser) return SystemError(0, XML_ErrorString(XML_ERROR_NO_MEMORY));
  return Builder(parser.get(), valueLimit).parse(bytes);
}

}  // namespace tessard
