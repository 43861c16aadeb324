#pragma once

namespace tessard {

/// The project's version, as the build names it.
inline constexpr const char* kVersion = TESSARD_VERSION;

}  // namespace tessard
