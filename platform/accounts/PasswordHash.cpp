#include "platform/accounts/PasswordHash.h"

#include <crypt.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>
#include <vector>

#include "common/Text.h"

namespace tessard {

namespace {

constexpr std::size_t kFileLimit = 1024UL * 1024;

struct Method {
  std::string_view name;
  std::string_view prefix;
};

// In the words of pam_unix; login.defs has the same in capitals, and its own name for one of them. The rest
// that both know is weaker than what libcrypt prefers.
constexpr std::array<Method, 6> kMethods = {{
    {"yescrypt", "$y$"},
    {"gost_yescrypt", "$gy$"},
    {"sha512", "$6$"},
    {"sha256", "$5$"},
    {"blowfish", "$2b$"},
    {"bcrypt", "$2b$"},
}};

std::optional<std::string> prefixOf(std::string_view word) {
  const auto found = std::ranges::find(kMethods, asciiLowercase(word), &Method::name);
  if (found == kMethods.end()) return std::nullopt;
  return std::string(found->prefix);
}

/// The words of every line, comments left out.
std::vector<std::vector<std::string>> linesOf(FileSystem& files, const char* path) {
  std::vector<std::vector<std::string>> lines;
  const auto content = files.readFile(path, kFileLimit);
  if (!content) return lines;
  for (const std::string& line : componentsOf(content.value(), '\n')) {
    auto words = componentsOf(replacingAll(line.substr(0, line.find('#')), "\t", " "), ' ');
    std::erase(words, "");
    if (!words.empty()) lines.push_back(std::move(words));
  }
  return lines;
}

/// A hash holds what an attacker wants to try passwords against, so its work space is wiped too.
struct WipedCryptData {
  crypt_data data{};
  WipedCryptData() = default;
  WipedCryptData(const WipedCryptData&) = delete;
  WipedCryptData& operator=(const WipedCryptData&) = delete;
  ~WipedCryptData() { explicit_bzero(&data, sizeof data); }
};

}  // namespace

std::string passwordMethod(FileSystem& files) {
  for (const auto& words : linesOf(files, "/etc/pam.d/common-password")) {
    const auto module =
        std::ranges::find_if(words, [](const std::string& word) { return word.ends_with("pam_unix.so"); });
    if (words.front() != "password" || module == words.end()) continue;
    for (auto option = module; option != words.end(); ++option) {
      if (auto prefix = prefixOf(*option)) return *prefix;
    }
  }
  for (const auto& words : linesOf(files, "/etc/login.defs")) {
    if (words.size() < 2 || words[0] != "ENCRYPT_METHOD") continue;
    if (auto prefix = prefixOf(words[1])) return *prefix;
  }
  return {};
}

Result<std::string> hashPassword(std::string_view password, const std::string& method) {
  if (password.empty()) return SystemError(EINVAL, "a password cannot be empty");
  if (password.find('\0') != std::string_view::npos) {
    return SystemError(EINVAL, "a password cannot hold a NUL character");
  }
  std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
  // Without bytes of ours the library takes the salt from the kernel.
  if (!crypt_gensalt_rn(method.empty() ? nullptr : method.c_str(), 0, nullptr, 0, setting.data(),
                        static_cast<int>(setting.size()))) {
    return SystemError::last();
  }
  const auto work = std::make_unique<WipedCryptData>();
  std::string phrase(password);
  const char* hash =
      crypt_rn(phrase.c_str(), setting.data(), &work->data, static_cast<int>(sizeof work->data));
  const int problem = errno;
  explicit_bzero(phrase.data(), phrase.size());
  if (!hash) return SystemError(problem);
  return std::string(hash);
}

}  // namespace tessard
