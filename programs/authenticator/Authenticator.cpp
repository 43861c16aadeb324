#include "programs/authenticator/Authenticator.h"

#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "common/Format.h"
#include "platform/SystemCalls.h"
#include "programs/authenticator/LoginRules.h"

namespace tessard {

namespace {

// Tells c2s which of its questions are answered. Nobody can register, change a password or be removed through
// it.
constexpr std::string_view kGreeting = "OK USER-EXISTS CHECK-PASSWORD FREE\n";
constexpr std::string_view kYes = "OK\n";
constexpr std::string_view kNo = "NO\n";

// c2s writes at most 1,023 bytes at a time.
constexpr std::size_t kLongestQuestion = 4096;

bool moreIsThere(int descriptor) {
  pollfd look{.fd = descriptor, .events = POLLIN, .revents = 0};
  return ::poll(&look, 1, 0) == 1 && (look.revents & POLLIN) != 0;
}

// What c2s has written; overwritten when it ends, as it holds passwords.
class Question {
 public:
  Question() = default;
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
  ~Question() { ::explicit_bzero(bytes_.data(), bytes_.size()); }

  // Waits for the next one. The number of bytes, 0 at the end; fails when it cannot be read.
  Result<std::size_t> read(int descriptor) {
    const ssize_t length = uninterrupted([&] { return ::read(descriptor, bytes_.data(), bytes_.size()); });
    if (length < 0) return SystemError::last();
    length_ = static_cast<std::size_t>(length);
    return length_;
  }

  std::string_view text() const { return {bytes_.data(), length_}; }

 private:
  std::array<char, kLongestQuestion> bytes_{};
  std::size_t length_ = 0;
};

}  // namespace

Authenticator::Authenticator(const SaslauthdClient& saslauthd, Say say)
    : saslauthd_(saslauthd), say_(std::move(say)) {}

Result<void> Authenticator::serve(int questions, int answers) {
  if (auto greeted = writeAll(answers, kGreeting); !greeted) return greeted;
  while (true) {
    Question question;
    const auto length = question.read(questions);
    if (!length) return length.error();
    if (length.value() == 0) return {};
    std::string_view answer = answerTo(question.text());
    if (answer.empty()) return {};
    // One answer for all that came: a second one would be taken for that of the next login.
    while (moreIsThere(questions)) {
      const auto rest = question.read(questions);
      if (!rest) return rest.error();
      if (rest.value() == 0) break;
      answer = kNo;
    }
    if (auto answered = writeAll(answers, answer); !answered) return answered;
  }
}

std::string_view Authenticator::answerTo(std::string_view written) {
  PipeRequest request;
  readPipeRequest(written, request);
  switch (request.kind) {
    case PipeRequest::Kind::end:
      return {};
    case PipeRequest::Kind::userExists:
      return userExists(request.name) ? kYes : kNo;
    case PipeRequest::Kind::checkPassword:
      return passwordIsRight(request) ? kYes : kNo;
    case PipeRequest::Kind::malformed:
      break;
  }
  // The text itself stays out of the log: it may hold a password.
  say_("A login is refused: its name or its password is none that an account can have.");
  return kNo;
}

bool Authenticator::userExists(const std::string& name) {
  const auto account = localAccount(name);
  return account && account.value() && !refusalOf(*account.value(), loginRules());
}

bool Authenticator::passwordIsRight(const PipeRequest& request) {
  const auto account = localAccount(request.name);
  if (!account) {
    say_(fill("A login is refused, as the accounts cannot be read: %@", {account.error().description()}));
    return false;
  }
  if (!account.value()) {
    // The name stays out of the log, as people write their passwords into the wrong field.
    say_("A login is refused: there is no account of that name.");
    return false;
  }
  if (const auto reason = refusalOf(*account.value(), loginRules())) {
    say_(fill("A login of the account \"%@\" is refused: %@.", {request.name, *reason}));
    return false;
  }
  const auto accepted = saslauthd_.accepts(request.name, request.password.text());
  if (!accepted) {
    saslauthdFailed_ = true;
    say_(fill("A login of the account \"%@\" is refused, as saslauthd cannot be asked: %@",
              {request.name, accepted.error().description()}));
    return false;
  }
  if (std::exchange(saslauthdFailed_, false)) say_("saslauthd answers again.");
  return accepted.value();
}

}  // namespace tessard
