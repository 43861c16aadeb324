// The first byte of the input tells, when it is not 0, that the pass phrase is the rest of the first line;
// what follows is a file to be imported, and examined for a server, and also taken for the bytes of a single
// certificate and of an X.509 name.

#include <cstdio>

#include "atoms/NotificationServiceAtom.h"
#include "atoms/X509Name.h"
#include "common/Utf8.h"
#include "fuzz/FuzzBytes.h"
#include "fuzz/FuzzTargets.h"
#include "platform/certificates/CertificateNames.h"
#include "platform/certificates/CombinedPem.h"
#include "platform/keychain/CertificateFile.h"
#include "platform/keychain/KeychainManager.h"
#include "platform/keychain/PemFile.h"
#include "tests/support/RecordingOwner.h"
#include "tests/support/TestPlatform.h"

namespace tessard::fuzz {

namespace {

// More imports than these would measure the disk.
constexpr int kMostImports = 200;

bool isPlain(std::string_view text) {
  if (!isXmlText(text)) return false;
  for (const char32_t point : decodeUtf8(text)) {
    if (point < 0x20 || (point >= 0x7f && point < 0xa0)) return false;
  }
  return true;
}

void promiseCertificate(const Certificate& certificate) {
  const auto again = Certificate::parse(certificate.der());
  promise(again && again->der() == certificate.der(), "a certificate reads back from its own bytes");
  promise(isPlain(certificate.subject()) && isPlain(certificate.issuer()), "names are shown as plain text");
  promise(certificate.sha256().size() == 64, "a digest has 64 digits");
  std::optional<std::string> first;
  bool seen = false;
  for (const Certificate::Attribute& attribute : certificate.subjectAttributes()) {
    promise(!attribute.value || isPlain(*attribute.value), "values of a subject are plain text");
    if (attribute.oid == kTopicAttribute && !seen) {
      seen = true;
      first = attribute.value;
    }
  }
  promise(certificate.topic() == first, "the topic is the first user ID");
  static_cast<void>(certificate.notBefore());
  static_cast<void>(certificate.notAfter());
  promise(certificate.publicKeyDigest().size() == 32, "a key's name has 32 bytes");
}

void promiseFile(const CertificateFile& file) {
  promise(!file.certificates.empty(), "a file that was read brings a certificate");
  for (const Certificate& certificate : file.certificates) promiseCertificate(certificate);
  if (!file.privateKey) return;
  const KeyPointer key = decodedKey(file.privateKey->view());
  promise(key && file.certificates.front().belongsTo(key.get()), "the key belongs to the first certificate");
}

void promiseImport(std::string_view bytes, const Secret* phrase) {
  static int imports = 0;
  if (++imports > kMostImports) return;
  TestPlatform platform;
  KeychainManager manager(platform.root.path(), platform.clock);
  const auto report = manager.importFile(bytes, phrase, false);
  promise(report.ok(), "a file that can be read can be imported");
  promise(report.value().added == report.value().certificates.size(),
          "all of it is new to an empty keychain");
  const auto again = manager.importFile(bytes, phrase, false);
  promise(again.ok() && again.value().added == 0 && !again.value().keyAdded, "nothing is put in twice");
  const auto all = manager.certificates();
  promise(all.ok() && all.value().size() == report.value().added, "all that was put in is there");
}

void promiseExamination(std::string_view file, const Secret* phrase) {
  const ExaminationRules rules{{"example.org"}, 1'800'000'000};
  // As each of the files that there may be.
  for (const CertificateMaterial& material :
       {CertificateMaterial{file, {}, {}, phrase}, CertificateMaterial{{}, file, {}, phrase},
        CertificateMaterial{file, file, file, phrase}}) {
    const auto examination = examineCertificate(material, rules);
    for (const CertificateFinding& finding : examination.findings) {
      promise(!finding.id.empty() && finding.sentence.ends_with('.') && finding.remedy.ends_with('.'),
              "a finding has an id, a sentence and a remedy");
      promise(isPlain(finding.sentence), "a finding is plain text");
    }
    for (const Certificate& link : examination.chain) {
      for (const std::string& name : namesOf(link).all()) promise(isPlain(name), "names are plain text");
    }
    const auto pem = combinedPem(examination);
    promise(pem.has_value() || examination.hasErrors(), "without an error there is a file for the server");
    if (!pem) continue;
    const auto again = examineCertificate({pem->view()}, rules);
    promise(again.privateKey && again.chain.size() == examination.chain.size(),
            "the file for the server reads back");
    promise(again.chain.front().der() == examination.chain.front().der(), "with the same certificate");
  }
}

void readName(FuzzBytes bytes) {
  std::vector<std::string> texts;
  texts.reserve(64);
  std::vector<std::vector<X509TypeValuePair>> pairs(bytes.below(4));
  for (auto& part : pairs) {
    part.resize(bytes.below(4));
    for (X509TypeValuePair& pair : part) {
      const bool topic = bytes.below(4) != 0;
      texts.push_back(topic ? std::string(oidData, oidData + sizeof oidData) : bytes.text());
      pair.type = {texts.back().size(), reinterpret_cast<const std::uint8_t*>(texts.back().data())};
      promise(isTopicOID(&pair.type) || !topic, "the object identifier of topics is known");
      pair.valueType = static_cast<std::uint8_t>(bytes.byte());
      texts.push_back(bytes.text());
      pair.value = {texts.back().size(), reinterpret_cast<const std::uint8_t*>(texts.back().data())};
    }
  }
  std::vector<X509RelativeName> parts;
  parts.reserve(pairs.size());
  for (const auto& part : pairs) parts.push_back({static_cast<std::uint32_t>(part.size()), part.data()});
  static TestPlatform platform;
  static RecordingOwner owner(platform);
  static const auto atom =
      NOTIFICATION_PLUGIN_NotificationServiceAtom::notificationServiceAtom(platform, &owner);
  // What it warns of would drown everything else.
  static std::FILE* const nowhere = std::fopen("/dev/null", "we");
  std::FILE* const kept = std::exchange(stderr, nowhere);
  const auto topic = atom->otherNameForX509Name({static_cast<std::uint32_t>(parts.size()), parts.data()});
  stderr = kept;
  promise(!topic || isUtf8(*topic), "a topic is UTF-8");
}

}  // namespace

void certificates(std::string_view input) {
  FuzzBytes bytes(input);
  const bool hasPhrase = bytes.byte() != 0;
  const std::string_view words = hasPhrase ? bytes.line() : std::string_view();
  const Secret phrase(words);
  const std::string_view file = bytes.rest();
  const auto read = readCertificateFile(file, hasPhrase ? &phrase : nullptr);
  if (read) {
    promiseFile(read.value());
    // Such a pass phrase is refused before the file is looked at.
    const bool usable = words.find('\0') == std::string_view::npos;
    if (usable) promiseImport(file, hasPhrase ? &phrase : nullptr);
  } else {
    promise(!read.error().text.empty(), "a refusal has a reason");
  }
  promiseExamination(file, hasPhrase ? &phrase : nullptr);
  if (const auto certificate = Certificate::parse(file)) promiseCertificate(*certificate);
  const auto kind = keyFileKind(file);
  const auto opened = checkPassPhrase(file, phrase);
  promise(kind.ok() || !opened.ok(), "a pass phrase opens no malformed key file");
  readName(FuzzBytes(file));
}

}  // namespace tessard::fuzz
