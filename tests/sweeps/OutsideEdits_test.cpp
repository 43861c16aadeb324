// Somebody edits a file by hand while settings are written: at every instant between two operations on files,
// in every manner of editors. Nothing of what was edited may be lost without a word.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "atoms/NotificationPaths.h"
#include "common/PluginRequestHandler.h"
#include "common/PropertyList.h"
#include "host/RequestExecutor.h"
#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

constexpr const char* kSecondary = "sm_b.example.com.xml";

/// Puts the settings of a request into the files, as the whole plug-in does once the service is set up.
class SettingsWriter : public PluginRequestHandler {
 public:
  SettingsWriter(Platform& platform, Wrangler& wrangler)
      : PluginRequestHandler(platform), wrangler_(wrangler) {}

  Operation operationForCommand(std::string_view) override {
    return [this](const Dictionary& settings) -> std::optional<Dictionary> {
      int error = 0;
      const bool written = wrangler_.writeAllConfigurations_error(&settings, error);
      return written ? Dictionary{} : responseForError("CANNOT_STAT_ERR");
    };
  }
  bool commandChangesState(std::string_view) override { return true; }
  int doIdleAtCount(int) override { return 0; }
  void didReceiveNetworkChangedNotification(const NetworkChangeContext&) override {}

 private:
  Wrangler& wrangler_;
};

enum class Manner { inPlace, byRename };
enum class Length { longer, same, shorter };
enum class Time { now, kept };

struct Edit {
  std::string path{};
  Manner manner = Manner::inPlace;
  Length length = Length::same;
  Time time = Time::now;
};

std::string nameOf(const Edit& edit) {
  static const std::array<const char*, 2> manners = {"in place", "by rename"};
  static const std::array<const char*, 3> lengths = {"longer", "as long", "shorter"};
  static const std::array<const char*, 2> times = {"of now", "of before"};
  return lastPathComponent(edit.path) + " " + manners.at(static_cast<std::size_t>(edit.manner)) + ", " +
         lengths.at(static_cast<std::size_t>(edit.length)) + ", with the time " +
         times.at(static_cast<std::size_t>(edit.time));
}

struct OutsideEdits : testing::Test {
  TestPlatform platform;
  std::unique_ptr<Wrangler> wrangler = Wrangler::chatServiceWrangler(platform);
  SettingsWriter handler{platform, *wrangler};
  RequestExecutor executor{platform, platform.journal};
  int writes = 0;
  int edits = 0;
  // What became of the edits.
  int merged = 0;
  int reported = 0;
  int replaced = 0;
  std::vector<std::string> lost;

  OutsideEdits() {
    writeJabberConfiguration(platform.root, "a.example.com");
    writeConfigurationFile(platform.root, "router.xml",
                           "<router>\n <id>router</id>\n <local>\n  <secret>router-secret</secret>\n"
                           " </local>\n</router>\n");
    platform.root.write(kNotificationDefaultConfigFilePath,
                        serializePropertyList(Dictionary{{"jid", "pubsub"}, {"verbose", false}}).value());
    Dictionary preferences = wrangler->loadPreferences().value();
    wrangler->savePreferences(preferences);
    keepTime();
    for (const bool withDomains : {true, false, true, false}) write(withDomains);
  }

  void keepTime() {
    platform.files.beforeCall = [this](const FaultyFileSystem::Call&) { platform.clock.setToMachine(); };
  }

  /// Always other settings than those before.
  ExecutionOutcome write(bool withDomains) {
    ++writes;
    Dictionary settings{{"jabberdClientPortTLS", 10000 + writes % 10000},
                        {"jabberdS2SPort", 20000 + writes % 10000},
                        {"verbose", writes % 2 == 0}};
    if (withDomains) {
      settings.set("hosts", Array{"a" + std::to_string(writes % 2) + ".example.com", "b.example.com",
                                  "c" + std::to_string(writes % 2) + ".example.com"});
    }
    platform.files.clearCalls();
    platform.log.clear();
    return executor.execute(handler, "writeSettings", settings);
  }

  std::string port() const { return std::to_string(10000 + writes % 10000); }

  /// A text that no other edit makes.
  std::string mark(Length length) const {
    const std::string text = "edit " + std::to_string(100000 + edits);
    static const std::map<Length, int> padding = {
        {Length::longer, 40}, {Length::same, 20}, {Length::shorter, 0}};
    return text + std::string(static_cast<std::size_t>(padding.at(length)), '.');
  }

  // The text of an earlier edit gives way; all the rest of the content stays.
  static std::string withMark(const std::string& path, std::string content, const std::string& mark) {
    if (path.ends_with(".plist")) {
      Dictionary settings = *parsePropertyList(content).value().asDictionary();
      // The preferences hold what the service knows, and nothing else.
      settings.set(path == kPreferencesFile ? "logLevel" : "byHand", mark);
      return serializePropertyList(settings).value();
    }
    const bool isMaster = path.ends_with(".cfg");
    const std::string begin = isMaster ? "# edit " : "<!--edit ";
    const std::string end = isMaster ? "\n" : "-->";
    if (const auto place = content.find(begin); place != std::string::npos) {
      content.erase(place, content.find(end, place) + end.size() - place);
    }
    const std::string line = isMaster ? "# " + mark + "\n" : "<!--" + mark + "-->";
    return content.insert(isMaster ? 0 : content.find('>') + 1, line);
  }

