#include "platform/certificates/CertificateNames.h"

#include <idn2.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "common/Text.h"
#include "platform/keychain/CertificateText.h"

namespace tessard {

namespace {

constexpr std::string_view kClientService = "_xmpp-client.";
constexpr const char* kCommonName = "2.5.4.3";

using NamesPointer = std::unique_ptr<GENERAL_NAMES, OpenSslFree<GENERAL_NAMES_free>>;

void add(std::vector<std::string>& list, const ASN1_STRING* value) {
  if (auto text = textOf(value)) list.push_back(*std::move(text));
}

void addOther(CertificateNames& names, const OTHERNAME& other) {
  const int kind = OBJ_obj2nid(other.type_id);
  const int type = other.value ? ASN1_TYPE_get(other.value) : 0;
  if (kind == NID_XmppAddr && type == V_ASN1_UTF8STRING) add(names.addresses, other.value->value.utf8string);
  if (kind == NID_SRVName && type == V_ASN1_IA5STRING) add(names.services, other.value->value.ia5string);
}

std::string comparable(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return asciiLowercase(name);
}

bool hostMatches(const std::string& host, const std::string& domain) {
  const std::string own = comparable(host);
  if (!own.starts_with("*.")) return own == domain;
  const std::size_t dot = domain.find('.');
  // One label must be left below it: "*.org" is no name of anybody.
  return dot != std::string::npos && dot > 0 && domain.find('.', dot + 1) != std::string::npos &&
         std::string_view(own).substr(1) == std::string_view(domain).substr(dot);
}

}  // namespace

std::vector<std::string> CertificateNames::all() const {
  std::vector<std::string> list;
  for (const auto* part : {&hosts, &addresses, &services}) {
    for (const std::string& name : *part) {
      if (std::ranges::find(list, name) == list.end()) list.push_back(name);
    }
  }
  if (list.empty() && commonName) list.push_back(*commonName);
  return list;
}

CertificateNames namesOf(const Certificate& certificate) {
  CertificateNames names;
  for (Certificate::Attribute& attribute : certificate.subjectAttributes()) {
    if (attribute.oid == kCommonName) names.commonName = std::move(attribute.value);
  }
  const NamesPointer found(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate.handle(), NID_subject_alt_name, nullptr, nullptr)));
  for (int index = 0; found && index < sk_GENERAL_NAME_num(found.get()); ++index) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(found.get(), index);
    if (name->type == GEN_DNS) add(names.hosts, name->d.dNSName);
    if (name->type == GEN_OTHERNAME) addOther(names, *name->d.otherName);
  }
  return names;
}

std::string asciiFormOf(const std::string& domain) {
  char* made = nullptr;
  if (idn2_to_ascii_8z(domain.c_str(), &made, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL) != IDN2_OK)
    return domain;
  std::string form(made);
  idn2_free(made);
  return form;
}

NameMatch matchOf(const CertificateNames& names, std::string_view domain) {
  const std::string written = comparable(domain);
  const std::string wanted = comparable(asciiFormOf(written));
  const auto isWanted = [&](const std::string& name) { return comparable(name) == written; };
  if (std::ranges::any_of(names.hosts, [&](const std::string& host) { return hostMatches(host, wanted); }) ||
      std::ranges::any_of(names.addresses, isWanted) ||
      std::ranges::any_of(names.services, [&](const std::string& service) {
        return comparable(service) == std::string(kClientService) + wanted;
      })) {
    return NameMatch::certain;
  }
  const bool byCommonName =
      !names.hasAlternatives() && names.commonName && hostMatches(*names.commonName, wanted);
  return byCommonName ? NameMatch::commonName : NameMatch::none;
}

}  // namespace tessard
