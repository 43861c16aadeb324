#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "atoms/NotificationServiceAtom.h"
#include "atoms/X509Name.h"
#include "common/Format.h"
#include "common/StringEncodings.h"

namespace tessard {

namespace {

// Tags of the string types that a name may hold (ITU-T X.680).
constexpr std::uint8_t kUtf8String = 12;
constexpr std::uint8_t kPrintableString = 19;
constexpr std::uint8_t kTeletexString = 20;
constexpr std::uint8_t kIA5String = 22;
constexpr std::uint8_t kVisibleString = 26;
constexpr std::uint8_t kUniversalString = 28;
constexpr std::uint8_t kBMPString = 30;

// clang-format off
constexpr const char* kWarning =
    "Warning: Unrecognized relative distinguished name type or value type found in certificate:\n   OID type=%@  Value type=%d  value=%@";
// clang-format on

std::optional<StringEncoding> encodingOfTag(std::uint8_t tag) {
  switch (tag) {
    case kUtf8String:
      return StringEncoding::utf8;
    case kPrintableString:
    case kIA5String:
    case kVisibleString:
      return StringEncoding::ascii;
    case kTeletexString:
      return StringEncoding::isoLatin1;
    case kUniversalString:
      return StringEncoding::utf32;
    case kBMPString:
      return StringEncoding::utf16;
    default:
      return std::nullopt;
  }
}

std::string bytesOf(const X509Bytes& bytes) {
  return {bytes.Data, bytes.Data + bytes.Length};
}

void warnOf(const X509TypeValuePair& pair) {
  const std::string line =
      fill(kWarning, {Value(Data{bytesOf(pair.type)}), pair.valueType, Value(Data{bytesOf(pair.value)})}) +
      "\n";
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stderr));
}

// The first topic of the name that is a text.
std::optional<std::string> topicIn(const X509RelativeName& name) {
  for (const X509TypeValuePair& pair : std::span(name.AttributeTypeAndValue, name.numberOfPairs)) {
    if (!isTopicOID(&pair.type)) continue;
    const auto encoding = encodingOfTag(pair.valueType);
    auto text = encoding ? decodeString(bytesOf(pair.value), *encoding) : std::nullopt;
    if (text) return text;
    warnOf(pair);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> NOTIFICATION_PLUGIN_NotificationServiceAtom::otherNameForX509Name(
    const X509Name& name) {
  std::optional<std::string> topic;
  for (const X509RelativeName& part : std::span(name.RelativeDistinguishedName, name.numberOfRDNs)) {
    if (auto found = topicIn(part)) topic = std::move(found);
  }
  return topic;
}

}  // namespace tessard
