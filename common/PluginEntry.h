#pragma once

#include <cstdint>

#include "common/Platform.h"
#include "common/PluginRequestHandler.h"

namespace tessard {

/// Version of everything that host and plug-in share: this header and all that it includes. A host loads only
/// bundles whose number is its own.
inline constexpr std::uint32_t kPluginInterfaceVersion = 4;

/// The two symbols, with C linkage, that a bundle's executable exports.
inline constexpr const char* kPluginInterfaceVersionSymbol = "tessardPluginInterfaceVersion";
inline constexpr const char* kPluginCreateSymbol = "tessardPluginCreate";

using PluginInterfaceVersionFunction = std::uint32_t (*)();

/// Creates the handler of the class that Info.plist names under "NSPrincipalClass"; null when the bundle has
/// no such class. The caller owns the handler and deletes it; the platform outlives it. Does not throw.
using PluginCreateFunction = PluginRequestHandler* (*)(const char* principalClass, Platform* platform);

}  // namespace tessard
