#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "common/HostNames.h"
#include "host/NetworkSnapshot.h"
#include "platform/FileNotices.h"
#include "platform/KernelNameNotices.h"
#include "platform/network/InterfaceAddresses.h"

struct pollfd;

namespace tessard {

/// Looks at the name and the addresses of a machine, and waits for notices that they may have changed. Below
/// the root "/" these are the files /etc/hostname and /etc/hosts, the name of the running system and the
/// addresses of all interfaces. Below any other root they are the two files alone: what the machine goes by
/// does not concern a root that only lies on it.
class NetworkWatch {
 public:
  using Moment = std::chrono::steady_clock::time_point;
  /// Is given one sentence, without its full stop, about what cannot be watched.
  using Teller = std::function<void(const std::string&)>;

  enum class Event { stop, notice, timeout };

  /// Names are borrowed. What cannot be watched is told; the rest works all the same.
  NetworkWatch(std::string root, HostNames& names, Teller tell);

  /// Waits for one of: the stop event becoming readable, a notice, the deadline.
  Event wait(int stopEvent, std::optional<Moment> deadline);

  /// What the machine goes by now. Changes from here on are noticed. Not to be called during `wait`.
  Result<NetworkSnapshot> look();

 private:
  bool takeNotices(const pollfd* states);

  const bool ofMachine_;
  HostNames& names_;
  const Teller tell_;
  std::optional<FileNotices> files_;
  std::optional<KernelNameNotices> kernelName_;
  std::optional<AddressNotices> addresses_;
  std::string armProblem_;
};

}  // namespace tessard
