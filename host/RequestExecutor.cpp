#include "host/RequestExecutor.h"

#include <algorithm>
#include <cerrno>
#include <exception>

#include "common/Format.h"
#include "host/RequestLog.h"

namespace tessard {

namespace {

constexpr const char* kSetupMarker = "/var/db/.VeltoSetupDone";

}  // namespace

std::string resultOf(const ExecutionOutcome& outcome) {
  switch (outcome.kind) {
    case ExecutionOutcome::Kind::answered:
      break;
    case ExecutionOutcome::Kind::unknownCommand:
      return "unknown-command";
    case ExecutionOutcome::Kind::noAnswer:
      return "no-answer";
    case ExecutionOutcome::Kind::failed:
      return "failed";
  }
  const std::string* error = outcome.answer.stringFor("error");
  return error ? *error : "done";
}

std::int64_t errorLinesOf(const ExecutionOutcome& outcome) {
  return std::ranges::count_if(outcome.log, [](const Value& line) {
    const std::string* level = line.asDictionary() ? line.asDictionary()->stringFor("level") : nullptr;
    return level && *level == "error";
  });
}

ExecutionOutcome RequestExecutor::execute(PluginRequestHandler& handler, std::string_view command,
                                          const Dictionary& request) {
  return guarded(command, [&](ExecutionOutcome& outcome) {
    call(handler, command, request, outcome);
    if (command == "initialSetup" && outcome.kind == ExecutionOutcome::Kind::answered &&
        !outcome.answer.contains("error")) {
      writeSetupMarker();
    }
  });
}

std::optional<Dictionary> RequestExecutor::settings(PluginRequestHandler& handler, Array keys) {
  return settingsAnswered(handler, {{"command", "readSettings"},
                                    {"optionalArguments", Dictionary{{"parameters", std::move(keys)}}}});
}

std::optional<Dictionary> RequestExecutor::settings(PluginRequestHandler& handler) {
  return settingsAnswered(handler, {{"command", "readSettings"}});
}

std::optional<Dictionary> RequestExecutor::settingsAnswered(PluginRequestHandler& handler,
                                                            const Dictionary& request) {
  const ExecutionOutcome outcome =
      guarded("readSettings", [&](ExecutionOutcome& each) { call(handler, "readSettings", request, each); });
  const Dictionary* found = outcome.answer.dictionaryFor("configuration");
  if (!found) return std::nullopt;
  return *found;
}

Result<void> RequestExecutor::change(const std::function<Result<void>()>& work) {
  journal_.startRequest();
  auto done = work();
  const bool kept = journal_.finishRequest(!done.ok());
  if (done && !kept) return SystemError(EIO, "the change could not be kept");
  return done;
}

ExecutionOutcome RequestExecutor::idle(PluginRequestHandler& handler, int count) {
  return guarded("idle", [&](ExecutionOutcome&) { handler.doIdleAtCount(count); });
}

ExecutionOutcome RequestExecutor::networkChanged(PluginRequestHandler& handler,
                                                 const NetworkChangeContext& context) {
  return guarded("network-change",
                 [&](ExecutionOutcome&) { handler.didReceiveNetworkChangedNotification(context); });
}

ExecutionOutcome RequestExecutor::guarded(std::string_view what,
                                          const std::function<void(ExecutionOutcome&)>& call) {
  ExecutionOutcome outcome;
  const RequestLog log(platform_.log);
  const auto failed = [&](const char* problem) {
    outcome.kind = ExecutionOutcome::Kind::failed;
    outcome.problem = fill("the plug-in failed while it handled \"%@\": %@", {what, problem});
    logError_source(outcome.problem, "");
  };
  journal_.startRequest();
  try {
    call(outcome);
  } catch (const std::exception& problem) {
    failed(problem.what());
  } catch (...) {
    failed("unknown exception");
  }
  journal_.finishRequest(outcome.kind == ExecutionOutcome::Kind::failed);
  outcome.log = log.lines();
  return outcome;
}

void RequestExecutor::call(PluginRequestHandler& handler, std::string_view command, const Dictionary& request,
                           ExecutionOutcome& outcome) {
  const auto operation = handler.operationForCommand(command);
  if (!operation) {
    outcome.kind = ExecutionOutcome::Kind::unknownCommand;
    return;
  }
  // A state that is asked for tells its failure through errno, which must not be one of an earlier request.
  errno = 0;
  auto answer = operation(request);
  if (!answer) {
    outcome.kind = ExecutionOutcome::Kind::noAnswer;
    logError_source(fill("the plug-in gave no answer to \"%@\"", {command}), "");
    return;
  }
  outcome.answer = std::move(*answer);
}

void RequestExecutor::writeSetupMarker() {
  FileSystem& files = platform_.files;
  if (files.exists(kSetupMarker)) return;
  const std::string directory = directoryOf(kSetupMarker);
  if (!files.exists(directory)) {
    const auto made = files.createDirectory(directory, {std::nullopt, std::nullopt, 0755}, true);
    if (!made && made.error().code() != EEXIST) {
      logError_source(fill("cannot make %@: %@", {directory, made.error().description()}), "");
      return;
    }
  }
  auto written = files.createFile(kSetupMarker, "", {std::nullopt, std::nullopt, 0644}, Flush::now);
  if (written) written = files.syncDirectory(directory);
  if (!written) {
    logError_source(fill("cannot write %@: %@", {kSetupMarker, written.error().description()}), "");
  }
}

}  // namespace tessard
