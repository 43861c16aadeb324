// The input is an XML or binary property list.

#include "fuzz/FuzzTargets.h"
#include "fuzz/ValuePromises.h"
#include "fuzz/XmlTruth.h"

namespace tessard::fuzz {

void property_lists(std::string_view input) {
  const auto value = parsePropertyList(input);
  if (!value) {
    promise(!value.error().description().empty(), "a refusal has a reason");
    return;
  }
  if (!input.starts_with("bplist00")) {
    const XmlTruth truth = truthAboutXml(input);
    promise(truth.wellFormed, "an accepted XML list is well-formed");
    promise(!truth.entities, "no XML list with entities is accepted");
  }
  promisePropertyListRoundTrip(value.value());
}

}  // namespace tessard::fuzz
