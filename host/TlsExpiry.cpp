#include "host/TlsExpiry.h"

#include <cerrno>
#include <utility>

#include "common/SameFile.h"
#include "common/XmlDocument.h"
#include "config/ComponentConfiguration.h"
#include "config/JabberPaths.h"
#include "config/LiveElements.h"
#include "host/WipedMemory.h"
#include "platform/certificates/CertificateExamination.h"
#include "platform/keychain/PemFile.h"

namespace tessard {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

const char* stateOf(std::int64_t notBefore, std::int64_t notAfter, std::int64_t now) {
  if (notAfter <= now) return "expired";
  if (notBefore > now) return "not-yet-valid";
  return daysUntil(notAfter, now) < kDaysOfWarning ? "ends-soon" : "valid";
}

}  // namespace

std::optional<Dictionary> TlsExpiry::current() {
  const std::scoped_lock locked(mutex_);
  const auto path = keyFile();
  if (!path || path->empty()) return std::nullopt;
  const Known* known = certificateIn(*path);
  if (!known) return Dictionary{{"file", *path}, {"state", "unreadable"}};
  const std::int64_t now = clock_.now().seconds;
  return Dictionary{{"file", *path},
                    {"state", stateOf(known->notBefore, known->notAfter, now)},
                    {"subject", known->subject},
                    {"sha256", known->sha256},
                    {"notAfter", Date{known->notAfter * kMicrosecondsPerSecond}},
                    {"daysLeft", daysUntil(known->notAfter, now)}};
}

// As c2s reads it.
std::optional<std::string> TlsExpiry::keyFile() {
  const std::string path = std::string(kJabberConfigDirectory) + "/c2s.xml";
  const auto attributes = files_.attributes(path);
  if (!attributes) return std::nullopt;
  if (configuration_ && isSameFile(configuration_->attributes, attributes.value())) {
    return configuration_->keyFile;
  }
  configuration_.reset();
  auto text = files_.readFile(path, NOTIFICATION_PLUGIN_ComponentConfiguration::kMaximumFileSize);
  if (!text) return std::nullopt;
  const auto document = XmlDocument::parse(std::move(text).value());
  if (!document) return std::nullopt;
  configuration_ = {attributes.value(), liveTextAt(document.value().root(), "local.pemfile")};
  return configuration_->keyFile;
}

const TlsExpiry::Known* TlsExpiry::certificateIn(const std::string& path) {
  const auto attributes = files_.attributes(path);
  if (!attributes) return nullptr;
  if (!known_ || !isSameFile(known_->attributes, attributes.value())) {
    auto known = read(path, attributes.value());
    known_.reset();
    if (known) known_ = std::move(known).value();
  }
  return known_ ? &*known_ : nullptr;
}

Result<TlsExpiry::Known> TlsExpiry::read(const std::string& path, const FileAttributes& attributes) {
  const WipedMemory wiped;  // the file holds a private key
  const auto pem = files_.readFile(path, CertificateMaterial::kSizeLimit);
  if (!pem) return pem.error();
  const auto blocks = pemBlocks(pem.value());
  if (!blocks) return SystemError(EINVAL);
  for (const PemBlock& block : *blocks) {
    if (!block.isCertificate()) continue;
    const auto certificate = Certificate::parse(block.bytes.view());
    if (!certificate) break;
    return Known{attributes, certificate->subject(), certificate->sha256(), certificate->notBefore(),
                 certificate->notAfter()};
  }
  return SystemError(EINVAL);
}

}  // namespace tessard
