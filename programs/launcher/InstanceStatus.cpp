#include "programs/launcher/InstanceStatus.h"

#include <unistd.h>

namespace tessard {

namespace {

constexpr std::string_view kLabel = "org.jabber.jabberd_notification";

}  // namespace

InstanceStatus::InstanceStatus(FileSystem& files) : files_(files) {
  status_.pid = ::getpid();
}

void InstanceStatus::setComponents(const std::vector<Component>& components) {
  first_ = components.data();
  status_.parts.clear();
  for (const Component& component : components) {
    status_.parts.push_back({describe(component), "waiting", 0});
  }
}

PartStatus& InstanceStatus::partOf(const Component& component) {
  return status_.parts[static_cast<std::size_t>(&component - first_)];
}

void InstanceStatus::begun(const Component& component, pid_t pid) {
  PartStatus& part = partOf(component);
  part.state = "starting";
  part.pid = pid;
}

void InstanceStatus::ready(const Component& component) {
  partOf(component).state = "ready";
}

void InstanceStatus::ended(const Component& component) {
  partOf(component).state = "ended";
}

void InstanceStatus::blame(const std::string& sentence) {
  if (status_.reason.empty()) status_.reason = sentence;
}

void InstanceStatus::become(const std::string& state) {
  status_.state = state;
  publish();
}

void InstanceStatus::withdraw() {
  (void)withdrawServiceStatus(files_, kLabel);
}

void InstanceStatus::publish() {
  if (status_ == published_) return;
  if (publishServiceStatus(files_, kLabel, status_)) published_ = status_;
}

}  // namespace tessard
