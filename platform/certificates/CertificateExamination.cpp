#include "platform/certificates/CertificateExamination.h"

#include <algorithm>
#include <utility>

#include "common/Format.h"
#include "common/Value.h"
#include "platform/certificates/CertificateChain.h"
#include "platform/certificates/CertificateNames.h"
#include "platform/certificates/CertificateStrength.h"
#include "platform/keychain/PemFile.h"

namespace tessard {

namespace {

constexpr std::int64_t kDay = 86400;
constexpr std::size_t kMostNames = 8;     // of a certificate, in a sentence
constexpr std::size_t kMostDomains = 20;  // that get a finding each

using Severity = FindingSeverity;

std::string dayOf(std::int64_t seconds) {
  constexpr std::int64_t kMicroseconds = 1'000'000;
  constexpr std::size_t kDateLength = 10;
  return describeDate(Date{seconds * kMicroseconds}).substr(0, kDateLength);
}

std::string listed(const std::vector<std::string>& names) {
  if (names.empty()) return "nothing";
  std::string text;
  for (std::size_t index = 0; index < std::min(names.size(), kMostNames); ++index) {
    text += (index > 0 ? ", " : "") + names[index];
  }
  if (names.size() > kMostNames) text += fill(" and %lu more", {names.size() - kMostNames});
  return text;
}

std::string daysLeft(std::int64_t days) {
  if (days == 0) return "in less than a day";
  return days == 1 ? "in 1 day" : fill("in %ld days", {days});
}

class Examiner {
 public:
  explicit Examiner(const ExaminationRules& rules) : rules_(rules) {}

  CertificateExamination examine(const CertificateMaterial& material) {
    CertificateContent content = readMaterial(material);
    result_.findings = std::move(content.findings);
    if (content.isWhole && !content.certificates.empty()) examine(std::move(content));
    std::ranges::stable_sort(result_.findings, std::ranges::greater(), &CertificateFinding::severity);
    return std::move(result_);
  }

 private:
  void tell(const char* id, Severity severity, std::string sentence, std::string remedy) {
    result_.findings.push_back({id, severity, std::move(sentence), std::move(remedy)});
  }

  void examine(CertificateContent content) {
    const auto own = placeOfOwn(content);
    if (!own) return;
    if (content.key) result_.privateKey = encodedKey(content.key.get());
    CertificateChain chain = chainOf(std::move(content.certificates), *own);
    if (content.ordered) examineOrder(chain);
    examineLinks(chain);
    result_.chain = std::move(chain.links);
    examineTrust();
    examineNames();
    examineTimes();
    examineStrength();
    examineUses();
  }

  // The certificate that the key belongs to; without a key the first that has issued no other one.
  std::optional<std::size_t> placeOfOwn(const CertificateContent& content) {
    const auto& all = content.certificates;
    const auto begin = all.begin();
    if (!content.key) {
      const auto leaf = std::ranges::find_if(all, [&](const Certificate& one) {
        return std::ranges::none_of(
            all, [&](const Certificate& other) { return &other != &one && other.namesAsIssuer(one); });
      });
      return static_cast<std::size_t>((leaf == all.end() ? begin : leaf) - begin);
    }
    const auto own =
        std::ranges::find_if(all, [&](const Certificate& one) { return one.belongsTo(content.key.get()); });
    if (own != all.end()) return static_cast<std::size_t>(own - begin);
    // One that signed itself may well be a server's own.
    const bool authoritiesAlone =
        std::ranges::all_of(all, isAuthority) && !std::ranges::all_of(all, &Certificate::isSelfSigned);
    if (authoritiesAlone) {
      tell("no-server-certificate", Severity::error,
           "The files hold certificates of authorities alone, and none that belongs to the private key.",
           "Give the server's own certificate as well.");
    } else {
      tell("key-mismatch", Severity::error,
           fill("The private key does not belong to the certificate of \"%@\".", {all.front().subject()}),
           "Give the key that the certificate was requested with.");
    }
    return std::nullopt;
  }

