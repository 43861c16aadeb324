#include "tests/atoms/ProjectPaths.h"

namespace tessard {

std::string templatesDirectory() {
  return TESSARD_TEMPLATES;
}

std::string schemasDirectory() {
  return TESSARD_SCHEMAS;
}

std::string defaultConfigFile() {
  return TESSARD_DEFAULT_CONFIG;
}

std::string checkUserAccessProgram() {
  return TESSARD_CHECK_USER_ACCESS;
}

}  // namespace tessard
