#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace tessard {

/// The one thread that carries everything that plug-ins are asked to do, one job at a time. The jobs of one
/// user are done in the order of arrival; users with jobs take turns, so that none has to wait for all that
/// another one wants. All operations may be called on any thread but the worker itself.
class WorkSlot {
 public:
  using Moment = std::chrono::steady_clock::time_point;

  enum class Refusal {
    late,       ///< the deadline passed before the job's turn came
    abandoned,  ///< nobody waits for the result any more
    stopping,   ///< the slot was stopped before the job's turn came
  };

  /// Exactly one of `run` and `refuse` is called, once; neither may throw.
  struct Job {
    std::string label;  ///< for `status`
    uid_t user = 0;     ///< who wants it
    Moment deadline = Moment::max();
    std::function<void()> run;            ///< on the worker
    std::function<void(Refusal)> refuse;  ///< on any thread
    std::function<bool()> isAbandoned{};  ///< asked on the worker before the run; may be empty
  };

  struct Status {
    std::optional<std::string> running;
    double runningSeconds = 0;
    std::size_t waiting = 0;
  };

  /// `idleWork` is called on the worker whenever there has been no job for `idleAfter` since the last job or
  /// the last such call, with how often in a row that is (from 1). Zero seconds: never. `afterwards` is
  /// called on the worker after every job and every idle work, when their results are on their way.
  WorkSlot(
      std::chrono::seconds idleAfter, std::function<void(int)> idleWork,
      std::function<void()> afterwards = [] {});
  WorkSlot(const WorkSlot&) = delete;
  WorkSlot& operator=(const WorkSlot&) = delete;
  ~WorkSlot() { stop(); }

  /// Queues a job. A stopped slot refuses it at once.
  void submit(Job job);

  /// Runs something on the worker and waits for it. False when the slot is stopped. The work may throw; the
  /// exception arrives here. `label` is for `status`.
  bool callAndWait(const std::function<void()>& work, const std::string& label = {});

  /// Refuses the waiting jobs whose deadline has passed.
  void refuseLateJobs(Moment now);

  /// Refuses all waiting jobs, lets the running one end, and ends the worker.
  void stop();

  Status status() const;

 private:
  void work();
  std::optional<Job> takeJob(std::unique_lock<std::mutex>& lock);
  void runJob(std::unique_lock<std::mutex>& lock, const Job& job);
  void runIdleWork(std::unique_lock<std::mutex>& lock);

  const std::chrono::seconds idleAfter_;
  const std::function<void(int)> idleWork_;
  const std::function<void()> afterwards_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  struct WaitingJob {
    Job job;
    std::uint64_t turn;
  };

  std::uint64_t turnFor(uid_t user) const;

  std::deque<WaitingJob> waiting_;  // in the order of arrival
  std::uint64_t turn_ = 0;          // of the last job that was begun
  std::optional<uid_t> lastUser_;   // whose that was
  std::optional<std::string> running_;
  Moment runningSince_;
  Moment lastActive_;
  int idleCount_ = 0;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace tessard
