#include <sysexits.h>

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "host/Version.h"
#include "host/ctl/CtlArguments.h"
#include "host/ctl/CtlOutput.h"
#include "host/ctl/CtlVerbs.h"

namespace {

int run(const std::vector<std::string>& words) {
  using namespace tessard;
  bool json = false;
  const auto arguments = parseCtlArguments(words, json);
  const CtlOutput output(json);
  if (!arguments) {
    const int status =
        output.failure("usage", arguments.error().description() + " See tessardctl --help.", EX_USAGE);
    return output.finish() ? status : EX_IOERR;
  }
  int exitCode = EX_OK;
  if (arguments.value().help) {
    std::fputs(ctlHelp(arguments.value().words).c_str(), stdout);
  } else if (arguments.value().version) {
    if (json) {
      output.document({{"version", kVersion}});
    } else {
      std::printf("tessardctl %s\n", kVersion);
    }
  } else {
    exitCode = runVerb(arguments.value(), output);
  }
  if (output.finish()) return exitCode;
  std::fputs("error: standard output cannot be written.\n", stderr);
  return EX_IOERR;
}

}  // namespace

int main(int count, char** arguments) {
  try {
    return run({arguments + 1, arguments + count});
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "error: %s\n", problem.what());
    return EX_SOFTWARE;
  }
}
