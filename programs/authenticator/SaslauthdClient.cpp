#include "programs/authenticator/SaslauthdClient.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/Format.h"
#include "platform/FileDescriptor.h"
#include "programs/authenticator/PipeRequest.h"

namespace tessard {

namespace {

using Clock = std::chrono::steady_clock;

// The PAM service that the question is put to, share/pam.d/jabberd.
constexpr std::string_view kService = "jabberd";

// saslauthd's questions are four counted strings: name, password, service, realm. A count is two bytes, the
// high one first. The answer is one, which begins with OK or NO.
constexpr std::size_t kCountBytes = 2;
constexpr std::size_t kLongestQuestion = 2 * kLongestCredential + kService.size() + 4 * kCountBytes;
constexpr std::size_t kLongestAnswer = 1024;

// The question in memory; overwritten when it ends, as it holds the password.
class Question {
 public:
  Question(std::string_view name, std::string_view password) {
    for (const std::string_view each : {name, password, kService, std::string_view()}) add(each);
  }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;
  ~Question() { ::explicit_bzero(bytes_.data(), bytes_.size()); }

  std::string_view text() const { return {bytes_.data(), length_}; }

 private:
  void add(std::string_view text) {
    bytes_[length_++] = static_cast<char>(text.size() >> 8);
    bytes_[length_++] = static_cast<char>(text.size() & 0xFF);
    std::copy(text.begin(), text.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(length_));
    length_ += text.size();
  }

  std::array<char, kLongestQuestion> bytes_{};
  std::size_t length_ = 0;
};

// A system call that waited too long says EAGAIN.
SystemError lastError() {
  if (errno == EAGAIN || errno == EINPROGRESS) return SystemError(ETIMEDOUT);
  return SystemError::last();
}

bool limit(const FileDescriptor& link, int option, Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()).count();
  if (left <= 0) {
    errno = EAGAIN;
    return false;
  }
  const timeval time{.tv_sec = left / 1'000'000, .tv_usec = left % 1'000'000};
  return ::setsockopt(link.get(), SOL_SOCKET, option, &time, sizeof time) == 0;
}

Result<FileDescriptor> connectTo(const std::string& path, Clock::time_point end) {
  sockaddr_un place{};
  place.sun_family = AF_UNIX;
  if (path.size() >= sizeof place.sun_path) return SystemError(ENAMETOOLONG);
  std::copy(path.begin(), path.end(), place.sun_path);
  FileDescriptor link(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!link || !limit(link, SO_SNDTIMEO, end)) return lastError();
  while (::connect(link.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
    if (errno != EINTR) return lastError();
  }
  return link;
}

Result<void> sendAll(const FileDescriptor& link, std::string_view text, Clock::time_point end) {
  while (!text.empty()) {
    if (!limit(link, SO_SNDTIMEO, end)) return lastError();
    const ssize_t length = ::send(link.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (length < 0 && errno != EINTR) return lastError();
    if (length > 0) text.remove_prefix(static_cast<std::size_t>(length));
  }
  return {};
}

Result<std::string> receive(const FileDescriptor& link, std::size_t wanted, Clock::time_point end) {
  std::string text(wanted, '\0');
  for (std::size_t have = 0; have < wanted;) {
    if (!limit(link, SO_RCVTIMEO, end)) return lastError();
    const ssize_t length = ::recv(link.get(), text.data() + have, wanted - have, 0);
    if (length == 0) return SystemError(EPROTO, "it hung up");
    if (length < 0 && errno != EINTR) return lastError();
    if (length > 0) have += static_cast<std::size_t>(length);
  }
  return text;
}

}  // namespace

SaslauthdClient::SaslauthdClient(std::string socket, std::chrono::milliseconds patience)
    : socket_(std::move(socket)), patience_(patience) {}

Result<bool> SaslauthdClient::accepts(std::string_view name, std::string_view password) const {
  if (name.size() > kLongestCredential || password.size() > kLongestCredential) return SystemError(EMSGSIZE);
  const Clock::time_point end = Clock::now() + patience_;
  const auto link = connectTo(socket_, end);
  if (!link) return link.error();
  const Question question(name, password);
  if (const auto sent = sendAll(link.value(), question.text(), end); !sent) return sent.error();
  const auto count = receive(link.value(), kCountBytes, end);
  if (!count) return count.error();
  const auto high = static_cast<unsigned char>(count.value()[0]);
  const auto low = static_cast<unsigned char>(count.value()[1]);
  const std::size_t length = (std::size_t{high} << 8) + low;
  if (length < 2 || length > kLongestAnswer) return SystemError(EPROTO);
  const auto answer = receive(link.value(), length, end);
  if (!answer) return answer.error();
  if (answer.value().starts_with("OK")) return true;
  if (answer.value().starts_with("NO")) return false;
  return SystemError(EPROTO);
}

}  // namespace tessard
