// change_accounts: makes one change of the accounts for the daemon, which asks for it on standard input.

#include <sys/resource.h>
#include <sysexits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "platform/SystemCalls.h"
#include "platform/accounts/AccountRequest.h"
#include "programs/accounts/AccountService.h"

namespace {

constexpr std::size_t kRequestLimit = 64UL * 1024;

// The hash of a password comes into no core file.
void keepToItself() {
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
}

tessard::Result<void> carryOut() {
  std::string request(kRequestLimit, '\0');
  const auto length = tessard::readUpTo(STDIN_FILENO, request.data(), request.size());
  if (!length) return length.error();
  request.resize(length.value());
  const char* root = std::getenv("TESSARD_ROOT");
  return tessard::changeAccounts(root ? root : "/", request);
}

}  // namespace

int main(int count, char** /*arguments*/) {
  keepToItself();
  if (count > 1) {
    std::fputs("change_accounts takes no arguments: tessardd asks it on standard input.\n", stderr);
    return EX_USAGE;
  }
  try {
    const auto changed = carryOut();
    if (changed) return EX_OK;
    std::fputs(tessard::accountAnswerOf(changed).c_str(), stdout);
    return std::fflush(stdout) == 0 ? EX_UNAVAILABLE : EX_IOERR;
  } catch (const std::exception&) {
    // Without its words, which could quote what was being worked on.
    std::fputs("change_accounts had to give up\n", stderr);
    return EX_SOFTWARE;
  }
}
