#pragma once

#include <optional>
#include <string>

#include "common/Value.h"

namespace tessard {

/// The host's record of a change of the machine's name or addresses. A plain value.
class NetworkChangeContext {
 public:
  /// A context from the arguments of a "changeip" request: a dictionary of strings with any of
  ///   "oldHost", "newHost"        the host name before and after,
  ///   "oldAddress", "newAddress"  the address before and after.
  /// The host has changed when both names are there and differ, the address likewise. The network
  /// configuration is valid when something to change to is given and every given name and address is well
  /// formed.
  static NetworkChangeContext networkChangeContextWithChangeIPRequest(const Value& arguments);

  /// A context from the fields of a network-change event: "changeInfo" (dictionary), "hasHostChanged",
  /// "hasAddrChanged", "hasValidNetworkConfiguration", "isNewAddressSelfAssigned" (booleans), "oldHost",
  /// "newHost" (strings). Missing booleans are false. A new host that is no host name makes the configuration
  /// invalid.
  static NetworkChangeContext fromEvent(const Dictionary& fields);

  /// What is wrong with the arguments of a "changeip" request, as a sentence; absent when they are well
  /// formed.
  static std::optional<std::string> problemWithChangeIPRequest(const Value& arguments);

  const Dictionary& changeInfo() const { return changeInfo_; }
  bool hasValidNetworkConfiguration() const { return hasValidNetworkConfiguration_; }
  bool hasHostChanged() const { return hasHostChanged_; }
  bool hasAddrChanged() const { return hasAddrChanged_; }
  bool isNewAddressSelfAssigned() const { return isNewAddressSelfAssigned_; }
  const std::optional<std::string>& oldHost() const { return oldHost_; }
  const std::optional<std::string>& newHost() const { return newHost_; }

 private:
  Dictionary changeInfo_;
  bool hasValidNetworkConfiguration_ = false;
  bool hasHostChanged_ = false;
  bool hasAddrChanged_ = false;
  bool isNewAddressSelfAssigned_ = false;
  std::optional<std::string> oldHost_;
  std::optional<std::string> newHost_;
};

}  // namespace tessard
