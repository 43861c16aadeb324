#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/NetworkChangeContext.h"
#include "common/Platform.h"
#include "common/PluginRequestHandler.h"
#include "common/Value.h"
#include "platform/journal/JournalingFileSystem.h"

namespace tessard {

/// How a call into a plug-in ended.
struct ExecutionOutcome {
  enum class Kind {
    answered,
    unknownCommand,
    noAnswer,  ///< the plug-in gave nothing back
    failed,    ///< the plug-in threw; `problem` says what
  };

  Kind kind = Kind::answered;
  Dictionary answer{};
  std::string problem{};
  Array log{};  ///< warning and error lines of this call, as `RequestLog` has them
};

/// In a word: "done", the error's id in the answer, "unknown-command", "no-answer" or "failed".
std::string resultOf(const ExecutionOutcome& outcome);

/// How many error lines the call has logged.
std::int64_t errorLinesOf(const ExecutionOutcome& outcome);

/// The one place through which requests and events reach a plug-in. Used on the thread that carries them;
/// nothing that a plug-in throws gets past it. What a call changes in files is kept when it ends, as far as
/// the plug-in has not decided that itself, and put back when it ends by an exception. Whoever has the answer
/// on its way calls the journal's `tidyUp`.
class RequestExecutor : public Object {
 public:
  /// `journal` is what the platform's files are changed through.
  RequestExecutor(Platform& platform, JournalingFileSystem& journal)
      : Object(platform.log), platform_(platform), journal_(journal) {}

  /// Carries out one request. When an "initialSetup" has succeeded (its answer holds no "error"), the marker
  /// of the host's own first-time setup, "/var/db/.VeltoSetupDone", is written where it is missing.
  ExecutionOutcome execute(PluginRequestHandler& handler, std::string_view command,
                           const Dictionary& request);

  /// The settings under these keys as they are now, for the daemon's own use: nothing but the system log
  /// hears of a failure, which is absent.
  std::optional<Dictionary> settings(PluginRequestHandler& handler, Array keys);
  /// All of them.
  std::optional<Dictionary> settings(PluginRequestHandler& handler);

  /// A change of files that the daemon itself makes, through the platform: kept when it succeeds, and put
  /// back when it fails.
  Result<void> change(const std::function<Result<void>()>& work);

  /// The last settings write can be undone no longer.
  Result<void> forgetLastChange() { return journal_.forgetLast(); }

  ExecutionOutcome idle(PluginRequestHandler& handler, int count);
  ExecutionOutcome networkChanged(PluginRequestHandler& handler, const NetworkChangeContext& context);

 private:
  ExecutionOutcome guarded(std::string_view what, const std::function<void(ExecutionOutcome&)>& call);
  void call(PluginRequestHandler& handler, std::string_view command, const Dictionary& request,
            ExecutionOutcome& outcome);
  std::optional<Dictionary> settingsAnswered(PluginRequestHandler& handler, const Dictionary& request);
  void writeSetupMarker();

  Platform& platform_;
  JournalingFileSystem& journal_;
};

}  // namespace tessard
