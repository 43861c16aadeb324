#include "platform/keychain/SecretInput.h"

#include <openssl/ui.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>

#include "platform/SystemCalls.h"

namespace tessard {

namespace {

// More than any pass phrase.
constexpr std::size_t kLongest = 4096;

struct FreeUi {
  void operator()(UI* ui) const { UI_free(ui); }
};

std::optional<Secret> ask(const std::string& prompt) {
  Secret typed(kLongest);
  const std::unique_ptr<UI, FreeUi> ui(UI_new_method(UI_OpenSSL()));
  if (!ui || UI_add_input_string(ui.get(), prompt.c_str(), 0, typed.data(), 0, kLongest - 1) <= 0 ||
      UI_process(ui.get()) != 0) {
    return std::nullopt;
  }
  return Secret(std::string_view(typed.data(), ::strnlen(typed.data(), kLongest)));
}

std::optional<Secret> readLine() {
  Secret buffer(kLongest);
  std::size_t size = 0;
  bool ended = false;
  while (!ended && size < kLongest) {
    // One at a time: what follows the line is not ours.
    const auto got = readUpTo(STDIN_FILENO, buffer.data() + size, 1);
    if (!got) return std::nullopt;
    ended = got.value() == 0 || buffer.data()[size] == '\n';
    if (!ended) ++size;
  }
  if (!ended || size == 0) return std::nullopt;
  return Secret(buffer.view().substr(0, size));
}

}  // namespace

std::optional<Secret> readSecret(const std::string& prompt) {
  return ::isatty(STDIN_FILENO) == 1 ? ask(prompt) : readLine();
}

}  // namespace tessard
