#include "common/Keychain.h"

#include <array>
#include <cstdio>
#include <utility>

#include "common/Format.h"

namespace tessard {

namespace {

struct StatusText {
  OSStatus status;
  const char* text;
};

constexpr std::array<StatusText, 12> kStatusTexts = {{
    {errSecSuccess, "No error"},
    {errSecIO, "The keychain cannot be read or written"},
    {errSecParam, "The request to the keychain makes no sense"},
    {errSecWrPerm, "The keychain may not be written by this user"},
    {errSecNotAvailable, "There is no keychain"},
    {errSecAuthFailed, "The key of the keychain does not open it"},
    {errSecInvalidKeychain, "The keychain is damaged"},
    {errSecDuplicateItem, "The item is in the keychain already"},
    {errSecItemNotFound, "The item is not in the keychain"},
    {errSecNoDefaultKeychain, "There is no default keychain"},
    {errSecInteractionNotAllowed, "The item may not be used by this user"},
    {errSecDecode, "The content is malformed"},
}};

}  // namespace

std::string keychainStatusText(OSStatus status) {
  for (const StatusText& known : kStatusTexts) {
    if (known.status == status) return known.text;
  }
  return fill("Unknown keychain error %d", {status});
}

void cssmPerror(std::string_view how, OSStatus status) {
  const std::string line = std::string(how) + ": " + keychainStatusText(status) + "\n";
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

SecAccess SecAccessCreateFromOwnerAndACL(const AclOwner& owner, std::vector<AclEntry> entries) {
  return {owner, std::move(entries)};
}

}  // namespace tessard
