#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "common/FileSystem.h"
#include "common/Value.h"
#include "platform/PosixFileSystem.h"
#include "platform/SystemClock.h"

namespace tessard {

/// Until when the certificate of the service is good, for those who ask how all is. It is looked up in the
/// files, which are read again only when they have changed. Any thread may call.
class TlsExpiry {
 public:
  /// `root` is the system root.
  explicit TlsExpiry(const std::string& root) : files_(root) {}

  /// {"file", "state", "subject", "sha256", "notAfter", "daysLeft"}. The state is "valid", "ends-soon" for
  /// `kDaysOfWarning`, "expired", "not-yet-valid", or "unreadable" for a file that cannot be read or begins
  /// with no certificate, and then only the file is told. Absent when the service has no certificate.
  std::optional<Dictionary> current();

 private:
  struct Read {
    FileAttributes attributes;
    std::optional<std::string> keyFile;
  };
  struct Known {
    FileAttributes attributes;
    std::string subject;
    std::string sha256;
    std::int64_t notBefore = 0;
    std::int64_t notAfter = 0;
  };

  std::optional<std::string> keyFile();
  const Known* certificateIn(const std::string& path);
  Result<Known> read(const std::string& path, const FileAttributes& attributes);

  std::mutex mutex_;
  PosixFileSystem files_;
  SystemClock clock_;
  std::optional<Read> configuration_;
  std::optional<Known> known_;
};

}  // namespace tessard
