// Runs one program and says how long that took, from its start until it was waited for, and its peak of
// memory: "NANOSECONDS KIBIBYTES STATUS" on standard output. Usage: bench_timer OUTPUT PROGRAM [ARGUMENT]...
// The program's standard output goes to the file OUTPUT, its standard error is this program's.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

long long nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return 64;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, arguments[1], O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const long long begin = nanoseconds();
  pid_t child = 0;
  const int problem = posix_spawn(&child, arguments[2], &actions, nullptr, arguments + 2, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (problem != 0) {
    std::fprintf(stderr, "%s: %s\n", arguments[2], std::strerror(problem));
    return 70;
  }
  int status = 0;
  rusage used{};
  wait4(child, &status, 0, &used);
  std::printf("%lld %ld %d\n", nanoseconds() - begin, used.ru_maxrss,
              WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  return 0;
}
