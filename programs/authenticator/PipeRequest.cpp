#include "programs/authenticator/PipeRequest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace tessard {

namespace {

constexpr std::size_t kMostFields = 5;

// Base64 as EVP_DecodeBlock writes it: three bytes for four characters, padding included.
constexpr std::size_t kLongestBase64 = (kLongestCredential + 2) / 3 * 4;
constexpr std::size_t kLongestDecoded = kLongestBase64 / 4 * 3;

using Piece = std::array<unsigned char, kLongestBase64 + 1>;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

// The library takes blanks and unused bits that are set; text that differs from its own is none of c2s's.
bool isCanonical(std::string_view base64, const Piece& decoded, std::size_t length) {
  Piece again{};
  const int written = ::EVP_EncodeBlock(again.data(), decoded.data(), static_cast<int>(length));
  const bool same = static_cast<std::size_t>(written) == base64.size() &&
                    std::memcmp(again.data(), base64.data(), base64.size()) == 0;
  ::explicit_bzero(again.data(), again.size());
  return same;
}

// Fields between single spaces; one too many at most.
std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  for (std::size_t space = 0; space != std::string_view::npos && fields.size() < kMostFields;) {
    space = line.find(' ');
    fields.push_back(line.substr(0, space));
    if (space != std::string_view::npos) line.remove_prefix(space + 1);
  }
  return fields;
}

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < ' ' || byte == 0x7F;
}

bool mayBeInName(char character) {
  return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') ||
         character == '.' || character == '_' || character == '-';
}

}  // namespace

Password::~Password() {
  ::explicit_bzero(bytes_.data(), bytes_.size());
}

bool Password::decode(std::string_view base64) {
  length_ = 0;
  if (base64.empty() || base64.size() % 4 != 0 || base64.size() > kLongestBase64) return false;
  Piece decoded{};
  static_assert(kLongestDecoded <= sizeof decoded);
  const int written = ::EVP_DecodeBlock(decoded.data(), bytesOf(base64), static_cast<int>(base64.size()));
  const std::size_t padding = base64.ends_with("==") ? 2 : base64.ends_with('=') ? 1 : 0;
  if (written > 0) {
    const std::size_t length = static_cast<std::size_t>(written) - padding;
    if (length <= bytes_.size() && isCanonical(base64, decoded, length) &&
        std::memchr(decoded.data(), 0, length) == nullptr) {
      std::memcpy(bytes_.data(), decoded.data(), length);
      length_ = length;
    }
  }
  ::explicit_bzero(decoded.data(), decoded.size());
  return length_ > 0;
}

bool isLoginName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestCredential && name.front() != '-' &&
         std::all_of(name.begin(), name.end(), mayBeInName);
}

void readPipeRequest(std::string_view written, PipeRequest& request) {
  request.kind = PipeRequest::Kind::malformed;
  if (!written.ends_with('\n')) return;
  written.remove_suffix(1);
  if (std::any_of(written.begin(), written.end(), isControl)) return;
  const std::vector<std::string_view> fields = fieldsOf(written);
  if (fields.size() == 1 && fields[0] == "FREE") request.kind = PipeRequest::Kind::end;
  if (fields.size() < 3 || !isLoginName(fields[1])) return;
  request.name = fields[1];
  // The last field is the domain, or whatever c2s was told to take for it: all domains share the accounts.
  if (fields.size() == 3 && fields[0] == "USER-EXISTS") request.kind = PipeRequest::Kind::userExists;
  if (fields.size() == 4 && fields[0] == "CHECK-PASSWORD" && request.password.decode(fields[2])) {
    request.kind = PipeRequest::Kind::checkPassword;
  }
}

}  // namespace tessard
