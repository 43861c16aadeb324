#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "common/Value.h"

namespace tessard {

/// One argument of `fill`: a text, a value, a whole number, or nothing.
class FormatArgument {
 public:
  FormatArgument(std::nullopt_t) {}
  FormatArgument(const char* text) {
    if (text) text_ = text;
  }
  FormatArgument(std::string_view text) : text_(text) {}
  FormatArgument(const std::string& text) : text_(text) {}
  FormatArgument(const std::optional<std::string>& text) : text_(text) {}
  FormatArgument(const Value& value) : text_(value.description()), number_(value.integerValue()) {}
  FormatArgument(const Value* value);
  template <std::integral Number>
  FormatArgument(Number number) : text_(std::to_string(number)), number_(static_cast<std::int64_t>(number)) {}

  const std::optional<std::string>& text() const { return text_; }
  std::int64_t number() const { return number_; }

 private:
  std::optional<std::string> text_;
  std::int64_t number_ = 0;
};

/// Fills the placeholders of one of the system's texts, in order: %@ and %s take a description ("(null)" for
/// nothing), %d, %ld, %u and %lu a decimal number, %o an octal one; %% is a percent sign. A placeholder
/// without an argument stays as it stands.
std::string fill(std::string_view format, std::initializer_list<FormatArgument> arguments);

}  // namespace tessard
