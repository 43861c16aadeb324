// Loaded before the C library, this makes chosen calls on files fail, of the one thread of a daemon that carries its
// requests, and of a program that works for it while it waits, which TESSARD_FAILS_WITH_DAEMON tells. What is to fail is
// told through a page of memory that a test shares: the file that TESSARD_FAILURES names. Calls on sockets, pipes and the
// like pass unseen, and so do those of other threads and processes.
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// What a call does, and so which errors it can meet.
enum { OPENS = 1, CHANGES = 2, GROWS = 4, READS = 8 };

struct control {
  int32_t process;
  int32_t thread;   // 0: the next that calls openat2
  int32_t number;   // of the call, counted from 1, that is to fail; 0: none
  int32_t onwards;  // for this mask, all later calls do, too
  int32_t error;    // 0: reads and writes are cut short, all of them from there on
  int32_t lists;    // whether each call is written down
  uint32_t count;   // of calls so far
  uint32_t failed;
  uint32_t listed;  // bytes
  char list[];      // "call does /path\n"
};

static struct control* control;
static size_t room;
static int worksForDaemon;

__attribute__((constructor)) static void attach(void) {
  const char* path = getenv("TESSARD_FAILURES");
  struct stat status;
  const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (file < 0 || fstat(file, &status) != 0) return;
  void* mapped = mmap(NULL, (size_t)status.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  room = (size_t)status.st_size - sizeof(struct control);
  if (mapped != MAP_FAILED) control = mapped;
  worksForDaemon = getenv("TESSARD_FAILS_WITH_DAEMON") != NULL;
  close(file);
}

static int isWatched(void) {
  if (!control || !control->thread) return 0;
  if (worksForDaemon) return 1;
  return control->thread == (int32_t)syscall(SYS_gettid) && control->process == (int32_t)syscall(SYS_getpid);
}

static void writeDown(const char* call, int does, int directory, const char* path) {
  char from[64], where[PATH_MAX] = "";
  if (!path || path[0] != '/') {
    snprintf(from, sizeof from, "/proc/self/fd/%d", directory);
    const long length = syscall(SYS_readlink, from, where, sizeof where - 1);
    where[length > 0 ? length : 0] = 0;
  }
  const size_t left = room - control->listed;
  const int used = snprintf(control->list + control->listed, left, "%s %d %s%s%s\n", call, does, where,
                            path && path[0] != '/' ? "/" : "", path ? path : "");
  if (used > 0 && (size_t)used < left) control->listed += (uint32_t)used;
}

// Whether a signal can interrupt a call of that name.
static int waits(const char* call) {
  static const char* const names[] = {"open",  "open64", "openat", "openat64",  "openat2", "read",
                                      "write", "fsync",  "syncfs", "fdatasync", "close",   NULL};
  for (int index = 0; names[index]; ++index) {
    if (strcmp(names[index], call) == 0) return 1;
  }
  return 0;
}

// Whether this call is to fail; `errno` is then set.
static int fails(const char* call, int does, int directory, const char* path) {
  if (!isWatched()) return 0;
  const int before = errno;
  const int32_t number = (int32_t)++control->count;
  if (control->lists) writeDown(call, does, directory, path);
  errno = before;
  if (control->number == 0 || control->error == 0 || number < control->number) return 0;
  if (number > control->number && !(control->onwards & does)) return 0;
  if (control->error == EINTR && !waits(call)) return 0;
  // The first one is told by its name, as no two requests make quite the same calls.
  if (control->failed++ == 0) writeDown(call, does, directory, path);
  errno = control->error;
  return 1;
}

static int isFile(int descriptor) {
  struct stat status;
  const int before = errno;
  const int known = isWatched() && syscall(SYS_fstat, descriptor, &status) == 0;
  errno = before;
  return known && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
}

static int descriptorFails(const char* call, int does, int descriptor) {
  return isFile(descriptor) && fails(call, does, descriptor, NULL);
}

// How much is read or written where calls are cut short.
static size_t cut(int descriptor, size_t size) {
  if (!control || !control->number || control->error || size < 2 || !isFile(descriptor)) return size;
  ++control->failed;
  return size / 2;
}

#define REAL(name) ((__typeof__(&name))next(#name))

static void* next(const char* name) {
  return dlsym(RTLD_NEXT, name);
}

static int opens(int flags) {
  return OPENS | (flags & O_CREAT ? CHANGES | GROWS : READS) | (flags & (O_WRONLY | O_RDWR) ? CHANGES : 0);
}

#define OPENING(name)                                                            \
  int name(const char* path, int flags, ...) {                                   \
    va_list rest;                                                                \
    va_start(rest, flags);                                                       \
    const mode_t mode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(rest, mode_t) : 0; \
    va_end(rest);                                                                \
    if (fails(#name, opens(flags), AT_FDCWD, path)) return -1;                   \
    return REAL(name)(path, flags, mode);                                        \
  }
OPENING(open)
OPENING(open64)

#define OPENING_AT(name)                                                         \
  int name(int directory, const char* path, int flags, ...) {                    \
    va_list rest;                                                                \
    va_start(rest, flags);                                                       \
    const mode_t mode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(rest, mode_t) : 0; \
    va_end(rest);                                                                \
    if (fails(#name, opens(flags), directory, path)) return -1;                  \
    return REAL(name)(directory, path, flags, mode);                             \
  }
OPENING_AT(openat)
OPENING_AT(openat64)

long syscall(long number, ...) {
  va_list rest;
  va_start(rest, number);
  long a[6];
  for (int index = 0; index < 6; ++index) a[index] = va_arg(rest, long);
  va_end(rest);
  if (number == SYS_openat2 && control) {
    static __thread int32_t own;
    if (!own) own = (int32_t)REAL(syscall)(SYS_gettid);
    if (!control->thread && control->process == (int32_t)REAL(syscall)(SYS_getpid)) control->thread = own;
    const struct open_how* how = (const struct open_how*)a[2];
    if (fails("openat2", opens((int)how->flags), (int)a[0], (const char*)a[1])) return -1;
  }
  return REAL(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

#define ON_DESCRIPTOR(type, name, does, parameters, arguments) \
  type name parameters {                                       \
    if (descriptorFails(#name, does, descriptor)) return -1;   \
    return REAL(name) arguments;                               \
  }
ON_DESCRIPTOR(int, fsync, CHANGES | GROWS, (int descriptor), (descriptor))
ON_DESCRIPTOR(int, fdatasync, CHANGES | GROWS, (int descriptor), (descriptor))
ON_DESCRIPTOR(int, syncfs, CHANGES | GROWS, (int descriptor), (descriptor))
ON_DESCRIPTOR(int, ftruncate, CHANGES | GROWS, (int descriptor, off_t size), (descriptor, size))
ON_DESCRIPTOR(int, ftruncate64, CHANGES | GROWS, (int descriptor, off64_t size), (descriptor, size))
ON_DESCRIPTOR(int, fchmod, CHANGES, (int descriptor, mode_t mode), (descriptor, mode))
ON_DESCRIPTOR(int, fchown, CHANGES, (int descriptor, uid_t owner, gid_t group), (descriptor, owner, group))
ON_DESCRIPTOR(int, fstat, READS, (int descriptor, struct stat* status), (descriptor, status))
ON_DESCRIPTOR(int, fstat64, READS, (int descriptor, struct stat64* status), (descriptor, status))
ON_DESCRIPTOR(ssize_t, pread64, READS, (int descriptor, void* to, size_t size, off64_t from), (descriptor, to, size, from))
ON_DESCRIPTOR(ssize_t, pwrite64, CHANGES | GROWS, (int descriptor, const void* from, size_t size, off64_t to),
              (descriptor, from, size, to))
ON_DESCRIPTOR(ssize_t, read, READS, (int descriptor, void* to, size_t size), (descriptor, to, cut(descriptor, size)))
ON_DESCRIPTOR(ssize_t, write, CHANGES | GROWS, (int descriptor, const void* from, size_t size),
              (descriptor, from, cut(descriptor, size)))

// A descriptor is closed whatever the call answers.
int close(int descriptor) {
  const int failed = descriptorFails("close", READS, descriptor);
  const int error = errno;
  const int closed = REAL(close)(descriptor);
  if (failed) errno = error;
  return failed ? -1 : closed;
}

#define ON_PATH(name, does, parameters, arguments)         \
  int name parameters {                                    \
    if (fails(#name, does, AT_FDCWD, path)) return -1;     \
    return REAL(name) arguments;                           \
  }
ON_PATH(access, READS, (const char* path, int mode), (path, mode))
ON_PATH(chmod, CHANGES, (const char* path, mode_t mode), (path, mode))
ON_PATH(chown, CHANGES, (const char* path, uid_t owner, gid_t group), (path, owner, group))
ON_PATH(mkdir, CHANGES | GROWS, (const char* path, mode_t mode), (path, mode))
ON_PATH(rmdir, CHANGES, (const char* path), (path))
ON_PATH(unlink, CHANGES, (const char* path), (path))
ON_PATH(link, CHANGES | GROWS, (const char* path, const char* to), (path, to))
ON_PATH(rename, CHANGES | GROWS, (const char* path, const char* to), (path, to))
ON_PATH(stat, READS, (const char* path, struct stat* status), (path, status))
ON_PATH(stat64, READS, (const char* path, struct stat64* status), (path, status))
ON_PATH(lstat, READS, (const char* path, struct stat* status), (path, status))
ON_PATH(lstat64, READS, (const char* path, struct stat64* status), (path, status))

#define AT(name, does, parameters, arguments)               \
  int name parameters {                                     \
    if (fails(#name, does, directory, path)) return -1;     \
    return REAL(name) arguments;                            \
  }
AT(faccessat, READS, (int directory, const char* path, int mode, int flags), (directory, path, mode, flags))
AT(fstatat, READS, (int directory, const char* path, struct stat* status, int flags), (directory, path, status, flags))
AT(fstatat64, READS, (int directory, const char* path, struct stat64* status, int flags),
   (directory, path, status, flags))
AT(fchmodat, CHANGES, (int directory, const char* path, mode_t mode, int flags), (directory, path, mode, flags))
AT(fchownat, CHANGES, (int directory, const char* path, uid_t owner, gid_t group, int flags),
   (directory, path, owner, group, flags))
AT(mkdirat, CHANGES | GROWS, (int directory, const char* path, mode_t mode), (directory, path, mode))
AT(unlinkat, CHANGES, (int directory, const char* path, int flags), (directory, path, flags))
AT(utimensat, CHANGES, (int directory, const char* path, const struct timespec times[2], int flags),
   (directory, path, times, flags))
AT(linkat, CHANGES | GROWS, (int directory, const char* path, int to, const char* name, int flags),
   (directory, path, to, name, flags))
AT(renameat, CHANGES | GROWS, (int directory, const char* path, int to, const char* name),
   (directory, path, to, name))
AT(renameat2, CHANGES | GROWS, (int directory, const char* path, int to, const char* name, unsigned flags),
   (directory, path, to, name, flags))

int symlinkat(const char* target, int directory, const char* path) {
  if (fails("symlinkat", CHANGES | GROWS, directory, path)) return -1;
  return REAL(symlinkat)(target, directory, path);
}

ssize_t readlinkat(int directory, const char* path, char* to, size_t size) {
  if (fails("readlinkat", READS, directory, path)) return -1;
  return REAL(readlinkat)(directory, path, to, size);
}

ssize_t readlink(const char* path, char* to, size_t size) {
  if (fails("readlink", READS, AT_FDCWD, path)) return -1;
  return REAL(readlink)(path, to, size);
}

DIR* opendir(const char* path) {
  if (fails("opendir", OPENS | READS, AT_FDCWD, path)) return NULL;
  return REAL(opendir)(path);
}

struct dirent* readdir(DIR* stream) {
  if (descriptorFails("readdir", READS, dirfd(stream))) return NULL;
  return REAL(readdir)(stream);
}

struct dirent64* readdir64(DIR* stream) {
  if (descriptorFails("readdir64", READS, dirfd(stream))) return NULL;
  return REAL(readdir64)(stream);
}
