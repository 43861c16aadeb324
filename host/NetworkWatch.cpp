#include "host/NetworkWatch.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "common/Format.h"

namespace tessard {

namespace {

using Clock = std::chrono::steady_clock;

enum Place { kStop, kFiles, kKernelName, kAddresses, kPlaces };

// -1 for no deadline. Rounded up, so that a wait is not over before its deadline.
int millisecondsUntil(std::optional<NetworkWatch::Moment> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 86'400'000));
}

template <class Notices>
std::optional<Notices> opened(Result<Notices> notices, const char* what, const NetworkWatch::Teller& tell) {
  if (notices) return std::move(notices).value();
  tell(fill("changes of %@ cannot be noticed: %@", {what, notices.error().description()}));
  return std::nullopt;
}

// Whether something was noticed. Notices that cannot be taken are given up: they would never let a wait rest.
template <class Notices>
bool taken(std::optional<Notices>& notices, const char* what, const NetworkWatch::Teller& tell) {
  const auto any = notices->take();
  if (any) return any.value();
  tell(fill("changes of %@ are no longer noticed: %@", {what, any.error().description()}));
  notices.reset();
  return true;
}

}  // namespace

NetworkWatch::NetworkWatch(std::string root, HostNames& names, Teller tell)
    : ofMachine_(root == "/"), names_(names), tell_(std::move(tell)) {
  files_ =
      opened(FileNotices::open(std::move(root), {"/etc/hostname", "/etc/hosts"}), "/etc/hostname", tell_);
  if (!ofMachine_) return;
  kernelName_ = opened(KernelNameNotices::open(), "the running system's name", tell_);
  addresses_ = opened(AddressNotices::open(), "the addresses", tell_);
}

NetworkWatch::Event NetworkWatch::wait(int stopEvent, std::optional<Moment> deadline) {
  while (true) {
    std::array<pollfd, kPlaces> states{};
    states[kStop] = {stopEvent, POLLIN, 0};
    states[kFiles] = {files_ ? files_->descriptor() : -1, POLLIN, 0};
    states[kKernelName] = {kernelName_ ? kernelName_->descriptor() : -1, POLLPRI, 0};
    states[kAddresses] = {addresses_ ? addresses_->descriptor() : -1, POLLIN, 0};
    const int ready = poll(states.data(), states.size(), millisecondsUntil(deadline));
    if (ready < 0 && errno != EINTR) {
      tell_(fill("changes of the network are no longer noticed: %@", {SystemError::last().description()}));
      return Event::stop;
    }
    if (ready == 0 && deadline && Clock::now() >= *deadline) return Event::timeout;
    if (ready <= 0) continue;
    if (states[kStop].revents != 0) return Event::stop;
    if (takeNotices(states.data())) return Event::notice;
  }
}

bool NetworkWatch::takeNotices(const pollfd* states) {
  bool any = (states[kKernelName].revents & POLLPRI) != 0;
  if (states[kFiles].revents != 0 && taken(files_, "/etc/hostname", tell_)) any = true;
  if (states[kAddresses].revents != 0 && taken(addresses_, "the addresses", tell_)) any = true;
  return any;
}

Result<NetworkSnapshot> NetworkWatch::look() {
  if (files_) {
    const auto armed = files_->arm();
    const std::string problem = armed ? "" : armed.error().description();
    if (!armed && problem != armProblem_) {
      tell_(fill("changes of /etc/hostname cannot be noticed: %@", {problem}));
    }
    armProblem_ = problem;
  }
  NetworkSnapshot snapshot;
  snapshot.host = currentHostName(names_, ofMachine_);
  if (!ofMachine_) return snapshot;
  const auto addresses = interfaceAddresses();
  if (!addresses) return addresses.error();
  snapshot.addresses = sortedAddresses(addresses.value());
  return snapshot;
}

}  // namespace tessard
