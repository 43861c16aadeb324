#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

namespace tessard {

/// Bytes that are wiped from memory when they are let go. They move, and are never copied unseen.
class Secret {
 public:
  Secret() : Secret(std::size_t{0}) {}
  explicit Secret(std::string_view bytes) : Secret(bytes.size()) { std::ranges::copy(bytes, bytes_.begin()); }
  /// So many zero bytes, to be filled.
  explicit Secret(std::size_t size) : bytes_(size + 1) {}
  Secret(Secret&& other) noexcept : bytes_(std::exchange(other.bytes_, {})) {}
  Secret& operator=(Secret&& other) noexcept {
    bytes_.swap(other.bytes_);
    return *this;
  }
  ~Secret() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

  std::string_view view() const { return {bytes_.data(), size()}; }
  /// The bytes with a NUL behind the last one.
  const char* text() const { return bytes_.empty() ? "" : bytes_.data(); }
  char* data() { return bytes_.data(); }
  std::size_t size() const { return bytes_.empty() ? 0 : bytes_.size() - 1; }

 private:
  std::vector<char> bytes_;  // and a NUL; nothing at all once they have moved on
};

}  // namespace tessard
