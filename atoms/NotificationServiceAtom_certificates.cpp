#include <array>
#include <string_view>

#include "atoms/NotificationPaths.h"
#include "atoms/NotificationServiceAtom.h"
#include "common/Format.h"
#include "common/Keychain.h"

namespace tessard {

namespace {

/// The name under which the bridge finds the identity that was chosen for it.
constexpr const char* kBridgeIdentityName = "com.velto.KorvBridge.https";

constexpr const char* kTopicAttribute = "0.9.2342.19200300.100.1.1";

struct PushService {
  std::string_view service;
  const char* identityName;
};

constexpr std::array<PushService, 3> kPushServices = {{
    {"calendar", "korvs:com.velto.calendar"},
    {"addressbook", "korvs:com.velto.contact"},
    {"mail", "korvs:com.velto.mail"},
}};

const char* identityNameOf(std::string_view service) {
  for (const PushService& known : kPushServices) {
    if (known.service == service) return known.identityName;
  }
  return nullptr;
}

// The first topic attribute of the subject.
const std::string* topicIn(const Dictionary& certificateValues) {
  const Dictionary* subject = certificateValues.dictionaryFor(kSecOIDX509V1SubjectName);
  const Array* attributes = subject ? subject->arrayFor(kSecPropertyKeyValue) : nullptr;
  if (!attributes) return nullptr;
  for (const Value& entry : *attributes) {
    const Dictionary* attribute = entry.asDictionary();
    const std::string* label = attribute ? attribute->stringFor(kSecPropertyKeyLabel) : nullptr;
    if (label && *label == kTopicAttribute) return attribute->stringFor(kSecPropertyKeyValue);
  }
  return nullptr;
}

}  // namespace

std::optional<Dictionary> NOTIFICATION_PLUGIN_NotificationServiceAtom::setKorvsCertificateWithRequest(
    const Dictionary& request) {
  platform().keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
  const Value* certificate = request.find("certificateName");
  const std::string* name = certificate ? certificate->asString() : nullptr;
  if (certificate && !name) {
    logError_source("the name of a certificate must be a text, nothing was changed", "");
    return Dictionary{};
  }
  if (!name || name->empty()) {
    if (preferIdentity(std::nullopt)) keepHttps(false);
    return Dictionary{};
  }
  const auto identity = identityWhoseSubjectContains(*name);
  if (!identity || !preferIdentity(identity)) return Dictionary{};
  logDebug_source("SecIdentitySetPreferred succeeded, updating preferences with https URL", "");
  keepHttps(true);
  return Dictionary{{"certificateName", *name}};
}

std::optional<KeychainIdentity> NOTIFICATION_PLUGIN_NotificationServiceAtom::identityWhoseSubjectContains(
    const std::string& name) {
  Keychain& keychain = platform().keychain;
  const auto certificate = keychain.SecItemCopyMatching(name);
  if (certificate.status != errSecSuccess) {
    logError_source(fill("SecItemCopyMatching (err = %d)", {certificate.status}), "");
    return std::nullopt;
  }
  const auto identity = keychain.SecIdentityCreateWithCertificate(*certificate.value);
  if (identity.status != errSecSuccess) {
    logError_source(fill("SecIdentityCreateWithCertificate (err = %d)", {identity.status}), "");
    cssmPerror("Couldn't create identity with certificate! SecIdentityCreateWithCertificate",
               identity.status);
    return std::nullopt;
  }
  return identity.value;
}

bool NOTIFICATION_PLUGIN_NotificationServiceAtom::preferIdentity(
    const std::optional<KeychainIdentity>& identity) {
  const OSStatus status = platform().keychain.SecIdentitySetPreferred(identity, kBridgeIdentityName);
  if (status == errSecSuccess) return true;
  logError_source(fill("SecIdentitySetPreferred (err = %d)", {status}), "");
  cssmPerror("SecIdentitySetPreferred failed", status);
  return false;
}

// The file is left alone when it says so already. To be off, the switch need not be there.
void NOTIFICATION_PLUGIN_NotificationServiceAtom::keepHttps(bool enabled) {
  const auto lock = lockSettings();
  auto settings = dictionaryFromSettingsFile();
  if (!settings) {
    logError_source("the notification settings are not known and were not written", "");
    return;
  }
  const Value* current = settings->find("enableHTTPS");
  if ((current && current->boolValue()) == enabled) return;
  settings->set("enableHTTPS", enabled);
  ChangeSet changes(platform().changes);
  if (const auto written = writeConfigFile(*settings); !written) {
    writeFailed(kNotificationConfigFilePath, written.error());
    logError_source(notSaved(written.error()), "");
  }
  setConfigFileAttributes();
  changes.end();
}

std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::getKorpsTopicForService(
    const std::optional<std::string>& serviceName) {
  Keychain& keychain = platform().keychain;
  keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
  if (!serviceName) return std::nullopt;
  const char* identityName = identityNameOf(*serviceName);
  if (!identityName) {
    logNotice_source(
        fill("Unknown serviceName passed to getKorpsTopicForService, ignoring (%@)", {*serviceName}), "");
    return std::nullopt;
  }
  const auto identity = keychain.SecIdentityCopyPreferred(identityName);
  if (!identity) {
    logError_source(fill("SecIdentityCopyPreferred failed, id name = %@", {identityName}), "");
    return std::nullopt;
  }
  const auto certificate = keychain.SecIdentityCopyCertificate(*identity);
  if (certificate.status != errSecSuccess) {
    logError_source(fill("SecIdentityCopyCertificate failed (err = %d), id name = %@",
                         {certificate.status, identityName}),
                    "");
    return std::nullopt;
  }
  return topicOfCertificate(*certificate.value, identityName);
}

std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::topicOfCertificate(
    const KeychainCertificate& certificate, const char* identityName) {
  const auto values = platform().keychain.SecCertificateCopyValues(certificate);
  if (!values) {
    logError_source(fill("SecCertificateCopyValues failed: %@", {values.error().description()}), "");
    return std::nullopt;
  }
  const std::string* topic = topicIn(values.value());
  if (!topic) {
    logDebug_source(fill("Did not find topic for Korv certificate for identity: %@", {identityName}), "");
    return std::nullopt;
  }
  logDebug_source(fill("Located topic '%@' for identityName '%@'", {*topic, identityName}), "");
  return *topic;
}

}  // namespace tessard
