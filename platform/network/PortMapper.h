#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/network/Gateway.h"

namespace tessard {

struct MappingTimes {
  std::uint32_t leaseSeconds = 7200;
  std::chrono::milliseconds renewal{std::chrono::minutes(10)};  ///< also how soon a new gateway learns of it
  std::chrono::milliseconds patience{10'000};                   ///< that a change may take
};

/// Keeps ports mapped at the gateway: asks for a finite lease, and on a thread of its own for a new one long
/// before it is over, so that a mapping lasts for as long as somebody renews it and no longer. A renewal that
/// fails is tried again at the same pace, also after a `change` that failed.
///
/// The members may be called by one thread at a time.
class PortMapper {
 public:
  /// `leaseSeconds` 0 takes the mapping away.
  using Ask = std::function<GatewayAnswer(std::uint16_t port, std::uint32_t leaseSeconds)>;
  /// Gets a sentence about what happened to a mapping meanwhile, on the mapper's thread.
  using Tell = std::function<void(const std::string& sentence)>;

  PortMapper(Ask ask, Tell tell, MappingTimes times = {});
  PortMapper(const PortMapper&) = delete;
  PortMapper& operator=(const PortMapper&) = delete;
  /// Leaves the mappings as they are. Does not wait for a question that is under way; nothing is told any
  /// more.
  ~PortMapper();

  /// Maps the port, or takes its mapping away, and waits for the gateway's answer within the patience
  /// (ETIMEDOUT after it; what was asked for is then still carried out once the gateway answers).
  GatewayAnswer change(std::uint16_t port, bool enable);

  /// Renews the mapping of these ports from now on, the first time at once, without waiting for it.
  void keep(const std::vector<std::uint16_t>& ports);

 private:
  struct Shared;

  bool begin();

  std::shared_ptr<Shared> shared_;
};

}  // namespace tessard
