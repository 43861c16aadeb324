#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>

namespace tessard {

/// Counts what the daemon has done since it began. Any thread.
class RequestTally {
 public:
  /// Upper bounds of the durations that are counted together, in seconds; one more takes all that are longer.
  /// From an answer out of memory to a start that is waited for.
  static constexpr std::array<double, 8> kDurations = {0.001, 0.005, 0.02, 0.1, 0.5, 2, 10, 60};

  struct Durations {
    std::array<std::uint64_t, kDurations.size() + 1> counts{};  ///< of each alone
    double seconds = 0;                                         ///< of all together
  };

  struct Counts {
    /// By plug-in, command and result.
    std::map<std::tuple<std::string, std::string, std::string>, std::uint64_t> requests;
    /// By plug-in and command.
    std::map<std::pair<std::string, std::string>, Durations> durations;
    std::map<unsigned, std::uint64_t> answers;  ///< by HTTP status
    std::int64_t connections = 0;               ///< open now
  };

  /// A request that was carried out, however that ended.
  void requestEnded(const std::string& plugin, const std::string& command, const std::string& result,
                    double seconds);
  void answered(unsigned status);
  void connectionOpened();
  void connectionClosed();

  Counts counts() const;

 private:
  mutable std::mutex mutex_;
  Counts counts_;
};

}  // namespace tessard
