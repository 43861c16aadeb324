#pragma once

#include <span>
#include <string_view>

namespace tessard {

/// Whether a component of jabberd2 2.7, as Debian 12 has it, looks at an element, or at one below it; paths
/// without the root element's name. True as well for those that only this product reads.
bool isElementRead(std::string_view kind, std::string_view path);

/// The elements without which a component does not do its work; empty for an unknown kind.
std::span<const std::string_view> neededElements(std::string_view kind);

}  // namespace tessard
