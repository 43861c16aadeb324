#include "host/RealPlatform.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "host/Networks.h"
#include "host/ServiceManagers.h"

namespace tessard {

namespace {

// The service's account and root's group, to which files are given.
constexpr uid_t kServiceUser = 84;
constexpr gid_t kRootGroup = 0;

// The same as `ownersForThisUser` for the access lists of the keychain, which name root.
constexpr uid_t kRootUser = 0;

OwnerMap rootIsThisUser() {
  if (geteuid() == 0) return {};
  return {{{kRootUser, geteuid()}}, {}};
}

// How long a change of a unit may take before the wait for the service's own state goes on.
constexpr double kUnitPatienceSeconds = 10;

// How long a question to a tool of the machine may take.
constexpr double kQuestionPatienceSeconds = 10;

bool isAllowed(int capability) {
  return prctl(PR_CAPBSET_READ, capability) > 0;
}

// The daemon's own unit keeps it from changing the packet filter and from becoming others; what asks for the
// filter's rules, or as somebody else, needs these rights nevertheless.
SystemdTasks::Rights missingRights(const HostConfiguration& configuration) {
  SystemdTasks::Rights rights;
  if (configuration.root != "/" || geteuid() != 0 || sd_booted() <= 0) return rights;
  if (!isAllowed(CAP_NET_ADMIN)) rights["nft"] = "CAP_NET_ADMIN";
  if (!isAllowed(CAP_SETUID)) rights["check_user_access"] = "CAP_SETUID CAP_SETGID";
  return rights;
}

}  // namespace

OwnerMap ownersForThisUser() {
  if (geteuid() == 0) return {};
  return {{{kServiceUser, geteuid()}}, {{kRootGroup, getegid()}}};
}

RealPlatform::RealPlatform(const HostConfiguration& configuration)
    : files(configuration.root, ownersForThisUser()),
      ownTasks(configuration.root, configuration.programsDirectory, PosixTasks::kTimeLimitSeconds, &log),
      unitTasks(configuration.root, configuration.programsDirectory, kUnitPatienceSeconds),
      ownQuestionTasks(configuration.root, configuration.programsDirectory, kQuestionPatienceSeconds),
      tasks(ownTasks, missingRights(configuration)),
      questionTasks(ownQuestionTasks, missingRights(configuration)),
      directory(configuration.root, ownTasks),
      services(chooseServiceManager(configuration, files, tasks, unitTasks, clock, log)),
      processes(files),
      hostNames(files),
      network(chooseNetwork(configuration, files, questionTasks, log, syslog)),
      bundles(files),
      keychain(configuration.root, rootIsThisUser(),
               [this](const std::string& problem) { Object(log).logError_source(problem, ""); }),
      logs(configuration.root),
      journal(files, files, configuration.root, log) {}

}  // namespace tessard
