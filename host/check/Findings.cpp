#include "host/check/Findings.h"

namespace tessard {

std::string_view nameOf(Severity severity) {
  switch (severity) {
    case Severity::error:
      return "error";
    case Severity::warning:
      return "warning";
    case Severity::notice:
      break;
  }
  return "notice";
}

Dictionary dictionaryOf(const Finding& finding) {
  return {{"area", finding.area},
          {"id", finding.kind.id},
          {"severity", nameOf(finding.kind.severity)},
          {"subject", finding.subject},
          {"sentence", finding.sentence},
          {"remedy", finding.remedy}};
}

}  // namespace tessard
