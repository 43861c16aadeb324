#include "common/Result.h"

#include <cerrno>
#include <system_error>

namespace tessard {

SystemError SystemError::last() {
  return SystemError(errno);
}

std::string SystemError::description() const {
  return text_.empty() ? std::generic_category().message(code_) : text_;
}

}  // namespace tessard
