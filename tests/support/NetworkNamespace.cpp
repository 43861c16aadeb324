#include "tests/support/NetworkNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "common/Format.h"
#include "platform/ChildProcess.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr const char* kOwnNamespace = "/proc/thread-self/ns/net";

[[noreturn]] void giveUp(const char* what) {
  throw std::runtime_error(fill("%@: %@", {what, SystemError::last().description()}));
}

FileDescriptor currentNamespace() {
  FileDescriptor current(::open(kOwnNamespace, O_RDONLY | O_CLOEXEC));
  if (!current) giveUp(kOwnNamespace);
  return current;
}

}  // namespace

std::optional<std::string> NetworkNamespace::whyImpossible() {
  const FileDescriptor before = currentNamespace();
  if (::unshare(CLONE_NEWNET) != 0) {
    return fill("no network namespace can be made: %@", {SystemError::last().description()});
  }
  if (::setns(before.get(), CLONE_NEWNET) != 0) giveUp("setns");
  return std::nullopt;
}

NetworkNamespace::NetworkNamespace() {
  const FileDescriptor before = currentNamespace();
  if (::unshare(CLONE_NEWNET) != 0) giveUp("unshare");
  namespace_ = currentNamespace();
  if (::setns(before.get(), CLONE_NEWNET) != 0) giveUp("setns");
  shell("ip link set lo up");
}

std::string NetworkNamespace::shell(std::string_view commands) const {
  const Stay inside(*this);
  ChildProcess child;
  child.program = "/bin/sh";
  child.arguments = {"sh", "-e", "-c", std::string(commands)};
  child.environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8"};
  child.captureLimit = std::size_t{1} << 20;
  child.timeLimitSeconds = 60;
  child.graceSeconds = 1;
  const TaskResult result = run(child);
  if (result.status != 0) {
    throw std::runtime_error(
        fill("exit status %d of \"%@\": %@", {result.status, commands, result.errorText}));
  }
  return result.output;
}

void NetworkNamespace::connect(const std::string& name, const NetworkNamespace& other,
                               const std::string& otherName) const {
  const std::string place = fill("/proc/%d/fd/%d", {::getpid(), other.namespace_.get()});
  shell(fill("ip link add %@ type veth peer name %@ netns %@\nip link set %@ up",
             {name, otherName, place, name}));
  other.shell(fill("ip link set %@ up", {otherName}));
}

NetworkNamespace::Stay::Stay(const NetworkNamespace& inside) : before_(currentNamespace()) {
  if (::setns(inside.namespace_.get(), CLONE_NEWNET) != 0) giveUp("setns");
}

NetworkNamespace::Stay::~Stay() {
  // A test that went on in the wrong network would tell lies.
  if (::setns(before_.get(), CLONE_NEWNET) != 0) std::abort();
}

}  // namespace tessard
