#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>

#include "host/Requester.h"

namespace tessard {

/// How much of the daemon its clients may take.
struct ConnectionLimits {
  std::chrono::seconds request{30};  ///< to send one request, or to take one answer
  std::size_t all = 64;              ///< connections at a time, at least 2
  std::size_t user = 16;             ///< of them, those of one user other than root
  std::size_t root = 8;              ///< of them, those that root alone may have; at most half
  /// Memory for the requests and answers of one user other than root; all such users together may have twice
  /// that.
  std::size_t userBytes = std::size_t{4} * 1024 * 1024;
};

/// The open connections, whose they are and what each is doing, so that no user can take them all and none
/// can stay at one thing for ever. Any thread.
///
/// Where there is no place for a connection, one that is of no use gives way: the one that has been idle for
/// the longest time, otherwise one that has sent nothing whole for `kFreshGrace`, or has been at sending one
/// request for `kSlowGrace`. A user's connections give way to that user alone, or to another one who has
/// fewer; any gives way to root.
class ConnectionTable {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kFreshGrace{1};
  static constexpr std::chrono::seconds kSlowGrace{5};

  enum class Phase {
    accepted,   ///< the server has not begun to serve it
    fresh,      ///< nothing has been understood yet
    between,    ///< a request was answered, the next has not begun
    reading,    ///< a request has begun
    working,    ///< the request is whole, its answer is not there yet
    answering,  ///< the answer is being sent
  };

  /// Whose a connection is.
  struct Owner {
    uid_t user;
    bool isRoot;  ///< or the account that the daemon runs as
    pid_t process = 0;
  };

  explicit ConnectionTable(const ConnectionLimits& limits);

  /// Takes a place for a connection. False when there is none for this owner. From `Phase::fresh` on the
  /// descriptor stays open until `remove`. One that is there already was lost; its place is taken over.
  bool admit(int connection, Owner owner, Moment now);
  void remove(int connection);
  void enter(int connection, Phase phase);
  /// Who has made it; root where there is no such connection.
  Requester requesterOf(int connection) const;

  /// Notes how much memory the connection's request takes. False when that is more than its owner may have;
  /// the only request there is always may.
  bool hold(int connection, std::size_t bytes);
  /// The same of an answer, which has its memory whatever that is.
  void holdAnswer(int connection, std::size_t bytes);
  /// Whether what its owner's other connections hold leaves room for an answer.
  bool mayBeAnswered(int connection) const;

  /// Ends every connection that has been at one request or answer, or idle, for longer than the limit; those
  /// that are `working` never. A client that was sending a request is told so.
  void endSlowConnections(Moment now);

  /// Ends the connection that is of the least use, to have its descriptor. False when there is none.
  bool endOne(Moment now);

  /// Waits until no connection is working or answering any more, or until the limit has passed.
  void waitForAnswers();

  std::size_t size() const;

 private:
  struct Connection {
    Owner owner;
    Phase phase;
    Moment since;
    std::size_t bytes = 0;
    bool ending = false;
  };

  struct Places {
    std::size_t all = 0;
    std::size_t ofUsers = 0;  ///< other than root
    std::size_t own = 0;      ///< of the owner asked for
    std::size_t ending = 0;   ///< not in the other numbers
  };

  Places placesFor(const Owner& owner) const;
  bool makeRoom(const Owner& owner, const Places& places, Moment now);
  template <class Candidate>
  bool endOneOf(Candidate isCandidate, Moment now);
  uid_t userWithMost() const;
  std::size_t bytesOfOthers(int connection, bool ofAllUsers) const;
  static void end(int descriptor, Connection& connection);
  bool hasUnanswered() const;

  const ConnectionLimits limits_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, Connection> connections_;
};

}  // namespace tessard
