#include "host/ConnectionTable.h"

#include <sys/socket.h>

#include <algorithm>
#include <string>

#include "host/HttpMessage.h"

namespace tessard {

using Clock = std::chrono::steady_clock;

void ConnectionTable::add(const void* connection, int descriptor) {
  const std::lock_guard lock(mutex_);
  connections_[connection] = {descriptor, Phase::fresh, Clock::now()};
}

void ConnectionTable::remove(const void* connection) {
  const std::lock_guard lock(mutex_);
  connections_.erase(connection);
  changed_.notify_all();
}

void ConnectionTable::enter(const void* connection, Phase phase) {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return;
  found->second.phase = phase;
  found->second.since = Clock::now();
  changed_.notify_all();
}

void ConnectionTable::endSlowConnections(Moment now) {
  const std::lock_guard lock(mutex_);
  for (auto& [key, connection] : connections_) {
    if (connection.phase == Phase::working || now - connection.since < limit_) continue;
    if (connection.phase == Phase::fresh || connection.phase == Phase::reading) {
      const std::string message =
          wholeMessage(errorAnswer(408, "timed-out", "The request did not arrive whole in time."));
      send(connection.descriptor, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    // The server then finds the end of the connection and closes it.
    shutdown(connection.descriptor, SHUT_RDWR);
    connection.since = now;
    if (connection.phase != Phase::answering) connection.phase = Phase::between;
  }
}

void ConnectionTable::waitForAnswers() {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limit_, [this] { return !hasUnanswered(); });
}

std::size_t ConnectionTable::size() const {
  const std::lock_guard lock(mutex_);
  return connections_.size();
}

bool ConnectionTable::hasUnanswered() const {
  return std::any_of(connections_.begin(), connections_.end(), [](const auto& entry) {
    return entry.second.phase == Phase::working || entry.second.phase == Phase::answering;
  });
}

}  // namespace tessard
