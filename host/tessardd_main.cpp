#include <sysexits.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "host/Daemon.h"
#include "host/HostConfiguration.h"
#include "host/Version.h"

int main(int count, char** arguments) {
  using namespace tessard;
  try {
    const auto line = readCommandLine({arguments + 1, arguments + count});
    if (!line) {
      std::fprintf(stderr, "tessardd: %s\n", line.error().description().c_str());
      return line.error().code() == EINVAL ? EX_USAGE : EX_CONFIG;
    }
    switch (line.value().wish) {
      case CommandLineWish::help:
        std::fputs(daemonHelp().c_str(), stdout);
        return EX_OK;
      case CommandLineWish::version:
        std::printf("tessardd %s\n", kVersion);
        return EX_OK;
      case CommandLineWish::run:
        return runDaemon(line.value().configuration);
    }
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "tessardd: %s\n", problem.what());
  }
  return EX_SOFTWARE;
}
