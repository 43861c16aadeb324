#include "host/check/Checks.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <exception>
#include <iterator>
#include <map>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "common/Format.h"
#include "common/MostLike.h"
#include "common/Text.h"
#include "host/WipedMemory.h"
#include "platform/journal/JournalDirectory.h"

namespace tessard {

namespace {

using Moment = CheckedSystem::Moment;

constexpr FindingKind kNotEnded = {"not-ended", Severity::warning};
constexpr FindingKind kFailed = {"check-failed", Severity::error};
constexpr FindingKind kChanging = {"changed-meanwhile", Severity::notice};
constexpr std::array kAnyKinds = {kNotEnded, kFailed, kChanging};

constexpr int kAttempts = 3;

// Whether files are being changed, and when that was last so: each change of files by a request goes through
// the journal, whose directory shows when it is begun and ended.
struct ChangeMark {
  bool underWay = false;
  std::optional<FileTime> last;
  bool operator==(const ChangeMark&) const = default;
};

ChangeMark changeMark(FileSystem& files) {
  const std::string home = kJournalHome;
  const auto attributes = files.attributes(home);
  return {files.exists(home + "/" + kOpenJournal),
          attributes ? std::optional(attributes.value().modified) : std::nullopt};
}

std::string_view worstOf(const std::vector<Finding>& findings) {
  const auto worst =
      std::ranges::max_element(findings, {}, [](const Finding& finding) { return finding.kind.severity; });
  return worst == findings.end() ? "none" : nameOf(worst->kind.severity);
}

Array kindsOf(std::span<const FindingKind> kinds) {
  Array list;
  for (const FindingKind& kind : kinds)
    list.emplace_back(Dictionary{{"id", kind.id}, {"severity", nameOf(kind.severity)}});
  return list;
}

}  // namespace

// What the threads of the areas share with the one that waits for them. Theirs as long as one is left.
struct Checks::Progress {
  struct Ended {
    std::vector<Finding> findings;
    double seconds = 0;
  };

  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::string_view> underWay;  // areas that have a thread
  std::uint64_t round = 0;
  std::map<std::size_t, Ended> ended;  // of this round, by place
  bool stopping = false;
};

struct Checks::Outcome {
  std::vector<Finding> findings;
  double seconds = 0;
  bool ended = false;
};

bool CheckWishes::read(const HttpRequest& request, CheckWishes& wishes, HttpAnswer& refusal) {
  std::vector<std::string_view> names;
  for (const CheckArea* area : checkAreas()) names.push_back(area->name);
  if (request.only) {
    for (const std::string& word : componentsOf(*request.only, ',')) {
      const CheckArea* area = checkAreaNamed(word);
      if (!area) {
        const auto like = mostLike(word, names);
        const std::string hint =
            like ? fill("; \"%@\" may be meant", {*like})
                 : fill("; the areas are %@", {joinedWith({names.begin(), names.end()}, ", ")});
        refusal = errorAnswer(400, "unknown-area", fill("There is no area \"%@\"%@.", {word, hint}));
        return false;
      }
      if (std::ranges::find(wishes.areas, area) == wishes.areas.end()) wishes.areas.push_back(area);
    }
  } else {
    wishes.areas.assign(checkAreas().begin(), checkAreas().end());
  }
  if (!request.timeout) return true;
  const std::string& text = *request.timeout;
  unsigned seconds = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size() || seconds < Checks::kLeastSeconds ||
      seconds > Checks::kMostSeconds) {
    refusal = errorAnswer(400, "bad-query",
                          fill("The query argument \"timeout\" must be whole seconds from %u to %u.",
                               {Checks::kLeastSeconds, Checks::kMostSeconds}));
    return false;
  }
  wishes.seconds = seconds;
  return true;
}

Checks::Checks(HostConfiguration configuration, PluginFacts plugins)
    : configuration_(std::move(configuration)),
      plugins_(std::move(plugins)),
      progress_(std::make_shared<Progress>()) {}

Checks::~Checks() {
  stop();
}

void Checks::stop() {
  const std::lock_guard lock(progress_->mutex);
  progress_->stopping = true;
  progress_->changed.notify_all();
}