  void edit(const Edit& edit) {
    const FileTime before = platform.root.modified(edit.path);
    const std::string content = withMark(edit.path, platform.root.read(edit.path), mark(edit.length));
    const std::string written = edit.manner == Manner::inPlace ? edit.path : edit.path + "~";
    platform.root.write(written, content);
    if (edit.time == Time::kept) platform.root.setModified(written, before);
    if (edit.manner == Manner::byRename &&
        ::rename(platform.root.hostPath(written).c_str(), platform.root.hostPath(edit.path).c_str()) != 0) {
      throw std::runtime_error("rename " + edit.path);
    }
  }

  bool isMarked(const std::string& path, Length length) const {
    const std::string content = platform.root.exists(path) ? platform.root.read(path) : "";
    return content.find(mark(length)) != std::string::npos;
  }

  static std::vector<std::string> errorsOf(const ExecutionOutcome& outcome) {
    std::vector<std::string> errors;
    for (const Value& line : outcome.log) {
      const Dictionary& entry = *line.asDictionary();
      if (*entry.stringFor("level") == "error") errors.push_back(*entry.stringFor("message"));
    }
    return errors;
  }

  /// Whether the request took the file away to lay out its domains anew, and had not yet when it was edited.
  bool tookAwayAfter(std::size_t instant, const std::string& path) const {
    const auto& calls = platform.files.calls();
    for (std::size_t number = instant; number < calls.size(); ++number) {
      if (calls[number].operation == "copyFile" && calls[number].secondPath == path) return true;
    }
    return false;
  }

  /// Edits before the operation of that number, counted from 0, of a request; looks at what has become of it.
  void tryAt(std::size_t instant, const Edit& chosen, bool withDomains) {
    ++edits;
    bool done = false;
    platform.files.beforeCall = [&](const FaultyFileSystem::Call&) {
      if (!done && platform.files.calls().size() == instant && platform.root.exists(chosen.path)) {
        edit(chosen);
        done = true;
      }
      platform.clock.setToMachine();
    };
    const ExecutionOutcome outcome = write(withDomains);
    keepTime();
    if (!done) return;
    const std::string where = nameOf(chosen) + ", before operation " + std::to_string(instant) +
                              (withDomains ? " of a request with domains" : " of a request");
    judge(outcome, chosen, where, instant);
  }

  void judge(const ExecutionOutcome& outcome, const Edit& chosen, const std::string& where,
             std::size_t instant) {
    const bool marked = isMarked(chosen.path, chosen.length);
    const std::vector<std::string> errors = errorsOf(outcome);
    const bool failed = !errors.empty();
    if (failed) {
      EXPECT_THAT(errors, testing::Contains(testing::HasSubstr(chosen.path))) << where;
    }
    if (marked) {
      ++(failed ? reported : merged);
    } else if (!failed && chosen.path.ends_with(kSecondary) && tookAwayAfter(instant, chosen.path)) {
      ++replaced;
    } else {
      lost.push_back(where + (failed ? ", though it is reported" : ""));
    }
    // Whoever repeats a write that has failed writes upon the edit.
    if (!failed) {
      EXPECT_NE(platform.root.read(kConfigDirectory + "c2s.xml").find("<port>" + port()), std::string::npos)
          << where;
      return;
    }
    const ExecutionOutcome again = write(false);
    EXPECT_THAT(errorsOf(again), testing::IsEmpty()) << where << ", again";
    EXPECT_EQ(isMarked(chosen.path, chosen.length), marked) << where << ", again";
  }

  /// How many operations on files a request takes.
  std::size_t instantsOf(bool withDomains) {
    write(withDomains);
    return platform.files.calls().size();
  }
};

std::vector<Edit> allEdits() {
  std::vector<Edit> edits;
  for (const std::string& path :
       {kConfigDirectory + "sm.xml", kConfigDirectory + "c2s.xml", kConfigDirectory + kSecondary, kMasterFile,
        kPreferencesFile, std::string(kNotificationConfigFilePath)}) {
    for (const Manner manner : {Manner::inPlace, Manner::byRename}) {
      for (const Length length : {Length::longer, Length::same, Length::shorter}) {
        for (const Time time : {Time::now, Time::kept}) edits.push_back({path, manner, length, time});
      }
    }
  }
  return edits;
}

TEST_F(OutsideEdits, WhileSettingsAreWrittenAreMergedOrReported) {
  const char* form = std::getenv("TESSARD_SWEEP");
  const bool full = form && std::string_view(form) == "full";
  const char* seed = std::getenv("TESSARD_SEED");
  std::mt19937 chance(seed ? static_cast<std::uint32_t>(std::strtoul(seed, nullptr, 10)) : 0);
  int tried = 0;
  for (const bool withDomains : {true, false}) {
    const std::size_t instants = instantsOf(withDomains);
    for (std::size_t instant = 0; instant < instants; ++instant) {
      for (const Edit& chosen : allEdits()) {
        // The short form takes a part of them that is another one each time.
        if (!full && chance() % 40 != 0) continue;
        tryAt(instant, chosen, withDomains);
        ++tried;
      }
    }
  }
  std::printf("  %d edits: %d merged, %d reported, %d in files that the request takes away, %zu lost\n",
              tried, merged, reported, replaced, lost.size());
  std::string list;
  for (std::size_t number = 0; number < std::min<std::size_t>(lost.size(), 40); ++number) {
    list += "\n  " + lost[number];
  }
  EXPECT_TRUE(lost.empty()) << lost.size() << " edits are lost:" << list;
}

}  // namespace
}  // namespace tessard
