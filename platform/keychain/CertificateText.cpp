#include "platform/keychain/CertificateText.h"

#include <algorithm>
#include <string_view>

#include "common/Utf8.h"

namespace tessard {

namespace {

bool isSurrogate(char32_t point) {
  return point >= 0xd800 && point <= 0xdfff;
}

bool isControl(char32_t point) {
  return point < 0x20 || (point >= 0x7f && point <= 0x9f);
}

char32_t numberOf(std::string_view bytes) {
  char32_t number = 0;
  for (const char byte : bytes) number = number << 8U | static_cast<unsigned char>(byte);
  return number;
}

std::optional<std::u32string> fromAscii(std::string_view bytes) {
  std::u32string points;
  for (const char byte : bytes) points += static_cast<unsigned char>(byte);
  if (std::ranges::any_of(points, [](char32_t point) { return point > 0x7f; })) return std::nullopt;
  return points;
}

std::optional<std::u32string> fromUtf32(std::string_view bytes) {
  if (bytes.size() % 4 != 0) return std::nullopt;
  std::u32string points;
  for (; !bytes.empty(); bytes.remove_prefix(4)) {
    const char32_t point = numberOf(bytes.substr(0, 4));
    if (point > 0x10ffff || isSurrogate(point)) return std::nullopt;
    points += point;
  }
  return points;
}

std::optional<std::u32string> fromUtf16(std::string_view bytes) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  std::u32string points;
  while (!bytes.empty()) {
    const char32_t unit = numberOf(bytes.substr(0, 2));
    bytes.remove_prefix(2);
    if (!isSurrogate(unit)) {
      points += unit;
      continue;
    }
    const char32_t second = bytes.empty() ? 0 : numberOf(bytes.substr(0, 2));
    if (unit > 0xdbff || second < 0xdc00 || second > 0xdfff) return std::nullopt;
    bytes.remove_prefix(2);
    points += 0x10000 + ((unit - 0xd800) << 10U) + (second - 0xdc00);
  }
  return points;
}

std::optional<std::u32string> pointsOf(int type, std::string_view bytes) {
  switch (type) {
    case V_ASN1_UTF8STRING:
      if (!isUtf8(bytes)) return std::nullopt;
      return decodeUtf8(bytes);
    case V_ASN1_PRINTABLESTRING:
    case V_ASN1_IA5STRING:
    case V_ASN1_VISIBLESTRING:
    case V_ASN1_NUMERICSTRING:
      return fromAscii(bytes);
    case V_ASN1_TELETEXSTRING: {
      std::u32string points;
      for (const char byte : bytes) points += static_cast<unsigned char>(byte);
      return points;
    }
    case V_ASN1_UNIVERSALSTRING:
      return fromUtf32(bytes);
    case V_ASN1_BMPSTRING:
      return fromUtf16(bytes);
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> textOf(const ASN1_STRING* value) {
  const std::string_view bytes(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                               static_cast<std::size_t>(ASN1_STRING_length(value)));
  const auto points = pointsOf(ASN1_STRING_type(value), bytes);
  if (!points || std::ranges::any_of(*points, isControl)) return std::nullopt;
  std::string text;
  for (const char32_t point : *points) appendUtf8(text, point);
  return text;
}

}  // namespace tessard
