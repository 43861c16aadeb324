#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/Format.h"
#include "common/Text.h"
#include "config/JabberPaths.h"
#include "host/check/CheckAreas.h"
#include "host/check/Rights.h"
#include "platform/certificates/CertificateExamination.h"
#include "platform/keychain/KeychainManager.h"

namespace tessard {

namespace {

constexpr FindingKind kNotSet = {"certificate-not-set", Severity::notice};
constexpr FindingKind kMissing = {"certificate-missing", Severity::error};
constexpr FindingKind kClosed = {"certificate-closed", Severity::error};
constexpr FindingKind kOpenToAll = {"key-open-to-others", Severity::error};
constexpr FindingKind kNoChain = {"chain-file-missing", Severity::error};
constexpr FindingKind kDomainWithout = {"domain-without-certificate", Severity::warning};
constexpr FindingKind kPushExpired = {"push-certificate-expired", Severity::error};
constexpr FindingKind kPushEnds = {"push-certificate-ends-soon", Severity::warning};

constexpr std::size_t kOwnKinds = 8;
// Then what the examination of a certificate finds. Whom clients trust is theirs to decide, so that a chain
// that this machine does not trust is worth a notice.
constexpr std::array<FindingKind, kOwnKinds + 31> kKinds = {{
    kNotSet,
    kMissing,
    kClosed,
    kOpenToAll,
    kNoChain,
    kDomainWithout,
    kPushExpired,
    kPushEnds,
    {"no-server-certificate", Severity::error},
    {"key-mismatch", Severity::error},
    {"broken-chain", Severity::error},
    {"name-missing", Severity::error},
    {"expired", Severity::error},
    {"not-yet-valid", Severity::error},
    {"issuer-expired", Severity::error},
    {"issuer-not-yet-valid", Severity::error},
    {"weak-key", Severity::error},
    {"unsuitable-key", Severity::error},
    {"weak-signature", Severity::error},
    {"not-for-servers", Severity::error},
    {"not-first", Severity::error},
    {"too-large", Severity::error},
    {"malformed", Severity::error},
    {"legacy-provider-missing", Severity::error},
    {"pass-phrase-needed", Severity::error},
    {"wrong-pass-phrase", Severity::error},
    {"several-keys", Severity::error},
    {"no-certificate", Severity::error},
    {"no-key", Severity::error},
    {"wrong-order", Severity::warning},
    {"stray-certificate", Severity::warning},
    {"common-name-only", Severity::warning},
    {"ends-soon", Severity::warning},
    {"issuer-ends-soon", Severity::warning},
    {"rare-key", Severity::warning},
    {"incomplete-chain", Severity::notice},
    {"self-signed", Severity::notice},
    {"untrusted-issuer", Severity::notice},
    {"untrusted-chain", Severity::notice},
}};

// Facts that a server need not mend.
constexpr std::array<std::string_view, 3> kPassedOver = {"not-for-clients", "old-ciphers",
                                                         "repeated-certificate"};

constexpr const char* kTrustDirectory = "/etc/ssl/certs";

// A certificate file in use, and for which domains.
struct ServedFile {
  std::string passPhrase;
  std::string chain;
  std::vector<std::string> domains;
};
using ServedFiles = std::map<std::string, ServedFile>;

ServedFiles servedFiles(const Instance& instance) {
  ServedFiles files;
  if (const InstanceComponent* c2s = instance.first("c2s")) {
    for (const XmlNode& id : c2s->elementsAt("local.id")) {
      const auto path = id.attribute("pemfile");
      if (!path || path->empty()) continue;
      ServedFile& file = files[*path];
      file.passPhrase = id.attribute("private-key-password").value_or("");
      file.chain = id.attribute("cachain").value_or("");
      file.domains.push_back(id.stringValue());
    }
  }
  for (const char* kind : {"c2s", "s2s"}) {
    const InstanceComponent* component = instance.first(kind);
    if (!component) continue;
    const std::string path = component->textAt("local.pemfile");
    if (path.empty() || files.contains(path)) continue;
    files[path] = {component->textAt("local.private_key_password"), component->textAt("local.cachain"),
                   instance.domains()};
  }
  return files;
}

const FindingKind& kindOf(const CertificateFinding& finding) {
  const auto found = std::ranges::find(kKinds, finding.id, &FindingKind::id);
  if (found == kKinds.end()) throw std::logic_error("a certificate has the unknown fault " + finding.id);
  return *found;
}

// What stands in the file; absent, and told, when the components cannot read it.
std::optional<std::string> contentOf(CheckedSystem& system, const std::string& path, bool holdsKey,
                                     Findings& findings) {
  const auto attributes = system.files.attributes(path);
  auto content = system.files.readFile(path, CertificateMaterial::kSizeLimit + 1);
  if (!attributes || !content) {
    const SystemError& error = attributes ? content.error() : attributes.error();
    findings.add(
        holdsKey ? kMissing : kNoChain, path,
        fill(holdsKey ? "The certificate file \"%@\" cannot be read, so that nothing is encrypted: %@."
                      : "The file \"%@\" of the authorities cannot be read: %@.",
             {path, error.description()}),
        holdsKey ? "Put it back, or import another: tessardctl tls-certificate import"
                 : "Put it back, or choose another: tessardctl settings set sslCAFile=FILE");
    return std::nullopt;
  }
  const std::string above = closedDirectoryAbove(system, path);
  if (!serviceMay(attributes.value(), S_IROTH) || !above.empty()) {
    findings.add(
        kClosed, path,
        fill("The service's account %u cannot read \"%@\"%@.",
             {kJabberUserID, path, above.empty() ? "" : fill(", as \"%@\" is closed to it", {above})}),
        above.empty() ? fill("chgrp %u %@ and chmod g+r %@", {kJabberGroupID, path, path})
                      : fill("Put a copy into \"%@\", where it can.", {kJabberConfigDirectory}));
  }
  if (holdsKey && (attributes.value().permissions & S_IROTH) != 0) {
    findings.add(kOpenToAll, path,
                 fill("Everybody on this machine may read the private key in \"%@\" (mode %o).",
                      {path, attributes.value().permissions}),
                 fill("chmod o= %@, and think of a new key.", {path}));
  }
  return std::move(content).value();
}

void examineFile(CheckedSystem& system, const std::string& path, const ServedFile& file, Findings& findings) {
  const auto content = contentOf(system, path, true, findings);
  const auto chain = file.chain.empty() ? std::nullopt : contentOf(system, file.chain, false, findings);
  if (!content) return;
  const Secret passPhrase(file.passPhrase);
  CertificateMaterial material{*content};
  if (!file.passPhrase.empty()) material.passPhrase = &passPhrase;
  ExaminationRules rules{file.domains, system.clock.now().seconds};
  if (system.isMachine) rules.trustDirectory = kTrustDirectory;
  rules.isServed = true;
  auto examination = examineCertificate(material, rules);
  // Of the authorities' file jabberd2 sends what is needed when the certificate stands alone; the key has to
  // fit the certificate that is in the same file.
  const auto isMismatch = [](const CertificateFinding& finding) { return finding.id == "key-mismatch"; };
  if (chain && examination.chain.size() == 1 && std::ranges::none_of(examination.findings, isMismatch)) {
    material.chain = *chain;
    examination = examineCertificate(material, rules);
  }
  for (const CertificateFinding& finding : examination.findings) {
    if (std::ranges::find(kPassedOver, finding.id) != kPassedOver.end()) continue;
    findings.add(kindOf(finding), finding.domain.empty() ? path : finding.domain,
                 fill("In \"%@\": %@", {path, finding.sentence}), finding.remedy);
  }
}

void examineDomains(const Instance& instance, const ServedFiles& files, Findings& findings) {
  const InstanceComponent* c2s = instance.first("c2s");
  if (!c2s) return;
  if (files.empty()) {
    findings.add(
        kNotSet, "sslKeyFile",
        "No certificate is set, so that nothing is encrypted and, unless authLevel is ANYMETHOD, nobody can "
        "log in with a password.",
        "tessardctl tls-certificate import");
    return;
  }
  for (const XmlNode& id : c2s->elementsAt("local.id")) {
    if (!id.attribute("pemfile").value_or("").empty()) continue;
    findings.add(
        kDomainWithout, id.stringValue(),
        fill("The domain \"%@\" has no certificate, and others have: connections to it are not encrypted.",
             {id.stringValue()}),
        "tessardctl tls-certificate import, or tessardctl settings set sslKeyFile=FILE, which set it for all "
        "domains");
  }
}

void examineKeychain(CheckedSystem& system, Findings& findings) {
  const auto records = KeychainManager(system.configuration.root, system.clock).certificates();
  if (!records) return;  // the files' area tells
  const std::int64_t now = system.clock.now().seconds;
  for (const CertificateRecord& record : records.value()) {
    const std::int64_t days = daysUntil(record.notAfter, now);
    if (record.preferredFor.empty() || days >= kDaysOfWarning) continue;
    const std::string uses = joinedWith(record.preferredFor, ", ");
    if (record.expired) {
      findings.add(kPushExpired, record.subject,
                   fill("The keychain's certificate \"%@\" for %@ has expired.", {record.subject, uses}),
                   "Import the new one: tessardctl certificate import FILE, and choose it.");
    } else {
      findings.add(
          kPushEnds, record.subject,
          fill("The keychain's certificate \"%@\" for %@ ends in %ld days.", {record.subject, uses, days}),
          "Import the new one in time: tessardctl certificate import FILE, and choose it.");
    }
  }
}

void examineCertificates(CheckedSystem& system, Findings& findings) {
  const Instance& instance = system.instance();
  const ServedFiles files = servedFiles(instance);
  if (instance.isSetUp()) examineDomains(instance, files, findings);
  for (const auto& [path, file] : files) examineFile(system, path, file, findings);
  examineKeychain(system, findings);
}

}  // namespace

const CheckArea kCertificatesArea = {"certificates", "certificates, their keys, names and ends", 15, kKinds,
                                     examineCertificates};

}  // namespace tessard
