#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessard {

/// What messages call the master file, whatever its path.
inline constexpr std::string_view kMasterFileName = "jabberd.cfg";

/// Width of the name in a component line.
inline constexpr std::size_t kNameColumns = 15;

/// A UTF-8 text cut at every newline character (line feed, vertical tab, form feed, carriage return, next
/// line, line separator, paragraph separator); always at least one line.
std::vector<std::string> linesOf(std::string_view text);

/// The non-empty pieces between any of the separators. They point into the line.
std::vector<std::string_view> wordsOf(std::string_view line, std::string_view separators);

/// Whether a text holds white space, control characters or newline characters: such a text cannot be a path
/// in a line of the master file.
bool breaksLine(std::string_view text);

/// A component line as who starts the components reads it.
struct ListedComponent {
  std::string kind;  ///< "router", "sm", "s2s" or "c2s"
  std::string path;
};

/// Absent for a line that lists no component.
std::optional<ListedComponent> listedComponentIn(std::string_view line);

}  // namespace tessard
