#pragma once

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "platform/keychain/Secret.h"

namespace tessard {

/// Seals bytes with AES-256-GCM. What is sealed for one place opens with the same key and for the same place
/// only, so that nobody can change it or put it elsewhere unseen.
class SealingKey {
 public:
  static constexpr std::size_t kSize = 32;

  /// `bytes` are `kSize` random ones.
  explicit SealingKey(Secret bytes) : bytes_(std::move(bytes)) {}

  /// Absent only when the machine has no random numbers or no memory.
  std::optional<std::string> seal(std::string_view content, std::string_view place) const;

  /// Absent when it was not sealed with this key for this place, or has been changed since.
  std::optional<Secret> open(std::string_view sealed, std::string_view place) const;

 private:
  Secret bytes_;
};

/// One text for several, in which every one keeps its bounds.
std::string sealingPlace(std::initializer_list<std::string_view> parts);

}  // namespace tessard
