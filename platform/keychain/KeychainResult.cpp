#include "platform/keychain/KeychainResult.h"

#include <array>

namespace tessard {

namespace {

struct ProblemNames {
  KeychainProblem problem;
  OSStatus status;
  std::string_view id;
};

constexpr std::array<ProblemNames, 24> kProblems = {{
    {KeychainProblem::invalidRequest, errSecParam, "invalid-request"},
    {KeychainProblem::notFound, errSecItemNotFound, "not-found"},
    {KeychainProblem::ambiguous, errSecParam, "ambiguous"},
    {KeychainProblem::duplicate, errSecDuplicateItem, "duplicate"},
    {KeychainProblem::notAllowed, errSecInteractionNotAllowed, "not-allowed"},
    {KeychainProblem::noDefault, errSecNoDefaultKeychain, "no-default-keychain"},
    {KeychainProblem::tooLarge, errSecParam, "too-large"},
    {KeychainProblem::malformed, errSecDecode, "malformed"},
    {KeychainProblem::oldCiphers, errSecDecode, "old-ciphers"},
    {KeychainProblem::passPhraseNeeded, errSecAuthFailed, "pass-phrase-needed"},
    {KeychainProblem::wrongPassPhrase, errSecAuthFailed, "wrong-pass-phrase"},
    {KeychainProblem::noCertificate, errSecDecode, "no-certificate"},
    {KeychainProblem::noKey, errSecItemNotFound, "no-key"},
    {KeychainProblem::keyMismatch, errSecDecode, "key-mismatch"},
    {KeychainProblem::brokenChain, errSecDecode, "broken-chain"},
    {KeychainProblem::notPermitted, errSecWrPerm, "not-permitted"},
    {KeychainProblem::unsafe, errSecNotAvailable, "unsafe-keychain"},
    {KeychainProblem::keyMissing, errSecAuthFailed, "keychain-key-missing"},
    {KeychainProblem::wrongKey, errSecAuthFailed, "wrong-keychain-key"},
    {KeychainProblem::damaged, errSecInvalidKeychain, "damaged-keychain"},
    {KeychainProblem::newer, errSecInvalidKeychain, "newer-keychain"},
    {KeychainProblem::busy, errSecIO, "busy-keychain"},
    {KeychainProblem::full, errSecIO, "full-disk"},
    {KeychainProblem::readOnly, errSecWrPerm, "read-only-keychain"},
}};

constexpr ProblemNames kIO = {KeychainProblem::io, errSecIO, "keychain-io"};

const ProblemNames& namesOf(KeychainProblem problem) {
  for (const ProblemNames& names : kProblems) {
    if (names.problem == problem) return names;
  }
  return kIO;
}

}  // namespace

OSStatus KeychainError::status() const {
  return namesOf(problem).status;
}

std::string_view KeychainError::id() const {
  return namesOf(problem).id;
}

}  // namespace tessard
