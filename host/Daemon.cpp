#include "host/Daemon.h"

#include <malloc.h>
#include <sys/eventfd.h>
#include <sysexits.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>

#include "common/Format.h"
#include "host/BundleLoader.h"
#include "host/Certificates.h"
#include "host/FileLimit.h"
#include "host/HostLog.h"
#include "host/HttpServer.h"
#include "host/ListeningSocket.h"
#include "host/Metrics.h"
#include "host/NetworkMonitor.h"
#include "host/PeerCheck.h"
#include "host/RealPlatform.h"
#include "host/RequestExecutor.h"
#include "host/RequestRecords.h"
#include "host/RequestRouter.h"
#include "host/RequestTally.h"
#include "host/Version.h"
#include "host/Watchdog.h"
#include "host/WorkSlot.h"
#include "host/check/Checks.h"
#include "platform/FileDescriptor.h"

namespace tessard {

namespace {

// Written by the signal handler, which can be given nothing.
int stopEventForSignals = -1;

void requestStop(int /*signal*/) {
  const int saved = errno;
  const std::uint64_t one = 1;
  if (write(stopEventForSignals, &one, sizeof one) < 0) errno = saved;
  errno = saved;
}

void ignoreByHandler(int /*signal*/) {}

// Handlers, and no blocked or ignored signals: those would be handed on to the programs that are started.
void catchSignals(int stopEvent) {
  stopEventForSignals = stopEvent;
  struct sigaction action {};
  action.sa_flags = SA_RESTART;
  action.sa_handler = requestStop;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  action.sa_handler = ignoreByHandler;
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
}

// What the work on one request may have open, with the programs that it runs, and the daemon itself.
constexpr std::size_t kFilesForWork = 128;

// What a connection table needs at least.
constexpr std::size_t kFewestConnections = 2;

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

// The allocator raises these limits with every large block that is freed, and keeps as much for itself,
// unless they are set. Large requests and answers come rarely.
void giveMemoryBack() {
  constexpr int kLargeBlock = 256 * 1024;
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, 2 * kLargeBlock);
}

class Daemon {
 public:
  explicit Daemon(const HostConfiguration& configuration)
      : configuration_(configuration),
        real_(configuration),
        hostLog_(real_.syslog),
        executor_(real_.platform, real_.journal),
        records_(executor_, tally_, hostLog_),
        slot_(
            std::chrono::seconds(configuration.idleSeconds), [this](int count) { doIdleWork(count); },
            [this] { real_.journal.tidyUp(); }),
        monitor_(configuration.root, std::chrono::seconds(configuration.networkQuietSeconds), real_.hostNames,
                 real_.files, slot_, hostLog_,
                 [this](const NetworkChangeContext& context) { return tellNetworkChange(context); }) {}

  int run() {
    const FileDescriptor stopEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopEvent) return refuse(EX_OSERR, SystemError::last());
    catchSignals(stopEvent.get());
    auto lock = RootLock::take(real_.files, configuration_.root);
    if (!lock) return refuse(lock.error().code() == EBUSY ? EX_TEMPFAIL : EX_OSERR, lock.error());
    const auto adminGroup = geteuid() == 0 ? groupNamed(configuration_.adminGroup) : std::nullopt;
    auto socket = ListeningSocket::open(configuration_, real_.files, adminGroup);
    if (!socket) return refuse(socket.error().code() == EADDRINUSE ? EX_TEMPFAIL : EX_OSERR, socket.error());
    if (!adminGroup) {
      tellWhoMayConnect();
    }
    undoWhatWasCutOff();
    loadPlugins();
    watchNetwork();
    return serve(PeerCheck(adminGroup), stopEvent.get(), socket.value());
  }

 private:
  int refuse(int status, const SystemError& reason) {
    hostLog_.error(fill("Not started: %@.", {reason.description()}));
    slot_.stop();
    return status;
  }

  void tellWhoMayConnect() {
    hostLog_.notice(
        geteuid() == 0
            ? fill("There is no group \"%@\"; only root may send requests.", {configuration_.adminGroup})
            : fill("Not run by root; only root and user %u may send requests.", {geteuid()}));
  }

  void undoWhatWasCutOff() {
    const auto undone = real_.journal.recover();
    for (const std::string& problem : undone.problems) hostLog_.error(problem + ".");
    if (!undone.found || !undone.problems.empty()) return;
    hostLog_.notice(
        fill("A request that was cut off is undone: %ld files are as they were before it.", {undone.files}));
  }

