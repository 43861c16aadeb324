#include "common/Utf8.h"

#include <cstddef>

namespace tessard {

namespace {

constexpr char32_t kReplacement = 0xfffd;

// Takes one code point off the front of `bytes`; false, with one byte taken, when it is malformed.
bool takePoint(std::string_view& bytes, char32_t& point) {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned char first = byteAt(0);
  std::size_t length = 1;
  char32_t smallest = 0;
  if (first < 0x80) {
    point = first;
    bytes.remove_prefix(1);
    return true;
  }
  if (first >= 0xc2 && first < 0xe0) {
    length = 2, smallest = 0x80, point = first & 0x1fU;
  } else if (first >= 0xe0 && first < 0xf0) {
    length = 3, smallest = 0x800, point = first & 0x0fU;
  } else if (first >= 0xf0 && first < 0xf5) {
    length = 4, smallest = 0x10000, point = first & 0x07U;
  }
  bool wellFormed = length > 1 && bytes.size() >= length;
  for (std::size_t i = 1; wellFormed && i < length; ++i) {
    wellFormed = (byteAt(i) & 0xc0U) == 0x80;
    point = (point << 6) | (byteAt(i) & 0x3fU);
  }
  wellFormed = wellFormed && point >= smallest && point <= 0x10ffff && (point < 0xd800 || point > 0xdfff);
  bytes.remove_prefix(wellFormed ? length : 1);
  return wellFormed;
}

bool isXmlPoint(char32_t point) {
  if (point < 0x20) return point == '\t' || point == '\n' || point == '\r';
  return point != 0xfffe && point != 0xffff;
}

}  // namespace

bool isUtf8(std::string_view bytes) {
  char32_t point = 0;
  while (!bytes.empty()) {
    if (!takePoint(bytes, point)) return false;
  }
  return true;
}

bool isXmlText(std::string_view bytes) {
  char32_t point = 0;
  while (!bytes.empty()) {
    if (!takePoint(bytes, point) || !isXmlPoint(point)) return false;
  }
  return true;
}

std::u32string decodeUtf8(std::string_view bytes) {
  std::u32string points;
  char32_t point = 0;
  while (!bytes.empty()) points += takePoint(bytes, point) ? point : kReplacement;
  return points;
}

void appendUtf8(std::string& out, char32_t point) {
  const auto append = [&](char32_t byte) { out += static_cast<char>(byte); };
  if (point < 0x80) {
    append(point);
  } else if (point < 0x800) {
    append(0xc0 | (point >> 6));
    append(0x80 | (point & 0x3f));
  } else if (point < 0x10000) {
    append(0xe0 | (point >> 12));
    append(0x80 | ((point >> 6) & 0x3f));
    append(0x80 | (point & 0x3f));
  } else {
    append(0xf0 | (point >> 18));
    append(0x80 | ((point >> 12) & 0x3f));
    append(0x80 | ((point >> 6) & 0x3f));
    append(0x80 | (point & 0x3f));
  }
}

}  // namespace tessard
