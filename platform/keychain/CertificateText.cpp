#include "platform/keychain/CertificateText.h"

#include <algorithm>
#include <string_view>

#include "common/StringEncodings.h"
#include "common/Utf8.h"

namespace tessard {

namespace {

bool isControl(char32_t point) {
  return point < 0x20 || (point >= 0x7f && point <= 0x9f);
}

std::optional<StringEncoding> encodingOf(int type) {
  switch (type) {
    case V_ASN1_UTF8STRING:
      return StringEncoding::utf8;
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_VISIBLESTRING:
    case V_ASN1_NUMERICSTRING:
      return StringEncoding::ascii;
    case V_ASN1_TELETEXSTRING:
      return StringEncoding::isoLatin1;
    case V_ASN1_UNIVERSALSTRING:
      return StringEncoding::utf32;
    case V_ASN1_BMPSTRING:
      return StringEncoding::utf16;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> textOf(const ASN1_STRING* value) {
  const std::string_view bytes(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                               static_cast<std::size_t>(ASN1_STRING_length(value)));
  const auto encoding = encodingOf(ASN1_STRING_type(value));
  auto text = encoding ? decodeString(bytes, *encoding) : std::nullopt;
  if (!text || std::ranges::any_of(decodeUtf8(*text), isControl)) return std::nullopt;
  return text;
}

}  // namespace tessard
