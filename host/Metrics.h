#pragma once

#include <optional>
#include <string>

#include "common/Platform.h"
#include "host/BundleLoader.h"
#include "host/HttpMessage.h"
#include "host/MetricsText.h"
#include "host/RequestExecutor.h"
#include "host/RequestTally.h"
#include "host/WorkSlot.h"

namespace tessard {

/// What can be measured of the daemon and of the services that its plug-ins administer, for collectors;
/// docs/metrics.md describes each.
class Metrics {
 public:
  /// All is borrowed; `plugins` is not changed any more. `root` is the system root.
  Metrics(std::string root, Platform& platform, const Plugins& plugins, RequestExecutor& executor,
          const RequestTally& tally, const WorkSlot& slot);

  /// Everything. On the thread of the work slot.
  HttpAnswer all(const std::optional<std::string>& accept) const;
  /// What the daemon knows of itself, for when the services cannot be asked. Any thread.
  HttpAnswer ofDaemon(const std::optional<std::string>& accept) const;

 private:
  void addDaemon(MetricsText& text) const;
  void addRequests(MetricsText& text) const;
  void addServices(MetricsText& text) const;
  void addCertificates(MetricsText& text) const;

  const std::string root_;
  Platform& platform_;
  const Plugins& plugins_;
  RequestExecutor& executor_;
  const RequestTally& tally_;
  const WorkSlot& slot_;
  const std::int64_t started_;  ///< in seconds since 1970
};

}  // namespace tessard
