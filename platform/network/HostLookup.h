#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tessard {

/// The addresses that the machine's resolver has for a host, in its order and each once; a link-local IPv6
/// address keeps its "%interface". Empty when there are none. May take as long as the resolver likes.
std::vector<std::string> resolveHost(const std::string& host);

/// Asks a resolver and waits no longer than is allowed, whatever the resolver does.
///
/// Each question runs on a thread of its own, which owns all that it touches: a question whose time is over
/// is left to end by itself, and its answer is dropped. No more than `kAtATime` threads are under way; a
/// further question first waits, within its own time, until one of them has ended. Any thread may ask.
class HostLookup {
 public:
  using Resolve = std::function<std::vector<std::string>(const std::string& host)>;

  static constexpr int kAtATime = 8;

  /// `resolve` is called on other threads, also after this object's end.
  explicit HostLookup(Resolve resolve = resolveHost);

  /// The resolver's answer; absent when it did not come within `timeout` seconds, or no thread could be had.
  std::optional<std::vector<std::string>> addressesOf(const std::string& host, double timeout);

 private:
  struct Places;

  Resolve resolve_;
  std::shared_ptr<Places> places_;
};

}  // namespace tessard