  void examineOrder(const CertificateChain& chain) {
    if (!chain.ownWasFirst) {
      tell("not-first", rules_.isServed ? Severity::error : Severity::note,
           "The server's own certificate is not the first of the files.",
           rules_.isServed ? "Put it before those that issued it: a server takes the first one for its own."
                           : "Nothing needs to be done: it is put before the others.");
    } else if (!chain.inOrder) {
      tell("wrong-order", rules_.isServed ? Severity::warning : Severity::note,
           "The certificates are not in the order of the chain.",
           rules_.isServed ? "Put each before the one that issued it: some clients do not look further."
                           : "Nothing needs to be done: they are sorted.");
    }
  }

  void examineLinks(const CertificateChain& chain) {
    if (chain.brokenAt) {
      const Certificate& link = chain.links[*chain.brokenAt];
      tell("broken-chain", Severity::error,
           fill("The certificate of \"%@\" was not signed by that of \"%@\", which it names as its issuer.",
                {link.subject(), link.issuer()}),
           "Give the certificates that came with it from the authority.");
    }
    if (chain.strays.empty() || chain.brokenAt) return;
    const std::string first = chain.strays.front().subject();
    tell("stray-certificate", Severity::warning,
         chain.strays.size() == 1
             ? fill("The certificate of \"%@\" has nothing to do with the server's own.", {first})
             : fill("%lu certificates have nothing to do with the server's own, that of \"%@\" among them.",
                    {chain.strays.size(), first}),
         rules_.isServed ? "Take it out of the file." : "Nothing needs to be done: it is left out.");
  }

  void examineTrust() {
    if (std::ranges::any_of(result_.findings, isBrokenChain)) return;
    const ChainVerdict verdict = verify(result_.chain, rules_.trustDirectory);
    const std::string issuer = result_.chain.back().issuer();
    const bool isKnown = !rules_.trustDirectory.empty();
    if (verdict.trust == ChainTrust::selfSigned) {
      tell("self-signed", Severity::warning,
           "The certificate is signed by itself: clients refuse it unless they were told to trust it.",
           "Let an authority issue one that clients trust.");
    } else if (verdict.trust == ChainTrust::incomplete) {
      tell(
          "incomplete-chain", Severity::warning,
          fill("The certificate of \"%@\", which has issued the last one of the chain, is not there.",
               {issuer}),
          "Add what the authority calls its intermediate certificates or chain, unless it is a root that all "
          "clients know.");
    } else if (verdict.trust == ChainTrust::untrustedRoot && isKnown) {
      tell("untrusted-issuer", Severity::warning,
           fill("The chain ends with \"%@\", which this machine does not trust.", {issuer}),
           "Make sure that the clients trust it, or let another authority issue the certificate.");
    } else if (verdict.trust == ChainTrust::refused) {
      tell("untrusted-chain", Severity::warning,
           fill("Clients will not accept the chain: %@.", {verdict.reason}),
           "Ask the authority for another certificate.");
    }
  }

  static bool isBrokenChain(const CertificateFinding& finding) { return finding.id == "broken-chain"; }

  void examineNames() {
    const CertificateNames names = namesOf(result_.chain.front());
    bool byCommonName = false;
    std::size_t missing = 0;
    for (const std::string& domain : rules_.domains) {
      const NameMatch match = matchOf(names, domain);
      byCommonName = byCommonName || match == NameMatch::commonName;
      if (match == NameMatch::none && ++missing <= kMostDomains) tellMissing(domain, names);
    }
    if (missing > kMostDomains) {
      tell("name-missing", Severity::error,
           fill("The certificate is not for %lu further domains.", {missing - kMostDomains}),
           "Let the authority issue one with all domains.");
    }
    if (byCommonName) {
      tell("common-name-only", Severity::warning,
           "The certificate has its name in the subject alone, where many clients do not look.",
           "Let the authority issue one with alternative names.");
    }
  }

  void tellMissing(const std::string& domain, const CertificateNames& names) {
    tell("name-missing", Severity::error,
         fill("The certificate is not for \"%@\"; it names %@.", {domain, listed(names.all())}),
         fill("Let the authority issue one that also names \"%@\".", {domain}));
    result_.findings.back().domain = domain;
  }

