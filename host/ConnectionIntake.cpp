#include "host/ConnectionIntake.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "common/Format.h"
#include "host/HttpMessage.h"

namespace tessard {

namespace {

using Clock = std::chrono::steady_clock;

// How soon a deadline that has passed is noticed.
constexpr std::chrono::milliseconds kTick{250};

// Taken in a row before anything else is looked at, however many there are.
constexpr int kBatch = 64;

FileDescriptor newSpare() {
  return FileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

// Made once, as there may be very many to be refused.
const std::string& notAllowed() {
  static const std::string message = wholeMessage(
      errorAnswer(403, "refused", "Only root and members of the administrators' group may send requests."));
  return message;
}

const std::string& tooMany() {
  static const std::string message =
      wholeMessage(errorAnswer(503, "too-many-connections", "Too many connections are open; try again."));
  return message;
}

void tellAndClose(int connection, const std::string& message) {
  send(connection, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  close(connection);
}

bool isWithoutDescriptors(int code) {
  return code == EMFILE || code == ENFILE;
}

}  // namespace

ConnectionIntake::ConnectionIntake(const PeerCheck& peers, ConnectionTable& table,
                                   std::function<bool(int)> serve,
                                   std::function<void(const std::string&)> report)
    : peers_(peers),
      table_(table),
      serve_(std::move(serve)),
      report_(report),
      refusals_(std::move(report)),
      spare_(newSpare()) {}

void ConnectionIntake::acceptUntil(int stopEvent, int listener, const std::function<void(Moment)>& tick,
                                   std::optional<std::chrono::milliseconds> longest) {
  bool canAccept = true;
  Moment nextTick;
  const int wait = longest ? static_cast<int>(longest->count()) : -1;
  while (waitForClients(stopEvent, listener, canAccept, wait)) {
    canAccept = acceptSome(listener);
    const auto now = Clock::now();
    if (now < nextTick) continue;
    nextTick = now + kTick;
    tick(now);
    refusals_.tick(now);
    if (!spare_) spare_ = newSpare();
  }
}

// False when it is time to stop.
bool ConnectionIntake::waitForClients(int stopEvent, int listener, bool canAccept, int longest) {
  std::array<pollfd, 2> watched = {{{stopEvent, POLLIN, 0}, {listener, POLLIN, 0}}};
  const bool ticks = !canAccept || table_.size() > 0 || refusals_.isPending() || !spare_;
  const nfds_t count = canAccept ? 2 : 1;
  constexpr int kTickWait = static_cast<int>(kTick.count());
  const int wait = !ticks ? longest : longest < 0 ? kTickWait : std::min(longest, kTickWait);
  if (poll(watched.data(), count, wait) < 0 && errno != EINTR) {
    report_(fill("Waiting for clients failed: %@.", {SystemError::last().description()}));
    return false;
  }
  return watched[0].revents == 0;
}

// False when the listener is to be left alone until the next tick, as it stays readable and nothing can be
// taken from it.
bool ConnectionIntake::acceptSome(int listener) {
  for (int taken = 0; taken < kBatch; ++taken) {
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection >= 0) {
      take(connection);
    } else if (isWithoutDescriptors(errno)) {
      makeDescriptorFree(listener);
      return false;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return errno == EAGAIN;
    }
  }
  return true;
}

void ConnectionIntake::take(int connection) {
  const auto peer = peerOf(connection);
  if (!peer || !peers_.mayConnect(peer.value())) {
    refuse(connection,
           peer ? fill("Refused a connection of user %u.", {peer.value().user})
                : fill("Refused a connection of nobody knows whom: %@.", {peer.error().description()}),
           notAllowed());
    return;
  }
  const uid_t user = peer.value().user;
  if (!table_.admit(connection, {user, PeerCheck::isRoot(peer.value()), peer.value().process},
                    Clock::now())) {
    refuse(connection, fill("Refused a connection of user %u: too many are open.", {user}), tooMany());
  } else if (!serve_(connection)) {
    table_.remove(connection);
  }
}

void ConnectionIntake::refuse(int connection, const std::string& sentence, const std::string& message) {
  refusals_.refused(sentence, Clock::now());
  tellAndClose(connection, message);
}

// The connection that is of the least use ends. The next client has the spare descriptor: root to be served,
// anyone else to be refused.
void ConnectionIntake::makeDescriptorFree(int listener) {
  refusals_.refused("Refused a connection: there are no more file descriptors.", Clock::now());
  table_.endOne(Clock::now());
  if (!spare_) return;
  spare_.close();
  const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (connection < 0) {
    spare_ = newSpare();
    return;
  }
  const auto peer = peerOf(connection);
  if (peer && PeerCheck::isRoot(peer.value())) {
    take(connection);
  } else {
    tellAndClose(connection, tooMany());
    spare_ = newSpare();
  }
}

}  // namespace tessard
