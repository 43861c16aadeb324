#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

#include "common/FileSystem.h"
#include "platform/EarlyWriting.h"
#include "platform/FileDescriptor.h"
#include "platform/HeldDirectories.h"
#include "platform/OwnerMap.h"

namespace tessard {

/// The files of this machine below one directory. Every path is resolved by the kernel with that directory
/// as its root, so absolute links stay inside and ".." ends at it. Holds one descriptor, opened once: the
/// root stays the same directory when it is renamed. Any thread may call.
class PosixFileSystem : public FileSystem {
 public:
  /// `root` is a path of the machine. A root that cannot be opened makes every call fail with the error of
  /// that opening (and `exists` false).
  explicit PosixFileSystem(std::string root = "/", OwnerMap map = {});

  /// Between these two calls the directories of the files that are asked for are kept open for a second each,
  /// and are what their paths mean for that long, as long as they are not removed.
  void holdDirectories() { held_.hold(); }
  void releaseDirectories() { held_.release(); }

  /// Until the next `flush`, or the end that is called for, the disk may begin with the files that are to be
  /// flushed later.
  void endEarlyWriting() { early_.end(); }

  bool exists(std::string_view path) override;
  Result<FileAttributes> attributes(std::string_view path) override;
  Result<std::string> readFile(std::string_view path, std::size_t limit) override;
  std::vector<Result<FileFingerprint>> fingerprints(const std::vector<std::string>& paths,
                                                    std::size_t limit) override;
  Result<void> createFile(std::string_view path, std::string_view content, const FileOwnership& ownership,
                          Flush flush) override;
  std::vector<Result<FileAttributes>> createFiles(const std::vector<NewFile>& files) override;
  FileCopies copyFiles(std::string_view from, const std::vector<std::string>& to, std::size_t limit) override;
  Result<void> flush(const std::vector<std::string>& paths) override;
  Result<void> rename(std::string_view from, std::string_view to) override;
  Result<void> exchange(std::string_view first, std::string_view second) override;
  Result<void> remove(std::string_view path) override;
  Result<void> createDirectory(std::string_view path, const FileOwnership& ownership,
                               bool withParents) override;
  Result<void> setOwnership(std::string_view path, const FileOwnership& ownership) override;
  Result<std::vector<std::string>> listDirectory(std::string_view path) override;
  Result<void> syncDirectory(std::string_view path) override;

 private:
  /// An opened directory and a name in it that is not resolved.
  struct Place {
    HeldDirectories::Handle opened;
    std::string name;
    int directory() const { return opened->get(); }
  };

  Result<FileDescriptor> open(std::string_view path, int flags) const;
  struct OpenedFile {
    FileDescriptor descriptor;
    struct stat status {};
  };
  /// A regular file that is read from its start; EINVAL for everything else.
  Result<OpenedFile> openForReading(std::string_view path) const;
  Result<Place> placeOf(std::string_view path) const;
  /// `operation` on the place of a path, a second time where its directory was kept and is another by now.
  template <class Operation>
  Result<void> inPlaceOf(std::string_view path, Operation operation) const;
  /// Of what the path leads to, links followed.
  Result<struct stat> statusOf(std::string_view path) const;
  /// The file's whole content. EFBIG when it is longer than `limit` bytes.
  static Result<std::string> contentOf(const OpenedFile& file, std::size_t limit);
  FileAttributes attributesOf(const struct stat& status) const;
  /// Null for who does not ask what was made.
  Result<void> make(std::string_view path, std::string_view content, const FileOwnership& ownership,
                    Flush flush, FileAttributes* made);
  Result<void> lookAt(int file, FileAttributes& attributes) const;
  Result<void> makeCopy(std::string_view path, std::string_view content, const struct stat& source,
                        FileAttributes& made);
  /// Makes the directory and what is missing above it, each 0755; success when it is there already.
  Result<void> ensureDirectory(std::string_view path) const;
  Result<void> renameAt(std::string_view from, std::string_view to, unsigned flags) const;
  FileOwnership onDisk(const FileOwnership& ownership) const;

  FileDescriptor root_;
  int rootError_ = 0;
  OwnerMap map_;
  mutable HeldDirectories held_;
  mutable EarlyWriting early_;
};

template <class Operation>
Result<void> PosixFileSystem::inPlaceOf(std::string_view path, Operation operation) const {
  while (true) {
    const auto place = placeOf(path);
    if (!place) return place.error();
    auto done = operation(place.value());
    if (done || !held_.forgetRemoved(directoryOf(path))) return done;
  }
}

}  // namespace tessard
