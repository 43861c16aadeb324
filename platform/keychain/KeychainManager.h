#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "platform/keychain/KeychainResult.h"
#include "platform/keychain/KeychainStore.h"
#include "platform/keychain/Secret.h"

namespace tessard {

class Certificate;
struct CertificateFile;

/// What a person wants to know about a certificate in the keychain. Texts are UTF-8 without control
/// characters.
struct CertificateRecord {
  std::string subject;         ///< "UID = com.example.topic, CN = Name", in the order of the certificate
  std::string issuer;          ///< in the same form
  std::string serial;          ///< hexadecimal digits, in capitals
  std::string sha256;          ///< of the whole certificate: 64 hexadecimal digits, in capitals
  std::int64_t notBefore = 0;  ///< seconds since 1970; 0 for a time that cannot be read
  std::int64_t notAfter = 0;
  bool expired = false;
  bool hasKey = false;                    ///< it is an identity: its private key is in the keychain too
  std::optional<std::string> topic;       ///< the first subject attribute 0.9.2342.19200300.100.1.1
  std::vector<std::string> preferredFor;  ///< the names that it is the preferred identity for, sorted
};

struct ImportReport {
  /// What the file holds, as it now stands in the keychain: the certificate that it is about first, then
  /// those that issued it.
  std::vector<CertificateRecord> certificates;
  std::size_t added = 0;  ///< how many of them were not there before
  bool keyAdded = false;  ///< the private key was not there before
};

/// The keychain of one system root, as its administrator sees it. Each call is one piece of work that is done
/// whole or not at all, on disk when it is over; several processes may use one keychain at the same time. A
/// call that only reads makes nothing: a keychain that is not there is an empty one. Everything fails with
/// the problems of the store (`notPermitted` and those below it) besides those told here. Used on one thread;
/// nothing throws.
class KeychainManager {
 public:
  /// `systemRoot` is a path of the machine. Nothing is opened before the first call. The clock, which is
  /// borrowed, tells what has expired.
  KeychainManager(std::string systemRoot, Clock& clock) : root_(std::move(systemRoot)), clock_(clock) {}

  /// Puts in the certificates and the private key of a PKCS#12 or PEM file, given as its bytes. What is there
  /// already is no failure and is not put in twice. A certificate that has expired is taken; its record says
  /// so. `identityRequired`: fails with `noKey` when neither the file nor the keychain has the private key of
  /// the first certificate.
  ///
  /// Fails with `tooLarge` (more than 1 MiB), `malformed`, `passPhraseNeeded` (something is encrypted and
  /// there is no pass phrase), `wrongPassPhrase`, `noCertificate`, `keyMismatch` (the key belongs to no
  /// certificate of the file), `brokenChain` (a certificate has not issued another one of the file) or
  /// `invalidRequest` (a NUL in the pass phrase).
  KeychainResult<ImportReport> importFile(std::string_view bytes, const Secret* passPhrase,
                                          bool identityRequired);

  /// All certificates, oldest first.
  KeychainResult<std::vector<CertificateRecord>> certificates();

  /// The one certificate that is meant: by its SHA-256 digest (colons and case do not count; the first 8
  /// digits or more will do), or else by a part of a value of its subject, as `Keychain::SecItemCopyMatching`
  /// compares. Fails with `notFound`, or with `ambiguous` when there are several.
  KeychainResult<CertificateRecord> certificate(std::string_view meant);

  /// Makes a certificate, meant as above, the preferred identity for a name, in place of any other. Fails
  /// with `notFound`, `ambiguous`, `noKey` when its private key is not in the keychain, and `invalidRequest`
  /// for a name that is empty, no UTF-8, longer than 255 bytes or holds control characters.
  KeychainResult<CertificateRecord> prefer(std::string_view name, std::string_view meant);
  /// False when none was chosen for the name.
  KeychainResult<bool> clearPreferred(std::string_view name);

  /// Takes out a certificate, meant as above, with its private key unless another certificate has the same
  /// one. It is no longer preferred for anything. Answers what it was.
  KeychainResult<CertificateRecord> removeCertificate(std::string_view meant);

  /// The accounts of the generic passwords, oldest first.
  KeychainResult<std::vector<std::string>> passwordAccounts();
  /// False when the account has none.
  KeychainResult<bool> removePassword(std::string_view account);

  /// The pass phrase that is kept for a key file, named by its path in the system; absent when there is none.
  KeychainResult<std::optional<Secret>> passPhrase(std::string_view file);
  /// Keeps the pass phrase of a key file with this PEM content, in place of an older one, when it opens the
  /// key. Fails with `tooLarge`, `malformed` (also for several keys), `noKey`, `wrongPassPhrase`, and with
  /// `invalidRequest` when the key is not encrypted, when the pass phrase is empty, holds a line end, a NUL
  /// or what would be replaced in the service's files ("${" and the placeholders of the templates), or is no
  /// UTF-8: such a one cannot be told to the service.
  KeychainResult<void> setPassPhrase(std::string_view file, std::string_view pem, const Secret& phrase);
  /// False when there was none.
  KeychainResult<bool> removePassPhrase(std::string_view file);
  /// The files whose pass phrases are kept, sorted.
  KeychainResult<std::vector<std::string>> passPhraseFiles();

 private:
  struct Entry;

  KeychainResult<std::vector<Entry>> entries(KeychainStore& store);
  KeychainResult<Entry> entry(KeychainStore& store, std::string_view meant);
  KeychainResult<CertificateRecord> recordOf(KeychainStore& store, const Certificate& certificate);
  KeychainResult<ImportReport> put(KeychainStore& store, const CertificateFile& file);
  template <class Answer, class Work>
  KeychainResult<Answer> reading(Answer whenThereIsNone, Work work);
  template <class Work>
  KeychainResult<bool> removing(Work work);

  std::string root_;
  Clock& clock_;
};

/// What a key file holds, for the question whether it needs a pass phrase.
enum class KeyFileKind { noKey, open, encrypted };

/// Of PEM content. Fails with `malformed`, also for several keys.
KeychainResult<KeyFileKind> keyFileKind(std::string_view pem);

/// Success when the pass phrase opens the key; fails with `malformed`, `noKey` or `wrongPassPhrase`.
KeychainResult<void> checkPassPhrase(std::string_view pem, const Secret& phrase);

}  // namespace tessard
