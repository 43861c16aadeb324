#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tessard {

/// saslauthd takes no longer name or password, in bytes.
inline constexpr std::size_t kLongestCredential = 255;

/// A password in memory; overwritten when it ends. Never empty, without NUL bytes.
class Password {
 public:
  Password() = default;
  Password(const Password&) = delete;
  Password& operator=(const Password&) = delete;
  ~Password();

  /// Takes the password that `base64` stands for. False, and no password, when that is not canonical base64
  /// or the password is empty, longer than `kLongestCredential` or holds a NUL byte.
  bool decode(std::string_view base64);

  /// Valid as long as this object.
  std::string_view text() const { return {bytes_.data(), length_}; }

 private:
  std::array<char, kLongestCredential> bytes_{};
  std::size_t length_ = 0;
};

/// One question of c2s.
struct PipeRequest {
  enum class Kind {
    userExists,     ///< answered with OK or NO
    checkPassword,  ///< answered with OK or NO
    end,            ///< c2s goes; not answered
    malformed,      ///< answered with NO
  };
  Kind kind = Kind::malformed;
  std::string name;   ///< for the first two; a login name by `isLoginName`
  Password password;  ///< for `checkPassword`
};

/// Whether an account of that name may be asked about: small letters of ASCII, digits and "._-", not
/// beginning with
/// "-", at most `kLongestCredential` bytes. What a client says is passed on as it came, while the address
/// that it gets has its name in small letters and without what addresses cannot hold, so that other names
/// could become somebody else's address.
bool isLoginName(std::string_view name);

/// Reads all that c2s wrote at once into `request`; it is one line, as c2s waits for each answer. Names come
/// in it as clients sent them, so more lines, a missing end (c2s cuts long ones) or spaces too many are
/// malformed.
void readPipeRequest(std::string_view written, PipeRequest& request);

}  // namespace tessard
