#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/Value.h"
#include "host/HostConfiguration.h"
#include "host/HttpMessage.h"
#include "host/check/CheckAreas.h"

namespace tessard {

/// What a check is asked for.
struct CheckWishes {
  std::vector<const CheckArea*> areas;
  std::optional<unsigned> seconds{};  ///< for each area; absent for its own limit

  /// From the query's arguments: names with commas between them, and whole seconds. False with the answer
  /// that says what is wrong: "unknown-area" proposes a name.
  static bool read(const HttpRequest& request, CheckWishes& wishes, HttpAnswer& refusal);
};

/// Looks for everything that can be wrong with the service below one system root. Each area has a thread of
/// its own and a time limit; one that does not end in time is left to end by itself and is not begun again
/// before that. What is found while files are being changed is looked for again.
class Checks {
 public:
  /// The shortest and longest time that may be asked for an area.
  static constexpr unsigned kLeastSeconds = 1;
  static constexpr unsigned kMostSeconds = 60;

  Checks(HostConfiguration configuration, PluginFacts plugins);
  Checks(const Checks&) = delete;
  Checks& operator=(const Checks&) = delete;
  ~Checks();

  /// {"worst": "none", "notice", "warning" or "error", "findings": [...], "areas": [{"name", "seconds",
  /// "ended"}]}; findings in the order of the areas, the worst of an area first. For one thread at a time,
  /// which it keeps until the last area has ended or its time is over.
  Dictionary run(const CheckWishes& wishes);

  /// Ends a run that is under way, as if its time were over. Any thread.
  void stop();

  /// {"areas": [{"name", "examines", "seconds", "findings": [{"id", "severity"}]}]}; under the name "any"
  /// what every area can have.
  static Dictionary areas();

 private:
  struct Progress;
  struct Outcome;

  std::vector<Outcome> examineAll(const CheckWishes& wishes);
  bool begin(const CheckArea& area, CheckedSystem::Moment deadline, std::size_t place);
  Outcome outcomeOf(const CheckArea& area, CheckedSystem::Moment deadline, std::size_t place);

  const HostConfiguration configuration_;
  const PluginFacts plugins_;
  const std::shared_ptr<Progress> progress_;
};

}  // namespace tessard
