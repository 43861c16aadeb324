// The least that reading or replacing a set of files costs. Usage:
//   bench_floor read LIST         reads every file that LIST names, one path a line, in blocks
//   bench_floor write LIST        and writes the same bytes to temporary files, gives them owner and mode,
//                                 makes the old files backups and renames the new ones
//   bench_floor write-flushed LIST
//                                 and flushes the file system once, when all temporary files are written
// A line with a tab has a second path behind it: before it is replaced, the file is taken away and made anew
// with the bytes of that one. Says "NANOSECONDS BYTES": how long that took without the start and the end of
// the program, and how many bytes were read. No memory is taken for a file's content but one buffer.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr uid_t kOwner = 84;
constexpr gid_t kGroup = 0;
constexpr mode_t kMode = 0600;

long long nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

[[noreturn]] void fail(const std::string& path) {
  std::perror(path.c_str());
  _exit(74);
}

struct Listed {
  std::string path;
  std::string copied;  // the file that it is first made a copy of; empty for none
};

std::vector<Listed> filesIn(const char* path) {
  std::vector<Listed> files;
  std::FILE* file = std::fopen(path, "re");
  if (!file) fail(path);
  char* line = nullptr;
  std::size_t room = 0;
  for (ssize_t length = 0; (length = getline(&line, &room, file)) > 0;) {
    const std::string_view whole(line, static_cast<std::size_t>(length - (line[length - 1] == '\n' ? 1 : 0)));
    const auto tab = std::min(whole.find('\t'), whole.size());
    files.push_back(
        {std::string(whole.substr(0, tab)), std::string(whole.substr(std::min(tab + 1, whole.size())))});
  }
  std::free(line);
  std::fclose(file);
  return files;
}

class Buffer {
 public:
  // The whole file, valid until the next call.
  std::string_view read(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) fail(path);
    const auto size = static_cast<std::size_t>(status.st_size);
    if (bytes_.size() < size) bytes_.resize(size);
    std::size_t got = 0;
    while (got < size) {
      const ssize_t now = ::read(file, bytes_.data() + got, size - got);
      if (now <= 0) fail(path);
      got += static_cast<std::size_t>(now);
    }
    close(file);
    return {bytes_.data(), size};
  }

 private:
  std::string bytes_;
};

void makeFile(const std::string& path, std::string_view content) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) fail(path);
  if (::write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size())) fail(path);
  // An ordinary user can give files to nobody else.
  if (geteuid() == 0 && fchown(file, kOwner, kGroup) != 0) fail(path);
  if (fchmod(file, kMode) != 0) fail(path);
  if (close(file) != 0) fail(path);
}

void makeCopy(const std::string& path, std::string_view content) {
  if (unlink(path.c_str()) != 0) fail(path);
  makeFile(path, content);
}

void flushFileSystemOf(const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0 || syncfs(file) != 0) fail(path);
  close(file);
}

void replace(const std::string& path) {
  if (std::rename(path.c_str(), (path + ".bak").c_str()) != 0) fail(path);
  if (std::rename((path + ".tmp").c_str(), path.c_str()) != 0) fail(path);
}

}  // namespace

int main(int count, char** arguments) {
  const std::string_view work = count == 3 ? arguments[1] : "";
  if (work != "read" && work != "write" && work != "write-flushed") return 64;
  const long long begin = nanoseconds();
  const std::vector<Listed> files = filesIn(arguments[2]);
  Buffer buffer;
  std::size_t bytes = 0;
  for (const Listed& file : files) {
    const std::string_view content = buffer.read(file.copied.empty() ? file.path : file.copied);
    bytes += content.size();
    if (work == "read") continue;
    if (!file.copied.empty()) makeCopy(file.path, content);
    makeFile(file.path + ".tmp", content);
  }
  if (work == "write-flushed" && !files.empty()) flushFileSystemOf(files.front().path);
  if (work != "read") {
    for (const Listed& file : files) replace(file.path);
  }
  std::printf("%lld %zu\n", nanoseconds() - begin, bytes);
  return 0;
}
