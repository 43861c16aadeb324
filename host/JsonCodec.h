#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/Result.h"
#include "common/Value.h"

namespace tessard {

inline constexpr std::size_t kJsonDepthLimit = 64;

/// JSON text as a property-list value. What JSON lacks is written as an object with one reserved key:
///   {"$data": "aGVsbG8="}               bytes, base64
///   {"$date": "2026-11-21T02:00:27Z"}   a moment, RFC 3339
///   {"$literal": {...}}                 the inner object as it stands, for a dictionary whose only key is
///                                       itself one of the three
/// An object that has further keys is an ordinary dictionary. null is absent: such an element or entry is
/// left out. Numbers without fraction and exponent are integers, all others reals.
/// Fails, with a sentence that names the reason, on malformed text, bytes after the value, invalid UTF-8, a
/// doubled key, an integer beyond 64 bits, a real beyond its range, a reserved key whose value is not as said
/// above, nesting deeper than `kJsonDepthLimit`, more than `valueLimit` values, and a text that is null as a
/// whole.
Result<Value> parseJson(std::string_view text, std::size_t valueLimit = SIZE_MAX);

/// JSON text that `parseJson` reads back as the same value, without line ends, or, with `pretty`, indented by
/// two blanks. Reals that are no number JSON can hold become the strings "NaN", "Infinity" and "-Infinity";
/// bytes that are not UTF-8 become U+FFFD.
std::string serializeJson(const Value& value, bool pretty = false);

}  // namespace tessard
