#include "platform/network/HostLookup.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace tessard {

namespace {

using Time = std::chrono::steady_clock::time_point;

// A time-out that is no number counts as none, one beyond a day as a day.
Time endAfter(double seconds) {
  const double kept = std::isnan(seconds) ? 0 : std::clamp(seconds, 0.0, 86'400.0);
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(kept));
}

}  // namespace

std::vector<std::string> resolveHost(const std::string& host) {
  std::vector<std::string> addresses;
  // An empty name would be this machine's loopback, and a NUL would cut the name short.
  if (host.empty() || host.find('\0') != std::string::npos) return addresses;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return addresses;
  for (const addrinfo* entry = found; entry; entry = entry->ai_next) {
    std::array<char, NI_MAXHOST> text{};
    if (getnameinfo(entry->ai_addr, entry->ai_addrlen, text.data(), text.size(), nullptr, 0,
                    NI_NUMERICHOST) != 0) {
      continue;
    }
    if (std::ranges::find(addresses, text.data()) == addresses.end()) addresses.emplace_back(text.data());
  }
  freeaddrinfo(found);
  return addresses;
}

/// How many questions are under way, for those who wait for a place.
struct HostLookup::Places {
  std::mutex mutex;
  std::condition_variable changed;
  int taken = 0;

  bool takeBefore(Time end) {
    std::unique_lock lock(mutex);
    if (!changed.wait_until(lock, end, [this] { return taken < kAtATime; })) return false;
    ++taken;
    return true;
  }

  void giveBack() {
    {
      const std::lock_guard lock(mutex);
      --taken;
    }
    changed.notify_one();
  }
};

namespace {

struct Answer {
  std::mutex mutex;
  std::condition_variable given;
  std::optional<std::vector<std::string>> addresses;
};

}  // namespace

HostLookup::HostLookup(Resolve resolve) : resolve_(std::move(resolve)), places_(std::make_shared<Places>()) {}

std::optional<std::vector<std::string>> HostLookup::addressesOf(const std::string& host, double timeout) {
  const Time end = endAfter(timeout);
  if (!places_->takeBefore(end)) return std::nullopt;
  const auto answer = std::make_shared<Answer>();
  try {
    std::thread([answer, host, resolve = resolve_, places = places_] {
      std::vector<std::string> found;
      try {
        found = resolve(host);
      } catch (const std::exception&) {
        found.clear();  // no memory for the answer: the same as none
      }
      {
        const std::lock_guard lock(answer->mutex);
        answer->addresses = std::move(found);
      }
      answer->given.notify_one();
      places->giveBack();
    }).detach();
  } catch (const std::system_error&) {
    places_->giveBack();
    return std::nullopt;
  }
  std::unique_lock lock(answer->mutex);
  answer->given.wait_until(lock, end, [&] { return answer->addresses.has_value(); });
  return std::exchange(answer->addresses, std::nullopt);
}

}  // namespace tessard
