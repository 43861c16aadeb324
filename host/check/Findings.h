#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/Value.h"

namespace tessard {

/// How much a finding matters.
enum class Severity {
  notice,   ///< good to know; all works
  warning,  ///< something does not do what somebody may expect of it, or soon will not
  error,    ///< something does not work, or somebody may read or change what is not theirs
};

/// "notice", "warning" or "error".
std::string_view nameOf(Severity severity);

/// What can be found. The id never changes.
struct FindingKind {
  std::string_view id;
  Severity severity;
};

/// Something that is wrong. The texts are whole sentences for people and hold no secret.
struct Finding {
  std::string_view area;
  FindingKind kind;
  std::string subject;   ///< the file, setting, domain, unit, ... that it is about
  std::string sentence;  ///< what is wrong, and what comes of it
  std::string remedy;    ///< what to do
};

/// What an area has found so far.
class Findings {
 public:
  explicit Findings(std::string_view area) : area_(area) {}

  void add(const FindingKind& kind, std::string subject, std::string sentence, std::string remedy) {
    all_.push_back({area_, kind, std::move(subject), std::move(sentence), std::move(remedy)});
  }

  const std::vector<Finding>& all() const { return all_; }

 private:
  std::string_view area_;
  std::vector<Finding> all_;
};

/// {"area", "id", "severity", "subject", "sentence", "remedy"}.
Dictionary dictionaryOf(const Finding& finding);

}  // namespace tessard
