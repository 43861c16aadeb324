// service_manager_tool state|start|stop LABEL [SECONDS]: one call of the class for systemd, whose unit may
// take so many seconds. Prints what was logged, then "yes" or "no" for the answer.

#include <cstdio>
#include <string>

#include "platform/PosixTasks.h"
#include "platform/SystemdServiceManager.h"

namespace {

struct Printed : tessard::Syslog {
  void write(int /*priority*/, const char* /*format*/, const std::string& line) override {
    std::puts(line.c_str());
  }
};

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return 64;
  Printed output;
  tessard::Log log{output};
  tessard::PosixTasks tasks("/", "/usr/libexec/tessardd", count > 3 ? std::stod(arguments[3]) : 60);
  tessard::SystemdServiceManager services(tasks, log);
  const std::string verb = arguments[1];
  const bool answer = verb == "state" ? services.GetLaunchDaemonServiceState(arguments[2])
                                      : services.SetLaunchDaemonServiceState(arguments[2], verb == "start");
  std::puts(answer ? "yes" : "no");
  return 0;
}