  void examineTimes() {
    const Certificate& own = result_.chain.front();
    const std::int64_t days = daysUntil(own.notAfter(), rules_.now);
    if (own.notBefore() > rules_.now) {
      tell("not-yet-valid", Severity::error,
           fill("The certificate is not valid before %@.", {dayOf(own.notBefore())}),
           "Look whether the clock of this machine is right, and wait until then otherwise.");
    }
    if (own.notAfter() <= rules_.now) {
      tell("expired", Severity::error, fill("The certificate has expired on %@.", {dayOf(own.notAfter())}),
           "Renew it.");
    } else if (days < kDaysOfWarning) {
      tell("ends-soon", Severity::warning,
           fill("The certificate expires %@, on %@.", {daysLeft(days), dayOf(own.notAfter())}), "Renew it.");
    }
    for (std::size_t index = 1; index < result_.chain.size(); ++index) examineIssuer(result_.chain[index]);
  }

  void examineIssuer(const Certificate& issuer) {
    // Clients have their own copy of the last one.
    if (issuer.isSelfSigned()) return;
    const std::string subject = issuer.subject();
    const std::int64_t days = daysUntil(issuer.notAfter(), rules_.now);
    const char* const remedy = "Take the chain that the authority now offers.";
    if (issuer.notBefore() > rules_.now) {
      tell("issuer-not-yet-valid", Severity::error,
           fill("The issuer's certificate of \"%@\" is not valid before %@.",
                {subject, dayOf(issuer.notBefore())}),
           remedy);
    }
    if (issuer.notAfter() <= rules_.now) {
      tell("issuer-expired", Severity::error,
           fill("The issuer's certificate of \"%@\" has expired on %@.", {subject, dayOf(issuer.notAfter())}),
           remedy);
    } else if (days < kDaysOfWarning) {
      tell("issuer-ends-soon", Severity::warning,
           fill("The issuer's certificate of \"%@\" expires %@, on %@.",
                {subject, daysLeft(days), dayOf(issuer.notAfter())}),
           remedy);
    }
  }

  void examineStrength() {
    const char* const remedy =
        "Make a new key, RSA with 2048 bits or EC P-256, and a new certificate for it.";
    const Certificate& own = result_.chain.front();
    const std::string key = keyOf(own);
    if (useOfKey(own) == KeyUse::unsuitable) {
      tell("unsuitable-key", Severity::error, fill("No client can use the key: it is %@.", {key}), remedy);
    } else if (useOfKey(own) == KeyUse::rare) {
      tell("rare-key", Severity::warning, fill("Some clients cannot use the key: it is %@.", {key}), remedy);
    }
    for (const Certificate& link : result_.chain) {
      if (hasWeakKey(link)) {
        tell("weak-key", Severity::error,
             fill("The key of \"%@\" is too weak: %@.", {link.subject(), keyOf(link)}), remedy);
      }
      if (hasWeakSignature(link)) {
        tell("weak-signature", Severity::error,
             fill("The certificate of \"%@\" has a signature that can be forged: %@.",
                  {link.subject(), signatureOf(link)}),
             "Let the authority issue it anew, signed with SHA-256.");
      }
    }
  }

  void examineUses() {
    const Certificate& own = result_.chain.front();
    if (!isForServers(own)) {
      tell("not-for-servers", Severity::error,
           "The certificate was issued for other uses than that of a TLS server.",
           "Let the authority issue one for a server.");
    } else if (!isForClients(own)) {
      tell("not-for-clients", Severity::note,
           "The certificate is for servers alone: other servers cannot take it as a proof of who connects.",
           "Nothing needs to be done: they call back instead.");
    }
  }

  const ExaminationRules& rules_;
  CertificateExamination result_;
};

}  // namespace

CertificateFacts factsOf(const Certificate& certificate) {
  return {certificate.subject(),      certificate.issuer(),    certificate.serial(),
          certificate.sha256(),       certificate.notBefore(), certificate.notAfter(),
          namesOf(certificate).all(), keyOf(certificate),      signatureOf(certificate)};
}

std::int64_t daysUntil(std::int64_t then, std::int64_t now) {
  const std::int64_t seconds = then - now;
  return seconds >= 0 ? seconds / kDay : -((-seconds + kDay - 1) / kDay);
}

bool CertificateExamination::hasErrors() const {
  return std::ranges::any_of(findings, &CertificateFinding::isError);
}

CertificateExamination examineCertificate(const CertificateMaterial& material,
                                          const ExaminationRules& rules) {
  return Examiner(rules).examine(material);
}

}  // namespace tessard
