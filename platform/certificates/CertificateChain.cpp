#include "platform/certificates/CertificateChain.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <memory>

#include "platform/keychain/OpenSsl.h"

namespace tessard {

namespace {

// More than any authority uses; certificates that sign each other have no end.
constexpr std::size_t kMostLinks = 16;

using StorePointer = std::unique_ptr<X509_STORE, OpenSslFree<X509_STORE_free>>;
using StoreContextPointer = std::unique_ptr<X509_STORE_CTX, OpenSslFree<X509_STORE_CTX_free>>;
struct FreeStack {
  // The certificates belong to others.
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};

struct Numbered {
  Certificate certificate;
  std::size_t place;
};

// Moves the issuer of the last link from the others to the links. False when it is not among them.
bool takeIssuer(std::vector<Numbered>& links, std::vector<Numbered>& others, bool& broken) {
  const Certificate& last = links.back().certificate;
  if (last.isSelfSigned()) return false;
  const auto named = [&](const Numbered& other) { return last.namesAsIssuer(other.certificate); };
  const auto issuer = std::ranges::find_if(
      others, [&](const Numbered& other) { return named(other) && last.isSignedBy(other.certificate); });
  if (issuer == others.end()) {
    broken = std::ranges::any_of(others, named);
    return false;
  }
  links.push_back(std::move(*issuer));
  others.erase(issuer);
  return true;
}

ChainVerdict verdictOf(int error, const std::vector<Certificate>& links) {
  switch (error) {
    case X509_V_OK:
      return {};
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return {ChainTrust::selfSigned};
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return {ChainTrust::untrustedRoot};
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      // OpenSSL leaves a last certificate out that may not sign others, as it would not help.
      if (links.size() == 1 && links[0].isSelfSigned()) return {ChainTrust::selfSigned};
      return {ChainTrust::incomplete};
    default:
      return {ChainTrust::refused, X509_verify_cert_error_string(error)};
  }
}

}  // namespace

CertificateChain chainOf(std::vector<Certificate> certificates, std::size_t own) {
  std::vector<Numbered> others;
  for (std::size_t place = 0; place < certificates.size(); ++place) {
    others.push_back({std::move(certificates[place]), place});
  }
  std::vector<Numbered> links;
  links.push_back(std::move(others[own]));
  others.erase(others.begin() + static_cast<std::ptrdiff_t>(own));
  bool broken = false;
  while (links.size() < kMostLinks && takeIssuer(links, others, broken)) {
  }
  CertificateChain chain;
  if (broken) chain.brokenAt = links.size() - 1;
  chain.ownWasFirst = own == 0;
  chain.inOrder = std::ranges::is_sorted(links, {}, &Numbered::place);
  for (Numbered& link : links) chain.links.push_back(std::move(link.certificate));
  for (Numbered& stray : others) chain.strays.push_back(std::move(stray.certificate));
  return chain;
}

ChainVerdict verify(const std::vector<Certificate>& links, const std::string& trustDirectory) {
  const StorePointer store(X509_STORE_new());
  const StoreContextPointer context(X509_STORE_CTX_new());
  const std::unique_ptr<STACK_OF(X509), FreeStack> others(sk_X509_new_null());
  if (!store || !context || !others) return {ChainTrust::refused, "out of memory"};
  if (!trustDirectory.empty()) X509_STORE_load_path(store.get(), trustDirectory.c_str());
  for (std::size_t index = 1; index < links.size(); ++index) {
    sk_X509_push(others.get(), links[index].handle());
  }
  X509_STORE_CTX_init(context.get(), store.get(), links.front().handle(), others.get());
  X509_VERIFY_PARAM* const rules = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_NO_CHECK_TIME);
  // Weak keys and signatures are told apart from this.
  X509_VERIFY_PARAM_set_auth_level(rules, 0);
  const bool verified = X509_verify_cert(context.get()) == 1;
  const int error = X509_STORE_CTX_get_error(context.get());
  ERR_clear_error();
  return verified ? ChainVerdict{} : verdictOf(error, links);
}

}  // namespace tessard
