#include <sysexits.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

#include "common/Format.h"
#include "host/ctl/CtlTable.h"
#include "host/ctl/CtlVerbGroups.h"

namespace tessard {

namespace {

constexpr int kWarnings = 1;
constexpr int kErrors = 2;

std::string encoded(const std::string& text) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (std::isalnum(byte) != 0 || character == ',' || character == '-') {
      result += character;
    } else {
      result += {'%', kDigits[byte >> 4U], kDigits[byte & 15U]};
    }
  }
  return result;
}

std::vector<const Dictionary*> entriesOf(const Dictionary& answer, std::string_view key) {
  std::vector<const Dictionary*> entries;
  const Array* list = answer.arrayFor(key);
  if (!list) return entries;
  for (const Value& value : *list) {
    if (const Dictionary* entry = value.asDictionary()) entries.push_back(entry);
  }
  return entries;
}

std::string counted(std::size_t count, const std::string& what) {
  return fill(count == 1 ? "%lu %@" : "%lu %@s", {count, what});
}

void show(const CtlOutput& output, const Dictionary& answer) {
  const auto findings = entriesOf(answer, "findings");
  std::vector<CtlRow> rows;
  std::array<std::size_t, 3> counts{};
  for (const Dictionary* finding : findings) {
    const std::string severity = textFor(*finding, "severity", "");
    counts[severity == "error" ? 0 : severity == "warning" ? 1 : 2]++;
    rows.push_back({{textFor(*finding, "area", ""), severity},
                    {textFor(*finding, "sentence", ""), "-> " + textFor(*finding, "remedy", "")}});
  }
  printTable(output, rows);
  const std::string areas = counted(entriesOf(answer, "areas").size(), "area");
  if (findings.empty()) {
    output.line(fill("Nothing is wrong in %@.", {areas}));
  } else {
    output.line(fill("%@, %@, %@ in %@.", {counted(counts[0], "error"), counted(counts[1], "warning"),
                                           counted(counts[2], "notice"), areas}));
  }
}

int listAreas(CtlCall& call) {
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", "/v1/check/areas", "", exitCode);
  if (!answer) return exitCode;
  if (call.output().json()) return call.printEntries(*answer);
  std::vector<CtlRow> rows;
  for (const Dictionary* area : entriesOf(*answer, "areas")) {
    const std::string name = textFor(*area, "name", "");
    // What can be found everywhere is no area.
    if (name != "any") rows.push_back({{name}, {textFor(*area, "examines", "")}});
  }
  printTable(call.output(), rows);
  return EX_OK;
}

}  // namespace

int runCheck(CtlCall& call) {
  const CtlArguments& arguments = call.arguments();
  if (arguments.words.size() > 1) return call.usage("\"check\" takes no arguments.");
  if (arguments.list) {
    if (arguments.only || arguments.timeout)
      return call.usage("--list goes with neither --only nor --timeout.");
    return listAreas(call);
  }
  std::string path = "/v1/check";
  if (arguments.only) path += "?only=" + encoded(*arguments.only);
  if (arguments.timeout) path += (arguments.only ? "&timeout=" : "?timeout=") + encoded(*arguments.timeout);
  int exitCode = EX_OK;
  const auto answer = call.exchange("GET", path, "", exitCode);
  if (!answer) return exitCode;
  if (call.output().json()) {
    call.output().document(*answer);
  } else {
    show(call.output(), *answer);
  }
  const std::string worst = textFor(*answer, "worst", "none");
  return worst == "error" ? kErrors : worst == "warning" ? kWarnings : EX_OK;
}

}  // namespace tessard
