#pragma once

#include <optional>
#include <string>

#include "common/Platform.h"
#include "common/Value.h"
#include "host/BundleLoader.h"
#include "host/RequestExecutor.h"
#include "host/TlsCertificateChange.h"
#include "host/TlsService.h"

namespace tessard {

/// The certificate that the service shows its clients, for requests. (`Certificates` has those of the
/// keychain, which are for pushing.) Used on the thread of the work slot. Nothing of a key is kept or logged.
class TlsCertificate {
 public:
  struct Answer {
    unsigned status = 200;  ///< of HTTP; others than 200 come with "error" and "message"
    Dictionary content{};
    Array log{};  ///< warning and error lines of the plug-in
  };

  /// All is borrowed. `root` is the system root.
  TlsCertificate(std::string root, Platform& platform, const Plugins& plugins, RequestExecutor& executor)
      : root_(std::move(root)), platform_(platform), plugins_(plugins), executor_(executor) {}

  /// What is on disk and what is shown:
  ///   "file"         the setting "sslKeyFile"; empty for none
  ///   "certificate"  of that file, where it can be read, as `factsOf` has it, and "daysLeft"
  ///   "findings"     what is wrong with it, see `examineCertificate`
  ///   "running", "served"
  Answer current();

  /// Examines what the request brings and makes it the certificate of the service. "certificate", "chain" and
  /// "key" are bytes, or texts in PEM; "passPhrase" a text; with "check" nothing is changed, and with "force"
  /// those errors stand in nobody's way that need not (see `mayBeForced`). Answers "certificate",
  /// "findings", and unless it is a check "file", "changed", "running", "restarted", "served", "unseen".
  ///
  /// Errors: "invalid-request", the id of the first finding that is in the way ("findings" tells all, and
  /// "mayBeForced" whether it helps), "not-set-up", "cannot-write", "not-set", "not-restarted", "not-served".
  /// All is as it was then.
  Answer import(const Dictionary& request);

 private:
  ExaminationRules rulesFor(const TlsService& service) const;
  Dictionary described(const CertificateFacts& facts) const;
  Answer make(const TlsService& service, const CertificateExamination& examination, Dictionary content);

  std::string root_;
  Platform& platform_;
  const Plugins& plugins_;
  RequestExecutor& executor_;
};

/// Errors that an administrator may have reasons to accept: a domain that is not named, and what is wrong
/// with the time of an issuer, as clients may know another way.
bool mayBeForced(const CertificateFinding& finding);

}  // namespace tessard
