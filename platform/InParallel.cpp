#include "platform/InParallel.h"

#include <atomic>
#include <future>
#include <system_error>
#include <thread>

namespace tessard {

namespace {

// Fewer files are made faster than a thread is.
constexpr std::size_t kWorthwhile = 32;

}  // namespace

void inParallel(std::size_t count, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next = 0;
  const auto takeAll = [&] {
    for (std::size_t i = next++; i < count; i = next++) work(i);
  };
  // Its end is waited for before what it uses is gone, whatever is thrown meanwhile.
  std::future<void> other;
  if (count >= kWorthwhile && std::thread::hardware_concurrency() > 1) {
    try {
      other = std::async(std::launch::async, takeAll);
    } catch (const std::system_error&) {
      // No thread can be had: there is this one.
    }
  }
  takeAll();
  if (other.valid()) other.get();
}

}  // namespace tessard
