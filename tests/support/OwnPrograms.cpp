#include "tests/support/OwnPrograms.h"

namespace tessard {

std::string ownProgramsDirectory() {
  return TESSARD_PROGRAMS;
}

}  // namespace tessard
