// Debian's valgrind does not know openat2 and pidfd_open. Loaded before the C library, this stands in for them where
// nothing hostile is tried: what is opened is taken for a path below the directory, and links are followed as they are;
// a process is watched by a thread, which closes the other end of the descriptor when it ends.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static void* watch(void* given) {
  const int64_t both = (intptr_t)given;
  siginfo_t information;
  waitid(P_PID, (id_t)(both >> 32), &information, WEXITED | WNOWAIT);
  close((int)(both & INT32_MAX));
  return NULL;
}

static int openProcess(pid_t pid) {
  int ends[2];
  pthread_t thread;
  if (pipe2(ends, O_CLOEXEC) != 0) return -1;
  if (pthread_create(&thread, NULL, watch, (void*)(((intptr_t)pid << 32) | ends[1])) != 0) return -1;
  pthread_detach(thread);
  return ends[0];
}

long syscall(long number, ...) {
  long values[6];
  va_list given;
  va_start(given, number);
  for (int i = 0; i < 6; ++i) values[i] = va_arg(given, long);
  va_end(given);
  if (number == SYS_pidfd_open) return openProcess((pid_t)values[0]);
  if (number == SYS_openat2) {
    const char* path = (const char*)values[1];
    const struct open_how* how = (const struct open_how*)values[2];
    while (*path == '/') ++path;
    return openat((int)values[0], *path ? path : ".", (int)how->flags, (mode_t)how->mode);
  }
  long (*const real)(long, ...) = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
  return real(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}
