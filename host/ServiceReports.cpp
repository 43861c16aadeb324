#include "host/ServiceReports.h"

#include <cerrno>
#include <csignal>

#include "host/ProcessLog.h"
#include "platform/ServiceStatus.h"

namespace tessard {

namespace {

constexpr std::size_t kLinesOfAPart = 5;

bool isAlive(pid_t pid) {
  return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

std::string stateOf(const ServiceStatus& status) {
  const bool endsByItself = status.state == "failed" || status.state == "restarting";
  return endsByItself || isAlive(status.pid) ? status.state : "lost";
}

Dictionary reportOf(const PartStatus& part, const std::string& logFile) {
  Dictionary report = {{"name", part.name}, {"state", part.state}};
  if (part.pid != 0) report.set("pid", std::int64_t{part.pid});
  if (part.state != "ended") return report;
  const auto lines = lastLogLinesOf(part.pid, kLinesOfAPart, logFile);
  if (!lines.empty()) report.set("log", arrayOf(lines));
  return report;
}

}  // namespace

ServiceReports::ServiceReports(const std::string& root)
    : logFile_((root == "/" ? "" : root) + "/var/log/system.log"), files_(root) {}

Dictionary ServiceReports::all() const {
  Dictionary reports;
  for (const auto& [label, status] : readServiceStatuses(files_)) {
    Dictionary report = {{"state", stateOf(status)}};
    if (!status.reason.empty()) report.set("reason", status.reason);
    Array parts;
    for (const PartStatus& part : status.parts) parts.emplace_back(reportOf(part, logFile_));
    report.set("parts", std::move(parts));
    reports.set(label, std::move(report));
  }
  return reports;
}

}  // namespace tessard
