#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/Format.h"
#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr const char* kAllServicesGroup = "com.velto.access_all_services";
constexpr const char* kChatGroup = "com.velto.access_chat";

}  // namespace

void NOTIFICATION_PLUGIN_NotificationServiceAtom::storePasswordInKeychain_account_label(
    const std::string& password, const std::string& account, const std::string& label) {
  Keychain& keychain = platform().keychain;
  const auto found = keychain.SecKeychainFindGenericPassword(account);
  const OSStatus status = found.value ? keychain.SecKeychainItemModifyContent(found.value->item, password)
                                      : keychain
                                            .SecKeychainItemCreateFromContent(
                                                {.kSecLabelItemAttr = label, .kSecAccountItemAttr = account},
                                                password, makeUidAccess(0))
                                            .status;
  if (status == errSecSuccess) return;
  logError_source(fill("the password of \"%@\" was not kept, so the next request makes a new one: %@",
                       {account, keychainStatusText(status)}),
                  "");
}

SecAccess NOTIFICATION_PLUGIN_NotificationServiceAtom::makeUidAccess(std::uint32_t userID) {
  const AclSubject subject{AclSubjectType::CSSM_ACL_SUBJECT_TYPE_PROCESS,
                           CSSM_ACL_PROCESS_SELECTOR_CURRENT_VERSION, CSSM_ACL_MATCH_UID, userID, 0};
  return SecAccessCreateFromOwnerAndACL({subject, false},
                                        {{subject, false, {AclAuthorization::CSSM_ACL_AUTHORIZATION_ANY}}});
}

std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::serviceUserPasswordFromKeychain() {
  Keychain& keychain = platform().keychain;
  keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
  auto found = keychain.SecKeychainFindGenericPassword(kServiceUserName);
  if (found.value && isUtf8(found.value->data)) return std::move(found.value->data);
  if (!found.value && found.status != errSecItemNotFound) {
    logError_source(fill("the password of \"%@\" cannot be read from the keychain: %@",
                         {kServiceUserName, keychainStatusText(found.status)}),
                    "");
  }
  return std::nullopt;
}

// Where there are groups that access is given to, the user of the services must be in one.
void NOTIFICATION_PLUGIN_NotificationServiceAtom::checkChatAccessForServiceUser() {
  const auto opened = platform().directory.nodeWithType(kODNodeTypeLocalNodes);
  if (!opened) return;
  DirectoryNode& node = *opened.value();
  const auto user = node.recordWithRecordType_name(kODRecordTypeUsers, kServiceUserName);
  if (!user) return;
  auto group = node.recordWithRecordType_name(kODRecordTypeGroups, kAllServicesGroup);
  if (!group) group = node.recordWithRecordType_name(kODRecordTypeGroups, kChatGroup);
  if (!group) return;
  const auto member = node.isMemberRecord(user.value(), group.value());
  if (member && member.value()) return;
  const auto added = node.addMemberRecord(user.value(), group.value());
  if (added) return;
  logWarning_source(fill("\"%@\" could not be added to the group \"%@\", and so may not be let in: %@",
                         {kServiceUserName, group.value().recordName, added.error().description()}),
                    "");
}

}  // namespace tessard
