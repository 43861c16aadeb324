#include "host/TlsCertificate.h"

#include <algorithm>
#include <utility>

#include "common/Format.h"
#include "platform/certificates/CertificateExamination.h"
#include "platform/certificates/CombinedPem.h"
#include "platform/keychain/KeychainManager.h"

namespace tessard {

namespace {

using Answer = TlsCertificate::Answer;

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::chrono::seconds kPatience{5};  // of who only wants to know
constexpr const char* kTrustDirectory = "/etc/ssl/certs";

Answer failure(unsigned status, std::string_view id, std::string_view message) {
  return {status, {{"error", id}, {"message", message}}, {}};
}

Array listOf(const std::vector<CertificateFinding>& findings) {
  Array list;
  for (const CertificateFinding& finding : findings) {
    Dictionary entry = {{"id", finding.id},
                        {"severity", wordFor(finding.severity)},
                        {"sentence", finding.sentence},
                        {"remedy", finding.remedy}};
    if (!finding.domain.empty()) entry.set("domain", finding.domain);
    list.emplace_back(std::move(entry));
  }
  return list;
}

Array listOf(const std::vector<ServedAt>& served) {
  Array list;
  for (const ServedAt& seen : served) {
    Dictionary entry = {{"entrance", wordFor(seen.entrance.kind)},
                        {"port", static_cast<std::int64_t>(seen.entrance.port)},
                        {"domain", seen.domain}};
    if (seen.certificate) {
      entry.set("sha256", seen.certificate->sha256);
      entry.set("subject", seen.certificate->subject);
      entry.set("notAfter", Date{seen.certificate->notAfter * kMicrosecondsPerSecond});
    } else {
      entry.set("problem", seen.problem);
    }
    list.emplace_back(std::move(entry));
  }
  return list;
}

// The bytes of one part of a request. False when it is of another kind.
bool readPart(const Dictionary& request, const char* key, std::string_view& part) {
  const Value* value = request.find(key);
  if (!value) return true;
  if (const Data* data = value->asData()) part = data->bytes;
  if (const std::string* text = value->asString()) part = *text;
  return value->asData() || value->asString();
}

const CertificateFinding* firstInTheWay(const CertificateExamination& examination, bool force) {
  const auto found = std::ranges::find_if(examination.findings, [&](const CertificateFinding& finding) {
    return finding.isError() && !(force && mayBeForced(finding));
  });
  return found == examination.findings.end() ? nullptr : &*found;
}

bool isTrue(const Dictionary& request, const char* key) {
  const Value* value = request.find(key);
  return value && value->boolValue();
}

}  // namespace

bool mayBeForced(const CertificateFinding& finding) {
  return finding.id == "name-missing" || finding.id == "issuer-expired" ||
         finding.id == "issuer-not-yet-valid";
}

ExaminationRules TlsCertificate::rulesFor(const TlsService& service) const {
  return {service.domains, platform_.clock.now().seconds,
          (root_ == "/" ? "" : root_) + std::string(kTrustDirectory), false};
}

Dictionary TlsCertificate::described(const CertificateFacts& facts) const {
  return {{"subject", facts.subject},
          {"names", arrayOf(facts.names)},
          {"issuer", facts.issuer},
          {"serial", facts.serial},
          {"sha256", facts.sha256},
          {"notBefore", Date{facts.notBefore * kMicrosecondsPerSecond}},
          {"notAfter", Date{facts.notAfter * kMicrosecondsPerSecond}},
          {"daysLeft", daysUntil(facts.notAfter, platform_.clock.now().seconds)},
          {"key", facts.key},
          {"signature", facts.signature}};
}

Answer TlsCertificate::current() {
  const auto service = tlsServiceOf(plugins_, executor_);
  if (!service) {
    return failure(409, "not-set-up", "There is no service yet that could show a certificate.");
  }
  Dictionary content = {{"file", service->keyFile}};
  if (!service->keyFile.empty()) {
    const auto pem = platform_.files.readFile(service->keyFile, CertificateMaterial::kSizeLimit);
    if (!pem) {
      return failure(500, "unreadable-file",
                     fill("%@ cannot be read: %@.", {service->keyFile, pem.error().description()}));
    }
    const auto phrase = KeychainManager(root_, platform_.clock).passPhrase(service->keyFile);
    const Secret* const known = phrase && phrase.value() ? &*phrase.value() : nullptr;
    ExaminationRules rules = rulesFor(*service);
    rules.isServed = true;
    const auto examination = examineCertificate({pem.value(), {}, {}, known}, rules);
    if (!examination.chain.empty()) {
      content.set("certificate", described(factsOf(examination.chain.front())));
    }
    content.set("findings", listOf(examination.findings));
  }
  const bool running = isRunning(*service, executor_);
  content.set("running", running);
  content.set("served", running ? listOf(lookAt(*service, kPatience)) : Array());
  return {200, std::move(content), {}};
}

Answer TlsCertificate::import(const Dictionary& request) {
  CertificateMaterial material;
  if (!readPart(request, "certificate", material.certificate) ||
      !readPart(request, "chain", material.chain) || !readPart(request, "key", material.key)) {
    return failure(400, "invalid-request",
                   "\"certificate\", \"chain\" and \"key\" must be bytes, or texts in PEM.");
  }
  const Value* given = request.find("passPhrase");
  if (given && !given->asString()) {
    return failure(400, "invalid-request", "\"passPhrase\" must be a string.");
  }
  std::optional<Secret> passPhrase;
  if (given) material.passPhrase = &passPhrase.emplace(*given->asString());
  const auto service = tlsServiceOf(plugins_, executor_);
  if (!service) {
    return failure(409, "not-set-up", "There is no service yet that could show a certificate.");
  }
  const auto examination = examineCertificate(material, rulesFor(*service));
  Dictionary content;
  if (!examination.chain.empty()) {
    content.set("certificate", described(factsOf(examination.chain.front())));
  }
  content.set("findings", listOf(examination.findings));
  if (const auto* finding = firstInTheWay(examination, isTrue(request, "force"))) {
    content.set("error", finding->id);
    content.set("message", finding->sentence);
    content.set("mayBeForced", firstInTheWay(examination, true) == nullptr);
    return {400, std::move(content), {}};
  }
  if (isTrue(request, "check")) return {200, std::move(content), {}};
  return make(*service, examination, std::move(content));
}

Answer TlsCertificate::make(const TlsService& service, const CertificateExamination& examination,
                            Dictionary content) {
  const auto pem = combinedPem(examination);
  if (!pem) return failure(500, "internal", "The file cannot be built.");
  TlsCertificateChange change(platform_, executor_, service);
  auto outcome = change.make(pem->view(), factsOf(examination.chain.front()).sha256);
  if (outcome.failure) {
    content.set("error", outcome.failure->id);
    content.set("message", outcome.failure->sentence);
  }
  content.set("file", kTlsCertificateFile);
  content.set("changed", outcome.changed);
  content.set("running", outcome.running);
  content.set("restarted", outcome.restarted);
  content.set("served", listOf(outcome.served));
  content.set("unseen", static_cast<std::int64_t>(outcome.unseen));
  return {outcome.failure ? 500U : 200U, std::move(content), std::move(outcome.log)};
}

}  // namespace tessard
