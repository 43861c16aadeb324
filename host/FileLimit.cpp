#include "host/FileLimit.h"

#include <sys/resource.h>

#include <algorithm>

namespace tessard {

std::size_t raiseFileLimit(std::size_t needed) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) return needed;
  rlimit raised = limit;
  raised.rlim_cur = std::min<rlim_t>(needed, limit.rlim_max);
  return setrlimit(RLIMIT_NOFILE, &raised) == 0 ? raised.rlim_cur : limit.rlim_cur;
}

}  // namespace tessard
