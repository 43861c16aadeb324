#include "common/Format.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

namespace tessard {

namespace {

std::string octal(std::int64_t number) {
  std::ostringstream out;
  out << std::oct << number;
  return out.str();
}

// The conversion letter of the placeholder at the start of `rest` and the length of the placeholder; 0 for
// none.
char placeholderAt(std::string_view rest, std::size_t& length) {
  length = rest.starts_with("%l") ? 3 : 2;
  if (rest.size() < length) return 0;
  const char letter = rest[length - 1];
  const bool known = std::string_view(length == 3 ? "du" : "@sduo%").find(letter) != std::string_view::npos;
  return known ? letter : '\0';
}

}  // namespace

FormatArgument::FormatArgument(const Value* value) {
  if (!value) return;
  text_ = value->description();
  number_ = value->integerValue();
}

std::string fill(std::string_view format, std::initializer_list<FormatArgument> arguments) {
  std::string filled;
  const FormatArgument* argument = arguments.begin();
  while (!format.empty()) {
    const std::size_t percent = std::min(format.find('%'), format.size());
    filled += format.substr(0, percent);
    format.remove_prefix(percent);
    if (format.empty()) break;
    std::size_t length = 0;
    const char letter = placeholderAt(format, length);
    if (letter == '%') {
      filled += '%';
    } else if (letter == 0 || argument == arguments.end()) {
      length = 1;
      filled += '%';
    } else {
      filled += letter == 'o' ? octal(argument->number()) : argument->text().value_or("(null)");
      ++argument;
    }
    format.remove_prefix(length);
  }
  return filled;
}

}  // namespace tessard
