#include "host/Base64.h"

#include <cstddef>
#include <cstdint>

namespace tessard {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::uint32_t byteAt(std::string_view bytes, std::size_t index) {
  return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0;
}

}  // namespace

std::string encodeBase64(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::uint32_t group =
        (byteAt(bytes, at) << 16) | (byteAt(bytes, at + 1) << 8) | byteAt(bytes, at + 2);
    const std::size_t digits = bytes.size() - at >= 3 ? 4 : bytes.size() - at + 1;
    for (std::size_t digit = 0; digit < 4; ++digit) {
      text += digit < digits ? kAlphabet[(group >> (18 - 6 * digit)) & 63] : '=';
    }
  }
  return text;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  text.remove_suffix(padding);
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t bits = 0;
  unsigned held = 0;
  for (const char character : text) {
    const std::size_t digit = kAlphabet.find(character);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(digit);
    held += 6;
    if (held < 8) continue;
    held -= 8;
    bytes += static_cast<char>((bits >> held) & 0xff);
    bits &= (1U << held) - 1;
  }
  if (bits != 0) return std::nullopt;
  return bytes;
}

}  // namespace tessard
