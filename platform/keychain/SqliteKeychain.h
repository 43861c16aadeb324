#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/Keychain.h"
#include "platform/OwnerMap.h"
#include "platform/keychain/KeychainStore.h"

namespace tessard {

/// The keychain below /var/lib/tessardd/keychain of a system root: one SQLite file, in which passwords and
/// private keys are sealed. A process is known by its effective ids; on a root where other ids stand for
/// those of access lists, the map tells which. A keychain that is not there is an empty one, and is made when
/// the first thing is kept. The file is opened anew for each operation, so that it may be replaced at any
/// time.
///
/// A certificate's subject attribute whose value has no text (`textOf` in CertificateText.h) has no
/// `kSecPropertyKeyValue`.
class SqliteKeychain : public Keychain {
 public:
  /// `systemRoot` is a path of the machine; nothing is opened before the first operation. `tellProblem` is
  /// given the sentence of every failure that the store itself is to blame for (damage, rights, a full disk),
  /// because a status alone says too little to mend it.
  explicit SqliteKeychain(std::string systemRoot, OwnerMap owners = {},
                          std::function<void(const std::string&)> tellProblem = {});

  void SecKeychainSetPreferenceDomain(SecPreferencesDomain domain) override;
  KeychainAnswer<GenericPassword> SecKeychainFindGenericPassword(std::string_view account) override;
  OSStatus SecKeychainItemModifyContent(const KeychainItem& item, std::string_view data) override;
  KeychainAnswer<KeychainItem> SecKeychainItemCreateFromContent(const GenericPasswordAttributes& attributes,
                                                                std::string_view data,
                                                                const SecAccess& access) override;
  KeychainAnswer<KeychainCertificate> SecItemCopyMatching(std::string_view subjectContains) override;
  KeychainAnswer<KeychainIdentity> SecIdentityCreateWithCertificate(
      const KeychainCertificate& certificate) override;
  OSStatus SecIdentitySetPreferred(const std::optional<KeychainIdentity>& identity,
                                   std::string_view name) override;
  std::optional<KeychainIdentity> SecIdentityCopyPreferred(std::string_view name) override;
  KeychainAnswer<KeychainCertificate> SecIdentityCopyCertificate(const KeychainIdentity& identity) override;
  Result<Dictionary> SecCertificateCopyValues(const KeychainCertificate& certificate) override;

 private:
  KeychainResult<GenericPassword> find(std::string_view account) const;
  KeychainResult<void> modify(const KeychainItem& item, std::string_view data) const;
  KeychainResult<KeychainItem> create(const GenericPasswordAttributes& attributes, std::string_view data,
                                      const SecAccess& access) const;
  KeychainResult<KeychainCertificate> match(std::string_view subjectContains) const;
  KeychainResult<KeychainIdentity> identityOf(std::int64_t certificate) const;
  KeychainResult<void> setPreferred(const KeychainIdentity& identity, std::string_view name) const;
  KeychainResult<void> clearPreferred(std::string_view name) const;
  KeychainResult<KeychainIdentity> preferred(std::string_view name) const;
  KeychainResult<std::string> certificateBytes(std::int64_t id) const;

  /// Success when this process may use the password.
  KeychainResult<void> checkAccess(const KeychainStore::Password& password) const;
  /// The store; `notFound` when there is none.
  KeychainResult<KeychainStore> openToRead() const;
  OSStatus statusOf(const KeychainError& error) const;
  template <class T>
  KeychainAnswer<T> answerOf(KeychainResult<T> result) const;

  std::string root_;
  OwnerMap owners_;
  std::function<void(const std::string&)> tellProblem_;
  SecPreferencesDomain domain_ = SecPreferencesDomain::user;
};

}  // namespace tessard
