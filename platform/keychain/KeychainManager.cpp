#include "platform/keychain/KeychainManager.h"

#include <algorithm>

#include "common/Format.h"
#include "common/Utf8.h"
#include "platform/keychain/Certificate.h"
#include "platform/keychain/CertificateFile.h"
#include "platform/keychain/PemFile.h"
#include "platform/keychain/PreferenceName.h"

namespace tessard {

namespace {

constexpr std::size_t kFewestDigits = 8;
constexpr std::size_t kAllDigits = 64;

// The digits of a digest in capitals; absent for anything else.
std::optional<std::string> digestDigits(std::string_view text) {
  std::string digits;
  for (const char character : text) {
    if (character == ':') continue;
    const char capital =
        character >= 'a' && character <= 'f' ? static_cast<char>(character - 'a' + 'A') : character;
    if ((capital < '0' || capital > '9') && (capital < 'A' || capital > 'F')) return std::nullopt;
    digits += capital;
  }
  if (digits.size() < kFewestDigits || digits.size() > kAllDigits) return std::nullopt;
  return digits;
}

// What is told to the service is one line, and part of an XML file in which jabberd replaces "${name}", and
// in which the templates' placeholders are filled in whenever service data is made again.
KeychainResult<void> checkTellable(const Secret& phrase) {
  if (phrase.size() == 0) {
    return KeychainError{KeychainProblem::invalidRequest, "The pass phrase is empty"};
  }
  if (!isXmlText(phrase.view()) || phrase.view().find_first_of("\r\n") != std::string_view::npos) {
    return KeychainError{KeychainProblem::invalidRequest,
                         "A pass phrase is one line of UTF-8 text without control characters"};
  }
  for (const std::string_view replaced : {"${", "@HOSTNAME@", "@ROUTERPASSWORD@"}) {
    if (phrase.view().find(replaced) == std::string_view::npos) continue;
    return KeychainError{
        KeychainProblem::invalidRequest,
        fill("The pass phrase holds \"%@\", which would be replaced: change it", {replaced})};
  }
  return {};
}

KeychainError noSuchCertificate(std::string_view meant) {
  return {KeychainProblem::notFound, fill("There is no certificate \"%@\" in the keychain", {meant})};
}

}  // namespace

struct KeychainManager::Entry {
  std::int64_t id = 0;
  Certificate certificate;
};

template <class Answer, class Work>
KeychainResult<Answer> KeychainManager::reading(Answer whenThereIsNone, Work work) {
  auto store = KeychainStore::openToRead(root_);
  if (!store) return store.error();
  if (!store.value()) return whenThereIsNone;
  return work(*store.value());
}

template <class Work>
KeychainResult<bool> KeychainManager::removing(Work work) {
  auto store = KeychainStore::openToChangeIfThere(root_);
  if (!store) return store.error();
  if (!store.value()) return false;
  KeychainResult<bool> removed = work(*store.value());
  if (!removed || !removed.value()) return removed;
  if (auto committed = store.value()->commit(); !committed) return committed.error();
  return removed;
}

KeychainResult<std::vector<KeychainManager::Entry>> KeychainManager::entries(KeychainStore& store) {
  auto stored = store.certificates();
  if (!stored) return stored.error();
  std::vector<Entry> entries;
  for (const auto& [id, der] : stored.value()) {
    auto certificate = Certificate::parse(der);
    if (!certificate) {
      return KeychainError{KeychainProblem::damaged, fill("Certificate %d in the keychain is damaged", {id})};
    }
    entries.push_back({id, *std::move(certificate)});
  }
  return entries;
}

KeychainResult<KeychainManager::Entry> KeychainManager::entry(KeychainStore& store, std::string_view meant) {
  if (meant.empty()) {
    return KeychainError{KeychainProblem::invalidRequest, "It is not said which certificate is meant"};
  }
  auto all = entries(store);
  if (!all) return all.error();
  std::vector<Entry*> found;
  if (const auto digits = digestDigits(meant)) {
    for (Entry& entry : all.value()) {
      if (entry.certificate.sha256().starts_with(*digits)) found.push_back(&entry);
    }
  }
  if (found.empty()) {
    for (Entry& entry : all.value()) {
      if (entry.certificate.subjectContains(meant)) found.push_back(&entry);
    }
  }
  if (found.empty()) return noSuchCertificate(meant);
  if (found.size() > 1) {
    return KeychainError{
        KeychainProblem::ambiguous,
        fill("\"%@\" can mean %u certificates; use the SHA-256 digest", {meant, found.size()})};
  }
  return std::move(*found.front());
}

KeychainResult<CertificateRecord> KeychainManager::recordOf(KeychainStore& store,
                                                            const Certificate& certificate) {
  const auto hasKey = store.hasKey(certificate.publicKeyDigest());
  if (!hasKey) return hasKey.error();
  const auto preferences = store.preferences();
  if (!preferences) return preferences.error();
  CertificateRecord record{.subject = certificate.subject(),
                           .issuer = certificate.issuer(),
                           .serial = certificate.serial(),
                           .sha256 = certificate.sha256(),
                           .notBefore = certificate.notBefore(),
                           .notAfter = certificate.notAfter(),
                           .expired = certificate.notAfter() < clock_.now().seconds,
                           .hasKey = hasKey.value(),
                           .topic = certificate.topic(),
                           .preferredFor = {}};
  for (const auto& [name, id] : preferences.value()) {
    const auto der = store.certificate(id);
    if (!der) return der.error();
    if (der.value() == certificate.der()) record.preferredFor.push_back(name);
  }
  return record;
}

KeychainResult<ImportReport> KeychainManager::importFile(std::string_view bytes, const Secret* passPhrase,
                                                         bool identityRequired) {
  if (passPhrase && passPhrase->view().find('\0') != std::string_view::npos) {
    return KeychainError{KeychainProblem::invalidRequest, "A pass phrase cannot hold a NUL"};
  }
  const auto file = readCertificateFile(bytes, passPhrase);
  if (!file) return file.error();
  auto store = KeychainStore::openToChange(root_);
  if (!store) return store.error();
  auto report = put(store.value(), file.value());
  if (!report) return report;
  if (identityRequired && !report.value().certificates.front().hasKey) {
    return KeychainError{KeychainProblem::noKey, "The file holds no private key for its certificate"};
  }
  if (auto committed = store.value().commit(); !committed) return committed.error();
  return report;
}

KeychainResult<ImportReport> KeychainManager::put(KeychainStore& store, const CertificateFile& file) {
  const auto stored = store.certificates();
  if (!stored) return stored.error();
  ImportReport report;
  for (const Certificate& certificate : file.certificates) {
    const bool known = std::ranges::any_of(stored.value(),
                                           [&](const auto& other) { return other.der == certificate.der(); });
    if (known) continue;
    if (auto added = store.addCertificate(certificate.der()); !added) return added.error();
    ++report.added;
  }
  const std::string keyName = file.certificates.front().publicKeyDigest();
  const auto hasKey = store.hasKey(keyName);
  if (!hasKey) return hasKey.error();
  if (file.privateKey && !hasKey.value()) {
    if (auto added = store.addKey(keyName, file.privateKey->view()); !added) return added.error();
    report.keyAdded = true;
  }
  for (const Certificate& certificate : file.certificates) {
    auto record = recordOf(store, certificate);
    if (!record) return record.error();
    report.certificates.push_back(std::move(record).value());
  }
  return report;
}

KeychainResult<std::vector<CertificateRecord>> KeychainManager::certificates() {
  using Records = std::vector<CertificateRecord>;
  return reading(Records(), [this](KeychainStore& store) -> KeychainResult<Records> {
    const auto all = entries(store);
    if (!all) return all.error();
    Records records;
    for (const Entry& entry : all.value()) {
      auto record = recordOf(store, entry.certificate);
      if (!record) return record.error();
      records.push_back(std::move(record).value());
    }
    return records;
  });
}

KeychainResult<CertificateRecord> KeychainManager::certificate(std::string_view meant) {
  auto store = KeychainStore::openToRead(root_);
  if (!store) return store.error();
  if (!store.value()) return noSuchCertificate(meant);
  const auto found = entry(*store.value(), meant);
  if (!found) return found.error();
  return recordOf(*store.value(), found.value().certificate);
}

KeychainResult<std::vector<std::string>> KeychainManager::passwordAccounts() {
  using Accounts = std::vector<std::string>;
  return reading(Accounts(), [](KeychainStore& store) -> KeychainResult<Accounts> {
    const auto passwords = store.passwords();
    if (!passwords) return passwords.error();
    Accounts accounts;
    for (const auto& password : passwords.value()) accounts.push_back(password.account);
    return accounts;
  });
}

KeychainResult<bool> KeychainManager::removePassword(std::string_view account) {
  return removing([&](KeychainStore& store) -> KeychainResult<bool> {
    const auto password = store.passwordOf(account);
    if (!password) return password.error();
    if (!password.value()) return false;
    if (auto removed = store.removePassword(password.value()->id); !removed) return removed.error();
    return true;
  });
}

KeychainResult<std::optional<Secret>> KeychainManager::passPhrase(std::string_view file) {
  // Opened by hand: a secret is not copied.
  auto store = KeychainStore::openToRead(root_);
  if (!store) return store.error();
  if (!store.value()) return std::optional<Secret>();
  return store.value()->passPhrase(file);
}

KeychainResult<void> KeychainManager::setPassPhrase(std::string_view file, std::string_view pem,
                                                    const Secret& phrase) {
  if (auto tellable = checkTellable(phrase); !tellable) return tellable;
  const auto kind = keyFileKind(pem);
  if (!kind) return kind.error();
  if (kind.value() == KeyFileKind::open) {
    return KeychainError{KeychainProblem::invalidRequest,
                         fill("The private key in %@ is not encrypted and needs no pass phrase", {file})};
  }
  if (auto fits = checkPassPhrase(pem, phrase); !fits) return fits;
  auto store = KeychainStore::openToChange(root_);
  if (!store) return store.error();
  if (auto set = store.value().setPassPhrase(file, phrase.view()); !set) return set;
  return store.value().commit();
}

KeychainResult<bool> KeychainManager::removePassPhrase(std::string_view file) {
  return removing([&](KeychainStore& store) { return store.removePassPhrase(file); });
}

KeychainResult<std::vector<std::string>> KeychainManager::passPhraseFiles() {
  return reading(std::vector<std::string>(), [](KeychainStore& store) { return store.passPhraseFiles(); });
}

KeychainResult<KeyFileKind> keyFileKind(std::string_view pem) {
  if (pem.size() > CertificateFile::kSizeLimit) {
    return KeychainError{KeychainProblem::tooLarge, "The file is larger than 1 MiB"};
  }
  const auto blocks = pemBlocks(pem);
  if (!blocks) return KeychainError{KeychainProblem::malformed, "The PEM file is malformed"};
  auto kind = KeyFileKind::noKey;
  for (const PemBlock& block : *blocks) {
    if (!block.isPrivateKey()) continue;
    if (kind != KeyFileKind::noKey) {
      return KeychainError{KeychainProblem::malformed, "The file holds more than one private key"};
    }
    kind = block.encrypted ? KeyFileKind::encrypted : KeyFileKind::open;
  }
  return kind;
}

KeychainResult<void> checkPassPhrase(std::string_view pem, const Secret& phrase) {
  const auto kind = keyFileKind(pem);
  if (!kind) return kind.error();
  if (kind.value() == KeyFileKind::noKey) {
    return KeychainError{KeychainProblem::noKey, "The file holds no private key"};
  }
  if (auto key = readPrivateKey(pem, &phrase); !key) return key.error();
  return {};
}

KeychainResult<CertificateRecord> KeychainManager::prefer(std::string_view name, std::string_view meant) {
  if (auto valid = checkPreferenceName(name); !valid) return valid.error();
  auto store = KeychainStore::openToChange(root_);
  if (!store) return store.error();
  const auto found = entry(store.value(), meant);
  if (!found) return found.error();
  const auto hasKey = store.value().hasKey(found.value().certificate.publicKeyDigest());
  if (!hasKey) return hasKey.error();
  if (!hasKey.value()) {
    return KeychainError{KeychainProblem::noKey, fill("The private key of \"%@\" is not in the keychain",
                                                      {found.value().certificate.subject()})};
  }
  if (auto set = store.value().setPreferred(name, found.value().id); !set) return set.error();
  auto record = recordOf(store.value(), found.value().certificate);
  if (!record) return record;
  if (auto committed = store.value().commit(); !committed) return committed.error();
  return record;
}

KeychainResult<bool> KeychainManager::clearPreferred(std::string_view name) {
  if (auto valid = checkPreferenceName(name); !valid) return valid.error();
  return removing([&](KeychainStore& store) { return store.clearPreferred(name); });
}

KeychainResult<CertificateRecord> KeychainManager::removeCertificate(std::string_view meant) {
  auto opened = KeychainStore::openToChangeIfThere(root_);
  if (!opened) return opened.error();
  if (!opened.value()) return noSuchCertificate(meant);
  KeychainStore& store = *opened.value();
  const auto found = entry(store, meant);
  if (!found) return found.error();
  auto record = recordOf(store, found.value().certificate);
  if (!record) return record;
  if (auto removed = store.removeCertificate(found.value().id); !removed) return removed.error();
  const auto others = entries(store);
  if (!others) return others.error();
  const std::string keyName = found.value().certificate.publicKeyDigest();
  const bool stillUsed = std::ranges::any_of(
      others.value(), [&](const Entry& other) { return other.certificate.publicKeyDigest() == keyName; });
  if (!stillUsed) {
    if (auto removed = store.removeKey(keyName); !removed) return removed.error();
  }
  if (auto committed = store.commit(); !committed) return committed.error();
  return record;
}

}  // namespace tessard
