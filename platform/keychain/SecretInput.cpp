#include "platform/keychain/SecretInput.h"

#include <bsd/readpassphrase.h>
#include <unistd.h>

#include <cstring>

#include "platform/SystemCalls.h"

namespace tessard {

namespace {

// More than any pass phrase.
constexpr std::size_t kLongest = 4096;

// The terminal shows nothing any more before it shows the prompt, so that an answer that is there at once
// stays unseen too.
std::optional<Secret> ask(const std::string& prompt) {
  Secret typed(kLongest);
  if (!::readpassphrase(prompt.c_str(), typed.data(), kLongest, RPP_REQUIRE_TTY)) return std::nullopt;
  const std::size_t size = ::strnlen(typed.data(), kLongest);
  // As much as fits may be the beginning of more.
  if (size + 1 >= kLongest) return std::nullopt;
  return Secret(std::string_view(typed.data(), size));
}

std::optional<Secret> readLine(int descriptor) {
  Secret buffer(kLongest);
  std::size_t size = 0;
  bool ended = false;
  while (!ended && size < kLongest) {
    // One at a time: what follows the line is not ours.
    const auto got = readUpTo(descriptor, buffer.data() + size, 1);
    if (!got) return std::nullopt;
    ended = got.value() == 0 || buffer.data()[size] == '\n';
    if (!ended) ++size;
  }
  if (!ended || size == 0) return std::nullopt;
  return Secret(buffer.view().substr(0, size));
}

}  // namespace

std::optional<Secret> readSecret(const std::string& prompt) {
  return ::isatty(STDIN_FILENO) == 1 ? ask(prompt) : readLine(STDIN_FILENO);
}

std::optional<Secret> readSecretFrom(int descriptor) {
  return readLine(descriptor);
}

}  // namespace tessard
