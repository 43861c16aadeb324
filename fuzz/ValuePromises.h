#pragma once

#include <string>
#include <string_view>

#include "common/PropertyList.h"
#include "common/Value.h"
#include "fuzz/FuzzTargets.h"
#include "host/JsonCodec.h"

namespace tessard::fuzz {

/// What is written as a property list reads back as the same, and is written again as the same bytes. A value
/// that no list can hold is refused.
inline void promisePropertyListRoundTrip(const Value& value) {
  const auto written = serializePropertyList(value);
  if (!written) return;
  // Strings that were short in a binary list may be written longer.
  const auto read = parsePropertyList(written.value(), kPropertyListFileSizeLimit);
  if (written.value().size() > kPropertyListFileSizeLimit) return;
  promise(read.ok(), "a property list that was written can be read");
  const auto again = serializePropertyList(read.value());
  promise(again.ok() && again.value() == written.value(),
          "a property list is written twice as the same bytes");
}

inline void promiseJsonRoundTrip(const Value& value) {
  const std::string written = serializeJson(value);
  const auto read = parseJson(written);
  promise(read.ok(), "JSON that was written can be read");
  promise(serializeJson(read.value()) == written, "JSON is written twice as the same bytes");
  const auto pretty = parseJson(serializeJson(value, true));
  promise(pretty.ok() && serializeJson(pretty.value()) == written, "indented JSON reads as the same value");
}

}  // namespace tessard::fuzz
