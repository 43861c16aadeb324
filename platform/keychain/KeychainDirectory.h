#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/FileDescriptor.h"
#include "platform/keychain/KeychainResult.h"
#include "platform/keychain/SealingKey.h"

namespace tessard {

/// Where the keychain of a system root is kept, as paths of the system.
inline constexpr const char* kKeychainDirectory = "/var/lib/tessardd/keychain";
inline constexpr const char* kKeychainStore = "/var/lib/tessardd/keychain/keychain.db";
inline constexpr const char* kKeychainKey = "/var/lib/tessardd/keychain/keychain.key";

/// The directory of a keychain: mode 0700, with the database (0600) and the key that its secrets are sealed
/// with (0400). All three belong to the user of this process. What belongs to another user, has wider rights
/// or is a link in their places is refused and left as it is.
class KeychainDirectory {
 public:
  /// Absent when there is none.
  static KeychainResult<std::optional<KeychainDirectory>> open(const std::string& root);
  /// Makes what is missing of the way to it.
  static KeychainResult<KeychainDirectory> make(const std::string& root);

  /// Keeps every other process that makes a keychain here waiting until this object is gone.
  KeychainResult<void> lock() const;

  /// Whether there is a database, made as told above.
  KeychainResult<bool> hasStore() const;
  /// Absent when there is no key file.
  KeychainResult<std::optional<SealingKey>> key() const;
  /// A new key, on disk before the call is over. Under the lock, and only where there is none.
  KeychainResult<SealingKey> makeKey() const;

  /// The machine's own path of a name in the directory, without links.
  KeychainResult<std::string> pathOf(std::string_view name) const;
  /// An empty file for a database to be, in place of what an interrupted making has left. Under the lock.
  KeychainResult<void> makeDraft() const;
  /// Gives the draft its name, on disk before the call is over. Under the lock.
  KeychainResult<void> publishDraft() const;

  static constexpr const char* kStoreName = "keychain.db";
  static constexpr const char* kDraftName = "keychain.db.new";

 private:
  explicit KeychainDirectory(FileDescriptor directory) : directory_(std::move(directory)) {}

  KeychainResult<void> rename(const char* from, const char* to) const;

  FileDescriptor directory_;
};

}  // namespace tessard
