#include "platform/network/PortMapper.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "common/Format.h"

namespace tessard {

namespace {

using Clock = std::chrono::steady_clock;

using Waiting = std::shared_ptr<std::optional<GatewayAnswer>>;

// What is wanted of one port.
struct Wish {
  bool enable = false;
  Clock::time_point due;  // when the gateway is asked next
  std::uint64_t number = 0;
  bool wasMapped = false;  // by the last answer
  Waiting waiting;         // for the first answer; null when nobody does
};

}  // namespace

/// Owned by the mapper and its thread together, as a gateway may hold the thread up for longer than the
/// mapper lives.
struct PortMapper::Shared {
  Shared(Ask askGateway, Tell tellSentence, MappingTimes chosen)
      : ask(std::move(askGateway)), tell(std::move(tellSentence)), times(chosen) {}

  const Ask ask;
  const Tell tell;
  const MappingTimes times;

  std::mutex mutex;
  std::condition_variable changed;
  bool running = false;
  bool stopped = false;
  std::map<std::uint16_t, Wish> wishes;
  std::uint64_t lastNumber = 0;

  void wish(std::uint16_t port, bool enable, Waiting waiting) {
    Wish& wish = wishes[port];
    wish = {enable, Clock::now(), ++lastNumber, wish.wasMapped, std::move(waiting)};
    changed.notify_all();
  }

  void run() {
    std::unique_lock lock(mutex);
    while (!stopped) {
      const auto next =
          std::ranges::min_element(wishes, {}, [](const auto& entry) { return entry.second.due; });
      if (next == wishes.end()) {
        changed.wait(lock);
      } else if (const Clock::time_point due = next->second.due; due > Clock::now()) {
        changed.wait_until(lock, due);
      } else {
        // A copy: while the gateway is asked something else may be wished for.
        const std::uint16_t port = next->first;
        const Wish asked = next->second;
        carryOut(lock, port, asked);
      }
    }
  }

  void carryOut(std::unique_lock<std::mutex>& lock, std::uint16_t port, const Wish& asked) {
    lock.unlock();
    const GatewayAnswer answer = ask(port, asked.enable ? times.leaseSeconds : 0);
    lock.lock();
    if (asked.waiting) *asked.waiting = answer;
    const auto found = wishes.find(port);
    if (found != wishes.end()) {
      Wish& wish = found->second;
      const bool somebodyWaits = wish.waiting && wish.number == asked.number;
      if (!somebodyWaits && !stopped) report(port, wish.wasMapped, asked.enable, answer);
      if (asked.enable || answer.code == 0) wish.wasMapped = asked.enable && answer.code == 0;
      // Otherwise something else is wanted by now, and its turn is next.
      if (wish.number == asked.number) {
        wish.waiting.reset();
        wish.due = Clock::now() + times.renewal;
        if (!asked.enable) wishes.erase(found);
      }
    }
    changed.notify_all();
  }

  // Of what nobody waits for, only what has changed is told.
  void report(std::uint16_t port, bool wasMapped, bool enable, const GatewayAnswer& answer) const {
    const bool isMapped = enable && answer.code == 0;
    if (wasMapped == isMapped) return;
    tell(answer.code == 0 ? fill("Port %u is %@.", {port, answer.text})
                          : fill("Port %u is no longer mapped: %@.", {port, answer.text}));
  }
};

PortMapper::PortMapper(Ask ask, Tell tell, MappingTimes times)
    : shared_(std::make_shared<Shared>(std::move(ask), std::move(tell), times)) {}

PortMapper::~PortMapper() {
  const std::lock_guard lock(shared_->mutex);
  shared_->stopped = true;
  shared_->changed.notify_all();
}

bool PortMapper::begin() {
  if (shared_->running) return true;
  try {
    std::thread([shared = shared_] { shared->run(); }).detach();
  } catch (const std::system_error&) {
    return false;
  }
  shared_->running = true;
  return true;
}

GatewayAnswer PortMapper::change(std::uint16_t port, bool enable) {
  if (!begin()) return {EAGAIN, "there are too many threads"};
  const auto end = Clock::now() + shared_->times.patience;
  const auto waiting = std::make_shared<std::optional<GatewayAnswer>>();
  std::unique_lock lock(shared_->mutex);
  shared_->wish(port, enable, waiting);
  if (shared_->changed.wait_until(lock, end, [&] { return waiting->has_value(); })) return **waiting;
  const auto wish = shared_->wishes.find(port);
  if (wish != shared_->wishes.end() && wish->second.waiting == waiting) wish->second.waiting.reset();
  return {ETIMEDOUT, "the gateway does not answer in time"};
}

void PortMapper::keep(const std::vector<std::uint16_t>& ports) {
  if (ports.empty() || !begin()) return;
  const std::lock_guard lock(shared_->mutex);
  for (const std::uint16_t port : ports) shared_->wish(port, true, nullptr);
}

}  // namespace tessard
