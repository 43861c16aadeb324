#include "platform/logs/LogFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <memory>
#include <vector>

#include "common/Text.h"
#include "platform/SystemCalls.h"

namespace tessard {

namespace {

constexpr int kLinksFollowed = 40;  // as many as the kernel follows
constexpr std::size_t kUnpackedAtOnce = std::size_t{64} * 1024;

SystemError notAFile() {
  return {EINVAL, "it is no regular file"};
}

// Walks a path name by name, as the kernel cannot be told to follow links in some directories alone.
class LogPathWalk {
 public:
  LogPathWalk(FileDescriptor root, std::string_view path) {
    above_.push_back({std::move(root), true});
    put(path);
  }

  Result<FileDescriptor> open() {
    if (const auto trusted = isTrusted(above_.front().directory); trusted) {
      above_.front().trusted = trusted.value();
    } else {
      return trusted.error();
    }
    while (!todo_.empty()) {
      const std::string name = todo_.front();
      todo_.pop_front();
      if (name == "..") {
        if (above_.size() > 1) above_.pop_back();
        continue;
      }
      auto found = enter(name);
      if (!found) return found.error();
      if (found.value()) return found;
    }
    return notAFile();
  }

 private:
  struct Step {
    FileDescriptor directory;
    bool trusted;
  };

  void put(std::string_view path) {
    std::vector<std::string> names;
    for (std::string& name : componentsOf(path, '/')) {
      if (!name.empty() && name != ".") names.push_back(std::move(name));
    }
    todo_.insert(todo_.begin(), names.begin(), names.end());
  }

  static Result<bool> isTrusted(const FileDescriptor& directory) {
    struct stat status {};
    if (::fstat(directory.get(), &status) != 0) return SystemError::last();
    const bool owned = status.st_uid == 0 || status.st_uid == ::geteuid();
    const bool othersWrite =
        (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0);
    return owned && !othersWrite;
  }

  // The open file; nothing when the name was a directory or a link and the walk goes on.
  Result<FileDescriptor> enter(const std::string& name) {
    const Step& here = above_.back();
    FileDescriptor found(::openat(here.directory.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!found || ::fstat(found.get(), &status) != 0) return SystemError::last();
    if (S_ISDIR(status.st_mode)) {
      const auto trusted = isTrusted(found);
      if (!trusted) return trusted.error();
      above_.push_back({std::move(found), here.trusted && trusted.value()});
      return FileDescriptor();
    }
    if (S_ISLNK(status.st_mode)) return follow(found);
    if (!todo_.empty()) return SystemError(ENOTDIR);
    if (!S_ISREG(status.st_mode)) return notAFile();
    return openFile(name);
  }

  Result<FileDescriptor> follow(const FileDescriptor& link) {
    if (!above_.back().trusted) {
      return SystemError(ELOOP, "it is a link in a directory that others than root can change");
    }
    if (++followed_ > kLinksFollowed) return SystemError(ELOOP);
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlinkat(link.get(), "", target.data(), target.size());
    if (length < 0) return SystemError::last();
    const std::string_view path(target.data(), static_cast<std::size_t>(length));
    if (path.starts_with('/')) above_.erase(above_.begin() + 1, above_.end());
    put(path);
    return FileDescriptor();
  }

  Result<FileDescriptor> openFile(const std::string& name) {
    const Step& here = above_.back();
    // Not blocking, in case that it has become a pipe meanwhile.
    FileDescriptor file(uninterrupted([&] {
      return ::openat(here.directory.get(), name.c_str(),
                      O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }));
    struct stat status {};
    struct stat place {};
    if (!file || ::fstat(file.get(), &status) != 0) return SystemError::last();
    if (!S_ISREG(status.st_mode)) return notAFile();
    if (::fstat(here.directory.get(), &place) != 0) return SystemError::last();
    if (!here.trusted && status.st_nlink > 1 && status.st_uid != place.st_uid) {
      return SystemError(EPERM, "it is another user's file under a further name");
    }
    return file;
  }

  std::vector<Step> above_;
  std::deque<std::string> todo_;
  int followed_ = 0;
};

struct GzipClose {
  void operator()(gzFile_s* file) const { ::gzclose_r(file); }
};

}  // namespace

bool LogMeter::take(std::uint64_t bytes) {
  if (bytes > limit || read > limit - bytes) {
    exhausted = true;
    return false;
  }
  read += bytes;
  return true;
}

Result<LogFile> LogFile::of(FileDescriptor descriptor) {
  struct stat status {};
  if (::fstat(descriptor.get(), &status) != 0) return SystemError::last();
  return LogFile(std::move(descriptor), static_cast<std::uint64_t>(status.st_size), status.st_dev,
                 status.st_ino);
}

Result<LogFile> LogFile::open(int root, std::string_view path) {
  if (!path.starts_with('/') || path.find('\0') != std::string_view::npos) return SystemError(EINVAL);
  FileDescriptor start(::openat(root, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!start) return SystemError::last();
  auto opened = LogPathWalk(std::move(start), path).open();
  if (!opened) return opened.error();
  return of(std::move(opened).value());
}

Result<LogFile> LogFile::openCompressed(int root, std::string_view path, LogMeter& meter) {
  auto packed = open(root, path);
  if (!packed) return packed;
  const std::unique_ptr<gzFile_s, GzipClose> stream(::gzdopen(packed.value().descriptor_.get(), "rb"));
  if (!stream) return SystemError(ENOMEM);
  packed.value().descriptor_.release();  // the stream's from here on
  FileDescriptor content(::memfd_create("log", MFD_CLOEXEC));
  if (!content) return SystemError::last();
  std::array<char, kUnpackedAtOnce> buffer{};
  while (true) {
    const int got = ::gzread(stream.get(), buffer.data(), static_cast<unsigned>(buffer.size()));
    if (got < 0) return SystemError(EBADMSG);
    if (got == 0) break;
    if (!meter.take(static_cast<std::uint64_t>(got))) return SystemError(EFBIG);
    const auto kept = writeAll(content.get(), {buffer.data(), static_cast<std::size_t>(got)});
    if (!kept) return kept.error();
  }
  int code = Z_OK;
  ::gzerror(stream.get(), &code);
  if (code != Z_OK) return SystemError(EBADMSG);  // it ends too early
  return of(std::move(content));
}

Result<std::size_t> LogFile::readAt(std::uint64_t offset, char* buffer, std::size_t size) const {
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t got = uninterrupted([&] {
      return ::pread(descriptor_.get(), buffer + filled, size - filled, static_cast<off_t>(offset + filled));
    });
    if (got < 0) return SystemError::last();
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  return filled;
}

}  // namespace tessard
