#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "common/Log.h"
#include "common/NetworkChangeContext.h"
#include "common/Value.h"

namespace tessard {

/// Base of every plug-in's principal class. The host creates one object per bundle and calls it on one
/// thread, one request at a time. No operation throws.
class PluginRequestHandler : public Object {
 public:
  /// One request dictionary in, one answer dictionary out; absent is an error of the plug-in.
  using Operation = std::function<std::optional<Dictionary>(const Dictionary& request)>;

  using Object::Object;

  /// The operation for a request's "command" (the command "getState" is `getStateWithRequest`), or an empty
  /// function for a command that the plug-in does not know. Valid as long as the handler.
  virtual Operation operationForCommand(std::string_view command) = 0;

  /// Whether the command can change anything on the machine.
  virtual bool commandChangesState(std::string_view command) = 0;

  /// Called when the host has been idle; `count` says how often in a row. The result is not used.
  virtual int doIdleAtCount(int count) = 0;

  virtual void didReceiveNetworkChangedNotification(const NetworkChangeContext& context) = 0;

  /// {"error": code}.
  Dictionary responseForError(std::string_view code) const;
};

}  // namespace tessard
