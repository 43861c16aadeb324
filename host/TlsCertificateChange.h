#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Platform.h"
#include "host/RequestExecutor.h"
#include "host/TlsService.h"

namespace tessard {

/// Where the certificate of the service is put: all that it needs, readable by root and the service alone.
inline constexpr const char* kTlsCertificateFile = "/private/etc/jabberd_notification/tls-certificate.pem";

/// What became of a change.
struct TlsCertificateOutcome {
  struct Failure {
    std::string id;
    std::string sentence;
  };

  std::optional<Failure> failure{};  ///< all is as it was then, unless the sentence says otherwise
  bool changed = false;              ///< the file or the settings are others than before
  bool running = false;              ///< the service runs
  bool restarted = false;
  std::vector<ServedAt> served{};  ///< where the certificate was seen
  std::size_t unseen = 0;          ///< entrances and domains that there was no time to ask for
  Array log{};                     ///< warning and error lines of the plug-in
};

/// One change of the certificate that a service shows. The file is replaced in one step, and its former
/// version becomes "%@.bak"; then the settings name it, the service is restarted if it runs, and has to show
/// the certificate wherever it listens. When any of that fails, file and settings are put back, so that
/// there is no settings write to undo any more, and the service is started with them. On the thread of the
/// work slot.
class TlsCertificateChange {
 public:
  /// All is borrowed.
  TlsCertificateChange(Platform& platform, RequestExecutor& executor, const TlsService& service)
      : platform_(platform), executor_(executor), service_(service) {}

  /// `pem` is what stands in the file; `sha256`, in capital hexadecimal digits, names the certificate that
  /// is to be seen. Called once.
  TlsCertificateOutcome make(std::string_view pem, const std::string& sha256);

 private:
  enum class FileChange { none, made, replaced };

  Result<void> putFile(std::string_view pem);
  Result<void> takeFileBack();
  std::optional<std::string> set(const std::string& keyFile);
  bool restart();
  std::optional<std::string> unseenCertificate(const std::string& sha256);
  std::vector<TlsEntrance> openEntrances() const;
  void goBack(const char* id, const std::string& reason);
  void keepLog(const ExecutionOutcome& outcome);

  Platform& platform_;
  RequestExecutor& executor_;
  TlsService service_;
  FileChange file_ = FileChange::none;
  bool set_ = false;
  TlsCertificateOutcome outcome_;
};

}  // namespace tessard