Dictionary Checks::run(const CheckWishes& wishes) {
  PosixFileSystem files(configuration_.root);
  std::vector<Outcome> outcomes;
  bool changing = true;
  for (int attempt = 0; changing && attempt < kAttempts; ++attempt) {
    const ChangeMark before = changeMark(files);
    outcomes = examineAll(wishes);
    const bool clean = std::ranges::all_of(outcomes, [](const Outcome& one) { return one.findings.empty(); });
    const bool late = std::ranges::any_of(outcomes, [](const Outcome& one) { return !one.ended; });
    const ChangeMark after = changeMark(files);
    changing = !clean && (before.underWay || before != after);
    if (late) break;
  }
  std::vector<Finding> findings;
  Array areas;
  for (std::size_t place = 0; place < outcomes.size(); ++place) {
    Outcome& outcome = outcomes[place];
    areas.emplace_back(Dictionary{
        {"name", wishes.areas[place]->name}, {"seconds", outcome.seconds}, {"ended", outcome.ended}});
    std::ranges::stable_sort(outcome.findings, std::ranges::greater(),
                             [](const Finding& finding) { return finding.kind.severity; });
    std::ranges::move(outcome.findings, std::back_inserter(findings));
  }
  if (changing) {
    Findings more(wishes.areas.front()->name);
    more.add(kChanging, "requests",
             "Files were being changed during the whole check, so some findings may tell of what was only "
             "half done.",
             "Check again when the other requests are done.");
    findings.push_back(more.all().front());
  }
  Array list;
  for (const Finding& finding : findings) list.emplace_back(dictionaryOf(finding));
  return {{"worst", worstOf(findings)}, {"findings", std::move(list)}, {"areas", std::move(areas)}};
}

std::vector<Checks::Outcome> Checks::examineAll(const CheckWishes& wishes) {
  std::vector<Moment> deadlines;
  {
    const std::lock_guard lock(progress_->mutex);
    ++progress_->round;
    progress_->ended.clear();
  }
  for (std::size_t place = 0; place < wishes.areas.size(); ++place) {
    const CheckArea& area = *wishes.areas[place];
    const std::chrono::seconds limit(wishes.seconds.value_or(area.seconds));
    const Moment now = std::chrono::steady_clock::now();
    // What still hangs since an earlier check is not waited for once more.
    deadlines.push_back(begin(area, now + limit, place) ? now + limit : now);
  }
  std::vector<Outcome> outcomes;
  for (std::size_t place = 0; place < wishes.areas.size(); ++place) {
    outcomes.push_back(outcomeOf(*wishes.areas[place], deadlines[place], place));
  }
  return outcomes;
}

// The thread owns all that it touches, as it may outlive this object.
bool Checks::begin(const CheckArea& area, Moment deadline, std::size_t place) {
  const std::lock_guard lock(progress_->mutex);
  if (!progress_->underWay.insert(area.name).second) return false;
  const auto work = [progress = progress_, round = progress_->round, &area, deadline, place,
                     configuration = configuration_, plugins = plugins_] {
    const WipedMemory wiped;
    Findings findings(area.name);
    const auto begun = std::chrono::steady_clock::now();
    try {
      CheckedSystem system(configuration, plugins, deadline);
      area.examine(system, findings);
    } catch (const std::exception& problem) {
      findings.add(kFailed, std::string(area.name),
                   fill("The check itself has failed here: %@.", {problem.what()}),
                   "Try again; if it stays so, tell whoever maintains this program.");
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    const std::lock_guard end(progress->mutex);
    progress->underWay.erase(area.name);
    if (progress->round == round) progress->ended[place] = {findings.all(), took.count()};
    progress->changed.notify_all();
  };
  try {
    std::thread(work).detach();
  } catch (const std::system_error& problem) {
    progress_->underWay.erase(area.name);
    Findings findings(area.name);
    findings.add(kFailed, std::string(area.name),
                 fill("The check could not be begun here: %@.", {problem.what()}), "Try again later.");
    progress_->ended[place] = {findings.all(), 0};
  }
  return true;
}

Checks::Outcome Checks::outcomeOf(const CheckArea& area, Moment deadline, std::size_t place) {
  std::unique_lock lock(progress_->mutex);
  progress_->changed.wait_until(lock, deadline,
                                [&] { return progress_->stopping || progress_->ended.contains(place); });
  const auto found = progress_->ended.find(place);
  if (found != progress_->ended.end()) return {found->second.findings, found->second.seconds, true};
  Findings findings(area.name);
  findings.add(kNotEnded, std::string(area.name),
               fill("Examining %@ did not end in time, so nothing is known of this area.", {area.examines}),
               "See whether a disk, a network or the service manager hangs; a longer time can be given with "
               "--timeout.");
  return {findings.all(), 0, false};
}

Dictionary Checks::areas() {
  Array list;
  for (const CheckArea* area : checkAreas()) {
    list.emplace_back(Dictionary{{"name", area->name},
                                 {"examines", area->examines},
                                 {"seconds", std::int64_t{area->seconds}},
                                 {"findings", kindsOf(area->kinds)}});
  }
  list.emplace_back(Dictionary{{"name", "any"},
                               {"examines", "what every area can have"},
                               {"seconds", std::int64_t{0}},
                               {"findings", kindsOf(kAnyKinds)}});
  return {{"areas", std::move(list)}};
}

}  // namespace tessard
