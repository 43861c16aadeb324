#pragma once

#include <cstdint>
#include <string_view>

namespace tessard {

/// A number that tells contents apart, within one run of a program: two that differ in one place only never
/// have the same, any other two by an accident of one in 2^64. No protection against who means to deceive.
std::uint64_t digestOf(std::string_view content);

}  // namespace tessard
