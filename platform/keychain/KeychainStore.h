#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/keychain/Database.h"
#include "platform/keychain/KeychainDirectory.h"
#include "platform/keychain/KeychainResult.h"

namespace tessard {

/// One piece of work on the keychain of a system root: it sees one state of the store, and what it changes
/// comes into force as a whole with `commit`, or not at all. Other processes wait while it may change things.
/// References are the numbers of rows, none of which is ever used again.
class KeychainStore {
 public:
  struct Password {
    std::int64_t id = 0;
    std::string account;
    std::string label;
    std::string access;  ///< as `accessText` writes it
  };
  struct StoredCertificate {
    std::int64_t id = 0;
    std::string der;
  };
  struct Preference {
    std::string name;
    std::int64_t certificate = 0;
  };

  /// Absent when nothing was ever kept.
  static KeychainResult<std::optional<KeychainStore>> openToRead(const std::string& root);
  /// Makes the store when there is none.
  static KeychainResult<KeychainStore> openToChange(const std::string& root);
  /// Absent when nothing was ever kept.
  static KeychainResult<std::optional<KeychainStore>> openToChangeIfThere(const std::string& root);

  KeychainResult<void> commit();

  // Generic passwords, oldest first; an account has one at most.
  KeychainResult<std::vector<Password>> passwords();
  KeychainResult<std::optional<Password>> passwordOf(std::string_view account);
  KeychainResult<std::optional<Password>> password(std::int64_t id);
  KeychainResult<Secret> contentOf(const Password& password);
  KeychainResult<std::int64_t> addPassword(const Password& attributes, std::string_view content);
  KeychainResult<void> setContent(const Password& password, std::string_view content);
  KeychainResult<void> removePassword(std::int64_t id);

  // Certificates, oldest first; no two are the same.
  KeychainResult<std::vector<StoredCertificate>> certificates();
  KeychainResult<std::optional<std::string>> certificate(std::int64_t id);
  KeychainResult<std::int64_t> addCertificate(std::string_view der);
  KeychainResult<void> removeCertificate(std::int64_t id);

  // Private keys in PKCS#8, by the digest of the public key that a certificate holds.
  KeychainResult<bool> hasKey(std::string_view publicKeyDigest);
  KeychainResult<std::optional<Secret>> key(std::string_view publicKeyDigest);
  KeychainResult<void> addKey(std::string_view publicKeyDigest, std::string_view pkcs8);
  KeychainResult<void> removeKey(std::string_view publicKeyDigest);

  // Preferred identities. They end with their certificate.
  KeychainResult<std::vector<Preference>> preferences();
  KeychainResult<std::optional<std::int64_t>> preferred(std::string_view name);
  KeychainResult<void> setPreferred(std::string_view name, std::int64_t certificate);
  /// Whether one was chosen.
  KeychainResult<bool> clearPreferred(std::string_view name);

  // Pass phrases of key files, by the file's path in the system.
  KeychainResult<std::vector<std::string>> passPhraseFiles();
  KeychainResult<std::optional<Secret>> passPhrase(std::string_view file);
  KeychainResult<void> setPassPhrase(std::string_view file, std::string_view phrase);
  /// Whether there was one.
  KeychainResult<bool> removePassPhrase(std::string_view file);

 private:
  KeychainStore(Database database, SealingKey key) : database_(std::move(database)), key_(std::move(key)) {}

  static KeychainResult<std::optional<KeychainStore>> openIfThere(
      const std::string& root, KeychainResult<KeychainStore> (*open)(const KeychainDirectory&));
  static KeychainResult<KeychainStore> openExisting(const KeychainDirectory& directory,
                                                    const char* beginning);
  static KeychainResult<KeychainStore> openExistingToRead(const KeychainDirectory& directory);
  static KeychainResult<KeychainStore> openExistingToChange(const KeychainDirectory& directory);
  static KeychainResult<void> create(const std::string& root);
  static KeychainResult<void> fillDraft(const KeychainDirectory& directory, const SealingKey& key);

  KeychainResult<void> checkForm();
  KeychainResult<std::string> seal(std::string_view content, std::string_view place) const;
  KeychainResult<Secret> unseal(std::string_view sealed, std::string_view place) const;
  /// The statement with its answer left out.
  KeychainResult<void> change(std::string_view statement, std::initializer_list<SqlInput> inputs);

  Database database_;
  SealingKey key_;
};

}  // namespace tessard
