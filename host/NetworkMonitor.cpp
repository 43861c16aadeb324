#include "host/NetworkMonitor.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <utility>

#include "common/Format.h"
#include "common/Text.h"
#include "host/SettledHost.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

using Clock = std::chrono::steady_clock;

std::string quoted(const std::string* name) {
  return name ? fill("\"%@\"", {*name}) : "none";
}

std::string listed(const Array* addresses) {
  return addresses && !addresses->empty() ? joinedWith(stringsOf(*addresses), ", ") : "none";
}

// "The host name is now "b" and was "a"; the addresses are now 192.0.2.1 and were none."
std::string sentenceFor(const Dictionary& changes) {
  std::vector<std::string> parts;
  if (const Dictionary* name = changes.dictionaryFor("hostName")) {
    parts.push_back(fill("the host name is now %@ and was %@",
                         {quoted(name->stringFor("new")), quoted(name->stringFor("old"))}));
  }
  if (const Dictionary* addresses = changes.dictionaryFor("addresses")) {
    parts.push_back(fill("the addresses are now %@ and were %@",
                         {listed(addresses->arrayFor("new")), listed(addresses->arrayFor("old"))}));
  }
  return fill("The network has changed: %@.", {joinedWith(parts, "; ")});
}

}  // namespace

NetworkMonitor::NetworkMonitor(const std::string& root, std::chrono::milliseconds quiet, HostNames& names,
                               FileSystem& files, WorkSlot& slot, HostLog& log, Deliver deliver)
    : files_(files),
      slot_(slot),
      log_(log),
      deliver_(std::move(deliver)),
      watch_(root, names, [&log](const std::string& problem) { log.error(fill("Some %@.", {problem})); }),
      burst_(quiet) {}

Result<void> NetworkMonitor::start() {
  stopEvent_ = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!stopEvent_) return SystemError::last();
  const auto now = watch_.look();
  if (!now) return now.error();

  const auto stored = readSettledHost(files_);
  if (stored) {
    storedHost_ = stored.value();
  } else {
    log_.error(fill("%@ is not used: %@; a change of the host name since the last run is not told.",
                    {kSettledHostFile, stored.error().description()}));
  }
  record_ = {storedHost_ ? storedHost_ : now.value().host, now.value()};
  record_.seen.host = record_.settledHost;
  if (networkChange(record_, now.value())) {
    burst_.notice(Clock::now());
  } else {
    remember(recordAfter(record_, now.value()));
  }
  thread_ = std::thread([this] { watch(); });
  return {};
}

void NetworkMonitor::stop() {
  if (!thread_.joinable()) return;
  const std::uint64_t one = 1;
  // Cannot fail: the counter is far from its limit.
  (void)uninterrupted([&] { return write(stopEvent_.get(), &one, sizeof one); });
  thread_.join();
}

void NetworkMonitor::watch() {
  while (true) {
    switch (watch_.wait(stopEvent_.get(), burst_.end())) {
      case NetworkWatch::Event::stop:
        return;
      case NetworkWatch::Event::notice:
        burst_.notice(Clock::now());
        break;
      case NetworkWatch::Event::timeout:
        burst_.clear();
        lookAfterBurst();
        break;
    }
  }
}

void NetworkMonitor::lookAfterBurst() {
  try {
    const auto now = look();
    if (!now) return;
    if (networkChange(record_, *now)) {
      // There it is looked at once more: until its turn has come, it may have changed further.
      slot_.callAndWait([this] { tellChange(); }, "network-change");
    } else {
      remember(recordAfter(record_, *now));
    }
  } catch (const std::exception& problem) {
    sayOnce(fill("A change of the network was not told: %@.", {problem.what()}));
  }
}

void NetworkMonitor::tellChange() {
  const auto now = look();
  if (!now) return;
  const auto change = networkChange(record_, *now);
  if (change) log_.notice(sentenceFor(change->changeInfo()));
  if (change && !deliver_(*change)) return;
  const NetworkRecord after = recordAfter(record_, *now);
  if (change && change->hasHostChanged() && after.settledHost == record_.settledHost) {
    log_.notice(
        fill("The services keep the name \"%@\" until there is a name that they can take and an "
             "address that others can reach.",
             {after.settledHost}));
  }
  remember(after);
}

// Without an answer the burst goes on, so that there is another look.
std::optional<NetworkSnapshot> NetworkMonitor::look() {
  auto now = watch_.look();
  if (now) {
    lastProblem_.clear();
    return std::move(now).value();
  }
  sayOnce(fill("The addresses cannot be read: %@.", {now.error().description()}));
  burst_.notice(Clock::now());
  return std::nullopt;
}

void NetworkMonitor::remember(const NetworkRecord& record) {
  record_ = record;
  if (!record_.settledHost || record_.settledHost == storedHost_) return;
  if (const auto written = writeSettledHost(files_, *record_.settledHost)) {
    storedHost_ = record_.settledHost;
  } else {
    sayOnce(fill("The host name cannot be remembered in %@: %@.",
                 {kSettledHostFile, written.error().description()}));
  }
}

void NetworkMonitor::sayOnce(const std::string& problem) {
  if (problem != lastProblem_) log_.error(problem);
  lastProblem_ = problem;
}

}  // namespace tessard
