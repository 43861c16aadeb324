#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "common/Log.h"
#include "common/LogReader.h"
#include "common/NetworkChangeContext.h"
#include "common/Platform.h"
#include "common/Value.h"

namespace tessard {

/// Base of every plug-in's principal class. The host creates one object per bundle and calls it on one
/// thread, one request at a time. No operation throws.
class PluginRequestHandler : public Object {
 public:
  /// One request dictionary in, one answer dictionary out; absent is an error of the plug-in.
  using Operation = std::function<std::optional<Dictionary>(const Dictionary& request)>;

  /// The platform outlives the handler.
  explicit PluginRequestHandler(Platform& platform) : Object(platform.log), logs_(platform.logs) {}

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

  /// The newest lines of a log, or those after a position. Request: "identifier", one of `logPaths`; "lines"
  /// and "bytes", limits of the answer, as integers or their digits; "withFilters", texts all of which a line
  /// must hold; "position", of an earlier answer. Answer: "lines", oldest first; "position"; "complete", and
  /// where that is false "reason"; "more". docs/requests.md tells the defaults and words. A request that
  /// makes no sense is answered with "INVALID_ARG_ERR" before anything is opened, a log that cannot be read
  /// with "CANNOT_STAT_ERR"; an error line says why.
  virtual Dictionary tailFileWithRequest(const Dictionary& request);

 protected:
  /// The paths of the plug-in's logs by their identifiers; absent or empty when it has none. Here: absent.
  virtual std::optional<Dictionary> logPaths();

 private:
  LogReader& logs_;
};

}  // namespace tessard
