#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

/// What a keychain operation came to. Log lines show the number.
using OSStatus = std::int32_t;

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecIO = -36;                    ///< the store cannot be read or written
inline constexpr OSStatus errSecParam = -50;                 ///< the request makes no sense
inline constexpr OSStatus errSecWrPerm = -61;                ///< the caller may not write the store
inline constexpr OSStatus errSecNotAvailable = -25291;       ///< there is no store
inline constexpr OSStatus errSecAuthFailed = -25293;         ///< the key does not open what is sealed
inline constexpr OSStatus errSecInvalidKeychain = -25295;    ///< the store is damaged
inline constexpr OSStatus errSecDuplicateItem = -25299;      ///< it is there already
inline constexpr OSStatus errSecItemNotFound = -25300;       ///< nothing was found
inline constexpr OSStatus errSecNoDefaultKeychain = -25307;  ///< no keychain to write to
inline constexpr OSStatus errSecInteractionNotAllowed =
    -25308;                                       ///< the item's access list refuses the caller
inline constexpr OSStatus errSecDecode = -26275;  ///< the content is malformed

/// One sentence without a full stop for a status; one that names the number for a status not listed above.
std::string keychainStatusText(OSStatus status);

/// Writes "how: sentence of the status" on a line of its own to standard error.
void cssmPerror(std::string_view how, OSStatus status);

/// The value of a keychain operation. There is one exactly when the status is `errSecSuccess`.
template <class T>
struct [[nodiscard]] KeychainAnswer {
  OSStatus status = errSecItemNotFound;
  std::optional<T> value{};
};

/// Whose choice of keychains is meant. Both domains search the system's keychain; only the system domain has
/// it as the default that new items go to.
enum class SecPreferencesDomain { user, system };

/// Who an entry of an access list is about: a process, told by the parts of its identity that the mask names.
enum class AclSubjectType { CSSM_ACL_SUBJECT_TYPE_PROCESS };
inline constexpr std::uint16_t CSSM_ACL_PROCESS_SELECTOR_CURRENT_VERSION = 0x0101;
inline constexpr std::uint16_t CSSM_ACL_MATCH_UID = 0x01;
inline constexpr std::uint16_t CSSM_ACL_MATCH_GID = 0x02;

struct AclSubject {
  AclSubjectType type = AclSubjectType::CSSM_ACL_SUBJECT_TYPE_PROCESS;
  std::uint16_t version = CSSM_ACL_PROCESS_SELECTOR_CURRENT_VERSION;
  std::uint16_t mask = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  bool operator==(const AclSubject&) const = default;
};

enum class AclAuthorization { CSSM_ACL_AUTHORIZATION_ANY };

struct AclOwner {
  AclSubject subject;
  bool delegate = false;
  bool operator==(const AclOwner&) const = default;
};

struct AclEntry {
  AclSubject subject;
  bool delegate = false;
  std::vector<AclAuthorization> authorizations;
  bool operator==(const AclEntry&) const = default;
};

/// Who may do what with an item, and who may change that. Whoever has the object may destroy it: an item
/// keeps a copy.
struct SecAccess {
  AclOwner owner;
  std::vector<AclEntry> entries;
  bool operator==(const SecAccess&) const = default;
};

SecAccess SecAccessCreateFromOwnerAndACL(const AclOwner& owner, std::vector<AclEntry> entries);

/// References to what is in the store. They stay good when other things change; once their item is deleted
/// every use fails with `errSecItemNotFound`.
struct KeychainItem {
  std::int64_t id = 0;
};
struct KeychainCertificate {
  std::int64_t id = 0;
};
/// A certificate whose private key is in the keychain too.
struct KeychainIdentity {
  std::int64_t certificate = 0;
};

struct GenericPassword {
  KeychainItem item;
  std::string data;
};

/// Attributes of a new generic password.
struct GenericPasswordAttributes {
  std::string kSecLabelItemAttr;
  std::string kSecAccountItemAttr;
};

/// Keys of certificate values.
inline constexpr const char* kSecOIDX509V1SubjectName = "2.16.840.1.113741.2.1.1.1.8";
inline constexpr const char* kSecPropertyKeyLabel = "label";
inline constexpr const char* kSecPropertyKeyValue = "value";

/// Passwords, certificates, private keys and the identities that were chosen for a purpose. Every change is
/// on disk, whole, before it is reported; several processes may use one store at the same time. Used on one
/// thread. Nothing throws.
class Keychain {
 public:
  virtual ~Keychain() = default;

  /// Holds for the following operations.
  virtual void SecKeychainSetPreferenceDomain(SecPreferencesDomain domain) = 0;

  /// The oldest generic password of the account in the default search list, whatever its label.
  /// `errSecInteractionNotAllowed` where its access list refuses this process.
  virtual KeychainAnswer<GenericPassword> SecKeychainFindGenericPassword(std::string_view account) = 0;

  /// Gives an item new data; its attributes and its access stay.
  virtual OSStatus SecKeychainItemModifyContent(const KeychainItem& item, std::string_view data) = 0;

  /// A new generic password in the default keychain. `errSecDuplicateItem` when the account has one.
  virtual KeychainAnswer<KeychainItem> SecKeychainItemCreateFromContent(
      const GenericPasswordAttributes& attributes, std::string_view data, const SecAccess& access) = 0;

  /// The first certificate, oldest first, whose subject contains the text: one of the values of its subject's
  /// attributes does, without regard to upper and lower case of ASCII letters. An empty text is
  /// `errSecParam`.
  virtual KeychainAnswer<KeychainCertificate> SecItemCopyMatching(std::string_view subjectContains) = 0;

  /// `errSecItemNotFound` when the certificate's private key is not in the default search list.
  virtual KeychainAnswer<KeychainIdentity> SecIdentityCreateWithCertificate(
      const KeychainCertificate& certificate) = 0;

  /// Makes the identity the preferred one for the name, or with none clears the choice. To clear what was
  /// never chosen succeeds.
  virtual OSStatus SecIdentitySetPreferred(const std::optional<KeychainIdentity>& identity,
                                           std::string_view name) = 0;

  /// Absent when none is chosen for the name, or the chosen one is gone.
  virtual std::optional<KeychainIdentity> SecIdentityCopyPreferred(std::string_view name) = 0;

  virtual KeychainAnswer<KeychainCertificate> SecIdentityCopyCertificate(
      const KeychainIdentity& identity) = 0;

  /// What the certificate says, by `kSecOIDX509V1SubjectName` and the like: dictionaries with
  /// `kSecPropertyKeyLabel` and `kSecPropertyKeyValue`. The subject's value is an array of such dictionaries,
  /// one for each attribute in the order of the certificate, labelled with its dotted object identifier. An
  /// attribute that is no text, or holds a NUL or another control character, has no `kSecPropertyKeyValue`.
  virtual Result<Dictionary> SecCertificateCopyValues(const KeychainCertificate& certificate) = 0;
};

}  // namespace tessard
