#include "host/WorkSlot.h"

#include <algorithm>
#include <future>
#include <utility>

namespace tessard {

using Clock = std::chrono::steady_clock;

WorkSlot::WorkSlot(std::chrono::seconds idleAfter, std::function<void(int)> idleWork,
                   std::function<void()> afterwards)
    : idleAfter_(idleAfter),
      idleWork_(std::move(idleWork)),
      afterwards_(std::move(afterwards)),
      lastActive_(Clock::now()) {
  worker_ = std::thread([this] { work(); });
}

void WorkSlot::submit(Job job) {
  {
    const std::lock_guard lock(mutex_);
    if (!stopping_) {
      const std::uint64_t turn = turnFor(job.user);
      waiting_.push_back({std::move(job), turn});
      changed_.notify_all();
      return;
    }
  }
  job.refuse(Refusal::stopping);
}

// The turn after the user's latest one that waits or was the last begun; otherwise the one that is on.
std::uint64_t WorkSlot::turnFor(uid_t user) const {
  const auto latest = std::find_if(waiting_.rbegin(), waiting_.rend(),
                                   [user](const WaitingJob& other) { return other.job.user == user; });
  if (latest != waiting_.rend()) return latest->turn + 1;
  return lastUser_ == user ? turn_ + 1 : turn_;
}

bool WorkSlot::callAndWait(const std::function<void()>& work, const std::string& label) {
  std::promise<bool> done;
  auto result = done.get_future();
  Job job;
  job.label = label;
  job.run = [&] {
    try {
      work();
      done.set_value(true);
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  };
  job.refuse = [&](Refusal) { done.set_value(false); };
  submit(std::move(job));
  return result.get();
}

void WorkSlot::refuseLateJobs(Moment now) {
  std::deque<Job> late;
  {
    const std::lock_guard lock(mutex_);
    for (auto waiting = waiting_.begin(); waiting != waiting_.end();) {
      if (waiting->job.deadline <= now) {
        late.push_back(std::move(waiting->job));
        waiting = waiting_.erase(waiting);
      } else {
        ++waiting;
      }
    }
  }
  for (const Job& job : late) job.refuse(Refusal::late);
}

void WorkSlot::stop() {
  std::deque<WaitingJob> refused;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    refused.swap(waiting_);
    changed_.notify_all();
  }
  for (const WaitingJob& waiting : refused) waiting.job.refuse(Refusal::stopping);
  if (worker_.joinable()) worker_.join();
}

WorkSlot::Status WorkSlot::status() const {
  const std::lock_guard lock(mutex_);
  Status status;
  status.waiting = waiting_.size();
  if (running_) {
    status.running = running_;
    status.runningSeconds = std::chrono::duration<double>(Clock::now() - runningSince_).count();
  }
  return status;
}

void WorkSlot::work() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (const auto job = takeJob(lock)) {
      runJob(lock, *job);
    } else if (!stopping_) {
      runIdleWork(lock);
    }
  }
}

// Waits for a job. Absent when the slot is stopped or has been idle for long enough.
std::optional<WorkSlot::Job> WorkSlot::takeJob(std::unique_lock<std::mutex>& lock) {
  const auto somethingToDo = [this] { return stopping_ || !waiting_.empty(); };
  if (idleAfter_.count() > 0) {
    changed_.wait_until(lock, lastActive_ + idleAfter_, somethingToDo);
  } else {
    changed_.wait(lock, somethingToDo);
  }
  if (stopping_ || waiting_.empty()) return std::nullopt;
  const auto next =
      std::min_element(waiting_.begin(), waiting_.end(),
                       [](const WaitingJob& one, const WaitingJob& other) { return one.turn < other.turn; });
  turn_ = next->turn;
  lastUser_ = next->job.user;
  Job job = std::move(next->job);
  waiting_.erase(next);
  return job;
}

void WorkSlot::runJob(std::unique_lock<std::mutex>& lock, const Job& job) {
  running_ = job.label;
  runningSince_ = Clock::now();
  const bool late = job.deadline <= runningSince_;
  lock.unlock();
  if (late) {
    job.refuse(Refusal::late);
  } else if (job.isAbandoned && job.isAbandoned()) {
    job.refuse(Refusal::abandoned);
  } else {
    job.run();
    afterwards_();
  }
  lock.lock();
  running_.reset();
  lastActive_ = Clock::now();
  idleCount_ = 0;
}

void WorkSlot::runIdleWork(std::unique_lock<std::mutex>& lock) {
  running_ = "idle";
  runningSince_ = Clock::now();
  const int count = ++idleCount_;
  lock.unlock();
  idleWork_(count);
  afterwards_();
  lock.lock();
  running_.reset();
  lastActive_ = Clock::now();
}

}  // namespace tessard
