#pragma once

#include <optional>
#include <string>

#include "common/HostNames.h"

namespace tessard {

/// Host names as a test sets them.
class FakeHostNames : public HostNames {
 public:
  std::optional<std::string> configured = "chat.example.com";
  std::optional<std::string> stored = "stored.example.com";
  /// When set, asking for the configured name fails with it.
  std::optional<SystemError> failure;
  int configuredAsked = 0;
  int storedAsked = 0;

  Result<std::optional<std::string>> configuredName() override {
    ++configuredAsked;
    if (failure) return *failure;
    return configured;
  }

  std::optional<std::string> storedName() override {
    ++storedAsked;
    return stored;
  }
};

}  // namespace tessard
