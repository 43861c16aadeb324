#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/Clock.h"
#include "common/Network.h"

namespace tessard {

/// A host as it was found: its name in lower case and its addresses, none when it does not resolve.
struct HostObject {
  std::string name;
  std::vector<std::string> addresses;
};

/// The hosts of one request. Two are the same when they share an address, or a name when neither resolves.
/// Every name is resolved once at most, and all together within `kLookupSeconds`; what that leaves over
/// counts as not resolving.
class HostObjects {
 public:
  static constexpr double kLookupSeconds = 20;

  /// Both are borrowed for the object's life.
  HostObjects(Network& network, Clock& clock);

  /// Valid as long as this object.
  const HostObject& hostWithName(std::string_view name);
  /// This machine, which is also reached over its loopback addresses.
  HostObject currentHostWithName(std::string_view name);

  bool isSame(const HostObject& host, std::string_view name);

  /// Whether a name was not resolved because the time was over.
  bool ranOutOfTime() const { return ranOutOfTime_; }

 private:
  std::vector<std::string> resolve(const std::string& name);

  Network& network_;
  Clock& clock_;
  double end_;
  bool ranOutOfTime_ = false;
  std::unordered_map<std::string, HostObject> known_;
};

}  // namespace tessard
