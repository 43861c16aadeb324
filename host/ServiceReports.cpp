#include "host/ServiceReports.h"

#include <cerrno>
#include <csignal>

#include "platform/ServiceStatus.h"

namespace tessard {

namespace {

constexpr const char* kSystemLog = "/var/log/system.log";
constexpr std::uint64_t kLinesOfAPart = 5;
// What a part says at its end stands near the end of the log.
constexpr std::uint64_t kSearchedBytes = std::uint64_t{256} * 1024;

bool isAlive(pid_t pid) {
  return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

std::string stateOf(const ServiceStatus& status) {
  const bool endsByItself = status.state == "failed" || status.state == "restarting";
  return endsByItself || isAlive(status.pid) ? status.state : "lost";
}

std::vector<std::string> lastLinesOf(pid_t pid, LogReader& logs) {
  if (pid <= 0) return {};
  LogQuery query;
  query.path = kSystemLog;
  query.lines = kLinesOfAPart;
  query.bytes = kSearchedBytes;
  query.sender = pid;
  const auto excerpt = logs.read(query);
  return excerpt ? excerpt.value().lines : std::vector<std::string>();
}

Dictionary reportOf(const PartStatus& part, LogReader& logs) {
  Dictionary report = {{"name", part.name}, {"state", part.state}};
  if (part.pid != 0) report.set("pid", std::int64_t{part.pid});
  if (part.state != "ended") return report;
  const auto lines = lastLinesOf(part.pid, logs);
  if (!lines.empty()) report.set("log", arrayOf(lines));
  return report;
}

}  // namespace

ServiceReports::ServiceReports(const std::string& root) : files_(root), logs_(root, kSearchedBytes) {}

Dictionary ServiceReports::all() const {
  Dictionary reports;
  for (const auto& [label, status] : readServiceStatuses(files_)) {
    Dictionary report = {{"state", stateOf(status)}};
    if (!status.reason.empty()) report.set("reason", status.reason);
    Array parts;
    for (const PartStatus& part : status.parts) parts.emplace_back(reportOf(part, logs_));
    report.set("parts", std::move(parts));
    reports.set(label, std::move(report));
  }
  return reports;
}

}  // namespace tessard
