#include "host/ConnectionTable.h"

#include <sys/socket.h>

#include <algorithm>
#include <optional>

#include "host/HttpMessage.h"

namespace tessard {

using Clock = std::chrono::steady_clock;

namespace {

using Phase = ConnectionTable::Phase;

// The lower, the sooner such a connection gives way; absent when it does not.
std::optional<int> rankOf(Phase phase, Clock::duration age) {
  if (phase == Phase::between) return 0;
  if (phase == Phase::fresh && age >= ConnectionTable::kFreshGrace) return 1;
  if (phase == Phase::reading && age >= ConnectionTable::kSlowGrace) return 2;
  return std::nullopt;
}

ConnectionLimits usable(ConnectionLimits limits) {
  limits.all = std::max<std::size_t>(limits.all, 2);
  limits.root = std::min(limits.root, limits.all / 2);
  return limits;
}

}  // namespace

ConnectionTable::ConnectionTable(const ConnectionLimits& limits) : limits_(usable(limits)) {}

bool ConnectionTable::admit(int connection, Owner owner, Moment now) {
  const std::lock_guard lock(mutex_);
  connections_.erase(connection);
  const Places places = placesFor(owner);
  // Those that end have their descriptors until the server has seen it.
  if (places.all + places.ending >= 2 * limits_.all) return false;
  const bool full =
      places.all >= limits_.all ||
      (!owner.isRoot && (places.own >= limits_.user || places.ofUsers >= limits_.all - limits_.root));
  if (full && !makeRoom(owner, places, now)) return false;
  connections_[connection] = {owner, Phase::accepted, now};
  return true;
}

bool ConnectionTable::makeRoom(const Owner& owner, const Places& places, Moment now) {
  if (owner.isRoot) {
    return endOneOf([](const Owner&) { return true; }, now);
  }
  if (places.own >= limits_.user) {
    return endOneOf([&](const Owner& other) { return !other.isRoot && other.user == owner.user; }, now);
  }
  if (places.ofUsers < limits_.all - limits_.root) return false;  // root has the places of the others
  const uid_t most = userWithMost();
  const Places theirs = placesFor({most, false});
  if (most != owner.user && theirs.own <= places.own + 1) return false;
  return endOneOf([&](const Owner& other) { return !other.isRoot && other.user == most; }, now);
}

ConnectionTable::Places ConnectionTable::placesFor(const Owner& owner) const {
  Places places;
  for (const auto& [descriptor, connection] : connections_) {
    if (connection.ending) {
      ++places.ending;
      continue;
    }
    ++places.all;
    if (!connection.owner.isRoot) ++places.ofUsers;
    if (connection.owner.isRoot == owner.isRoot && (owner.isRoot || connection.owner.user == owner.user)) {
      ++places.own;
    }
  }
  return places;
}

uid_t ConnectionTable::userWithMost() const {
  std::map<uid_t, std::size_t> counts;
  for (const auto& [descriptor, connection] : connections_) {
    if (!connection.owner.isRoot && !connection.ending) ++counts[connection.owner.user];
  }
  const auto most = std::max_element(counts.begin(), counts.end(), [](const auto& one, const auto& other) {
    return one.second < other.second;
  });
  return most == counts.end() ? uid_t{} : most->first;
}

template <class Candidate>
bool ConnectionTable::endOneOf(Candidate isCandidate, Moment now) {
  auto chosen = connections_.end();
  std::pair<int, Moment> best;
  for (auto entry = connections_.begin(); entry != connections_.end(); ++entry) {
    const Connection& connection = entry->second;
    const auto rank = rankOf(connection.phase, now - connection.since);
    if (connection.ending || !rank || !isCandidate(connection.owner)) continue;
    const std::pair<int, Moment> place(*rank, connection.since);
    if (chosen == connections_.end() || place < best) {
      chosen = entry;
      best = place;
    }
  }
  if (chosen == connections_.end()) return false;
  end(chosen->first, chosen->second);
  return true;
}

void ConnectionTable::remove(int connection) {
  const std::lock_guard lock(mutex_);
  connections_.erase(connection);
  changed_.notify_all();
}

void ConnectionTable::enter(int connection, Phase phase) {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return;
  Connection& entered = found->second;
  // The time of a first request is counted from the connection's beginning.
  if (entered.phase != Phase::fresh || phase != Phase::reading) entered.since = Clock::now();
  entered.phase = phase;
  if (phase == Phase::between) entered.bytes = 0;
  changed_.notify_all();
}

Requester ConnectionTable::requesterOf(int connection) const {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return {};
  return {found->second.owner.user, found->second.owner.process};
}

bool ConnectionTable::hold(int connection, std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(connection);
  if (found == connections_.end()) return true;
  if (!found->second.owner.isRoot) {
    const std::size_t ofUsers = bytesOfOthers(connection, true);
    const std::size_t ofUser = bytesOfOthers(connection, false);
    if (ofUsers > 0 && (ofUser + bytes > limits_.userBytes || ofUsers + bytes > 2 * limits_.userBytes)) {
      return false;
    }
  }
  found->second.bytes = bytes;
  return true;
}

void ConnectionTable::holdAnswer(int connection, std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(connection);
  if (found != connections_.end()) found->second.bytes = bytes;
}

bool ConnectionTable::mayBeAnswered(int connection) const {
  const std::lock_guard lock(mutex_);
  const auto found = connections_.find(connection);
  return found == connections_.end() || found->second.owner.isRoot ||
         (bytesOfOthers(connection, false) < limits_.userBytes &&
          bytesOfOthers(connection, true) < 2 * limits_.userBytes);
}

// What the other connections of the same user hold, or of all users but root.
std::size_t ConnectionTable::bytesOfOthers(int connection, bool ofAllUsers) const {
  const uid_t user = connections_.at(connection).owner.user;
  std::size_t bytes = 0;
  for (const auto& [descriptor, other] : connections_) {
    if (descriptor == connection || other.owner.isRoot) continue;
    if (ofAllUsers || other.owner.user == user) bytes += other.bytes;
  }
  return bytes;
}

void ConnectionTable::end(int descriptor, Connection& connection) {
  if (connection.phase == Phase::fresh || connection.phase == Phase::reading) {
    sendNow(descriptor, errorAnswer(408, "timed-out", "The request did not arrive whole in time."));
  }
  // The server then finds the end of the connection and closes it.
  shutdown(descriptor, SHUT_RDWR);
  connection.ending = true;
}

void ConnectionTable::endSlowConnections(Moment now) {
  const std::lock_guard lock(mutex_);
  for (auto& [descriptor, connection] : connections_) {
    const bool mayEnd = connection.phase != Phase::accepted && connection.phase != Phase::working;
    if (connection.ending || !mayEnd) continue;
    if (now - connection.since >= limits_.request) end(descriptor, connection);
  }
}

bool ConnectionTable::endOne(Moment now) {
  const std::lock_guard lock(mutex_);
  return endOneOf([](const Owner&) { return true; }, now);
}

void ConnectionTable::waitForAnswers() {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, limits_.request, [this] { return !hasUnanswered(); });
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
