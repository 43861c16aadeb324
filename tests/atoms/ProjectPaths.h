#pragma once

#include <string>

namespace tessard {

/// Where the project has what the tests need of it. Known to one source alone, so that the others compile to
/// the same wherever the project lies.
std::string templatesDirectory();
std::string schemasDirectory();
std::string defaultConfigFile();
std::string checkUserAccessProgram();

}  // namespace tessard
