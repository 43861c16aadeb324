#include "platform/keychain/SqliteKeychain.h"

#include <unistd.h>

#include <utility>

#include "common/Utf8.h"
#include "platform/keychain/AccessList.h"
#include "platform/keychain/Certificate.h"
#include "platform/keychain/PreferenceName.h"

namespace tessard {

namespace {

// More than any password; what SQLite takes is more.
constexpr std::size_t kLongestContent = std::size_t{1024} * 1024;

bool isName(std::string_view text) {
  return isUtf8(text) && text.find('\0') == std::string_view::npos;
}

KeychainError notFound() {
  return {KeychainProblem::notFound, keychainStatusText(errSecItemNotFound)};
}

KeychainError invalidRequest() {
  return {KeychainProblem::invalidRequest, keychainStatusText(errSecParam)};
}

bool isOfTheStore(KeychainProblem problem) {
  return problem >= KeychainProblem::notPermitted;
}

}  // namespace

SqliteKeychain::SqliteKeychain(std::string systemRoot, OwnerMap owners,
                               std::function<void(const std::string&)> tellProblem)
    : root_(std::move(systemRoot)), owners_(std::move(owners)), tellProblem_(std::move(tellProblem)) {}

void SqliteKeychain::SecKeychainSetPreferenceDomain(SecPreferencesDomain domain) {
  domain_ = domain;
}

KeychainAnswer<GenericPassword> SqliteKeychain::SecKeychainFindGenericPassword(std::string_view account) {
  return answerOf(find(account));
}

OSStatus SqliteKeychain::SecKeychainItemModifyContent(const KeychainItem& item, std::string_view data) {
  const auto modified = modify(item, data);
  return modified ? errSecSuccess : statusOf(modified.error());
}

KeychainAnswer<KeychainItem> SqliteKeychain::SecKeychainItemCreateFromContent(
    const GenericPasswordAttributes& attributes, std::string_view data, const SecAccess& access) {
  return answerOf(create(attributes, data, access));
}

KeychainAnswer<KeychainCertificate> SqliteKeychain::SecItemCopyMatching(std::string_view subjectContains) {
  return answerOf(match(subjectContains));
}

KeychainAnswer<KeychainIdentity> SqliteKeychain::SecIdentityCreateWithCertificate(
    const KeychainCertificate& certificate) {
  return answerOf(identityOf(certificate.id));
}

OSStatus SqliteKeychain::SecIdentitySetPreferred(const std::optional<KeychainIdentity>& identity,
                                                 std::string_view name) {
  const auto set = identity ? setPreferred(*identity, name) : clearPreferred(name);
  return set ? errSecSuccess : statusOf(set.error());
}

std::optional<KeychainIdentity> SqliteKeychain::SecIdentityCopyPreferred(std::string_view name) {
  return answerOf(preferred(name)).value;
}

KeychainAnswer<KeychainCertificate> SqliteKeychain::SecIdentityCopyCertificate(
    const KeychainIdentity& identity) {
  const auto bytes = certificateBytes(identity.certificate);
  if (!bytes) return {statusOf(bytes.error())};
  return {errSecSuccess, KeychainCertificate{identity.certificate}};
}

Result<Dictionary> SqliteKeychain::SecCertificateCopyValues(const KeychainCertificate& certificate) {
  const auto bytes = certificateBytes(certificate.id);
  if (!bytes) return SystemError(0, keychainStatusText(statusOf(bytes.error())));
  const auto parsed = Certificate::parse(bytes.value());
  if (!parsed) return SystemError(0, keychainStatusText(errSecDecode));
  Array attributes;
  for (Certificate::Attribute& attribute : parsed->subjectAttributes()) {
    Dictionary entry{{kSecPropertyKeyLabel, attribute.oid}};
    if (attribute.value) entry.set(kSecPropertyKeyValue, *std::move(attribute.value));
    attributes.emplace_back(std::move(entry));
  }
  const Dictionary subject{{kSecPropertyKeyLabel, "Subject Name"},
                           {kSecPropertyKeyValue, std::move(attributes)}};
  return Dictionary{{kSecOIDX509V1SubjectName, subject}};
}

KeychainResult<GenericPassword> SqliteKeychain::find(std::string_view account) const {
  if (account.empty()) return invalidRequest();
  auto store = openToRead();
  if (!store) return store.error();
  const auto password = store.value().passwordOf(account);
  if (!password) return password.error();
  if (!password.value()) return notFound();
  if (auto allowed = checkAccess(*password.value()); !allowed) return allowed.error();
  const auto content = store.value().contentOf(*password.value());
  if (!content) return content.error();
  return GenericPassword{{password.value()->id}, std::string(content.value().view())};
}

KeychainResult<void> SqliteKeychain::modify(const KeychainItem& item, std::string_view data) const {
  if (data.size() > kLongestContent) return invalidRequest();
  auto opened = KeychainStore::openToChangeIfThere(root_);
  if (!opened) return opened.error();
  if (!opened.value()) return notFound();
  KeychainStore& store = *opened.value();
  const auto password = store.password(item.id);
  if (!password) return password.error();
  if (!password.value()) return notFound();
  if (auto allowed = checkAccess(*password.value()); !allowed) return allowed;
  // What was changed by another hand is not made good by new content.
  if (const auto content = store.contentOf(*password.value()); !content) return content.error();
  if (auto set = store.setContent(*password.value(), data); !set) return set;
  return store.commit();
}

KeychainResult<KeychainItem> SqliteKeychain::create(const GenericPasswordAttributes& attributes,
                                                    std::string_view data, const SecAccess& access) const {
  const std::string& account = attributes.kSecAccountItemAttr;
  const std::string& label = attributes.kSecLabelItemAttr;
  if (account.empty() || !isName(account) || !isName(label) ||
      account.size() + label.size() > kLongestContent || data.size() > kLongestContent ||
      !isMeaningful(access)) {
    return invalidRequest();
  }
  if (domain_ != SecPreferencesDomain::system) {
    return KeychainError{KeychainProblem::noDefault, keychainStatusText(errSecNoDefaultKeychain)};
  }
  auto store = KeychainStore::openToChange(root_);
  if (!store) return store.error();
  const auto known = store.value().passwordOf(account);
  if (!known) return known.error();
  if (known.value()) {
    return KeychainError{KeychainProblem::duplicate, keychainStatusText(errSecDuplicateItem)};
  }
  const auto added = store.value().addPassword({0, account, label, accessText(access)}, data);
  if (!added) return added.error();
  if (auto committed = store.value().commit(); !committed) return committed.error();
  return KeychainItem{added.value()};
}

KeychainResult<KeychainCertificate> SqliteKeychain::match(std::string_view subjectContains) const {
  if (subjectContains.empty()) return invalidRequest();
  auto store = openToRead();
  if (!store) return store.error();
  const auto certificates = store.value().certificates();
  if (!certificates) return certificates.error();
  for (const auto& [id, der] : certificates.value()) {
    const auto certificate = Certificate::parse(der);
    if (certificate && certificate->subjectContains(subjectContains)) return KeychainCertificate{id};
  }
  return notFound();
}

KeychainResult<KeychainIdentity> SqliteKeychain::identityOf(std::int64_t certificate) const {
  auto store = openToRead();
  if (!store) return store.error();
  const auto der = store.value().certificate(certificate);
  if (!der) return der.error();
  if (!der.value()) return notFound();
  const auto parsed = Certificate::parse(*der.value());
  if (!parsed) return KeychainError{KeychainProblem::damaged, "A certificate in the keychain is damaged"};
  // The key itself is opened, so that a damaged one makes no identity.
  const auto key = store.value().key(parsed->publicKeyDigest());
  if (!key) return key.error();
  if (!key.value()) return notFound();
  return KeychainIdentity{certificate};
}

KeychainResult<void> SqliteKeychain::setPreferred(const KeychainIdentity& identity,
                                                  std::string_view name) const {
  if (auto valid = checkPreferenceName(name); !valid) return valid;
  if (domain_ != SecPreferencesDomain::system) {
    return KeychainError{KeychainProblem::noDefault, keychainStatusText(errSecNoDefaultKeychain)};
  }
  if (const auto usable = identityOf(identity.certificate); !usable) return usable.error();
  auto store = KeychainStore::openToChange(root_);
  if (!store) return store.error();
  const auto there = store.value().certificate(identity.certificate);
  if (!there) return there.error();
  if (!there.value()) return notFound();
  if (auto set = store.value().setPreferred(name, identity.certificate); !set) return set;
  return store.value().commit();
}

KeychainResult<void> SqliteKeychain::clearPreferred(std::string_view name) const {
  if (auto valid = checkPreferenceName(name); !valid) return valid;
  auto store = KeychainStore::openToChangeIfThere(root_);
  if (!store) return store.error();
  if (!store.value()) return {};
  if (auto cleared = store.value()->clearPreferred(name); !cleared) return cleared.error();
  return store.value()->commit();
}

KeychainResult<KeychainIdentity> SqliteKeychain::preferred(std::string_view name) const {
  auto chosen = [&]() -> KeychainResult<std::optional<std::int64_t>> {
    auto store = openToRead();
    if (!store) return store.error();
    return store.value().preferred(name);
  }();
  if (!chosen) return chosen.error();
  if (!chosen.value()) return notFound();
  return identityOf(*chosen.value());
}

KeychainResult<std::string> SqliteKeychain::certificateBytes(std::int64_t id) const {
  auto store = openToRead();
  if (!store) return store.error();
  auto der = store.value().certificate(id);
  if (!der) return der.error();
  if (!der.value()) return notFound();
  return *std::move(der).value();
}

KeychainResult<void> SqliteKeychain::checkAccess(const KeychainStore::Password& password) const {
  const auto access = parseAccess(password.access);
  if (!access) return KeychainError{KeychainProblem::damaged, "An access list in the keychain is damaged"};
  if (!allows(*access, ::geteuid(), ::getegid(), owners_)) {
    return KeychainError{KeychainProblem::notAllowed, keychainStatusText(errSecInteractionNotAllowed)};
  }
  return {};
}

KeychainResult<KeychainStore> SqliteKeychain::openToRead() const {
  auto store = KeychainStore::openToRead(root_);
  if (!store) return store.error();
  if (!store.value()) return notFound();
  return *std::move(store).value();
}

OSStatus SqliteKeychain::statusOf(const KeychainError& error) const {
  if (isOfTheStore(error.problem) && tellProblem_) tellProblem_(error.text);
  return error.status();
}

template <class T>
KeychainAnswer<T> SqliteKeychain::answerOf(KeychainResult<T> result) const {
  if (!result) return {statusOf(result.error())};
  return {errSecSuccess, std::move(result).value()};
}

}  // namespace tessard
