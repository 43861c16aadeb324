// keywarden: the keychain's program, for the daemon and for people.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sysexits.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "programs/warden/Warden.h"

namespace {

// What it holds in memory comes into no core file, and no other process of the user may look.
void keepToItself() {
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

int run(const std::vector<std::string>& words) {
  using namespace tessard;
  const char* root = std::getenv("TESSARD_ROOT");
  bool json = false;
  const auto arguments = parseWardenArguments(words, root ? root : "", json);
  const WardenOutput output(json);
  if (!arguments) {
    return output.failure("usage", arguments.error().description() + " See keywarden --help.", EX_USAGE);
  }
  int exitCode = EX_OK;
  if (arguments.value().help) {
    std::fputs(wardenHelp().c_str(), stdout);
  } else if (arguments.value().version) {
    std::printf("keywarden %s\n", TESSARD_VERSION);
  } else {
    exitCode = runWarden(arguments.value(), output);
  }
  if (output.finish()) return exitCode;
  std::fputs("error: standard output cannot be written.\n", stderr);
  return EX_IOERR;
}

}  // namespace

int main(int count, char** arguments) {
  keepToItself();
  try {
    return run({arguments + 1, arguments + count});
  } catch (const std::exception&) {
    // Without its words, which could quote what was being worked on.
    std::fputs("error: keywarden had to give up.\n", stderr);
    return EX_SOFTWARE;
  }
}
