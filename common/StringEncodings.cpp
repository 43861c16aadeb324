#include "common/StringEncodings.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr std::uint32_t kByteOrderMark = 0xFEFF;
constexpr std::uint32_t kSurrogates = 0xD800;
constexpr std::uint32_t kLowSurrogates = 0xDC00;
constexpr std::uint32_t kAfterSurrogates = 0xE000;
constexpr std::uint32_t kFirstBeyondBasicPlane = 0x10000;
constexpr std::uint32_t kLastCodePoint = 0x10FFFF;

std::uint32_t byteAt(std::string_view bytes, std::size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

/// The units of a text in whose units `width` bytes stand, as numbers, without a byte order mark.
std::optional<std::u32string> unitsOf(std::string_view bytes, std::size_t width) {
  if (bytes.size() % width != 0) return std::nullopt;
  std::u32string highFirst;
  std::u32string lowFirst;
  for (std::size_t at = 0; at < bytes.size(); at += width) {
    std::uint32_t high = 0;
    std::uint32_t low = 0;
    for (std::size_t byte = 0; byte < width; ++byte) {
      high = high << 8U | byteAt(bytes, at + byte);
      low |= byteAt(bytes, at + byte) << (8U * byte);
    }
    highFirst += static_cast<char32_t>(high);
    lowFirst += static_cast<char32_t>(low);
  }
  if (lowFirst.starts_with(static_cast<char32_t>(kByteOrderMark))) return lowFirst.substr(1);
  if (highFirst.starts_with(static_cast<char32_t>(kByteOrderMark))) highFirst.erase(0, 1);
  return highFirst;
}

bool isSurrogate(std::uint32_t unit) {
  return unit >= kSurrogates && unit < kAfterSurrogates;
}

bool isLowSurrogate(std::uint32_t unit) {
  return unit >= kLowSurrogates && unit < kAfterSurrogates;
}

std::optional<std::string> decodeUtf16(std::string_view bytes) {
  const auto units = unitsOf(bytes, 2);
  if (!units) return std::nullopt;
  std::string text;
  for (std::size_t i = 0; i < units->size(); ++i) {
    std::uint32_t point = (*units)[i];
    if (isSurrogate(point)) {
      const bool paired = !isLowSurrogate(point) && i + 1 < units->size() && isLowSurrogate((*units)[i + 1]);
      if (!paired) return std::nullopt;
      ++i;
      point = kFirstBeyondBasicPlane + ((point - kSurrogates) << 10U) + ((*units)[i] - kLowSurrogates);
    }
    appendUtf8(text, static_cast<char32_t>(point));
  }
  return text;
}

std::optional<std::string> decodeUtf32(std::string_view bytes) {
  const auto points = unitsOf(bytes, 4);
  if (!points) return std::nullopt;
  std::string text;
  for (const char32_t point : *points) {
    if (point > kLastCodePoint || isSurrogate(point)) return std::nullopt;
    appendUtf8(text, point);
  }
  return text;
}

std::string decodeIsoLatin1(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) appendUtf8(text, static_cast<unsigned char>(byte));
  return text;
}

bool isAscii(std::string_view bytes) {
  return std::ranges::all_of(bytes, [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

}  // namespace

std::optional<std::string> decodeString(std::string_view bytes, StringEncoding encoding) {
  switch (encoding) {
    case StringEncoding::utf8:
      return isUtf8(bytes) ? std::optional(std::string(bytes)) : std::nullopt;
    case StringEncoding::ascii:
      return isAscii(bytes) ? std::optional(std::string(bytes)) : std::nullopt;
    case StringEncoding::isoLatin1:
      return decodeIsoLatin1(bytes);
    case StringEncoding::utf16:
      return decodeUtf16(bytes);
    case StringEncoding::utf32:
      return decodeUtf32(bytes);
  }
  return std::nullopt;
}

}  // namespace tessard
