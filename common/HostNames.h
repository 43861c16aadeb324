#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Result.h"

namespace tessard {

/// The names of this machine, asked anew on every call. Both are fully qualified where the machine's own
/// tables
/// (/etc/hosts) know how; "localhost" is no name.
class HostNames {
 public:
  virtual ~HostNames() = default;

  /// The configured name, absent when none is set. Fails when the configuration cannot be read.
  virtual Result<std::optional<std::string>> configuredName() = 0;

  /// The name that the running system goes by.
  virtual std::optional<std::string> storedName() = 0;
};

/// Whether a text can be a host name: labels of letters, digits and inner hyphens, 63 bytes each and 253
/// together.
bool isHostName(std::string_view text);

}  // namespace tessard
