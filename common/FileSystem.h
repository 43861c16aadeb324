#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"

namespace tessard {

/// A moment of the real-time clock, as file times have it.
struct FileTime {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  auto operator<=>(const FileTime&) const = default;  // NOLINT(modernize-use-nullptr): a literal 0 of its own
};

struct FileAttributes {
  enum class Kind { regular, directory, link, other };

  Kind kind = Kind::other;
  uid_t owner = 0;
  gid_t group = 0;
  mode_t permissions = 0;  ///< the twelve permission bits
  std::uint64_t size = 0;
  FileTime modified;
  FileTime changed;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
};

/// What a file or directory is given; an absent part is left as it is.
struct FileOwnership {
  std::optional<uid_t> owner;
  std::optional<gid_t> group;
  std::optional<mode_t> permissions;
};

/// When what is written reaches the disk.
enum class Flush {
  now,    ///< before success is reported
  later,  ///< with the next `flush` that names the file; until then a loss of power may take the content away
};

/// A file that is to be made, and flushed later.
struct NewFile {
  std::string path;
  std::string content;
  FileOwnership ownership;
};

/// What there is to tell a file by.
struct FileFingerprint {
  FileAttributes attributes;
  std::uint64_t digest = 0;  ///< of the content, see common/Digest.h
};

/// What became of copies.
struct FileCopies {
  std::string content;                       ///< of the file that was copied
  std::vector<Result<FileAttributes>> made;  ///< one for each name, in their order
};

/// The files below one system root. Paths are absolute and never carry the root's own path; links are
/// followed within the root and cannot lead out of it. No operation follows a link in the last place of a
/// path that it writes, renames or removes. Interrupted calls and short writes are carried on. A path with a
/// NUL byte, or one that is not absolute, fails with EINVAL.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  /// Whether anything can be reached at the path (a dangling link is nothing).
  virtual bool exists(std::string_view path) = 0;

  /// Attributes of what the path leads to, links followed.
  virtual Result<FileAttributes> attributes(std::string_view path) = 0;

  /// The whole content. EFBIG when it is longer than `limit` bytes, EINVAL when it is not a regular file.
  virtual Result<std::string> readFile(std::string_view path, std::size_t limit) = 0;

  /// What many files are, one result for each, in their order; fails as `readFile` does.
  virtual std::vector<Result<FileFingerprint>> fingerprints(const std::vector<std::string>& paths,
                                                            std::size_t limit) = 0;

  /// Makes a new file with the content in place of any older file of that name. Owner, group and permissions
  /// are set before the content is complete; until then, and where no permissions are given, nobody but the
  /// owner may read it. A failure to set them is no failure of the call. When the call fails, no file is left
  /// under the name.
  virtual Result<void> createFile(std::string_view path, std::string_view content,
                                  const FileOwnership& ownership, Flush flush) = 0;

  /// The same for many files, flushed later: what was made, one result for each, in their order. A failure
  /// keeps none of the others from being made.
  virtual std::vector<Result<FileAttributes>> createFiles(const std::vector<NewFile>& files) = 0;

  /// Copies a regular file with its owner, group and permissions to names that are free (EEXIST otherwise). A
  /// name appears with the whole content or not at all; it is flushed later. EFBIG when the file is longer
  /// than `limit` bytes.
  virtual FileCopies copyFiles(std::string_view from, const std::vector<std::string>& to,
                               std::size_t limit) = 0;

  /// The same for one copy of a file of any length.
  Result<void> copyFile(std::string_view from, std::string_view to);

  /// Flushes the content of these regular files, and with them their owners and permissions: one file alone,
  /// or for several everything of the file systems that they are in, in one go each. A failure does not tell
  /// which of the files is concerned. Their names are flushed with their directories.
  virtual Result<void> flush(const std::vector<std::string>& paths) = 0;

  /// Gives a file a new name in the same file system, replacing any file of that name in one step.
  virtual Result<void> rename(std::string_view from, std::string_view to) = 0;

  /// Exchanges the names of two existing files in one step.
  virtual Result<void> exchange(std::string_view first, std::string_view second) = 0;

  /// Removes a file or link. ENOENT when there is none.
  virtual Result<void> remove(std::string_view path) = 0;

  /// Makes a directory with exactly these attributes (the process's umask does not count). EEXIST when the
  /// name is taken. Where no permissions are given, 0755. `withParents`: missing parents are made first, mode
  /// 0755, owned by the caller. When setting the attributes fails, the directory is removed again and the
  /// call fails.
  virtual Result<void> createDirectory(std::string_view path, const FileOwnership& ownership,
                                       bool withParents) = 0;

  /// Gives a file or directory a new owner, group or permissions. ELOOP for a link.
  virtual Result<void> setOwnership(std::string_view path, const FileOwnership& ownership) = 0;

  /// Names in the directory, without "." and "..", sorted.
  virtual Result<std::vector<std::string>> listDirectory(std::string_view path) = 0;

  /// Flushes a directory, so that the names in it are on disk.
  virtual Result<void> syncDirectory(std::string_view path) = 0;
};

/// Whether reading a file failed for what happens to be, such as too many open files, and not for what the
/// file itself is or holds: what was read as nothing must then not be written back.
bool mayPass(const SystemError& error);

/// As `FileSystem::exists`, or the reason why that cannot be told for the moment: for whoever makes what is
/// not there.
Result<bool> isThere(FileSystem& files, std::string_view path);

/// "/a/b" of "/a/b/c"; "/" of "/a"; "" of a path without a slash.
std::string directoryOf(std::string_view path);

/// "c" of "/a/b/c".
std::string lastPathComponent(std::string_view path);

}  // namespace tessard
