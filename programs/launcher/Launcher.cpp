#include "programs/launcher/Launcher.h"

#include <sys/wait.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <utility>

#include "common/Format.h"
#include "programs/launcher/ComponentProbe.h"
#include "programs/launcher/ComponentProcess.h"
#include "programs/launcher/InstanceFiles.h"

namespace tessard {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Kind = Component::Kind;

constexpr milliseconds kPollInterval{50};
// Service managers give the whole 10 seconds to end.
constexpr seconds kPatienceAfterTerm{8};
// Components of a launcher that was killed are being killed by the kernel just now.
constexpr seconds kPatienceWithDeadRun{5};

std::string howItEnded(int status) {
  if (WIFSIGNALED(status)) return fill("by signal %d", {WTERMSIG(status)});
  return fill("with exit status %d", {WEXITSTATUS(status)});
}

// How often a service manager with a watchdog is to be told that the launcher still looks after its
// components: three times while it waits for one word.
milliseconds pauseOfWatchdog() {
  std::uint64_t microseconds = 0;
  if (::sd_watchdog_enabled(0, &microseconds) <= 0) return std::chrono::hours(1);
  return std::chrono::ceil<milliseconds>(std::chrono::microseconds(microseconds / 3));
}

}  // namespace

Launcher::Launcher(LauncherOptions options, Say say) : options_(std::move(options)), say_(std::move(say)) {}

int Launcher::run() {
  if (const auto status = prepare()) return *status;
  if (const auto status = bringUp()) return *status;
  tellReady();
  const milliseconds pause = pauseOfWatchdog();
  while (true) {
    switch (nextEvent(pause)) {
      case Event::stopWanted:
        say_("The instance is asked to stop.");
        return endAll(kLauncherStopped);
      case Event::partEnded:
        say_("The other components are stopped, so that all can be started again.");
        status_.become("restarting");
        return endAll(kLauncherLostPart);
      default:
        ::sd_notify(0, "WATCHDOG=1");
        break;
    }
  }
}

// Nothing, or the status to end with.
std::optional<int> Launcher::prepare() {
  status_.become("starting");
  auto plan = readInstancePlan(files_, options_.masterFile);
  if (!plan) return refuse(plan.error().description(), kLauncherBadFiles);
  components_ = std::move(plan).value();
  status_.setComponents(components_);
  if (const auto made = makeRunDirectory(files_); !made) {
    return refuse(made.error().description(), kLauncherSystemRefused);
  }
  if (const auto living = clearDeadRun()) {
    return refuse(fill("the process that \"%@\" names still runs", {*living}), kLauncherStartFailed);
  }
  return std::nullopt;
}

int Launcher::refuse(const std::string& reason, int status) {
  blame(fill("Nothing is started: %@.", {reason}));
  status_.become("failed");
  return status;
}

void Launcher::blame(const std::string& sentence) {
  say_(sentence);
  status_.blame(sentence);
}

// The pid file of a component that does not go away, or nothing.
std::optional<std::string> Launcher::clearDeadRun() {
  const Time end = steady_clock::now() + kPatienceWithDeadRun;
  for (const std::string& pidFile : pidFilesOf(files_, components_)) {
    while (namesLiveComponent(processes_, pidFile)) {
      if (steady_clock::now() > end) return pidFile;
      ::usleep(static_cast<useconds_t>(std::chrono::microseconds(kPollInterval).count()));
    }
    if (files_.remove(pidFile)) say_(fill("\"%@\" was left by a dead run and is removed.", {pidFile}));
  }
  return std::nullopt;
}

// Nothing when the instance is ready, or the status to end with after a start that was not to be.
std::optional<int> Launcher::bringUp() {
  const Time end = steady_clock::now() + seconds(options_.startSeconds);
  const Component& router = components_.front();
  Event event = start(Kind::router, Kind::router);
  if (event == Event::none) {
    event = waitFor([&] { return portIsOpen(router.address, router.port); }, end);
  }
  // Whoever else holds the port, our router would have ended by now and be seen to.
  if (event == Event::none) event = start(Kind::sessionManager, Kind::clientToServer);
  if (event == Event::none) event = waitFor([this] { return allListen() && allServe(); }, end);
  if (event == Event::none) return std::nullopt;
  return failedStart(event);
}

Launcher::Event Launcher::start(Kind first, Kind last) {
  for (const Component& component : components_) {
    if (component.kind < first || component.kind > last) continue;
    const auto started = startComponent(component);
    if (!started) {
      blame(fill("The component %@ cannot be started: %@.",
                 {describe(component), started.error().description()}));
      return Event::partEnded;
    }
    running_.emplace(started.value(), &component);
    status_.begun(component, started.value());
  }
  status_.publish();
  return Event::none;
}

