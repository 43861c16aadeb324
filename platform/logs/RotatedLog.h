#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/logs/LogFile.h"

namespace tessard {

/// The older files of a log, from the newest to the oldest: PATH.0, PATH.1 and so on, each also as PATH.N.gz.
/// Files that a rotation under way shows a second time are passed over.
class RotatedLog {
 public:
  /// `root` is the system root; `newest`, where there is one, is the log's own file. All is borrowed.
  RotatedLog(int root, std::string path, const LogFile* newest, LogMeter& meter);

  /// The next older file, valid as long as this object; null when there is none, or it cannot be read.
  const LogFile* next();

  /// Whether the last one that `next` came to could not be read.
  bool failed() const { return failed_; }

  /// What `next` gave so far, in its order.
  const std::vector<std::unique_ptr<LogFile>>& files() const { return files_; }

 private:
  Result<LogFile> open(int number);
  bool isKnown(const LogFile& file) const;

  int root_;
  std::string path_;
  const LogFile* newest_;
  LogMeter& meter_;
  std::vector<std::unique_ptr<LogFile>> files_;
  int number_ = 0;
  bool failed_ = false;
};

}  // namespace tessard
