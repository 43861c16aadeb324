// The first line of the input is a Content-Type header, the second an Accept header, the rest a body.

#include "fuzz/FuzzBytes.h"
#include "fuzz/FuzzTargets.h"
#include "fuzz/ValuePromises.h"
#include "fuzz/XmlTruth.h"
#include "host/MediaType.h"

namespace tessard::fuzz {

void requests(std::string_view input) {
  FuzzBytes bytes(input);
  const auto sent = MediaType::fromContentType(bytes.line());
  const std::string accept(bytes.line());
  if (!sent) return;
  const MediaType wanted = MediaType::forAnswer(accept, *sent);
  promise(MediaType::fromContentType(wanted.name()) == wanted,
          "the type of an answer is one that can be sent");

  const std::string_view body = bytes.rest();
  const auto value = sent->parse(body);
  if (!value) {
    promise(!value.error().description().empty(), "a refusal has a reason");
    return;
  }
  if (!sent->isJson() && !body.starts_with("bplist00")) {
    promise(!truthAboutXml(body).entities, "no body with entities is accepted");
  }
  promiseJsonRoundTrip(value.value());
  promisePropertyListRoundTrip(value.value());
  static_cast<void>(wanted.serialize(value.value()).ok());
}

}  // namespace tessard::fuzz