Launcher::Event Launcher::waitFor(const std::function<bool()>& condition, Time end) {
  while (true) {
    if (const Event event = nextEvent(kPollInterval); event != Event::none) return event;
    const bool holds = condition();
    status_.publish();
    if (holds) {
      // What held meanwhile may be the last word of a component that has ended.
      return nextEvent(milliseconds(0));
    }
    if (steady_clock::now() > end) return Event::late;
  }
}

Launcher::Event Launcher::nextEvent(milliseconds patience) {
  sigset_t awaited;
  ::sigemptyset(&awaited);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) ::sigaddset(&awaited, number);
  const timespec time{.tv_sec = patience.count() / 1000, .tv_nsec = patience.count() % 1000 * 1'000'000};
  const int number = ::sigtimedwait(&awaited, nullptr, &time);
  if (number == SIGTERM || number == SIGINT || number == SIGHUP) return Event::stopWanted;
  return reapParts() ? Event::partEnded : Event::none;
}

bool Launcher::reapParts() {
  bool any = false;
  int status = 0;
  pid_t pid = 0;
  while ((pid = ::waitpid(-1, &status, WNOHANG)) > 0) {
    const auto found = running_.find(pid);
    if (found == running_.end()) continue;
    if (!stopping_) {
      blame(fill("The component %@ has ended %@.", {describe(*found->second), howItEnded(status)}));
      status_.ended(*found->second);
    }
    running_.erase(found);
    any = true;
  }
  return any;
}

bool Launcher::allListen() {
  bool all = true;
  for (const Component& component : components_) {
    if (component.port == 0) continue;
    if (portIsOpen(component.address, component.port)) {
      status_.ready(component);
    } else {
      all = false;
    }
  }
  return all;
}

// Every session manager has come to the router: c2s, asked as clients ask, offers its domains.
bool Launcher::allServe() {
  const auto client = std::ranges::find_if(components_, [](const Component& component) {
    return component.kind == Kind::clientToServer && component.port != 0;
  });
  if (client == components_.end()) return true;
  for (const Component& component : components_) {
    for (const std::string& domain : component.domains) {
      if (!isServed(*client, domain)) return false;
    }
    status_.ready(component);
  }
  return true;
}

bool Launcher::isServed(const Component& client, const std::string& domain) {
  bool& served = served_[domain];
  if (served) return true;
  switch (askForDomain(client.address, client.port, domain)) {
    case DomainState::ready:
      served = true;
      break;
    case DomainState::unknown:
      say_(fill("Clients of \"%@\" cannot log in: c2s does not know this domain.", {domain}));
      served = true;  // as far as it ever will be
      break;
    default:
      break;
  }
  return served;
}

int Launcher::failedStart(Event event) {
  if (event == Event::stopWanted) {
    say_("The instance is asked to stop before it was ready.");
    return endAll(kLauncherStopped);
  }
  blame(event == Event::late ? fill("The start has failed: the instance is not ready after %u seconds.",
                                    {options_.startSeconds})
                             : "The start has failed: the other components are stopped.");
  return endAll(kLauncherStartFailed);
}

int Launcher::endAll(int status) {
  stopping_ = true;
  if (status == kLauncherStopped) status_.become("stopping");
  ::sd_notify(0, "STOPPING=1");
  signalAll(SIGTERM);
  const Time end = steady_clock::now() + kPatienceAfterTerm;
  while (!running_.empty() && steady_clock::now() < end) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    nextEvent(std::clamp(left, milliseconds(0), milliseconds(kPatienceAfterTerm)));
  }
  for (const auto& [pid, component] : running_) {
    say_(fill("The component %@ does not end and is killed.", {describe(*component)}));
  }
  signalAll(SIGKILL);
  while (!running_.empty()) nextEvent(seconds(1));
  removePidFiles();
  if (status == kLauncherStopped) status_.withdraw();
  if (status == kLauncherStartFailed) status_.become("failed");
  say_("The instance has stopped.");
  return status;
}

void Launcher::signalAll(int number) {
  for (const auto& [pid, component] : running_) ::kill(pid, number);
}

void Launcher::removePidFiles() {
  for (const std::string& pidFile : pidFilesOf(files_, components_)) {
    if (const auto removed = files_.remove(pidFile); !removed && removed.error().code() != ENOENT) {
      say_(fill("\"%@\" cannot be removed: %@.", {pidFile, removed.error().description()}));
    }
  }
}

void Launcher::tellReady() {
  say_(fill("The instance is ready: %lu components.", {running_.size()}));
  status_.become("running");
  ::sd_notify(0, "READY=1");
  if (options_.notifyDescriptor < 0) return;
  if (::write(options_.notifyDescriptor, "\n", 1) != 1) {
    say_(fill("The service manager cannot be told: %@.", {SystemError::last().description()}));
  }
  ::close(options_.notifyDescriptor);
}

}  // namespace tessard
