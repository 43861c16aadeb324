// Serves a disk image as a file through FUSE and writes down, in order, all that reaches it: what a power
// failure may leave of a disk can be made of that afterwards.
//
// Usage: power_recorder IMAGE LOG DIRECTORY
//
// DIRECTORY/disk is the image. Text written to DIRECTORY/marks goes into the log alone. LOG is a row of
// records: a letter (W write, F flush, M mark), the offset as 64 bits, the length as 32 bits, both
// little-endian, then so many bytes. Ends when DIRECTORY is unmounted, on SIGTERM, and with its parent.

#define FUSE_USE_VERSION 31

#include <endian.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kDisk = "/disk";
constexpr std::string_view kMarks = "/marks";

int image = -1;
int log = -1;

// Everything of one record in one call, so that a log that is cut off is so only at its end.
int record(char kind, const char* content, std::size_t length, off_t offset) {
  std::array<char, 13> head{kind};
  const std::uint64_t place = htole64(static_cast<std::uint64_t>(offset));
  const std::uint32_t size = htole32(static_cast<std::uint32_t>(length));
  std::memcpy(&head[1], &place, sizeof place);
  std::memcpy(&head[9], &size, sizeof size);
  const std::array<iovec, 2> parts{{{head.data(), head.size()}, {const_cast<char*>(content), length}}};
  const auto written = ::writev(log, parts.data(), static_cast<int>(parts.size()));
  if (written < 0) return -errno;
  return static_cast<std::size_t>(written) == head.size() + length ? 0 : -EIO;
}

int attributesOf(const char* path, struct stat* attributes, fuse_file_info*) {
  *attributes = {};
  attributes->st_nlink = 1;
  if (std::string_view(path) == "/") {
    attributes->st_mode = S_IFDIR | 0700;
  } else if (path == kMarks) {
    attributes->st_mode = S_IFREG | 0600;
  } else if (path == kDisk) {
    struct stat found {};
    if (::fstat(image, &found) != 0) return -errno;
    attributes->st_mode = S_IFREG | 0600;
    attributes->st_size = found.st_size;
  } else {
    return -ENOENT;
  }
  return 0;
}

int openFile(const char* path, fuse_file_info* file) {
  // A mark must arrive at once, and has no content that could be kept.
  file->direct_io = path == kMarks ? 1 : 0;
  return 0;
}

int truncateFile(const char* path, off_t, fuse_file_info*) {
  return path == kMarks ? 0 : -EPERM;
}

int readFile(const char* path, char* content, std::size_t length, off_t offset, fuse_file_info*) {
  if (path != kDisk) return 0;
  const auto count = ::pread(image, content, length, offset);
  return count < 0 ? -errno : static_cast<int>(count);
}

int writeFile(const char* path, const char* content, std::size_t length, off_t offset, fuse_file_info*) {
  if (path == kMarks) {
    const int failed = record('M', content, length, 0);
    return failed != 0 ? failed : static_cast<int>(length);
  }
  if (const int failed = record('W', content, length, offset); failed != 0) return failed;
  const auto count = ::pwrite(image, content, length, offset);
  return count < 0 ? -errno : static_cast<int>(count);
}

int flushFile(const char* path, int, fuse_file_info*) {
  return path == kDisk ? record('F', "", 0, 0) : 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) {
    std::fputs("usage: power_recorder IMAGE LOG DIRECTORY\n", stderr);
    return 64;
  }
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  image = ::open(arguments[1], O_RDWR | O_CLOEXEC);
  log = ::open(arguments[2], O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (image < 0 || log < 0) {
    std::perror("power_recorder");
    return 66;
  }
  fuse_operations operations{};
  operations.getattr = attributesOf;
  operations.open = openFile;
  operations.truncate = truncateFile;
  operations.read = readFile;
  operations.write = writeFile;
  operations.fsync = flushFile;
  // One thread: the order of the log is the order in which everything was done.
  std::array<char*, 4> words{arguments[0], const_cast<char*>("-f"), const_cast<char*>("-s"), arguments[3]};
  return fuse_main(static_cast<int>(words.size()), words.data(), &operations, nullptr);
}
