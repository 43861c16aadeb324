#pragma once

#include <string>
#include <vector>

#include "platform/ServiceStatus.h"
#include "programs/launcher/InstancePlan.h"

namespace tessard {

/// Tells whoever waits for the instance how far its components are. A status that cannot be published is
/// let go: the instance does not depend on it.
class InstanceStatus {
 public:
  /// `files` is borrowed and outlives this object.
  explicit InstanceStatus(FileSystem& files);

  /// The components, none of them begun. They keep their places while the status is used.
  void setComponents(const std::vector<Component>& components);

  void begun(const Component& component, pid_t pid);
  void ready(const Component& component);
  void ended(const Component& component);

  /// Why the instance fails or restarts. The first sentence counts; what follows it are consequences.
  void blame(const std::string& sentence);

  /// The instance as a whole: see `ServiceStatus::state`.
  void become(const std::string& state);
  void withdraw();

  /// Publishes what has changed since the last time.
  void publish();

 private:
  PartStatus& partOf(const Component& component);

  FileSystem& files_;
  const Component* first_ = nullptr;
  ServiceStatus status_;
  ServiceStatus published_;
};

}  // namespace tessard
