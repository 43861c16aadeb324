#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>

namespace tessard {

/// The open connections and what each is doing, so that none can stay at one thing for ever. Any thread.
class ConnectionTable {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  enum class Phase {
    fresh,      ///< nothing has been understood yet
    between,    ///< a request was answered, the next has not begun
    reading,    ///< a request has begun
    working,    ///< the request is whole, its answer is not there yet
    answering,  ///< the answer is being sent
  };

  explicit ConnectionTable(std::chrono::seconds limit) : limit_(limit) {}

  /// `connection` is any address that stands for it. The descriptor stays open until `remove` returns.
  void add(const void* connection, int descriptor);
  void remove(const void* connection);
  void enter(const void* connection, Phase phase);

  /// Ends every connection that has been in one phase, other than `working`, for longer than the limit. A
  /// client that was sending a request is told so.
  void endSlowConnections(Moment now);

  /// Waits until no connection is working or answering any more, or until the limit has passed.
  void waitForAnswers();

  std::size_t size() const;

 private:
  struct Connection {
    int descriptor;
    Phase phase;
    Moment since;
  };

  bool hasUnanswered() const;

  const std::chrono::seconds limit_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<const void*, Connection> connections_;
};

}  // namespace tessard
