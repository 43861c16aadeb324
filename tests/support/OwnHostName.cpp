#include "tests/support/OwnHostName.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace tessard {

OwnHostName::OwnHostName() : before_(::open("/proc/thread-self/ns/uts", O_RDONLY | O_CLOEXEC)) {
  if (!before_ || ::unshare(CLONE_NEWUTS) != 0)
    throw std::runtime_error("no host name of its own can be had");
}

OwnHostName::~OwnHostName() {
  // A test that went on would give the machine itself another name.
  if (::setns(before_.get(), CLONE_NEWUTS) != 0) std::abort();
}

void OwnHostName::set(const char* name) const {
  if (::sethostname(name, std::strlen(name)) != 0) throw std::runtime_error("the host name cannot be set");
}

}  // namespace tessard
