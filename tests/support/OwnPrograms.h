#pragma once

#include <string>

namespace tessard {

/// Where the programs of the daemon's own are that were built with these tests.
std::string ownProgramsDirectory();

}  // namespace tessard
