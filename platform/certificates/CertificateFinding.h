#pragma once

#include <string>

namespace tessard {

enum class FindingSeverity {
  note,     ///< worth to know
  warning,  ///< some clients will have trouble, or all of them soon
  error,    ///< it does not work
};

/// "note", "warning", "error".
const char* wordFor(FindingSeverity severity);

/// One thing that is wrong, or will be, with what is to become a server's certificate. Texts hold no secret.
struct CertificateFinding {
  std::string id;  ///< stable, for programs: "key-mismatch"
  FindingSeverity severity = FindingSeverity::error;
  std::string sentence;  ///< what is so
  std::string remedy;    ///< what to do about it: one sentence
  std::string domain{};  ///< the domain that it is about, where it is about one

  bool isError() const { return severity == FindingSeverity::error; }
};

}  // namespace tessard
