#pragma once

#include <openssl/asn1.h>

#include <optional>
#include <string>

namespace tessard {

/// The text of a value in a certificate's name, as UTF-8. Absent for a value that is no string of a known
/// type, breaks the rules of its type, or holds a NUL or another control character: such a text would read
/// differently in other places.
///
/// UTF8String is UTF-8; PrintableString, IA5String, VisibleString and NumericString are ASCII; TeletexString
/// is ISO Latin 1; UniversalString is UTF-32 and BMPString UTF-16, both as common/StringEncodings.h reads
/// them.
std::optional<std::string> textOf(const ASN1_STRING* value);

}  // namespace tessard
