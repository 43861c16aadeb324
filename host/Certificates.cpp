#include "host/Certificates.h"

#include <optional>
#include <vector>

#include "platform/keychain/KeychainManager.h"

namespace tessard {

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

Array listOf(const std::vector<CertificateRecord>& records) {
  Array list;
  for (const CertificateRecord& record : records) {
    Dictionary entry = {{"subject", record.subject},
                        {"issuer", record.issuer},
                        {"serial", record.serial},
                        {"sha256", record.sha256},
                        {"notBefore", Date{record.notBefore * kMicrosecondsPerSecond}},
                        {"notAfter", Date{record.notAfter * kMicrosecondsPerSecond}},
                        {"expired", record.expired},
                        {"hasKey", record.hasKey}};
    if (record.topic) entry.set("topic", *record.topic);
    entry.set("preferredFor", arrayOf(record.preferredFor));
    list.emplace_back(std::move(entry));
  }
  return list;
}

KeychainError invalid(const char* text) {
  return {KeychainProblem::invalidRequest, text};
}

unsigned statusFor(KeychainProblem problem) {
  switch (problem) {
    case KeychainProblem::invalidRequest:
    case KeychainProblem::notFound:
    case KeychainProblem::ambiguous:
    case KeychainProblem::duplicate:
    case KeychainProblem::tooLarge:
    case KeychainProblem::malformed:
    case KeychainProblem::oldCiphers:
    case KeychainProblem::passPhraseNeeded:
    case KeychainProblem::wrongPassPhrase:
    case KeychainProblem::noCertificate:
    case KeychainProblem::noKey:
    case KeychainProblem::keyMismatch:
    case KeychainProblem::brokenChain:
      return 400;
    case KeychainProblem::busy:
      return 503;
    default:
      return 500;
  }
}

// Texts of the keychain are parts of sentences.
std::string sentence(std::string text) {
  if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
  return text + ".";
}

}  // namespace

KeychainResult<Dictionary> Certificates::all() {
  const auto records = KeychainManager(root_, clock_).certificates();
  if (!records) return records.error();
  return Dictionary{{"certificates", listOf(records.value())}};
}

KeychainResult<Dictionary> Certificates::import(const Dictionary& request) {
  const Value* file = request.find("file");
  const Data* data = file ? file->asData() : nullptr;
  const std::string* text = file ? file->asString() : nullptr;
  if (!data && !text) return invalid("\"file\" must be bytes, or the text of a PEM file");
  const Value* given = request.find("passPhrase");
  if (given && !given->asString()) return invalid("\"passPhrase\" must be a string");
  std::optional<Secret> passPhrase;
  if (given) passPhrase.emplace(*given->asString());
  const auto report = KeychainManager(root_, clock_)
                          .importFile(data ? data->bytes : *text, passPhrase ? &*passPhrase : nullptr, false);
  if (!report) return report.error();
  return Dictionary{{"certificates", listOf(report.value().certificates)},
                    {"added", static_cast<std::int64_t>(report.value().added)},
                    {"keyAdded", report.value().keyAdded}};
}

HttpAnswer Certificates::failure(const KeychainError& error) {
  return errorAnswer(statusFor(error.problem), error.id(), sentence(error.text));
}

}  // namespace tessard
