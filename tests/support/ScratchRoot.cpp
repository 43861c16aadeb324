#include "tests/support/ScratchRoot.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace tessard {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void require(bool done, const std::string& what) {
  if (!done) fail(what);
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  require(::lstat(path.c_str(), &status) == 0, path);
  return status;
}

}  // namespace

ScratchRoot::ScratchRoot() {
  path_ = (fs::temp_directory_path() / "tessard-test.XXXXXX").string();
  require(::mkdtemp(path_.data()) != nullptr, path_);
  for (const char* name : {"/etc", "/var", "/private"}) makeDirectory(name);
  makeLink("/private/etc", "../etc");
  makeLink("/private/var", "../var");
}

ScratchRoot::~ScratchRoot() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ScratchRoot::hostPath(std::string_view path) const {
  return path_ + std::string(path);
}

void ScratchRoot::write(std::string_view path, std::string_view content) const {
  const fs::path file = hostPath(path);
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  require(out.good(), file.string());
}

std::string ScratchRoot::read(std::string_view path) const {
  std::ifstream in(hostPath(path), std::ios::binary);
  require(in.good(), hostPath(path));
  return {std::istreambuf_iterator<char>(in), {}};
}

bool ScratchRoot::exists(std::string_view path) const {
  struct stat status {};
  return ::lstat(hostPath(path).c_str(), &status) == 0;
}

void ScratchRoot::remove(std::string_view path) const {
  fs::remove_all(hostPath(path));
}

void ScratchRoot::makeDirectory(std::string_view path) const {
  fs::create_directories(hostPath(path));
}

void ScratchRoot::makeLink(std::string_view path, std::string_view target) const {
  const fs::path link = hostPath(path);
  fs::create_directories(link.parent_path());
  fs::create_symlink(fs::path(target), link);
}

std::vector<std::string> ScratchRoot::list(std::string_view path) const {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(hostPath(path))) names.push_back(entry.path().filename());
  std::ranges::sort(names);
  return names;
}

void ScratchRoot::setModified(std::string_view path, FileTime time) const {
  std::array<timespec, 2> times{};
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = time.seconds;
  times[1].tv_nsec = time.nanoseconds;
  require(::utimensat(AT_FDCWD, hostPath(path).c_str(), times.data(), AT_SYMLINK_NOFOLLOW) == 0,
          hostPath(path));
}

void ScratchRoot::setMode(std::string_view path, mode_t mode) const {
  require(::chmod(hostPath(path).c_str(), mode) == 0, hostPath(path));
}

FileTime ScratchRoot::modified(std::string_view path) const {
  const auto status = statusOf(hostPath(path));
  return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

mode_t ScratchRoot::mode(std::string_view path) const {
  return statusOf(hostPath(path)).st_mode & 07777U;
}

uid_t ScratchRoot::owner(std::string_view path) const {
  return statusOf(hostPath(path)).st_uid;
}

gid_t ScratchRoot::group(std::string_view path) const {
  return statusOf(hostPath(path)).st_gid;
}

}  // namespace tessard
