#pragma once

#include <map>
#include <optional>
#include <string>

#include "host/ctl/CtlOutput.h"
#include "host/ctl/UnixHttpClient.h"

namespace tessard {

/// How the parts of the services are doing, shown to a person while a start is awaited and after it failed.
/// What the daemon cannot tell is left out.
class ServiceWatch {
 public:
  /// The output is borrowed and outlives this object.
  ServiceWatch(const std::string& socketPath, const CtlOutput& output);

  /// On a terminal, a line for each part whose state is another than at the last call.
  void showProgress();

  /// Each service that failed or is starting again, why, which parts are not ready, and the last lines of
  /// those that ended.
  void explain() const;

  /// The parts that run by the numbers of their processes: "c2s", or "sm_a.example" for the session manager
  /// of a further domain, whose file has that name.
  std::map<int, std::string> partsByProcess() const;

  /// A line "SERVICE/PART: state" for every part.
  void showParts() const;

 private:
  std::optional<Dictionary> reports() const;

  UnixHttpClient client_;
  const CtlOutput& output_;
  std::map<std::string, std::string> seen_;
};

}  // namespace tessard
