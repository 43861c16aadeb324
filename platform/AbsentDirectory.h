#pragma once

#include <cerrno>

#include "common/Directory.h"

namespace tessard {

/// A machine whose accounts cannot be reached.
class AbsentDirectory : public Directory {
 public:
  Result<std::unique_ptr<DirectoryNode>> nodeWithType(int /*type*/) override { return SystemError(ENODEV); }
  bool getpwnam(std::string_view /*name*/) override { return false; }
};

}  // namespace tessard
