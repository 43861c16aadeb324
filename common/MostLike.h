#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace tessard {

/// The known word that is meant by one that somebody has mistyped: the one with the fewest letters to change,
/// add or take away, upper and lower case alike. Absent when none is like enough.
std::optional<std::string_view> mostLike(std::string_view word, std::span<const std::string_view> known);

}  // namespace tessard