  void loadPlugins() {
    slot_.callAndWait([this] {
      plugins_ = BundleLoader(configuration_.root, real_.bundles, real_.platform)
                     .loadAll(configuration_.bundlesDirectory);
    });
    for (const auto& [name, problem] : plugins_.problems) {
      hostLog_.error(fill("The plug-in \"%@\" is not loaded: %@.", {name, problem}));
    }
    if (plugins_.handlers.empty() && plugins_.problems.empty()) {
      hostLog_.error(fill("There are no plug-ins in %@.", {configuration_.bundlesDirectory}));
    }
  }

  void watchNetwork() {
    if (configuration_.networkQuietSeconds == 0) return;
    if (const auto started = monitor_.start(); !started) {
      hostLog_.error(fill("Changes of the host's name and addresses are not noticed: %@.",
                          {started.error().description()}));
    }
  }

  int serve(const PeerCheck& peers, int stopEvent, ListeningSocket& socket) {
    const ServiceReports services(configuration_.root);
    Certificates certificates(configuration_.root, real_.clock);
    TlsCertificate tlsCertificate(configuration_.root, real_.platform, plugins_, executor_);
    TlsExpiry tlsExpiry(configuration_.root);
    const Metrics metrics(configuration_.root, real_.platform, plugins_, executor_, tally_, slot_);
    Checks checks(configuration_, pluginFacts());
    WorkSlot checkSlot(std::chrono::seconds(0), [](int /*count*/) {});
    const RequestRouter router(plugins_, executor_, records_, slot_, services, certificates, tlsCertificate,
                               tlsExpiry, metrics, checks);
    HttpServer server(peers, router, slot_, checkSlot, tally_, limits(),
                      [this](const std::string& sentence) { hostLog_.notice(sentence); });
    if (const auto started = server.start(); !started) return refuse(EX_OSERR, started.error());
    hostLog_.notice(
        fill("Version %@ serves %@ for the root %@.",
             {kVersion,
              socket.fromServiceManager() ? "the socket of the service manager" : configuration_.socketPath,
              configuration_.root}));
    sd_notify(0, "READY=1");
    Watchdog watchdog(
        patienceOfServiceManager(), [this] { return slot_.status(); },
        [](const char* word) { sd_notify(0, word); }, hostLog_);
    server.acceptUntil(stopEvent, socket.descriptor(), watchdog);
    sd_notify(0, "STOPPING=1");
    hostLog_.notice("Stopping after the request that is running.");
    socket.close();
    checks.stop();
    checkSlot.stop();
    slot_.stop();
    monitor_.stop();
    server.stop();
    hostLog_.notice("Stopped.");
    return EX_OK;
  }

  PluginFacts pluginFacts() const {
    PluginFacts facts;
    for (const auto& [name, handler] : plugins_.handlers) facts.loaded.push_back(name);
    facts.problems.insert(plugins_.problems.begin(), plugins_.problems.end());
    return facts;
  }

  HttpLimits limits() {
    HttpLimits limits;
    limits.queue = std::chrono::seconds(configuration_.queueSeconds);
    ConnectionLimits& connections = limits.connections;
    connections.request = std::chrono::seconds(configuration_.requestSeconds);
    connections.all = configuration_.maximumConnections;
    connections.user = configuration_.maximumUserConnections;
    connections.root = configuration_.rootConnections;
    connections.userBytes = configuration_.userMebibytes * kMebibyte;
    const std::size_t files = raiseFileLimit(connections.all + kFilesForWork);
    if (files < connections.all + kFilesForWork) {
      connections.all = std::max(files - std::min(kFilesForWork, files / 4 * 3), kFewestConnections);
      hostLog_.notice(fill("Only %lu files may be open: at most %lu connections are taken at a time.",
                           {files, connections.all}));
    }
    return limits;
  }

  void doIdleWork(int count) {
    for (const auto& [name, handler] : plugins_.handlers) executor_.idle(*handler, count);
  }

  bool tellNetworkChange(const NetworkChangeContext& context) {
    bool taken = !plugins_.handlers.empty();
    for (const auto& [name, handler] : plugins_.handlers) {
      const auto outcome = executor_.networkChanged(*handler, context);
      taken = taken && outcome.kind == ExecutionOutcome::Kind::answered;
    }
    return taken;
  }

  const HostConfiguration configuration_;
  RealPlatform real_;
  HostLog hostLog_;
  RequestExecutor executor_;
  RequestTally tally_;
  RequestRecords records_;
  Plugins plugins_;
  WorkSlot slot_;
  NetworkMonitor monitor_;
};

}  // namespace

int runDaemon(const HostConfiguration& configuration) {
  giveMemoryBack();
  openlog("tessardd", LOG_PID, LOG_DAEMON);
  return Daemon(configuration).run();
}

}  // namespace tessard
